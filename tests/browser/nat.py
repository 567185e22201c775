"""A router with network address translation between this machine and a server, in network namespaces.

    machine (here)            router                              server
    192.168.7.2  inside ---- 192.168.7.1 | 198.51.100.1 ---- outside  198.51.100.2
"""
import os
import subprocess

from programs import wait_until

MACHINE, ROUTER_INSIDE = "192.168.7.2", "192.168.7.1"
ROUTER_OUTSIDE, SERVER = "198.51.100.1", "198.51.100.2"
# What comes from inside goes out under the router's own address; nothing comes in unasked.
RULES = """
table ip nat {
    chain leaving { type nat hook postrouting priority 100; oifname "outside" masquerade; }
}
table ip filter {
    chain passing {
        type filter hook forward priority 0;
        ct state established,related accept
        iifname "outside" reject with icmp type admin-prohibited
    }
}
"""


class Namespace:
    """A network of its own, which lasts as long as its process."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        self.path = f"/proc/{self.holder.pid}/ns/net"
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(self.path) != own, "there is another network")
        self.enter = ["nsenter", f"--net={self.path}"]
        self.run("ip", "link", "set", "lo", "up")

    def run(self, *command, **options):
        return subprocess.run([*self.enter, *command], check=True, capture_output=True, text=True, **options).stdout

    def end(self):
        self.holder.kill()
        self.holder.wait()


def run_here(*command):
    subprocess.run(command, check=True, capture_output=True)


def give_address(run, device, address):
    run("ip", "addr", "add", f"{address}/24", "dev", device)
    run("ip", "link", "set", device, "up")


class Nat:
    def __init__(self):
        self.router, self.server = Namespace(), Namespace()
        run_here("ip", "link", "add", "uplink", "type", "veth",
                 "peer", "name", "inside", "netns", str(self.router.holder.pid))
        self.router.run("ip", "link", "add", "outside", "type", "veth",
                        "peer", "name", "net", "netns", str(self.server.holder.pid))
        give_address(run_here, "uplink", MACHINE)
        give_address(self.router.run, "inside", ROUTER_INSIDE)
        give_address(self.router.run, "outside", ROUTER_OUTSIDE)
        give_address(self.server.run, "net", SERVER)
        run_here("ip", "route", "add", "default", "via", ROUTER_INSIDE)
        self.server.run("ip", "route", "add", "default", "via", ROUTER_OUTSIDE)
        self.router.run("sysctl", "-q", "-w", "net.ipv4.ip_forward=1")
        self.router.run("nft", "-f", "-", input=RULES)

    def end(self):
        subprocess.run(["ip", "link", "del", "uplink"], check=False)
        self.server.end()
        self.router.end()
