"""A node that is nothing but a node (tests/programs/bus_node.cpp), driven line by line."""
import subprocess
import threading
import zlib

from programs import BIN, DEADLINE

BUS_NODE = BIN / "bus_node"


def in_hex(data):
    return data.hex() or "-"


def summary(data):
    """As the program tells of bytes."""
    return f"{len(data)} {zlib.crc32(data)}"


class BusProgram:
    """One process of it. What happens on the bus is in `heard` as it comes; commands are answered in
    their order. `inside` is what its command begins with."""

    def __init__(self, address, name, inside=(), **options):
        arguments = [text for option, value in options.items()
                     for text in ("--" + option.replace("_", "-"), str(value))]
        self.process = subprocess.Popen([*inside, BUS_NODE, str(address), name, *arguments], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True, bufsize=1)
        self.changed = threading.Condition()
        self.heard = []
        self.answers = []
        self.has_ended = False
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        self.wait_heard("ready")

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind:
            self.kill()
        else:
            assert self.quit() == 0

    def _read(self):
        for line in self.process.stdout:
            line = line.rstrip("\n")
            is_answer = line == "ok" or line.startswith(("ok ", "error "))
            with self.changed:
                (self.answers if is_answer else self.heard).append(line)
                self.changed.notify_all()
        with self.changed:
            self.has_ended = True
            self.changed.notify_all()

    def _wait(self, condition, what):
        with self.changed:
            self.changed.wait_for(lambda: condition() or self.has_ended, DEADLINE)
            assert condition(), f"waited in vain until {what}; heard: {self.heard}, {self.answers}"

    # -- commands --

    def tell(self, command):
        """Gives a command whose answer is asked for later, if at all."""
        self.process.stdin.write(command + "\n")

    def answer(self):
        self._wait(lambda: self.answers, "a command is answered")
        answer = self.answers.pop(0)
        assert answer.startswith("ok"), answer
        return answer[3:]

    def do(self, command):
        self.tell(command)
        return self.answer()

    def fails(self, command):
        """A command that the program refuses; its words."""
        self.tell(command)
        self._wait(lambda: self.answers, "a command is refused")
        answer = self.answers.pop(0)
        assert answer.startswith("error "), answer
        return answer.removeprefix("error ")

    def printed_by(self, command):
        """What a command prints that has lines of its own before its answer."""
        before = len(self.heard)
        self.do(command)
        return self.heard[before:]

    def join(self):
        """Its address and its name."""
        return who(self.do("join"))

    def joined(self):
        self.join()
        return self

    # -- what it hears --

    def wait_heard(self, line, count=1):
        self._wait(lambda: self.heard.count(line) >= count, f"it prints {line!r}")

    def all_heard(self, word):
        """The rest of the lines that begin with that word."""
        return [line.removeprefix(word + " ") for line in list(self.heard) if line.startswith(word + " ")]

    def warnings(self):
        return self.all_heard("warning")

    def devices(self):
        """Name by address, itself included."""
        lines = self.printed_by("devices")
        return dict(who(line.removeprefix("device ")) for line in lines if line.startswith("device "))

    # -- the end --

    def quit(self):
        """The exit code."""
        self.tell("quit")
        code = self.process.wait(DEADLINE)
        self.reader.join()
        self.process.stdin.close()
        self.process.stdout.close()
        return code

    def kill(self):
        self.process.kill()
        self.process.wait()


def who(text):
    address, _, name = text.partition(" ")
    return int(address), name
