"""Packages put into the store by hand, as an earlier daemon left them."""
import stat

from daemon import STORE


def install_path(name, version="1.0.0"):
    return STORE / "store" / name / version


def json_text(text):
    """JSON for the daemon's own parser: raw bytes, only quotes and backslashes escaped."""
    raw = text if isinstance(text, bytes) else text.encode()
    return b'"' + raw.replace(b"\\", b"\\\\").replace(b'"', b'\\"') + b'"'


def entry_text(name, version, install_path, stopped=False, executable="run", args=(), arch="any"):
    return (b'{"administratively_stopped":' + (b"true" if stopped else b"false")
            + b',"arch":' + json_text(arch) + b',"install_path":' + json_text(install_path)
            + b',"launch_args":[' + b",".join(json_text(arg) for arg in args)
            + b'],"manifest":{"executable":' + json_text(executable) + b'},"name":' + json_text(name)
            + b',"version":' + json_text(version) + b"}")


def write_registry(*entries):
    STORE.mkdir(parents=True, exist_ok=True)
    (STORE / "registry.json").write_bytes(b"[" + b",".join(entries) + b"]")


def put_into_store(name, version, script):
    """The folder of a package whose program is a shell script."""
    folder = install_path(name, version)
    folder.mkdir(parents=True)
    program = folder / "run"
    program.write_text(script)
    program.chmod(program.stat().st_mode | stat.S_IXUSR)
    return folder


def preload(_daemon, name, script, version="1.0.0", **options):
    """One installed package whose program is a shell script."""
    folder = put_into_store(name, version, script)
    write_registry(entry_text(name, version, str(folder), **options))
    return folder
