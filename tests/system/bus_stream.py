"""Nodes that send numbered messages and check them, and a relay that damages what it passes on."""
import collections
import subprocess

from processes import descriptors, thread_names
from programs import BIN, DEADLINE, wait_until

STREAM = BIN / "bus_stream"
RELAY = BIN / "bus_relay"
TOPIC = "stream.numbers"
RECEIVER, FIRST_SENDER = 1001, 2001

Counts = collections.namedtuple("Counts", "received damaged repeated late")
Passed = collections.namedtuple("Passed", "came lost duplicated reordered cut corrupted")


class Program:
    """Answers each line by a line, ends with its input, and then has had no trouble."""

    def __init__(self, *command):
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.pid = self.process.pid

    def __enter__(self):
        assert self.process.stdout.readline() == "ready\n"
        return self

    def __exit__(self, kind, *_):
        self.process.stdin.close()
        self.process.stdout.close()
        try:
            assert self.process.wait(DEADLINE) == 0 or kind
        finally:
            self.process.kill()

    def ask(self, *words):
        self.process.stdin.write(" ".join(map(str, words)) + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().split()


class Receiver(Program):
    def __init__(self, network=None, topic=TOPIC):
        super().__init__(*(network.enter() if network else []), STREAM, "receive", RECEIVER, topic)

    def counts(self):
        return Counts(*map(int, self.ask("counts")[1::2]))

    def memory(self):
        """In KiB, without what lies free."""
        return int(self.ask("memory")[1])

    def footprint(self):
        return descriptors(self.pid), thread_names(self.pid)


class Relay(Program):
    def __init__(self, network, seed):
        super().__init__(RELAY, network.pid, seed)

    def damage(self, loss=0, duplication=0, reordering=0, cut=0, corruption=0):
        """From now on, in place of what was before."""
        self.ask("damage", loss, duplication, reordering, cut, corruption)

    def counts(self):
        return Passed(*map(int, self.ask("counts")[1:]))


class Sender:
    """Nodes that come, send, and go. No two messages of theirs have the same number, and no two nodes
    the same address: a node counts its messages from one, and what is left unfinished of the last
    node's would be taken for the next one's."""

    def __init__(self, topic=TOPIC):
        self.topic = topic
        self.next = 1
        self.address = FIRST_SENDER

    def send(self, sizes, count, pace):
        """`pace`: the microseconds between two messages, or "acknowledged"."""
        done = self.run("send", *self.spoken(sizes, count), pace, self.next)
        assert done == ["sent", str(count)]
        self.next += count

    def request(self, sizes, count):
        """How many were answered, and how many answers were not what was asked."""
        done = self.run("request", *self.spoken(sizes, count))
        return int(done[1]), int(done[3])

    @staticmethod
    def spoken(sizes, count):
        return ",".join(map(str, sizes)), count

    def run(self, role, *words):
        command = [STREAM, role, self.address, self.topic, *words]
        self.address += 1
        done = subprocess.run([*map(str, command)], stdout=subprocess.PIPE, text=True, check=True)
        return done.stdout.split()

    def wait_until_handled(self):
        """Returns when the receiver has seen all that was sent before."""
        wait_until(lambda: self.request([16], 1) == (1, 0), "the receiver answers")
