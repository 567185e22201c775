"""A machine behind a NAT, driven by a browser beside the server that its tunnel leads to."""
import json
import subprocess

import pytest
from browser import Browser, Page
from daemon import WEB_PORT
from nat import MACHINE, ROUTER_OUTSIDE, SERVER, Nat
from programs import BIN, wait_until
from registry import ARCH, Registry
from shell import SCREEN, open_terminal, rows_of, run
from xvnc import PASSWORD, Xvnc, click_at, wait_shown

WEB, TUNNEL = 8080, 8082
NAME = "workshop-3"
PREFIX = f"/api/clients/{NAME}/proxy"
# Of a page that came neither over TLS nor from the same machine.
NOT_SECURE = "requires a secure context"


@pytest.fixture(scope="module")
def nat():
    nat = Nat()
    yield nat
    nat.end()


@pytest.fixture(scope="module")
def browser(nat):
    browser = Browser(nat.server.enter)
    yield browser
    browser.stop()


@pytest.fixture
def server(nat, tmp_path):
    """mirelserver with a few packages, in the server's network."""
    registry = Registry(tmp_path)
    for version in ("1.0.0", "2.0.0"):
        registry.publish("hello", version, description="Says hello")
    process = subprocess.Popen([*nat.server.enter, BIN / "mirelserver", "--listen", "0.0.0.0", "--port", str(WEB),
                                "--tunnel-port", str(TUNNEL), "--registry", registry.folder],
                               stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline()
    yield nat.server
    process.kill()
    process.wait()
    process.stdout.close()


def listed(server):
    answer = json.loads(server.run("curl", "-fsS", f"http://{SERVER}:{WEB}/api/clients"))
    return {client["name"]: client for client in answer["clients"]}


@pytest.fixture
def machine(daemon, server):
    """Has been heard of and has its tunnel; one package runs on it."""
    daemon.bootstrap([{"name": "hello", "version": "1.0.0", "arch": ARCH, "channel": "main"}],
                     registry_url=f"http://{SERVER}:{WEB}", client_name=NAME, heartbeat_interval_seconds="1",
                     advertise_addr=f"http://{MACHINE}:{WEB_PORT}", tunnel_addr=f"{SERVER}:{TUNNEL}")
    daemon.start()
    daemon.wait_status("hello", "running")
    wait_until(lambda: listed(server).get(NAME, {}).get("tunnel"), "the server has its tunnel")
    return daemon


@pytest.fixture
def proxied(machine, page):
    page.open(f"http://{SERVER}:{WEB}{PREFIX}/")
    page.wait('.badge >> text="running"')
    return page


def test_machine_is_out_of_the_servers_reach_and_dials_it_through_the_router(machine, server):
    with pytest.raises(subprocess.CalledProcessError) as refused:
        server.run("curl", "-sS", f"http://{MACHINE}:{WEB_PORT}/api/self")
    assert "Failed to connect" in refused.value.stderr or "Couldn't connect" in refused.value.stderr
    peers = server.run("ss", "-Htn", "state", "established", f"sport = :{TUNNEL}").split()
    assert peers[-1].rpartition(":")[0] == ROUTER_OUTSIDE


def test_heartbeats_come_through_the_router(machine, server):
    wait_until(lambda: listed(server)[NAME]["address"], "a heartbeat has come")
    assert listed(server)[NAME]["address"] == f"http://{MACHINE}:{WEB_PORT}"
    machine.stop()
    wait_until(lambda: listed(server)[NAME]["age"] > 2, "its age grows without heartbeats")
    assert not listed(server)[NAME]["tunnel"]


def test_packages_are_listed_stopped_and_started(machine, proxied):
    assert proxied.texts("tbody tr td")[:3] == ["hello", "1.0.0", "running"]
    proxied.wait(f'#summary >> text="{NAME}"')
    proxied.button_of("hello", "Stop")
    proxied.wait_text("stop hello: ok")
    proxied.wait('.badge.warning >> text="stopped"')
    assert machine.status("hello") == "stopped"
    proxied.button_of("hello", "Start")
    proxied.wait_text("start hello: ok")
    assert machine.status("hello") == "running"


def test_package_is_looked_at_and_switched_to_another_version(machine, proxied):
    proxied.open_package("hello", "Manifest")
    proxied.wait("pre")
    assert json.loads(proxied.text("pre")) == machine.get("/api/packages/hello/manifest").json()
    proxied.tab("Versions")
    proxied.button_of("2.0.0", "Switch")
    proxied.wait('tr:has-text("2.0.0") >> .badge >> text="current"')
    assert machine.packages()["hello"]["version"] == "2.0.0"


def test_terminal_is_on_the_machine(machine, proxied):
    open_terminal(proxied)
    run(proxied, r"echo =$(cat /proc/$PPID/comm) 'ä€😀' $(stty size)=")
    rows = len(rows_of(proxied))
    proxied.wait(f"{SCREEN} >> text=/^=mirelclient ä€😀 {rows} [0-9]+=/")
    assert proxied.sockets() == ["/api/console/ws"]


def test_screen_is_shown_and_used(proxied, tmp_path):
    proxied.expected_errors = ["willReadFrequently", NOT_SECURE]
    screen = Xvnc(tmp_path / "xvnc.out", with_password=True)
    try:
        proxied.open_package("hello", "VNC")
        proxied.click('role=button[name="Connect"]')
        proxied.fill("input[type=password]", PASSWORD)
        proxied.press("Enter")
        wait_shown(proxied)
        click_at(proxied, 40, 150)
        proxied.press("x")
        wait_until(lambda: ("Release", "x") in screen.keys(), "the key has come")
        assert len(screen.clicks()) == 1
        assert proxied.sockets() == [f"{PREFIX}/api/vnc/ws"]
    finally:
        screen.stop()


def test_rows_are_copied_also_where_the_browser_offers_no_clipboard(proxied):
    """As it does to a page that came from elsewhere without TLS."""
    proxied.expected_errors = ["404 (Not Found)"]
    base = f"{PREFIX}/api/packages/hello"
    proxied.answer(f"{base}/db", {"tables": [{"name": "people", "row_count": 2, "column_names": ["id", "name"]}]})
    proxied.answer(f"{base}/db/people?from=1&to=200", {
        "ok": True, "total_rows": 2, "from_row": 1, "column_names": ["id", "name"],
        "rows": [["a", "Ann"], ["b", "Bob"]]})
    proxied.open_package("hello", "DB")
    proxied.click('role=button[name="people"]')
    proxied.click('role=checkbox[name="Select all rows"]')
    proxied.click('role=button[name="Copy selected"]')
    proxied.wait_text("2 rows copied")
    assert proxied.evaluate("() => navigator.clipboard ?? null") is None
    proxied.evaluate("() => document.querySelector('main').append(document.createElement('textarea'))")
    proxied.locate("main > textarea", "focus")
    proxied.press("Control+V")
    assert proxied.value("main > textarea") == "a\tAnn\nb\tBob"


def test_daemon_tells_of_itself_and_takes_settings(machine, proxied):
    proxied.tab("Self")
    proxied.wait("dl")
    assert proxied.texts("dd")[2:4] == [NAME, f"http://{SERVER}:{WEB}"]
    proxied.fill('role=textbox[name="heartbeat_interval_seconds"]', "7")
    proxied.press("Enter")
    proxied.wait_text("heartbeat_interval_seconds saved")
    fields = {field["name"]: field for field in machine.get("/api/self/config").json()["fields"]}
    assert fields["heartbeat_interval_seconds"]["current_value"] == "7"


def test_package_is_offered_by_the_registry_and_installed_anew(machine, proxied):
    machine.post("/api/packages/hello/uninstall")
    proxied.tab("Registry")
    proxied.click('role=button[name="hello"]')
    proxied.click('tr:has-text("1.0.0") >> role=button[name="Install"]')
    proxied.wait_text("hello 1.0.0: Done")
    machine.wait_status("hello", "running")


def test_page_follows_a_machine_that_has_started_anew(machine, proxied, server):
    """What the page polls comes through the next tunnel."""
    proxied.expected_errors = ["502", "504"]
    machine.stop()
    machine.start()
    wait_until(lambda: listed(server)[NAME]["tunnel"], "the server has its next tunnel")
    proxied.tab("Self")
    proxied.wait("dl")
    proxied.tab("Packages")
    proxied.button_of("hello", "Restart")
    proxied.wait_text("restart hello: ok")
