"""Fixtures of the browser tests: those of the system tests, and a page of the dashboard."""
import importlib.util
import pathlib
import sys

import pytest

SYSTEM = pathlib.Path(__file__).resolve().parent.parent / "system"
sys.path.insert(0, str(SYSTEM))
_spec = importlib.util.spec_from_file_location("system_fixtures", SYSTEM / "conftest.py")
_fixtures = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_fixtures)
globals().update({name: value for name, value in vars(_fixtures).items() if not name.startswith("_")})

from browser import Browser, Page  # noqa: E402
from live_package import LivePackage, build_artifact  # noqa: E402
from preloaded import entry_text, write_registry  # noqa: E402


@pytest.fixture(scope="session")
def browser():
    browser = Browser()
    yield browser
    browser.stop()


@pytest.fixture
def page(browser, daemon):
    """A page that has told of no error when the test ends, but for those that the test expects."""
    page = Page(browser)
    yield page
    errors = page.unexpected_errors()
    page.close()
    assert errors == []


@pytest.fixture
def open_page(daemon, page):
    """Opens the page of a machine on which "app" is installed, with stand-ins for some answers."""
    write_registry(entry_text("app", "1.0.0", "/usr/local/daemon/nowhere", stopped=True))
    daemon.start()
    return lambda **options: page.open(**options)


@pytest.fixture(scope="session")
def artifact(tmp_path_factory):
    return build_artifact(tmp_path_factory.mktemp("live"))


@pytest.fixture
def package(daemon, registry, artifact):
    """An application of the real kind, not installed yet."""
    return LivePackage(daemon, registry, artifact)
