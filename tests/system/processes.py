"""What the kernel tells of running processes."""
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess


def is_alive(pid):
    """Not gone, and no zombie that its parent has not waited for yet."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1][0] != "Z"
    except OSError:
        return False


def jobs_of(sessions):
    """The living processes of those sessions."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        try:
            fields = (entry / "stat").read_text().rsplit(") ", 1)[1].split()
        except (OSError, IndexError):
            continue
        if int(fields[3]) in sessions and fields[0] != "Z":
            found.append(int(entry.name))
    return found


def descriptors(pid):
    return sorted(os.listdir(f"/proc/{pid}/fd"), key=int)


# The column of the inode in the kernel's tables of sockets.
SOCKET_TABLES = {"tcp": 9, "tcp6": 9, "udp": 9, "udp6": 9, "unix": 6}


def socket_kinds(pid):
    """By inode, what the sockets of its network are."""
    kinds = {}
    for kind, column in SOCKET_TABLES.items():
        lines = pathlib.Path(f"/proc/{pid}/net/{kind}").read_text().splitlines()[1:]
        kinds.update((line.split()[column], kind) for line in lines)
    return kinds


def open_files(pid):
    """What each of its descriptors stands for, without the numbers of descriptors, sockets and pipes:
    one that replaces another is no other."""
    targets = []
    for descriptor in descriptors(pid):
        with contextlib.suppress(FileNotFoundError):
            targets.append(os.readlink(f"/proc/{pid}/fd/{descriptor}"))
    kinds = socket_kinds(pid)
    named = [target.rstrip("]").partition(":[") for target in targets]
    return sorted({"socket": kinds.get(number, "socket"), "pipe": "pipe"}.get(kind, kind + number)
                  for kind, _, number in named)


def terminal_masters(pid):
    """The master sides of terminals that it holds."""
    masters = []
    for descriptor in descriptors(pid):
        with contextlib.suppress(OSError):
            target = os.readlink(f"/proc/{pid}/fd/{descriptor}")
            if target.endswith("ptmx"):
                masters.append(descriptor)
    return masters


def thread_names(pid):
    names = []
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        with contextlib.suppress(OSError):
            names.append((task / "comm").read_text().strip())
    return sorted(names)


def memory(pid):
    """The bytes in memory that are its own: no file's, and shared with nobody."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(status.partition("RssAnon:")[2].split()[0]) * 1024


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


def process_table():
    """For a report: who runs, and on what each waits."""
    return subprocess.run(["ps", "-eo", "pid,ppid,sid,tty,stat,wchan:24,args"], capture_output=True, text=True).stdout


def end_instances(*programs):
    """Kills every process of these programs."""
    for program in programs:
        for pid in instances(os.path.realpath(shutil.which(program))):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)


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
