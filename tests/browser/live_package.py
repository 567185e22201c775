"""The example application (examples/portwatch) as a package that a machine has fetched, installed and runs,
for tests that look at it through the dashboard."""
import os
import shutil

from portwatch_app import PACKAGE, PORTWATCH, PORTWATCH_DATA, PortWatch, last_check
from programs import BIN, wait_until
from registry import ARCH, entry, run

LOG = PORTWATCH_DATA / "app.log"
NAME = "portwatch"


def build_artifact(folder):
    """As somebody who packages it does."""
    content = folder / NAME
    shutil.copytree(PACKAGE, content)
    shutil.copy(PORTWATCH, content)
    artifact = folder / f"{NAME}.tar.gz"
    run(BIN / "mirelpack", "build", content, "--executable", "start.sh", "--description", "Watches TCP endpoints",
        "-o", artifact)
    return artifact


class LivePackage:
    """The package, and the application that runs of it."""

    def __init__(self, daemon, registry, artifact):
        self.daemon = daemon
        self.registry = registry
        self.artifact = artifact

    def prepare(self, **fields):
        """What an earlier installation has left: settings. Without any, it makes one round when it starts."""
        PortWatch(self.registry.work, None).configure(**fields)

    def start(self):
        """Starts the machine on which it is to be installed."""
        if not (PORTWATCH_DATA / "config.json").exists():
            self.prepare()
        run(BIN / "mirelpack", "publish", self.artifact, "--registry", self.registry.folder, "--name", NAME,
            "--channel", "main", "--version", "1.0.0", "--arch", ARCH)
        self.registry.serve()
        self.daemon.bootstrap([entry(NAME)], registry_url=self.registry.url)
        self.daemon.start()
        return self.wait_ready()

    def wait_ready(self, starts=1):
        """Waits for its session of that number, for all that it serves, and for the first round of the session."""
        def answers():
            sessions = self.get("/sessions").json()["sessions"]
            return (sum(session["is_start"] for session in sessions) == starts
                    and sessions[-1]["is_start"]
                    and all(self.get(path).status == 200 for path in ("/config", "/log/info", "/db")))
        wait_until(answers, f"{NAME} answers in its session {starts}")
        wait_until(lambda: last_check() > 0, "its targets have been checked")
        return self

    def get(self, path):
        return self.daemon.get(f"/api/packages/{NAME}{path}")

    def pid(self):
        return next(pid for pid in self.daemon.children() if os.readlink(f"/proc/{pid}/exe").endswith(f"/{NAME}"))
