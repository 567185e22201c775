"""A network beside the sandbox's own, with nothing that joins the two."""
import os
import subprocess

from programs import wait_until


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


class OtherNetwork:
    """It lives as long as a process that does nothing else than be in it."""

    def __init__(self):
        self.keeper = subprocess.Popen(["unshare", "--net", "sleep", "1000"])
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{self.pid}/ns/net") != own, "there is another network")

    @property
    def pid(self):
        return self.keeper.pid

    def enter(self):
        """What a command begins with that runs there."""
        return ["nsenter", f"--net=/proc/{self.pid}/ns/net"]

    def run(self, *command):
        return run(*self.enter(), *command)

    def set_up_loopback(self):
        """For the bus, as in the sandbox's own network."""
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "link", "set", "lo", "multicast", "on")
        self.run("ip", "route", "add", "224.0.0.0/4", "dev", "lo")

    def end(self):
        self.keeper.kill()
        self.keeper.wait()
