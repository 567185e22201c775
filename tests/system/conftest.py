"""Fixtures of the system tests: the real daemon on its stock paths and ports, a real registry.

Every test file runs in a sandbox of its own (scripts/run-system-tests), so a test may kill, fill and
wipe what it likes; each test begins with empty folders.
"""
import contextlib
import os
import shutil
import subprocess

import machine
import pytest
from bus_peer import PEER, BusPeer
from crash_log import build_stamp
from daemon import Daemon
from frame_app import FRAME_LOG_ROOT, FRAME_PROGRAM, FrameApp
from load import Clients, HangingRegistry
from programs import is_sanitized
from registry import Registry
from registry_support import free_port, running_mirelserver


def pytest_configure(config):
    addresses = subprocess.run(["ip", "-o", "addr"], capture_output=True, text=True).stdout
    if any(" lo " not in line for line in addresses.splitlines()):
        pytest.exit("run the system tests through scripts/run-system-tests: they need a sandbox", 2)
    # A process that ends by a crash leaves its threads as they are.
    os.environ["TSAN_OPTIONS"] = "report_thread_leaks=0:" + os.environ.get("TSAN_OPTIONS", "")
    config.addinivalue_line("markers", "preloads_allocator: needs a program without an allocator of its own")


def pytest_collection_modifyitems(config, items):
    """A sanitizer's program has its own allocator, which no preloaded library gets in front of: what
    has to preload one is no test there."""
    if not is_sanitized():
        return
    left_out = [item for item in items if item.get_closest_marker("preloads_allocator")]
    items[:] = [item for item in items if item not in left_out]
    config.hook.pytest_deselected(items=left_out)


fresh_machine = pytest.fixture(machine.fresh, autouse=True)


@pytest.fixture
def stack():
    """For what a test starts and ends."""
    with contextlib.ExitStack() as stack:
        yield stack


@pytest.fixture
def peer():
    """A node of the tests' own on the bus."""
    with BusPeer(PEER) as peer:
        yield peer


def killed_in_the_end(program):
    yield program
    program.kill()


@pytest.fixture
def daemon(tmp_path):
    yield from killed_in_the_end(Daemon(tmp_path / "daemon.out"))


@pytest.fixture
def second(tmp_path):
    """Another daemon beside the first one."""
    yield from killed_in_the_end(Daemon(tmp_path / "second.out"))


@pytest.fixture
def sleeper():
    """A process that has nothing to do with any of this."""
    process = subprocess.Popen(["sleep", "1000"])
    yield process
    process.kill()
    process.wait()


@pytest.fixture
def frame(tmp_path):
    """Spawns the test application: arguments, and variables of the environment by name."""
    programs = []

    def start(*arguments, **environment):
        programs.append(FrameApp(tmp_path))
        return programs[-1].spawn(*arguments, environment=environment)

    yield start
    for program in programs:
        program.kill()


@pytest.fixture
def app(tmp_path):
    """The test application, not yet started."""
    yield from killed_in_the_end(FrameApp(tmp_path))


@pytest.fixture
def copied(tmp_path):
    """The application out of a file that may be spoiled while it runs."""
    program = tmp_path / "copy" / FRAME_PROGRAM.name
    program.parent.mkdir()
    shutil.copy(FRAME_PROGRAM, program)
    yield from killed_in_the_end(FrameApp(tmp_path, program))


@pytest.fixture(scope="session")
def stamp():
    """What crash records say about the application's build."""
    FRAME_LOG_ROOT.mkdir(parents=True, exist_ok=True)
    return build_stamp(FRAME_PROGRAM)


@pytest.fixture
def registry(tmp_path):
    registry = Registry(tmp_path)
    yield registry
    registry.stop()


@pytest.fixture
def server(tmp_path):
    """A mirelserver that machines can dial."""
    (tmp_path / "registry").mkdir()
    tunnel_port = free_port()
    with running_mirelserver(tmp_path / "registry", "--tunnel-port", str(tunnel_port)) as server:
        server.tunnel_port = tunnel_port
        yield server


@pytest.fixture
def registry_without_end():
    registry = HangingRegistry()
    yield registry
    registry.end()


@pytest.fixture
def clients():
    clients = Clients([("GET", "/api/packages"), ("GET", "/api/self/config"), ("GET", "/"),
                       ("POST", "/api/packages/changed/launch-args", '{"args":["a","b"]}'),
                       ("GET", "/api/packages/changed/manifest"),
                       ("POST", "/api/packages/restarted/start")], count=6)
    yield clients
    clients.end()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failure prints the daemon's log."""
    report = (yield).get_result()
    daemon = item.funcargs.get("daemon") if hasattr(item, "funcargs") else None
    if report.failed and daemon is not None:
        report.sections.append(("daemon output", daemon.output()[-4000:]))
        report.sections.append(("daemon log", daemon.log()[-4000:]))
    app = item.funcargs.get("app") if hasattr(item, "funcargs") else None
    if report.failed and app is not None:
        report.sections.append(("frame_app errors", app.errors()[-4000:]))
