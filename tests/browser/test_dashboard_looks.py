"""What comes from elsewhere never becomes markup, and the page fits its window."""
import json
import urllib.parse

import pytest
from browser import DESK, PHONE
from preloaded import entry_text, write_registry
from registry import ARCH
from shell import PROMPT

EVIL = '<img src=x onerror="window.hurt=1"><script>window.hurt=1</script>\'"&amp;`${1}'
EVIL_NAME = '<img src=x onerror="window.hurt=1"><b>\'&amp;'


def quoted(*parts):
    return "/".join(["/api/packages", *(urllib.parse.quote(part, safe="!'()*") for part in parts)])


def expect_unhurt(page):
    assert page.evaluate("() => window.hurt ?? null") is None
    assert page.evaluate("() => document.querySelectorAll('main img, main b, main script, #toasts *').length") == 0


def test_hostile_package_runs_nothing_on_the_page(daemon, page):
    write_registry(entry_text(EVIL_NAME, EVIL, "/usr/local/daemon/nowhere", stopped=True, executable=EVIL,
                              args=[EVIL], arch=EVIL))
    daemon.start()
    field = {"name": EVIL, "type_name": EVIL, "description": EVIL, "current_value": EVIL, "default_value": EVIL}
    event = {"is_start": True, "timestamp": 1, "pid": 2, "reason": EVIL, "args": EVIL, "working_dir": EVIL,
             "executable_path": EVIL, "log_line": 1}
    log = {"ok": True, "lines": [EVIL]}
    table = {"ok": True, "from_row": 1, "column_names": [EVIL, EVIL], "rows": [[EVIL, EVIL]]}
    page.open(answers={
        quoted(EVIL_NAME, "sessions"): {"sessions": [event]},
        quoted(EVIL_NAME, "crashes"): {"crashes": [{"ts": 1, "pid": 2, "signum": 11, "detail": EVIL, "addr": EVIL,
                                                    "version": EVIL, "commit": EVIL, "build_user": EVIL,
                                                    "backtrace": [EVIL, f"{EVIL}({EVIL_NAME}+0x1) [0x2]"]}]},
        quoted(EVIL_NAME, "crashes", "2", "1"): {"lines": [EVIL, f"[LOG {EVIL}] x", '[LOG "><b>] x']},
        quoted(EVIL_NAME, "log/info").replace("%2F", "/"): {"line_count": 1},
        quoted(EVIL_NAME, "log") + "?from=1&to=1": log,
        quoted(EVIL_NAME, "log") + "?from=1&to=41": log,
        quoted(EVIL_NAME, "config"): {"fields": [field]},
        quoted(EVIL_NAME, "db"): {"tables": [{"name": "t", "row_count": 1, "column_names": [EVIL]}]},
        quoted(EVIL_NAME, "db", "t") + "?from=1&to=200": table,
        quoted(EVIL_NAME, "channels").replace("/api", "/api/registry"): {"channels": [EVIL_NAME]},
        quoted(EVIL_NAME, EVIL_NAME).replace("/api", "/api/registry"): {"versions": [{"version": EVIL, "arch": "x"}]},
        quoted(EVIL_NAME, "update"): {"ok": True},
        quoted(EVIL_NAME, "update-status"): {"phase": "error", "error": EVIL, "target_version": EVIL},
        "/api/self": {name: EVIL for name in ("os", "cpu", "arch", "config_name", "version", "registry_url")},
        "/api/self/config": {"fields": [field]},
        "/api/self/check-update": {"available": True, "current_version": EVIL, "latest_version": EVIL},
    })
    page.wait(f"tbody >> text={json.dumps(EVIL_NAME)}")
    expect_unhurt(page)
    page.click("button.link")
    page.wait(".package h2")
    assert page.text(".package h2") == EVIL_NAME
    assert json.loads(page.text("pre"))["executable"] == EVIL
    for sub_tab in ("Sessions", "Crashes"):
        page.tab(sub_tab)
        page.click("tbody button.link")
        page.wait(".card .card .log >> text=window.hurt")
        expect_unhurt(page)
    for sub_tab, selector in (("Logs", ".log"), ("Config", "tbody input"),
                              ("Launch args", ".line input"), ("DB", "tbody tr")):
        page.tab(sub_tab)
        page.wait(selector)
        assert page.evaluate("() => document.querySelector('[role=tabpanel] .card') !== null")
        expect_unhurt(page)
    page.click("tbody button.link")
    page.wait("table.rows input")
    expect_unhurt(page)
    page.tab("Versions")
    page.click('role=button[name="Switch"]')
    page.wait(".phase.bad >> text=window.hurt")
    expect_unhurt(page)
    page.tab("Self")
    page.click('role=button[name="Check for updates"]')
    page.wait("table.config input >> visible=true")
    page.wait("section .line >> text=window.hurt >> visible=true")
    expect_unhurt(page)
    assert page.text("#summary").count("window.hurt") == 8


def test_hostile_error_and_registry_run_nothing_on_the_page(daemon, page):
    daemon.start()
    version = {"version": EVIL, "arch": EVIL, "manifest": {"description": EVIL}}
    page.expected_errors = ["502"]
    page.open(answers={
        "/api/registry/packages": {"packages": [EVIL_NAME]},
        quoted(EVIL_NAME, "channels").replace("/api", "/api/registry"): {"channels": ["c"]},
        quoted(EVIL_NAME, "c").replace("/api", "/api/registry"): {"versions": [version]},
        quoted(EVIL_NAME, "update"): ({"error": EVIL}, 502),
        "/api/self/check-update": {"error": EVIL},
    })
    page.tab("Registry")
    page.click("button.entry")
    page.click('role=button[name="Install"]')
    page.wait(".toast")
    assert page.text(".toast") == f"install {EVIL_NAME} failed: {EVIL}"
    assert page.texts(".offer tbody td")[:3] == [EVIL, EVIL, EVIL]
    page.tab("Self")
    page.click('role=button[name="Check for updates"]')
    page.wait("section .line >> text=window.hurt")
    assert page.evaluate("() => document.querySelectorAll('main img, main b, main script, .toast *').length") == 0
    assert page.evaluate("() => window.hurt ?? null") is None


@pytest.fixture
def machine(daemon, registry):
    for name, description in (("diskwatch", "Logs free space"), ("camera-bridge", "Streams the door camera"),
                              ("redis", "Key-value store")):
        registry.publish(name, "1.4.0", description=description)
        registry.publish(name, "1.5.0-beta", channel="testing", description=description)
    registry.serve()
    daemon.bootstrap([{"name": name, "version": "1.4.0", "arch": ARCH}
                      for name in ("diskwatch", "camera-bridge", "redis")],
                     registry_url=registry.url, client_name="workshop-3")
    daemon.start()
    for name in ("diskwatch", "camera-bridge", "redis"):
        daemon.wait_status(name, "running")
    daemon.post("/api/packages/redis/launch-args", {"args": ["--port", "17379"]})
    daemon.post("/api/packages/camera-bridge/stop")
    return daemon


@pytest.mark.parametrize("size", [DESK, PHONE], ids=["desk", "phone"])
def test_every_view_is_drawn_and_fits_the_window(machine, page, size):
    page.open(size=size)

    def expect_drawn(selector):
        page.wait(selector)
        assert page.colours_below_the_header() > 30
        assert page.evaluate("() => document.documentElement.scrollWidth <= innerWidth")

    expect_drawn('.badge >> text="running" >> nth=1')
    page.tab("Registry")
    page.click('role=button[name="redis"]')
    expect_drawn('tr:has-text("Key-value store")')
    page.tab("Self")
    expect_drawn("table.config tbody tr >> nth=10")
    page.tab("Console")
    expect_drawn(PROMPT)
    page.tab("Packages")
    page.click('role=button[name="redis"]')
    for sub_tab, selector in (("Manifest", "pre"), ("Launch args", ".line input"), ("Versions", "tbody tr >> nth=1"),
                              ("VNC", 'role=button[name="Connect"]')):
        page.tab(sub_tab)
        expect_drawn(selector)


DETAILS = {
    "/sessions": {"sessions": [{"is_start": True, "timestamp": 1700000000, "pid": 4711, "reason": "stopped by signal 15",
                                "args": "--fast " * 30, "working_dir": "/opt/" + "deep" * 40, "log_line": 1}]},
    "/crashes": {"crashes": [{"ts": 1700000000, "pid": 4711, "signum": 11, "detail": "0x10\n" * 5 + "x" * 300,
                              "version": "1.0.0-" + "v" * 200,
                              "backtrace": ["/opt/run(" + "f" * 300 + "+0x1) [0x2]"]}]},
    "/crashes/4711/1700000000": {"lines": ["[LOG ERROR] ts=1 " + "x" * 400]},
    "/log/info": {"line_count": 1, "path": "/var/log/" + "deep" * 60, "generation": 3},
    "/log?from=1&to=1": {"ok": True, "lines": ["[redis] [INFO] " + "x" * 400]},
    "/log?from=1&to=41": {"ok": True, "lines": ["[redis] [ERROR] " + "x" * 400]},
    "/config": {"fields": [{"name": "a_rather_long_name_of_a_field", "type_name": "string", "description": "d " * 60,
                            "current_value": "v" * 200, "default_value": "w" * 200, "is_default": False}]},
    "/db": {"name": "people.all", "path": "/opt/" + "deep" * 60, "loaded": True,
            "tables": [{"name": "people", "row_count": 1, "column_names": [f"column_{at}" for at in range(12)]}]},
    "/db/people?from=1&to=200": {"ok": True, "from_row": 1, "column_names": [f"column_{at}" for at in range(12)],
                                 "rows": [["value" * 4] * 12]}}


@pytest.mark.parametrize("size", [DESK, PHONE], ids=["desk", "phone"])
def test_details_of_a_package_fit_the_window_whatever_they_hold(machine, page, size):
    page.open(size=size, answers={"/api/packages/redis" + path: answer for path, answer in DETAILS.items()})
    page.click('role=button[name="redis"]')
    for sub_tab, opener, selector in (("Sessions", "tbody button", ".detail .log"),
                                      ("Crashes", "tbody button", ".card .card .log"),
                                      ("Logs", None, ".log div"), ("Config", None, "tbody input"),
                                      ("DB", "tbody button.link", "table.rows input")):
        page.tab(sub_tab)
        if opener is not None:
            page.click(opener)
        page.wait(selector)
        assert page.colours_below_the_header() > 30
        assert page.evaluate("() => document.documentElement.scrollWidth <= innerWidth"), sub_tab


def test_page_is_dark_and_compact(machine, page):
    page.open()
    page.wait('.badge >> text="running" >> nth=1')
    light, dark = page.evaluate("""() => {
        const style = getComputedStyle(document.body);
        return [style.color, style.backgroundColor].map((colour) => {
            const [red, green, blue] = colour.match(/[0-9]+/g).map((part) => {
                const value = part / 255;
                return value <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4;
            });
            return 0.2126 * red + 0.7152 * green + 0.0722 * blue;
        });
    }""")
    assert dark < 0.05 and (light + 0.05) / (dark + 0.05) > 7
    row_height = page.locate("tbody tr >> nth=0", "boundingBox")["height"]
    top = page.locate("tbody", "boundingBox")["y"]
    assert (DESK[1] - top) / row_height > 12, "a dozen packages are seen at once"


def test_style_does_not_hide_where_the_focus_is(machine, page):
    page.open()
    page.wait('.badge >> text="running" >> nth=1')
    for _ in range(12):
        page.press("Tab")
        assert page.evaluate("""() => {
            const style = getComputedStyle(document.activeElement);
            return document.activeElement !== document.body && parseFloat(style.outlineWidth) >= 2;
        }""")
