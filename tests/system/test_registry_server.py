"""mirelserver and a stock nginx in front of the same registry folder."""
import concurrent.futures
import contextlib
import hashlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess

import pytest

from registry_support import (BUILD, DEADLINE, MIRELSERVER, make_artifact, publish, remove,
                              running_mirelserver, running_nginx, wait_until)

ARTIFACT_URL = "/api/packages/hello/main/1.0.0/x86_64-linux/artifact"


@pytest.fixture
def registry(tmp_path):
    folder = tmp_path / "registry"
    artifact = make_artifact(tmp_path)
    publish(folder, artifact)
    publish(folder, artifact, ("hello", "main", "1.10.0-dev.2+b~1", "x86_64-linux"))
    publish(folder, artifact, ("other_app", "beta", "2.0", "any"))
    return folder


@pytest.fixture
def servers(registry, tmp_path):
    work = tmp_path / "nginx"
    work.mkdir()
    with running_mirelserver(registry) as ours, running_nginx(registry, work) as nginx:
        yield ours, nginx


GOOD = {
    "/api/packages": b'{"packages":["hello","other_app"]}',
    "/api/packages?page=2&x=%zz//..": b'{"packages":["hello","other_app"]}',
    "/api/packages/hello/channels": b'{"channels":["main"]}',
    "/api/packages/other%5fapp/channels": b'{"channels":["beta"]}',
    "/%61pi/packages/hello/main": None,
    "/api/packages/hello/main": None,
    ARTIFACT_URL: None,
    ARTIFACT_URL + "?a=/../b": None,
    "/api/packages/hello/main/1.10.0-dev.2+b~1/x86_64-linux/artifact": None,
    "/api/packages/hello/main/1.10.0-dev.2%2Bb%7e1/x86_64-linux/artifact": None,
}

UNKNOWN = [
    "/", "/api", "/api/", "/api/packages/", "/API/packages", "/api/packages/hello",
    "/api/packages/hello/", "/api/packages/hello/main/", "/api/packages/nobody/channels",
    "/api/packages/hello/nightly", "/api/packages/hello/main/1.0.0",
    "/api/packages/hello/main/1.0.0/x86_64-linux", ARTIFACT_URL + "/", ARTIFACT_URL + "/more",
    "/api/packages/hello/main/9.9.9/x86_64-linux/artifact",
    "/api/packages/hello/main/1.0.0/x86_64-linux/manifest.json",
    "/api/packages/hello/main/versions.json", "/api/packages/hello/channels.json",
    "/packages.json", "/packages/hello/channels.json", "/packages/hello/main/1.0.0/x86_64-linux/artifact",
    "/.lock", "/api/packages/.incoming/channels", "/favicon.ico",
    "/registry-bad-request", f"/api/packages/{'n' * 300}/channels",
    "/api/packages/hello/channels%0a", "/api/packages/hello/main%0a", ARTIFACT_URL + "%0a",
]

TRAVERSAL = [
    "/api/packages/../packages", "/api/packages/%2e%2e/packages", "/api/packages/%2E%2e/packages",
    "/api/./packages", "/api/%2e/packages", "//api/packages", "/api//packages",
    "/api/packages/hello%2Fmain", "/api/packages/hello%2fchannels", "/api%2fpackages",
    "/api/packages/../../../../../../etc/passwd", "/api/packages/..%2f..%2fetc/passwd",
    "/api/packages/hello/main/1.0.0/x86_64-linux/../x86_64-linux/artifact",
    "/api/packages/hello/main/../channels", "/api/packages/hello/..", "/..", "/../", "/%2e%2e/",
    "/api/packages/hello/%20", "/api/packages/hello/a%0ab", "/api/packages/hello/%c3%bc",
    "/api/packages#fragment", "/api/packages/hello/main%23x", "/api/packages/-x/channels",
    "/api/packages/hello/main%3F", "/api/packages/hello/ma%5cin",
]

MALFORMED = ["/api/packages/%zz", "/api/packages/%4", "/api/packages/%", "/api/packages/a%00b/channels"]


def both(servers, target, **options):
    ours, nginx = (server.get(target, **options) for server in servers)
    assert ours == nginx, target
    return ours


@pytest.mark.parametrize("target", GOOD)
def test_both_serve_the_same_for_what_exists(servers, registry, target):
    status, content_type, body = both(servers, target)
    assert status == 200
    if "artifact" in target:
        assert content_type == "application/octet-stream"
        assert body == (registry / "packages/hello/main/1.0.0/x86_64-linux/artifact").read_bytes()
    else:
        assert content_type == "application/json"
        assert json.loads(body)
    if GOOD[target]:
        assert body == GOOD[target]


def test_versions_carry_arch_version_and_manifest(servers):
    _, _, body = both(servers, "/api/packages/hello/main")
    versions = json.loads(body)["versions"]
    assert [v["version"] for v in versions] == ["1.10.0-dev.2+b~1", "1.0.0"]
    assert versions[1]["arch"] == "x86_64-linux"
    assert versions[1]["manifest"]["description"] == "says hello"


@pytest.mark.parametrize("target", UNKNOWN + TRAVERSAL)
def test_both_answer_404_for_what_does_not_exist(servers, target):
    assert both(servers, target) == (404, "application/json", b'{"error":"not found"}')


@pytest.mark.parametrize("target", MALFORMED)
def test_both_answer_400_for_what_cannot_be_decoded(servers, target):
    assert both(servers, target) == (400, "application/json", b'{"error":"bad request"}')


@pytest.mark.parametrize("target", ["/api/packages", ARTIFACT_URL, "/nothing", "/api/packages/.."])
@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "PATCH", "OPTIONS"])
def test_both_answer_405_to_any_other_method(servers, method, target):
    answer = both(servers, target, method=method, body=b"x" * 1000)
    assert answer == (405, "application/json", b'{"error":"method not allowed"}')


@pytest.mark.parametrize("target", ["/api/packages", ARTIFACT_URL, "/nothing", "/api/packages/.."])
def test_head_is_get_without_the_body(servers, target):
    with_body = both(servers, target)
    without = both(servers, target, method="HEAD")
    assert without == (with_body[0], with_body[1], b"")


def test_an_empty_folder_lists_no_packages(tmp_path):
    (tmp_path / "empty").mkdir()
    (tmp_path / "nginx").mkdir()
    with running_mirelserver(tmp_path / "empty") as ours, \
            running_nginx(tmp_path / "empty", tmp_path / "nginx") as nginx:
        answer = both((ours, nginx), "/api/packages")
        assert answer == (200, "application/json", b'{"packages":[]}')
        assert both((ours, nginx), "/api/packages/hello/channels")[0] == 404


def test_a_removed_build_is_gone_at_once(servers, registry):
    assert both(servers, ARTIFACT_URL)[0] == 200
    remove(registry)
    assert both(servers, ARTIFACT_URL)[0] == 404
    assert b'"1.0.0"' not in both(servers, "/api/packages/hello/main")[2]


def test_symbolic_links_are_not_followed(servers, registry, tmp_path):
    secret = tmp_path / "secret"
    secret.write_text("secret")
    os.symlink(secret, registry / "packages/hello/main/versions.json.new")
    os.rename(registry / "packages/hello/main/versions.json.new",
              registry / "packages/hello/main/versions.json")
    os.symlink(tmp_path, registry / "packages/linked")
    (tmp_path / "channels.json").write_text('{"channels":[]}')
    assert both(servers, "/api/packages/hello/main")[0] == 404
    assert both(servers, "/api/packages/linked/channels")[0] == 404


def test_a_pipe_in_the_place_of_an_index_holds_nothing_up(servers, registry):
    index = registry / "packages/hello/channels.json"
    index.unlink()
    os.mkfifo(index)
    assert servers[0].get("/api/packages/hello/channels")[0] == 404


@pytest.mark.parametrize("header, expected", [
    ("bytes=0-3", slice(0, 4)), ("bytes=10-", slice(10, None)), ("bytes=-7", slice(-7, None)),
    ("bytes=5-99999999", slice(5, None)), ("bytes=3-3", slice(3, 4)),
])
def test_a_download_can_be_resumed(servers, registry, header, expected):
    whole = (registry / "packages/hello/main/1.0.0/x86_64-linux/artifact").read_bytes()
    status, _, body = both(servers, ARTIFACT_URL, headers={"Range": header})
    assert (status, body) == (206, whole[expected])


def test_a_range_behind_the_end_is_refused(servers):
    for server in servers:
        assert server.get(ARTIFACT_URL, headers={"Range": "bytes=99999999-"})[0] == 416


@pytest.mark.parametrize("header", ["bytes=9-2", "bytes=a-b", "lines=1-2", "bytes=-"])
def test_a_range_without_sense_gives_the_whole_file_from_us(servers, registry, header):
    whole = (registry / "packages/hello/main/1.0.0/x86_64-linux/artifact").read_bytes()
    status, _, body = servers[0].get(ARTIFACT_URL, headers={"Range": header})
    assert (status, body) == (200, whole)


def test_curl_fetches_as_the_daemon_does(servers, registry, tmp_path):
    for server in servers:
        base = f"http://127.0.0.1:{server.port}"
        target = tmp_path / "fetched"
        subprocess.run(["curl", "-fsS", "-o", target, base + ARTIFACT_URL], check=True)
        assert target.read_bytes() == (
            registry / "packages/hello/main/1.0.0/x86_64-linux/artifact").read_bytes()
        missing = subprocess.run(["curl", "-fsS", base + "/api/packages/no/main"],
                                 capture_output=True)
        assert (missing.returncode, missing.stdout) == (22, b"")


def resident_kib(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(status.split("VmHWM:")[1].split()[0])


def make_large_artifact(registry, size):
    """In the folder by hand: what is served does not depend on what it holds."""
    folder = registry / "packages/hello/main/3.0.0/x86_64-linux"
    folder.mkdir(parents=True)
    digest = hashlib.sha256()
    with open(folder / "artifact", "wb") as file:
        for index in range(size // (1 << 20)):
            block = hashlib.sha256(str(index).encode()).digest() * (1 << 15)
            digest.update(block)
            file.write(block)
    return "/api/packages/hello/main/3.0.0/x86_64-linux/artifact", digest.hexdigest()


def open_request(port, target):
    peer = socket.create_connection(("127.0.0.1", port), timeout=DEADLINE)
    peer.sendall(f"GET {target} HTTP/1.1\r\nHost: test\r\n\r\n".encode())
    return peer


def test_large_artifacts_stream_in_little_memory_to_slow_readers_too(registry, monkeypatch):
    # A sanitizer keeps what has been freed for a while, which is not the server's.
    monkeypatch.setenv("ASAN_OPTIONS", os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1")
    size = 300 << 20
    url, digest = make_large_artifact(registry, size)
    with running_mirelserver(registry) as server:
        # Readers that take the first bytes and then nothing: each holds its download open.
        slow = [open_request(server.port, url) for _ in range(20)]
        assert all(peer.recv(1000).startswith(b"HTTP/1.1 200") for peer in slow)

        def fetch_digest(_):
            fetched = subprocess.Popen(
                ["curl", "-fsS", f"http://127.0.0.1:{server.port}{url}"], stdout=subprocess.PIPE)
            with fetched:
                return hashlib.file_digest(fetched.stdout, "sha256").hexdigest()

        with concurrent.futures.ThreadPoolExecutor(3) as pool:
            assert set(pool.map(fetch_digest, range(3))) == {digest}
        assert resident_kib(server.pid) < 50 * 1024
        for peer in slow:
            peer.close()


def open_sockets(pid):
    count = 0
    for descriptor in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # closed since it was listed
            count += os.readlink(descriptor).startswith("socket:")
    return count


def test_idle_connections_do_not_block_others(registry):
    with running_mirelserver(registry) as server:
        idle = [socket.create_connection(("127.0.0.1", server.port)) for _ in range(500)]
        halfway = [socket.create_connection(("127.0.0.1", server.port)) for _ in range(50)]
        for peer in halfway:
            peer.sendall(b"GET /api/pack")
        for _ in range(50):
            assert server.get("/api/packages")[0] == 200
        for peer in idle + halfway:
            peer.close()
        wait_until(lambda: open_sockets(server.pid) < 5, "the server let go of all connections")


def read_until_closed(peer):
    received = b""
    while block := peer.recv(65536):
        received += block
    return received


@pytest.mark.parametrize("text", [
    b"GET /api/packages HTTP/1.1\r\n\r\n",                          # no host
    b"nonsense\r\n\r\n",
    b"GET /api/packages HTTP/1.1\r\nHost: x\r\nbad header\r\n\r\n",
    b"GET /" + b"a" * 40000 + b" HTTP/1.1\r\nHost: x\r\n\r\n",
], ids=["no host", "no request", "bad header", "too long"])
def test_a_malformed_request_gets_400_and_the_connection_ends(registry, text):
    with running_mirelserver(registry) as server:
        with socket.create_connection(("127.0.0.1", server.port), timeout=DEADLINE) as peer:
            peer.sendall(text)
            peer.shutdown(socket.SHUT_WR)
            assert read_until_closed(peer).startswith(b"HTTP/1.1 400 ")
        assert server.get("/api/packages")[0] == 200


def test_requests_in_a_row_share_one_connection(registry):
    with running_mirelserver(registry) as server:
        with socket.create_connection(("127.0.0.1", server.port), timeout=DEADLINE) as peer:
            one = b"GET /api/packages HTTP/1.1\r\nHost: x\r\n"
            peer.sendall((one + b"\r\n") * 20 + one + b"Connection: close\r\n\r\n")
            assert read_until_closed(peer).count(b'{"packages":["hello","other_app"]}') == 21


def test_the_absolute_form_of_a_target_is_understood(servers):
    answer = both(servers, "http://registry.test/api/packages?x=1")
    assert answer[0] == 200


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_stops_it_cleanly_in_the_middle_of_a_download(registry, number):
    url, _ = make_large_artifact(registry, 64 << 20)
    with running_mirelserver(registry) as server:
        with open_request(server.port, url) as peer:
            assert peer.recv(100)
            os.kill(server.pid, number)
            assert server.process.wait(DEADLINE) == 0


def test_it_tells_what_is_wrong_at_the_start(registry, tmp_path):
    run = lambda *arguments: subprocess.run([MIRELSERVER, *arguments], capture_output=True,
                                            text=True, timeout=DEADLINE)
    missing = run("--registry", tmp_path / "no", "--port", "0")
    assert missing.returncode == 1
    assert missing.stderr.startswith(f"mirelserver: there is no registry folder {tmp_path}/no")
    with running_mirelserver(registry) as server:
        taken = run("--registry", registry, "--port", str(server.port))
        assert taken.returncode == 1
        assert f"cannot listen on 127.0.0.1 port {server.port}: Address already in use" in taken.stderr
    assert "numeric address" in run("--registry", registry, "--listen", "nowhere").stderr


def test_a_folder_may_be_replaced_while_it_is_served(registry, tmp_path):
    with running_mirelserver(registry) as server:
        shutil.move(registry, tmp_path / "old")
        registry.mkdir()
        assert server.get("/api/packages")[2] == b'{"packages":[]}'
        publish(registry, tmp_path / "hello.tar.gz", BUILD)
        assert server.get(ARTIFACT_URL)[0] == 200
