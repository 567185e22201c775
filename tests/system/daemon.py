"""The real daemon, driven as an operator drives it."""
import http.client
import json
import os
import pathlib
import signal
import socket
import subprocess

from programs import BIN, DEADLINE, wait_until
from sessions import newest_session_event, session_lines

MIRELCLIENT = BIN / "mirelclient"
DAEMON_ROOT = pathlib.Path("/usr/local/daemon")
APP_DIR = DAEMON_ROOT / "mirelclient"
CONFIG_DIR = APP_DIR / "mirelclient"
SESSIONS = CONFIG_DIR / "sessions.log"
CRASHES = CONFIG_DIR / "crash.log"
STORE = APP_DIR / "store"
DOWNLOADS = APP_DIR / "downloads"
LOG_ROOT = pathlib.Path("/mnt/nand_disk_ext/mirelclient")
LOG_FILE = LOG_ROOT / "mirelclient/app.log"
LOCK = pathlib.Path("/tmp/mirelclient.lock")
WEB_PORT = 7080
STOPPED_BY_SIGTERM = 128 + signal.SIGTERM


def run_to_its_end(*arguments, **options):
    """A start that is to end by itself."""
    return subprocess.run([MIRELCLIENT, *arguments], capture_output=True, text=True, timeout=DEADLINE,
                          stdin=subprocess.DEVNULL, **options)


class Answer:
    def __init__(self, response):
        self.status = response.status
        self.reason = response.reason
        self.content_type = response.getheader("Content-Type")
        self.text = response.read().decode("utf-8", "surrogateescape")

    def json(self):
        return json.loads(self.text)


class Daemon:
    def __init__(self, output_path):
        self.output_path = output_path
        self.program = MIRELCLIENT
        self.process = None
        self.sessions_log = SESSIONS

    # -- life --

    def configure(self, **fields):
        CONFIG_DIR.mkdir(parents=True, exist_ok=True)
        document = {name: {"value": value} for name, value in fields.items()}
        (CONFIG_DIR / "config.json").write_text(json.dumps(document))
        self.sessions_log = pathlib.Path(fields.get("app_dir", APP_DIR),
                                         fields.get("app_name", "mirelclient"), "sessions.log")

    def bootstrap(self, entries, **fields):
        CONFIG_DIR.mkdir(parents=True, exist_ok=True)
        path = CONFIG_DIR / "bootstrap.json"
        path.write_text(entries if isinstance(entries, str) else json.dumps(entries))
        self.configure(bootstrap_package_list_path=str(path), **fields)

    def spawn(self, environment=None, arguments=(), **popen):
        """Starts the process without waiting for anything."""
        assert self.process is None
        with open(self.output_path, "ab") as output:
            self.process = subprocess.Popen(
                [self.program, *arguments], stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT, env={**os.environ, **(environment or {})}, **popen)
        return self

    def start(self, **options):
        self.spawn(**options)
        self.wait_ready()
        return self

    def wait_ready(self):
        def answers():
            assert self.process.poll() is None, f"the daemon ended: {self.process.returncode}\n{self.output()}"
            try:
                return self.get("/api/self").status == 200
            except OSError:
                return False
        wait_until(answers, "the daemon answers")
        self.wait_running()

    def wait_running(self):
        """Waits for the line of its start, from which on a stop signal ends it: one that comes between
        the first answer and this line counts for the exit code alone."""
        wait_until(lambda: self.newest_session_event() == "start", "the start is in the session history")

    def newest_session_event(self):
        """Of this process; an image that has replaced it after a crash is the same process."""
        return newest_session_event(self.sessions_log, self.pid)

    def stop(self, signal_number=signal.SIGTERM):
        self.process.send_signal(signal_number)
        code = self.process.wait(DEADLINE)
        self.process = None
        return code

    def crash(self, signal_number=signal.SIGSEGV):
        """Crashes the process and waits for the image that replaces it."""
        before = len(self.sessions())
        os.kill(self.pid, signal_number)
        wait_until(lambda: len(self.sessions()) == before + 2, "the next session is in the history")
        self.wait_ready()

    def starts(self):
        return sum(line["event"] == "start" for line in self.sessions())

    def sessions(self):
        return session_lines(self.sessions_log, self.pid)

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None

    @property
    def pid(self):
        return self.process.pid

    # -- HTTP --

    def request(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", WEB_PORT, timeout=DEADLINE)
        try:
            if isinstance(body, (dict, list)):
                body = json.dumps(body)
            connection.request(method, path, body)
            return Answer(connection.getresponse())
        finally:
            connection.close()

    def get(self, path):
        return self.request("GET", path)

    def post(self, path, body=None):
        return self.request("POST", path, body)

    def raw(self, data):
        """The exact bytes of the answer to the given bytes."""
        with socket.create_connection(("127.0.0.1", WEB_PORT), timeout=DEADLINE) as connection:
            connection.sendall(data)
            answer = b""
            while chunk := connection.recv(65536):
                answer += chunk
            return answer

    # -- what it says --

    def packages(self):
        answer = self.get("/api/packages")
        assert answer.status == 200
        return {entry["name"]: entry for entry in answer.json()["body"]}

    def status(self, name):
        return self.packages()[name]["status"]

    def wait_status(self, name, status):
        return wait_until(lambda: self.packages().get(name, {}).get("status") == status,
                          f"{name} is {status}")

    def output(self):
        return self.output_path.read_text(errors="replace") if self.output_path.exists() else ""

    def log(self):
        return LOG_FILE.read_text(errors="replace") if LOG_FILE.exists() else ""

    def wait_log(self, text):
        return wait_until(lambda: text in self.log(), f"the log holds {text!r}")

    def registry_file(self):
        return json.loads((STORE / "registry.json").read_text())

    def children(self):
        """Of all its threads; one that ends meanwhile hands its children to another one, and they are
        looked for anew."""
        while True:
            tasks = pathlib.Path(f"/proc/{self.pid}/task")
            try:
                return {int(pid) for task in tasks.iterdir() for pid in (task / "children").read_text().split()}
            except (FileNotFoundError, ProcessLookupError):
                assert self.process.poll() is None, "the daemon has ended"
