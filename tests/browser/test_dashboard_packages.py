"""The Packages tab: what runs on a machine, and the buttons that change it."""
import json

import pytest
from preloaded import entry_text, write_registry
from programs import wait_until
from registry import ARCH


@pytest.fixture
def machine(daemon, registry):
    """A machine on which versions 1.0.0 of "one" and "two" run; the registry has more."""
    for name, version in (("one", "1.0.0"), ("one", "2.0.0"), ("two", "1.0.0")):
        registry.publish(name, version, description=f"{name} in version {version}")
    registry.publish("one", "3.0.0-beta", channel="testing")
    registry.serve()
    daemon.bootstrap([{"name": name, "version": "1.0.0", "arch": ARCH} for name in ("one", "two")],
                     registry_url=registry.url, client_name="bench-7")
    daemon.start()
    for name in ("one", "two"):
        daemon.wait_status(name, "running")
    return daemon


def row_of(name):
    return f'tr:has(button.link:text-is("{name}"))'


def test_list_shows_what_runs_and_the_summary_which_machine(machine, page):
    page.open()
    page.wait(row_of("one"))

    assert page.call("title") == "mirelClient"
    assert page.texts("role=columnheader") == ["Name", "Version", "Status", "Args", "Started", "Actions"]
    row = page.texts(f"{row_of('one')} >> td")
    assert row[:4] == ["one", "1.0.0", "running", ""] and row[4].endswith(" ago")
    assert page.locate(f"{row_of('one')} >> .badge", "getAttribute", "class") == "badge good"
    page.wait("#summary >> text=bench-7")
    assert page.text("#summary").split() == ["os", "linux", "cpu", ARCH.split("-")[0], "name", "bench-7",
                                             "version", "0.0.0"]


def test_actions_do_what_they_say_and_the_list_follows_at_once(machine, page):
    page.open()
    page.button_of("one", "Stop")
    page.wait_text("stop one: ok")
    page.wait(f'{row_of("one")} >> .badge.warning >> text="stopped"')
    assert machine.status("one") == "stopped"
    assert page.texts(f"{row_of('one')} >> td")[4] == ""

    page.button_of("one", "Start")
    page.wait_text("start one: ok")
    page.wait(f'{row_of("one")} >> .badge.good')
    before = machine.children()
    page.button_of("one", "Restart")
    page.wait_text("restart one: ok")
    wait_until(lambda: machine.status("one") == "running" and machine.children() != before, "it runs anew")

    page.button_of("two", "Uninstall")
    page.wait_text("uninstall two: ok")
    page.wait_gone(row_of("two"))
    assert set(machine.packages()) == {"one"}


def test_failed_action_tells_the_error(machine, page):
    page.open()
    page.wait(row_of("one"))
    machine.post("/api/packages/one/uninstall")
    page.button_of("one", "Start")
    page.expected_errors = ["400 (Bad Request)"]
    error = machine.post("/api/packages/one/start").json()["error"]
    page.wait_text(f"start one failed: {error}")
    page.wait_gone(row_of("one"))


def test_machine_without_packages_says_so(daemon, page):
    daemon.start()
    page.open()
    page.wait_text("No packages installed.")


def test_list_that_cannot_be_read_puts_up_a_toast(daemon, page):
    daemon.start()
    page.expected_errors = ["500 (Internal Server Error)"]
    page.open(answers={"/api/packages": ({"error": "no list today"}, 500)}, stop_clock=True)
    page.wait('.toast.bad >> text="no list today"')
    page.wait_text("The packages could not be read: no list today")
    page.pass_time(2.4)
    assert page.count(".toast") == 1
    page.pass_time(0.1)
    assert page.count(".toast") == 0


def test_refresh_keeps_the_rows_and_what_has_the_focus(machine, page):
    page.open()
    page.wait(row_of("one"))
    page.evaluate("() => document.querySelectorAll('tbody tr').forEach((row) => (row.mark = 1))")
    page.locate(f"{row_of('one')} >> button.link", "focus")
    machine.post("/api/packages/two/stop")
    page.wait(f"{row_of('two')} >> .badge.warning")

    assert page.evaluate("() => [...document.querySelectorAll('tbody tr')].every((row) => row.mark === 1)")
    assert page.evaluate("() => document.activeElement.textContent") == "one"


def test_list_is_read_each_five_seconds_and_the_summary_each_thirty(machine, page):
    page.open(stop_clock=True)
    page.wait(row_of("one"))
    page.pass_time(4.9)
    assert (page.requests().count("/api/packages"), page.requests().count("/api/self")) == (1, 1)
    machine.post("/api/packages/one/stop")
    page.pass_time(0.1)
    page.wait(f'{row_of("one")} >> .badge.warning')
    page.pass_time(25)
    page.wait_asked("/api/self", 2)


def test_list_rests_while_a_detail_is_open(machine, page):
    page.open(stop_clock=True)
    page.open_package("one", "Manifest")
    page.wait('pre:has-text("one in version 1.0.0")')
    page.pass_time(30)
    page.wait_asked("/api/self", 2)
    assert page.requests().count("/api/packages") == 1

    page.press("Escape")
    page.wait(row_of("one"))
    page.wait_asked("/api/packages", 2)


def test_manifest_is_the_one_that_was_installed(machine, page):
    page.open()
    page.open_package("one", "Manifest")
    page.wait("pre")
    assert json.loads(page.text("pre")) == machine.get("/api/packages/one/manifest").json()
    assert page.text("pre").startswith("{\n  ")


def test_keyboard_reaches_everything(machine, page):
    page.open()
    page.locate(f"{row_of('one')} >> button.link", "focus")
    page.press("Enter")
    page.wait('role=tab[name="Manifest"][selected=true]')
    page.press("ArrowRight")
    page.wait('role=tab[name="Sessions"][selected=true]')
    page.expected_errors = ["404 (Not Found)"]
    page.press("ArrowLeft")
    page.press("ArrowLeft")
    page.wait('role=tab[name="VNC"][selected=true]')
    page.press("Escape")
    page.wait(row_of("one"))
    assert page.evaluate("() => document.activeElement.textContent") == "one"


def test_launch_arguments_are_split_at_white_space(machine, page):
    page.open()
    page.open_package("one", "Launch args")
    page.fill('role=textbox[name="Launch arguments"]', "  --fast \t -n 3 ")
    page.click('role=button[name="Save"]')
    page.wait_text("Launch args saved - restart the package to apply.")
    assert machine.packages()["one"]["launch_args"] == ["--fast", "-n", "3"]

    page.click('role=button[name="← Packages"]')
    page.wait(f'{row_of("one")} >> text="--fast -n 3"')


def test_escape_takes_back_what_was_typed_before_it_closes_the_detail(machine, page):
    page.open()
    page.open_package("one", "Launch args")
    page.fill('role=textbox[name="Launch arguments"]', "typed")
    page.press("Escape")
    assert page.value('role=textbox[name="Launch arguments"]') == ""
    page.press("Escape")
    page.wait(row_of("one"))


def test_switch_of_the_version_shows_its_phases(machine, page):
    page.open()
    page.open_package("one", "Versions")
    page.wait('tr:has-text("1.0.0") >> .badge >> text="current"')
    assert [row.split() for row in page.texts("tbody tr")] == [
        ["main", "2.0.0", ARCH, "Switch"], ["main", "1.0.0", ARCH, "current"],
        ["testing", "3.0.0-beta", ARCH, "Switch"]]

    page.evaluate("""() => {
        window.phases = [];
        const see = () => document.querySelectorAll(".phase").forEach((phase) => {
            if (phase.textContent && phases.at(-1) !== phase.textContent) phases.push(phase.textContent);
        });
        new MutationObserver(see).observe(document.body, { subtree: true, childList: true, characterData: true });
    }""")
    for phase in ("downloading", "installing", "starting"):
        label = phase.capitalize() + "…"
        page.answer("/api/packages/one/update-status", {"phase": phase, "error": "", "target_version": "2.0.0"})
        if phase == "downloading":
            page.button_of("2.0.0", "Switch")
        page.wait_text(label)
    page.call("unrouteAll")
    page.wait('tr:has-text("2.0.0") >> .badge >> text="current"')

    assert page.evaluate("() => phases") == ["Downloading…", "Installing…", "Starting…", "Done"]
    assert machine.packages()["one"]["version"] == "2.0.0"
    assert ("/api/packages/one/update", json.dumps({"channel": "main", "version": "2.0.0", "arch": ARCH},
                                                   separators=(",", ":"))) in page.requests("POST")


def test_failed_switch_shows_its_error(machine, registry, page):
    page.open()
    page.open_package("one", "Versions")
    page.wait('tr:has-text("2.0.0")')
    registry.stop()
    page.button_of("2.0.0", "Switch")
    page.wait('.phase.bad >> text=/^Failed: ./')
    assert machine.packages()["one"]["version"] == "1.0.0"


def test_newer_switch_ends_the_watch_of_an_older_one(machine, page):
    page.open()
    page.open_package("one", "Versions")
    page.answer("/api/packages/one/update-status",
                {"phase": "downloading", "error": "", "target_version": "2.0.0"})
    page.button_of("2.0.0", "Switch")
    page.wait_text("Downloading…")
    page.answer("/api/packages/one/update-status",
                {"phase": "installing", "error": "", "target_version": "3.0.0-beta"})
    page.wait_gone('.phase:text-is("Downloading…")')
    asked = page.requests().count("/api/packages/one/update-status")
    page.button_of("3.0.0-beta", "Switch")
    page.wait('tr:has-text("3.0.0-beta") >> .phase >> text="Installing…"')
    assert page.text('tr:has-text("2.0.0") >> .phase') == ""
    assert page.requests().count("/api/packages/one/update-status") > asked


def test_package_that_is_down_has_a_bad_badge(daemon, page):
    write_registry(entry_text("broken", "1.0.0", "/usr/local/daemon/nowhere"))
    daemon.start()
    page.open()
    page.wait(f'{row_of("broken")} >> .badge.bad >> text="down"')
