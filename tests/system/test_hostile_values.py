"""Values that reach a shell alter no command: names, versions, arches and paths of every kind."""
import os
import random
import urllib.parse

import pytest
from daemon import DAEMON_ROOT, STORE
from preloaded import entry_text, write_registry

# uninstall.sh reports what it was given, byte for byte, into the file named by the number it holds.
REPORT = b"""#!/bin/sh
{ printf '%s\\0' "$MIREL_PACKAGE_NAME" "$MIREL_PACKAGE_VERSION" "$MIREL_PACKAGE_ARCH" \
"$MIREL_INSTALL_PATH" "$MIREL_PACKAGE_ACTION" "$PWD"; } >/usr/local/daemon/reports/NUMBER
"""


def uninstall_all(daemon, names, version=b"1", arch=b"a"):
    """Preloads a package per name, has the daemon uninstall each, and checks what its script saw."""
    reports = DAEMON_ROOT / "reports"
    reports.mkdir()
    canary = DAEMON_ROOT / "canary"
    canary.write_text("alive")
    entries, paths = [], []
    for number, name in enumerate(names):
        path = bytes(STORE) + b"/store/" + str(number).encode() + b"-" + name.replace(b"/", b"_")
        paths.append(path)
        daemon_path = path.decode("utf-8", "surrogateescape")
        os.makedirs(daemon_path)
        with open(daemon_path + "/uninstall.sh", "wb") as script:
            script.write(REPORT.replace(b"NUMBER", str(number).encode()))
        entries.append(entry_text(name, version, path, stopped=True, arch=arch))
    write_registry(*entries)
    daemon.start()
    assert len(daemon.packages()) == len(names)
    for number, name in enumerate(names):
        answer = daemon.post(f"/api/packages/{urllib.parse.quote(name, safe='')}/uninstall")
        assert answer.status == 200, (name, answer.text)
        told = (reports / str(number)).read_bytes().split(b"\0")
        assert told == [name, version, arch, paths[number], b"uninstall", paths[number], b""], name
    assert daemon.packages() == {} and daemon.registry_file() == []
    assert canary.read_text() == "alive"
    assert sorted(entry.name for entry in DAEMON_ROOT.iterdir()) == ["canary", "mirelclient", "reports"]
    assert list((STORE / "store").iterdir()) == []


def test_every_byte_value_but_nul_and_the_slash(daemon):
    # A slash would part the path of the request's URL.
    uninstall_all(daemon, [b"a" + bytes([value]) + b"b" for value in range(1, 256) if value != ord("/")])


@pytest.mark.parametrize("text", [
    b"'; rm -rf /usr/local/daemon/canary; '", b"$(rm /usr/local/daemon/canary)", b"`rm -f /usr/local/daemon/canary`",
    b"'\\''", b"' '", b"\"'\"'", b"-rf", b"--", b"a\nrm -rf /usr/local/daemon/canary\n", b"\\", b"'", b"''''",
    b"a'$IFS'b", b"\xff\xfe'\x80", b"!history", b"~root", b"*", b"{a,b}", b"\x1b]0;x\x07"])
def test_hostile_texts_in_version_and_arch(daemon, text):
    uninstall_all(daemon, [b"p", b"it's"], version=text, arch=text)


def test_a_thousand_random_names(daemon):
    generator = random.Random(20240131)
    names = set()
    while len(names) < 1000:
        size = generator.randrange(1, 24)
        names.add(bytes(generator.choice(b"'\"\\$`;&|<>(){}[]*?!~#% \t\n\r\x01\x7f\xc3\xa9\xffab-")
                        for _ in range(size)))
    uninstall_all(daemon, sorted(names), version=b"1'", arch=b"'$(x)'")
