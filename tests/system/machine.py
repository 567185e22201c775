"""The machine that the tests have for themselves: empty folders at first, and nothing left over in the end."""
import os
import pathlib
import shutil

from daemon import LOG_ROOT


def wipe(folder):
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    for entry in folder.iterdir():
        if entry.is_dir() and not entry.is_symlink():
            shutil.rmtree(entry, ignore_errors=True)
        else:
            entry.unlink()


def end_leftovers():
    """Ends what earlier daemons left running, as they should: their packages."""
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit() or int(entry.name) in (1, os.getpid(), os.getppid()):
            continue
        try:
            executable = os.readlink(entry / "exe")
            directory = os.readlink(entry / "cwd")
        except OSError:
            continue
        if directory.startswith("/usr/local/daemon/") or executable.startswith("/usr/local/daemon/"):
            try:
                os.kill(int(entry.name), 9)
            except ProcessLookupError:
                pass


def fresh():
    """A fixture: of each test, unless a file says that all of its tests share one."""
    wipe("/usr/local/daemon")
    wipe("/mnt")
    wipe("/tmp/mirelclient")
    LOG_ROOT.mkdir(parents=True)
    yield
    end_leftovers()
