"""The test application on the frame, told by lines what to do."""
import os
import pathlib
import signal
import subprocess

from programs import BIN, DEADLINE, wait_until
from sessions import session_lines

FRAME_DIR = pathlib.Path("/usr/local/daemon/frame_app")
FRAME_DATA = FRAME_DIR / "frame_app"
FRAME_LOG = FRAME_DIR / "log/frame_app/app.log"
FRAME_LOCK = pathlib.Path("/tmp/frame_app.lock")
PROGRAM = BIN / "frame_app"


class FrameProgram:
    """One process of it; its standard streams go to and come from files in `folder`."""

    count = 0

    def __init__(self, folder, *arguments, **environment):
        FrameProgram.count += 1
        self.out = pathlib.Path(folder) / f"frame-{FrameProgram.count}.out"
        self.err = pathlib.Path(folder) / f"frame-{FrameProgram.count}.err"
        (FRAME_DIR / "log").mkdir(parents=True, exist_ok=True)
        with open(self.out, "wb") as out, open(self.err, "wb") as err:
            self.process = subprocess.Popen([PROGRAM, *arguments], stdin=subprocess.PIPE, stdout=out,
                                            stderr=err, env={**os.environ, **environment})
        self.pid = self.process.pid

    def stdout(self):
        return self.out.read_text()

    def stderr(self):
        return self.err.read_text()

    def starts(self):
        return self.stdout().splitlines().count("ready")

    def wait_ready(self, times=1):
        def is_ready():
            assert self.process.poll() is None, f"it ended: {self.process.returncode}\n{self.stderr()}"
            return self.starts() >= times
        wait_until(is_ready, "the application is ready")
        return self

    def tell(self, command):
        self.process.stdin.write(f"{command}\n".encode())
        self.process.stdin.flush()

    def do(self, command):
        """Tells it, and waits until it has obeyed."""
        before = self.stdout().splitlines().count("ok")
        self.tell(command)
        wait_until(lambda: self.stdout().splitlines().count("ok") > before, f"it has obeyed: {command}")

    def wait(self):
        return self.process.wait(DEADLINE)

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.wait()

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdin.close()

    def sessions(self):
        return session_lines(FRAME_DATA / "sessions.log", self.pid)


def frame_log():
    return FRAME_LOG.read_text(errors="replace") if FRAME_LOG.exists() else ""
