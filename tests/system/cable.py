"""A cable between the sandbox's network and one more."""
import subprocess

from other_network import OtherNetwork, run

HERE, THERE = "10.77.0.1", "10.77.0.2"


class Cable:
    """Its ends are the interfaces `near` and `far`, the latter in the `other` network."""

    def __init__(self):
        self.other = OtherNetwork()
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
        return self.other.enter()

    def there(self, *command):
        return self.other.run(*command)

    def end(self):
        subprocess.run(["ip", "link", "del", "near"], check=False)
        self.other.end()
