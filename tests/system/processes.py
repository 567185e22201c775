"""What the kernel tells of running processes."""
import os
import pathlib
import signal


def environment_of(pid):
    entries = pathlib.Path(f"/proc/{pid}/environ").read_bytes().decode().split("\0")
    return dict(entry.split("=", 1) for entry in entries if entry)


def instances(program):
    """The processes that run a program, without those that have ended and await their parent."""
    found = set()
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{name}/exe") == str(program):
                found.add(int(name))
        except OSError:
            pass
    return found


def threads_in_system_call(pid, name, number):
    """The threads of that name that are in that system call at the moment."""
    found = []
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            if (task / "comm").read_text() == name + "\n" and \
                    (task / "syscall").read_text().split()[0] == str(number):
                found.append(int(task.name))
        except OSError:
            pass  # it has ended
    return found


def busy_below(folder):
    """The processes that have the folder in their command line: transfers, unpacking, scripts."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and str(folder).encode() in (entry / "cmdline").read_bytes():
                found.append(entry.name)
        except OSError:
            pass
    return found


def end_orphans(folder):
    """Ends what the killed daemon's commands left at work in a folder."""
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            busy = os.readlink(f"/proc/{name}/cwd").startswith(str(folder)) or \
                str(folder).encode() in open(f"/proc/{name}/cmdline", "rb").read()
            if busy and int(name) not in (1, os.getpid()):
                os.kill(int(name), signal.SIGKILL)
        except OSError:
            pass
