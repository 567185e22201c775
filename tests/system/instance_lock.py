"""Others that hold the instance lock, and who holds or awaits it."""
import errno
import os
import pathlib
import pwd
import subprocess
import sys

from programs import DEADLINE, wait_until

# The arguments that choose a policy.
WAIT = [["--instance-policy=wait"], ["--instance-policy", "wait"], ["--instance-policy=1"],
        ["--instance-policy", "1"]]
KILL = [["--instance-policy=kill"], ["--instance-policy", "kill"], ["--instance-policy=2"],
        ["--instance-policy", "2"]]

USER = pwd.getpwuid(os.geteuid()).pw_name

HOLDER = """
import fcntl, os, signal, sys
path, text, ignores_sigterm = sys.argv[1:]
if ignores_sigterm == "True":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
lock = os.open(path, os.O_RDWR | os.O_CREAT, 0o666)
fcntl.flock(lock, fcntl.LOCK_EX)
os.ftruncate(lock, 0)
os.write(lock, text.replace("MY-PID", str(os.getpid())).encode())
print("held", flush=True)
while True:
    signal.pause()
"""


def holder_text(pid, program):
    return f"pid={pid}\npath={program}\nuser={USER}\n"


class Holder:
    """A process that holds a lock file and says `text` of itself ("MY-PID" becomes its own id)."""

    def __init__(self, path, text="pid=MY-PID\npath=/bin/holder\nuser=nobody\n", ignores_sigterm=False):
        self.process = subprocess.Popen([sys.executable, "-c", HOLDER, path, text, str(ignores_sigterm)],
                                        stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "held\n"
        self.pid = self.process.pid
        self.text = text.replace("MY-PID", str(self.pid))

    def is_alive(self):
        return self.process.poll() is None

    def wait(self):
        return self.process.wait(DEADLINE)

    def end(self):
        if self.is_alive():
            self.process.kill()
        self.process.wait()
        self.process.stdout.close()


class Gate:
    """A FIFO that a program waits at, until it is opened."""

    def __init__(self, path):
        self.path = path
        self.writer = None
        os.mkfifo(path)

    def wait_for_program(self):
        def somebody_reads():
            try:
                self.writer = os.open(self.path, os.O_WRONLY | os.O_NONBLOCK)
                return True
            except OSError as error:
                assert error.errno == errno.ENXIO
                return False
        wait_until(somebody_reads, "the program waits at the gate")

    def open(self):
        os.close(self.writer)


def wait_until_it_waits_for_the_lock(pid):
    """The kernel lists those that wait behind a lock with an arrow."""
    def waits():
        lines = pathlib.Path("/proc/locks").read_text().splitlines()
        return any("-> FLOCK" in line and f" {pid} " in line for line in lines)
    wait_until(waits, "it waits for the lock")
