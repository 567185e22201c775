"""The dashboard in a real browser, as a person uses it."""
import json
import os
import pathlib
import subprocess
import time

from daemon import WEB_PORT
from programs import BIN, wait_until

DRIVER = pathlib.Path(__file__).with_name("driver.mjs")
NPM = BIN.parent / "tests/browser/npm"
HOME = f"http://127.0.0.1:{WEB_PORT}/"
DESK = (1280, 720)
PHONE = (390, 844)

# How many colours a picture has between two heights: a page that was not drawn has one or two.
COUNT_COLOURS = """async ([picture, top, bottom]) => {
    const bytes = Uint8Array.from(atob(picture), (byte) => byte.charCodeAt(0));
    const image = await createImageBitmap(new Blob([bytes], { type: "image/png" }));
    const canvas = new OffscreenCanvas(image.width, image.height).getContext("2d");
    canvas.drawImage(image, 0, 0);
    const { data } = canvas.getImageData(0, top, image.width, bottom - top);
    return new Set(new Uint32Array(data.buffer)).size;
}"""


class Browser:
    def __init__(self, prefix=()):
        """The prefix is a command that runs it elsewhere."""
        self.process = subprocess.Popen(
            [*prefix, "node", DRIVER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
            env={**os.environ, "MIREL_BROWSER_NPM": str(NPM)})

    def do(self, **command):
        print(json.dumps(command), file=self.process.stdin, flush=True)
        line = self.process.stdout.readline()
        assert line, "the browser has ended"
        answer = json.loads(line)
        assert "error" not in answer, f"{command}: {answer['error']}"
        return answer.get("result")

    def stop(self):
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()


class Page:
    """The open page. Selectors are Playwright's; whatever is clicked or filled is waited for."""

    def __init__(self, browser):
        self.browser = browser
        self.expected_errors = []

    def open(self, url=HOME, size=DESK, answers=None, stop_clock=False, held=()):
        """A fresh page at the address. The answers, by path, stand in for the machine's own; what is
        held gets none."""
        self.browser.do(do="open", args=list(size))
        if stop_clock:
            self.browser.do(do="stop_clock", args=[int(time.time() * 1000)])
        for path, answer in (answers or {}).items():
            self.answer(path, *answer) if isinstance(answer, tuple) else self.answer(path, answer)
        for path in held:
            self.hold(path)
        self.call("goto", url)
        return self

    def close(self):
        self.browser.do(do="close")

    def answer(self, path, body, status=200):
        self.browser.do(do="answer", args=[path, status, json.dumps(body)])

    def hold(self, path):
        """What is asked of the path from now on gets no answer."""
        self.browser.do(do="hold", args=[path])

    def call(self, method, *arguments):
        return self.browser.do(do="page", method=method, args=arguments)

    def locate(self, selector, method, *arguments):
        return self.browser.do(do="locator", selector=selector, method=method, args=arguments)

    def click(self, selector):
        self.locate(selector, "click")

    def fill(self, selector, text):
        self.locate(selector, "fill", text)

    def press(self, key):
        """On what has the focus."""
        self.browser.do(do="press", args=[key])

    def type(self, text):
        self.browser.do(do="type", args=[text])

    def wait(self, selector):
        """Until there is one at least."""
        self.locate(f"{selector} >> nth=0", "waitFor")

    def wait_text(self, text):
        self.wait(f'text="{text}"')

    def wait_gone(self, selector):
        self.locate(f"{selector} >> nth=0", "waitFor", {"state": "detached"})

    def text(self, selector):
        return self.locate(selector, "innerText")

    def texts(self, selector):
        return self.locate(selector, "allInnerTexts")

    def value(self, selector):
        return self.locate(selector, "inputValue")

    def count(self, selector):
        return self.locate(selector, "count")

    def evaluate(self, script, argument=None):
        return self.browser.do(do="evaluate", args=[script, argument])

    def pass_time(self, seconds):
        """Moves the page's clock, which `open` was told to stop, and lets all that is due happen. What
        the page has asked for by then is answered first, but for what is held."""
        self.browser.do(do="pass_time", args=[seconds * 1000])

    def tab(self, name):
        self.click(f'role=tab[name="{name}"]')

    def open_package(self, name, sub_tab):
        self.click(f'role=button[name="{name}"]')
        self.tab(sub_tab)

    def button_of(self, row, label):
        """Clicks a button of the row in which a cell has just this text."""
        self.click(f'tr:has(td:text-is("{row}"), td > *:text-is("{row}")) >> role=button[name="{label}"]')

    def requests(self, method="GET"):
        """What the page asked for so far: paths, and for a POST paths and bodies."""
        asked = [request for request in self.browser.do(do="told")["requests"] if request["method"] == method]
        return [request["path"] if method == "GET" else (request["path"], request["body"]) for request in asked]

    def sockets(self):
        """The paths of the WebSockets that the page has opened so far."""
        return self.browser.do(do="told")["sockets"]

    def wait_asked(self, path, times=1):
        wait_until(lambda: self.requests().count(path) >= times, f"{path} was asked for {times} times")

    def unexpected_errors(self):
        return [error for error in self.browser.do(do="told")["errors"]
                if not any(expected in error for expected in self.expected_errors)]

    def colours_below_the_header(self):
        width, height = self.evaluate("() => [innerWidth, innerHeight]")
        top = self.evaluate("() => Math.ceil(document.querySelector('main').getBoundingClientRect().top)")
        return self.evaluate(COUNT_COLOURS, [self.call("screenshot"), top, height])
