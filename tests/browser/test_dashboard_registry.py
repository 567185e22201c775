"""The Registry and Self tabs, and the page behind a proxy's prefix."""
import http.client
import http.server
import json
import threading

import pytest
from browser import HOME
from daemon import WEB_PORT
from registry import ARCH

SELF = {"arch": "arm64-darwin", "config_name": "", "cpu": "arm64", "os": "darwin", "uptime_seconds": 185,
        "registry_url": "http://127.0.0.1:9", "version": "1.0.0"}


@pytest.fixture
def machine(daemon, registry):
    registry.publish("hello", "1.0.0", description="Says hello")
    registry.publish("hello", "1.1.0", channel="testing", description="Says it twice")
    registry.serve()
    daemon.configure(registry_url=registry.url)
    return daemon.start()


def open_self(page, **options):
    page.open(**options)
    page.tab("Self")


# -- Registry --


def test_package_is_installed_from_the_registry(machine, page):
    page.open()
    page.tab("Registry")
    page.click('role=button[name="hello"]')
    page.wait('role=tab[name="main"][selected=true]')
    page.wait('tr:has-text("Says hello")')
    page.tab("testing")
    page.wait('tr:has-text("Says it twice")')
    assert page.texts(".offer tbody td")[:3] == ["1.1.0", ARCH, "Says it twice"]

    page.click('role=button[name="Install"]')
    page.wait('role=tab[name="Packages"][selected=true]')
    page.wait_text("hello 1.1.0: Done")
    page.wait('tr:has(button.link:text-is("hello")) >> .badge.good')
    assert machine.packages()["hello"]["version"] == "1.1.0"
    assert page.requests("POST") == [("/api/packages/hello/update", json.dumps(
        {"channel": "testing", "version": "1.1.0", "arch": ARCH}, separators=(",", ":")))]


def test_install_that_fails_says_why(machine, registry, page):
    page.open()
    page.tab("Registry")
    page.click('role=button[name="hello"]')
    page.wait('tr:has-text("Says hello")')
    registry.stop()
    page.click('role=button[name="Install"]')
    page.wait('text=/^hello 1.0.0: Failed: ./')


def test_registry_that_cannot_be_reached_says_so(machine, registry, page):
    registry.stop()
    page.expected_errors = ["502"]
    page.open()
    page.tab("Registry")
    page.wait('.toast >> text="couldn\'t reach the registry"')
    page.wait('.registry >> text="couldn\'t reach the registry"')


@pytest.mark.parametrize("body", [None, [], "text", 7, {"packages": 7}, {"packages": None}])
def test_registry_may_answer_anything(machine, page, body):
    page.open(answers={"/api/registry/packages": body})
    page.tab("Registry")
    page.wait_text("The registry has no packages.")


# -- Self --


def test_self_tells_about_the_daemon(machine, page):
    open_self(page, answers={"/api/self": SELF})
    page.wait("dl")
    assert page.texts("dd") == ["1.0.0", "darwin arm64-darwin", "(unset)", "http://127.0.0.1:9", "3 minutes"]
    page.wait('#summary >> text="(unset)"')


def test_machine_whose_facts_cannot_be_read(machine, page):
    page.expected_errors = ["500 (Internal Server Error)"]
    open_self(page, answers={"/api/self": ({}, 500)})
    page.wait('#summary >> text="Machine info unavailable: HTTP 500"')
    page.wait('.card >> text="HTTP 500"')


def test_check_for_updates(machine, registry, page):
    open_self(page)
    page.click('role=button[name="Check for updates"]')
    error = machine.post("/api/self/check-update").json()["error"]
    page.wait_text(error)

    registry.publish("mirelclient", "1.3.0")
    page.click('role=button[name="Check for updates"]')
    page.wait_text("Update available: 0.0.0 → 1.3.0")
    page.wait('role=button[name="Update now"]')


def test_daemon_that_is_up_to_date(machine, page):
    open_self(page, answers={"/api/self/check-update": {
        "available": False, "current_version": "1.3.0", "latest_version": "1.3.0", "arch": ARCH}})
    page.click('role=button[name="Check for updates"]')
    page.wait_text("Up to date (1.3.0).")


def test_update_of_the_daemon_reloads_the_page(machine, page):
    answers = {"/api/self/check-update": {"available": True, "current_version": "1.0.0", "latest_version": "2.0.0"},
               "/api/self/update": {"ok": True}}
    open_self(page, answers=answers, stop_clock=True)
    page.click('role=button[name="Check for updates"]')
    page.click('role=button[name="Update now"]')
    page.wait_text("Update triggered - reloading in a few seconds…")
    assert page.requests("POST")[-1] == ("/api/self/update", '{"version":"2.0.0"}')
    page.pass_time(3.9)
    assert page.requests().count("/") == 1
    page.pass_time(0.2)
    page.wait_asked("/", 2)


def test_own_configuration_is_edited(machine, page):
    open_self(page)
    page.fill('role=textbox[name="client_name"]', "bench-9")
    page.press("Enter")
    page.wait_text("client_name saved")
    fields = {field["name"]: field for field in machine.get("/api/self/config").json()["fields"]}
    assert fields["client_name"]["current_value"] == "bench-9"
    assert page.texts('tr:has(code:text-is("client_name")) >> td')[3] == fields["client_name"]["default_value"]

    page.fill('role=textbox[name="web_port"]', "many")
    page.click('tr:has(code:text-is("web_port")) >> role=button[name="Save"]')
    page.expected_errors = ["400 (Bad Request)"]
    error = machine.post("/api/self/config", {"name": "web_port", "value": "many"}).json()["error"]
    page.wait_text(f"web_port: {error}")
    assert page.value('role=textbox[name="web_port"]') == "many"


def test_what_is_being_typed_survives_the_save_of_another_field_and_other_tabs(machine, page):
    open_self(page)
    page.fill('role=textbox[name="client_name"]', "half ty")
    page.fill('role=textbox[name="advertise_addr"]', "10.0.0.1")
    page.click('tr:has(code:text-is("advertise_addr")) >> role=button[name="Save"]')
    page.wait_text("advertise_addr saved")
    page.wait('tr.changed:has(code:text-is("advertise_addr"))')
    page.tab("Packages")
    page.tab("Self")
    page.wait_asked("/api/self", 3)
    assert page.value('role=textbox[name="client_name"]') == "half ty"
    assert page.value('role=textbox[name="advertise_addr"]') == "10.0.0.1"

    page.locate('role=textbox[name="client_name"]', "press", "Escape")
    assert page.value('role=textbox[name="client_name"]') == "mirelclient"


# -- behind a proxy --


@pytest.fixture
def proxy():
    """Serves the machine below a prefix, as well as the static files at its own root. To be named
    before the page, which must not outlive it."""
    asked = []

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            asked.append(self.path)
            prefix = "/api/clients/x/proxy"
            path = self.path.removeprefix(prefix)
            if path == self.path and not path.startswith("/static/"):
                return self.send_error(404)
            connection = http.client.HTTPConnection("127.0.0.1", WEB_PORT)
            size = int(self.headers.get("Content-Length", 0))
            connection.request(self.command, path, self.rfile.read(size))
            answer = connection.getresponse()
            self.send_response(answer.status)
            self.send_header("Content-Type", answer.getheader("Content-Type"))
            self.end_headers()
            self.wfile.write(answer.read())
            connection.close()

        do_POST = do_GET

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    yield f"http://127.0.0.1:{server.server_port}/api/clients/x/proxy", asked
    server.shutdown()
    server.server_close()
    thread.join()


@pytest.mark.parametrize("end", ["", "/"])
def test_page_behind_a_proxy_asks_below_its_prefix(machine, proxy, page, end):
    url, _ = proxy
    page.open(url + end)
    page.wait_text("No packages installed.")
    page.tab("Self")
    page.click('role=button[name="Check for updates"]')
    page.wait("role=status >> text=/./")
    asked = page.requests() + [path for path, _ in page.requests("POST")]
    assert "/api/clients/x/proxy/api/packages" in asked
    assert "/api/clients/x/proxy/api/self/check-update" in asked
    assert [path for path in asked if not path.startswith("/api/clients/x/proxy")] == ["/static/xterm/xterm.css"]


def test_page_of_the_machine_itself_asks_at_the_root(machine, page):
    page.open(HOME)
    page.wait_text("No packages installed.")
    assert sorted(set(page.requests())) == ["/", "/api/packages", "/api/self", "/static/xterm/xterm.css"]


@pytest.mark.parametrize("path, prefix", [
    ("/api/clients/x/proxy", "/api/clients/x/proxy"), ("/api/clients/a%20b/proxy/x", "/api/clients/a%20b/proxy"),
    ("/api/clients/x/proxys/", ""), ("/a/api/clients/x/proxy/", ""), ("/api/clients//proxy/", ""), ("/", "")])
def test_prefix_is_taken_from_the_address(machine, page, path, prefix):
    """The page stays the same whatever address it is shown under."""
    page.open()
    page.wait_text("No packages installed.")
    page.expected_errors = ["404 (Not Found)"]
    page.evaluate("(path) => history.replaceState(null, '', path)", path)
    page.tab("Registry")
    page.wait_asked(f"{prefix}/api/registry/packages")
