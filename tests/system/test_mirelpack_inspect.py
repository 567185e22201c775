"""mirelpack inspect: sound artifacts of any origin pass, damaged ones get a clear error."""
import gzip
import io
import json
import tarfile

import pytest
from registry_support import build, digest_of, make_program_folder, mirelpack, publish


def tar_of(members):
    """A tar of (name, bytes) pairs or ready `TarInfo` objects."""
    packed = io.BytesIO()
    with tarfile.open(fileobj=packed, mode="w") as tar:
        for member in members:
            if isinstance(member, tarfile.TarInfo):
                tar.addfile(member)
            else:
                info = tarfile.TarInfo(member[0])
                info.size, info.mode = len(member[1]), 0o755
                tar.addfile(info, io.BytesIO(member[1]))
    return packed.getvalue()


def link(name, target, kind=tarfile.SYMTYPE):
    info = tarfile.TarInfo(name)
    info.type, info.linkname = kind, target
    return info


def hand_made(payload_members, manifest=None, extra=(), executable="app", **changes):
    """An artifact made by hand, sound unless something is changed."""
    payload = payload_members if isinstance(payload_members, bytes) else tar_of(payload_members)
    text = json.dumps({"executable": executable, "sha256": digest_of(payload), **changes})
    members = [("manifest.json", text.encode() if manifest is None else manifest),
               ("payload.tar", payload), *extra]
    return gzip.compress(tar_of([m for m in members if m[1] is not None]))


APP = [("app", b"#!/bin/sh\n")]

SOUND = {
    "plain": hand_made(APP),
    "dotted names": hand_made([("./app", b"x")]),
    "executable through links": hand_made(
        [("v1/app", b"x"), link("now", "v1"), link("run", "./now/app")], executable="run"),
    "hard link": hand_made([("app", b"x"), link("same", "app", tarfile.LNKTYPE)],
                           executable="same"),
    "utf-8 names": hand_made([("app", b"x"), ("ünï" * 60, b"y")]),
    "payload first": gzip.compress(tar_of(
        [("payload.tar", tar_of(APP)),
         ("manifest.json", json.dumps({"executable": "app", "sha256": digest_of(tar_of(APP))})
          .encode())])),
}


@pytest.mark.parametrize("kind", SOUND)
def test_a_sound_artifact_of_any_origin_passes(tmp_path, kind):
    (tmp_path / "artifact").write_bytes(SOUND[kind])
    assert mirelpack("inspect", tmp_path / "artifact").returncode == 0


WHOLE = hand_made(APP)
DAMAGED = {
    "empty": (b"", "not a gzip file"),
    "text": (b"hello " * 1000, "not a gzip file"),
    "plain tar": (gzip.decompress(WHOLE), "not a gzip file"),
    "gzip of text": (gzip.compress(b"hello " * 1000), ""),
    "gzip of nothing": (gzip.compress(b""), ""),
    "truncated": (WHOLE[:-20], "ends too early"),
    "no trailer": (WHOLE[:-8], "ends too early"),
    "wrong checksum": (WHOLE[:-8] + b"\0\0\0\0" + WHOLE[-4:], "damaged gzip data"),
    "garbage behind": (WHOLE + b"garbage", "garbage follows"),
    "no manifest": (gzip.compress(tar_of([("payload.tar", tar_of(APP))])), "no manifest.json"),
    "no payload": (gzip.compress(tar_of([("manifest.json", b"{}")])), "no payload.tar"),
    "a third member": (hand_made(APP, extra=[("more", b"")]), "unexpected member \"more\""),
    "a member twice": (hand_made(APP, extra=[("payload.tar", b"")]), "unexpected member"),
    "a link as manifest": (gzip.compress(tar_of([link("manifest.json", "/etc/passwd")])),
                           "unexpected member"),
    "manifest no json": (hand_made(APP, manifest=b"{"), "malformed manifest.json"),
    "manifest no object": (hand_made(APP, manifest=b"[1]"), "not a JSON object"),
    "manifest not utf-8": (hand_made(APP, manifest=b'{"a":"\xff"}'), "not UTF-8"),
    "manifest huge": (hand_made(APP, manifest=b" " * 2_000_000), "larger than 1 MiB"),
    "no executable named": (hand_made(APP, executable=""), "names no \"executable\""),
    "executable missing": (hand_made(APP, executable="other"), "is not a file in the payload"),
    "executable a folder": (hand_made([("a/b", b"")], executable="a"), "is not a file"),
    "executable dangling": (hand_made([link("app", "gone")]), "is not a file"),
    "executable outside": (hand_made([link("app", "../../bin/sh")]), "is not a file"),
    "no digest": (hand_made(APP, sha256=""), "has no \"sha256\""),
    "other digest": (hand_made(APP, sha256="0" * 64), "the payload's SHA-256 is"),
    "upper-case digest": (hand_made(APP, sha256=digest_of(tar_of(APP)).upper()), "SHA-256"),
    "payload no tar": (hand_made(b"hello " * 1000), "payload.tar is damaged"),
    "payload empty": (hand_made(b""), "payload.tar is damaged"),
    "payload compressed": (hand_made(gzip.compress(tar_of(APP))), "payload.tar is damaged"),
    "payload truncated": (hand_made(tar_of([("app", b"x" * 5000)])[:2000]),
                          "payload.tar is damaged"),
    "payload climbs": (hand_made([*APP, ("../evil", b"")]), "lies outside"),
    "payload absolute": (hand_made([*APP, ("/evil", b"")]), "lies outside"),
    "payload replaces manifest": (hand_made([*APP, ("manifest.json", b"")]), "would replace"),
    "payload replaces itself": (hand_made([*APP, ("./payload.tar", b"")]), "would replace"),
}


@pytest.mark.parametrize("kind", DAMAGED)
def test_a_damaged_artifact_gets_a_clear_error_and_is_not_published(tmp_path, kind):
    data, reason = DAMAGED[kind]
    artifact = tmp_path / "artifact"
    artifact.write_bytes(data)
    done = mirelpack("inspect", artifact, check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith(f"mirelpack: {artifact}: ") and reason in done.stderr
    assert done.stderr.count("\n") == 1
    refused = publish(tmp_path / "registry", artifact, check=False)
    assert (refused.returncode, refused.stderr) == (1, done.stderr)
    assert [p.name for p in (tmp_path / "registry").iterdir() if p.name != ".lock"] in (
        [], [".incoming"])


def test_inspection_tells_what_an_artifact_holds(tmp_path):
    source = make_program_folder(tmp_path / "source")
    (source / "uninstall.sh").write_text("")
    build(source, tmp_path / "artifact", "--description", "Grüße, \"you\"")
    text = mirelpack("inspect", tmp_path / "artifact").stdout
    assert "Grüße, \"you\"" in text and "bin/hello" in text and "uninstall.sh" in text
    facts = json.loads(mirelpack("inspect", tmp_path / "artifact", "--json").stdout)
    assert facts["description"] == "Grüße, \"you\""
    assert (facts["files"], facts["has_install_script"], facts["has_uninstall_script"]) == (
        2, False, True)


def test_an_executable_without_its_bit_is_a_warning(tmp_path):
    info = tarfile.TarInfo("app")
    info.mode = 0o644
    (tmp_path / "artifact").write_bytes(hand_made([info]))
    done = mirelpack("inspect", tmp_path / "artifact")
    assert done.stderr == 'mirelpack: warning: the executable "app" has no execute bit\n'
