"""What the daemon says of newer builds of itself, and its own updates that fail."""
import hashlib
import http.client
import os
import pathlib
import threading

import pytest
from daemon import MIRELCLIENT, STOPPED_BY_SIGTERM
from held_registry import HeldRegistry
from programs import BIN, wait_until
from registry import ARCH, artifact_of, replace_artifact


def publish_self(registry, *versions, **build):
    for version in versions:
        registry.publish("mirelclient", version, files={"mirelclient": "#!/bin/sh\necho a new daemon\n"},
                         executable="mirelclient", **build)


def checked(daemon):
    answer = daemon.post("/api/self/check-update")
    assert answer.status == 200
    return answer.text


def not_available(error):
    return f'{{"arch":"{ARCH}","available":false,"current_version":"0.0.0","error":"{error}","latest_version":""}}'


def test_a_newer_daemon_is_found(daemon, registry):
    publish_self(registry, "1.2.3-dev.9", "1.2.3", "1.2.3-dev.10")
    publish_self(registry, "9.0.0", arch="other-os")
    publish_self(registry, "8.0.0", channel="beta")
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()
    assert checked(daemon) == (f'{{"arch":"{ARCH}","available":true,"current_version":"0.0.0",'
                               '"latest_version":"1.2.3"}')


def test_the_reserved_name_is_a_setting(daemon, registry):
    publish_self(registry, "2.0.0")
    registry.publish("another", "1.0.0")
    registry.serve()
    daemon.configure(registry_url=registry.url, self_update_package_name="another")
    daemon.start()
    assert '"latest_version":"1.0.0"' in checked(daemon)


def test_the_running_version_is_no_update(daemon, registry):
    publish_self(registry, "0.0.0")
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()
    assert checked(daemon) == f'{{"arch":"{ARCH}","available":false,"current_version":"0.0.0","latest_version":"0.0.0"}}'
    answer = daemon.post("/api/self/update")
    assert (answer.status, answer.text) == (400, '{"error":"no update available"}')


def test_builds_for_other_machines_are_no_update(daemon, registry):
    publish_self(registry, "9.0.0", arch="other-os")
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()
    error = f'no build for arch \\"{ARCH}\\" found in registry'
    assert checked(daemon) == not_available(error)
    for body in ["", "not json", {}, {"version": ""}, {"version": 3}]:
        answer = daemon.post("/api/self/update", body)
        assert (answer.status, answer.text) == (400, f'{{"error":"{error}"}}')


def test_a_registry_that_is_down_or_answers_nonsense(daemon, registry):
    publish_self(registry, "1.0.0")
    daemon.configure(registry_url=registry.url)
    daemon.start()
    assert checked(daemon) == not_available("couldn't reach registry")
    (registry.folder / "packages/mirelclient/main/versions.json").write_text("[1 2]")
    registry.serve()
    assert checked(daemon) == not_available("malformed registry response: tiny_json: expected ']' at offset 3")
    (registry.folder / "packages/mirelclient/main/versions.json").write_text("")
    assert checked(daemon) == not_available("malformed registry response: tiny_json: unexpected end of input")


@pytest.mark.parametrize("spoil, error", [
    (lambda path: None, "manifest's \\\"executable\\\" (mirelclient) not found in the artifact"),
    (lambda path: b"this is no archive", "tar extraction failed"),
    (lambda path: artifact_of(path, "{}", members=["payload.tar"]),
     "malformed manifest: tiny_json: unexpected end of input"),
    (lambda path: artifact_of(path, '{"executable":"run","sha256":"%s"}' % ("0" * 64)),
     "checksum mismatch - refusing to install a corrupt/tampered update")],
    ids=["executable", "text", "no-manifest", "sum"])
def test_a_daemons_update_that_fails_leaves_it_as_it_was(daemon, registry, tmp_path, spoil, error):
    publish_self(registry, "1.0.0")
    data = spoil(tmp_path) or artifact_of(tmp_path, '{"executable":"mirelclient","sha256":"SHA256"}')
    replace_artifact(registry, "mirelclient", data, "1.0.0")
    registry.serve()
    daemon.configure(registry_url=registry.url)
    daemon.start()
    before = hashlib.sha256(MIRELCLIENT.read_bytes()).hexdigest()
    for body in [{"version": "1.0.0"}, ""]:
        answer = daemon.post("/api/self/update", body)
        assert (answer.status, answer.text) == (500, f'{{"error":"{error}"}}')
    answer = daemon.post("/api/self/update", {"version": "9.9.9"})
    url = f"{registry.url}/api/packages/mirelclient/main/9.9.9/{ARCH}/artifact"
    assert (answer.status, answer.text) == (500, f'{{"error":"download failed: {url}"}}')
    assert hashlib.sha256(MIRELCLIENT.read_bytes()).hexdigest() == before
    assert not (BIN / "mirelclient.new").exists()
    assert not os.path.exists(f"/tmp/mirelclient-self-update-{daemon.pid}")
    assert daemon.get("/api/self").status == 200


def ask_for_update(daemon, statuses):
    """Asks for an update that the daemon's end cuts off: an answer may still come, or not."""
    try:
        statuses.append(daemon.post("/api/self/update", {"version": "1.0.0"}).status)
    except (OSError, http.client.HTTPException):
        pass


def test_a_stop_ends_the_daemons_update_and_nothing_has_changed(daemon, registry, tmp_path):
    publish_self(registry, "1.0.0")
    replace_artifact(registry, "mirelclient", artifact_of(tmp_path, '{"executable":"none"}'), "1.0.0")
    server = HeldRegistry(registry.folder, ["1.0.0"])
    try:
        daemon.configure(registry_url=server.url)
        daemon.start()
        before = hashlib.sha256(MIRELCLIENT.read_bytes()).hexdigest()
        work = pathlib.Path(f"/tmp/mirelclient-self-update-{daemon.pid}")
        statuses = []
        asking = threading.Thread(target=ask_for_update, args=[daemon, statuses])
        asking.start()
        wait_until((work / "artifact.tar.gz.tmp").exists, "the download is under way")
        assert daemon.stop() == STOPPED_BY_SIGTERM
        asking.join()
        assert statuses in ([], [500])
        assert not work.exists()
        assert hashlib.sha256(MIRELCLIENT.read_bytes()).hexdigest() == before
    finally:
        server.stop()
