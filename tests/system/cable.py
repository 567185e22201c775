"""A cable between the sandbox's network and one more."""
import os
import subprocess

from programs import wait_until

HERE, THERE = "10.77.0.1", "10.77.0.2"


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


class Cable:
    """Its ends are the interfaces `near` and `far`, the latter in a network namespace of its own."""

    def __init__(self):
        self.other = subprocess.Popen(["unshare", "--net", "sleep", "1000"])
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{self.other.pid}/ns/net") != own, "there is another end")
        self.plug_in()

    def plug_in(self):
        run("ip", "link", "add", "near", "type", "veth", "peer", "name", "far", "netns", str(self.other.pid))
        run("ip", "addr", "add", f"{HERE}/24", "dev", "near")
        run("ip", "link", "set", "near", "up")
        self.there("ip", "addr", "add", f"{THERE}/24", "dev", "far")
        self.there("ip", "link", "set", "far", "up")

    @staticmethod
    def pull_out():
        """Both interfaces cease to exist."""
        run("ip", "link", "del", "near")

    @property
    def inside(self):
        """What a command begins with that runs at the far end."""
        return ["nsenter", f"--net=/proc/{self.other.pid}/ns/net"]

    def there(self, *command):
        return run(*self.inside, *command)

    def end(self):
        subprocess.run(["ip", "link", "del", "near"], check=False)
        self.other.kill()
        self.other.wait()
