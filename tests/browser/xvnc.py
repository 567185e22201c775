"""A machine's remote screen: TigerVNC's Xvnc, and what its X clients draw and are told."""
import os
import re
import subprocess

from programs import wait_until

PORT = 5900
SIZE = (640, 400)
WINDOW = (320, 200)
PASSWORD = "secret"
# The way the server stores it: under DES with a key that is the same everywhere.
STORED_PASSWORD = "2e2dbf576eb06c9e"
BACKGROUND = (0xcc, 0x33, 0x00)
WHITE = (0xff, 0xff, 0xff)


class Xvnc:
    """A screen with a coloured background, and in its corner a white window, which tells what reaches
    it."""

    def __init__(self, output_path, with_password=False):
        security = ["VncAuth", "-Password", STORED_PASSWORD] if with_password else ["None"]
        told, ready = os.pipe()
        with open(told) as display, open(output_path, "wb") as output:
            self.server = subprocess.Popen(
                ["Xvnc", "-displayfd", str(ready), "-rfbport", str(PORT), "-localhost", "-depth", "24",
                 "-geometry", "{}x{}".format(*SIZE), "-SecurityTypes", *security],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, pass_fds=[ready])
            os.close(ready)
            self.environment = {**os.environ, "DISPLAY": f":{display.readline().strip()}"}
        subprocess.run(["xsetroot", "-solid", "#%02x%02x%02x" % BACKGROUND], env=self.environment, check=True)
        self.events_path = output_path.with_suffix(".events")
        with open(self.events_path, "wb") as events:
            self.window = subprocess.Popen(
                ["xev", "-geometry", "{}x{}+0+0".format(*WINDOW)], env=self.environment,
                stdin=subprocess.DEVNULL, stdout=events, stderr=subprocess.STDOUT)
        wait_until(lambda: "MapNotify" in self.events(), "the window is on the screen")

    def stop(self):
        """Its clients end with the server."""
        self.server.terminate()
        self.server.wait()
        self.window.wait()

    def events(self):
        return self.events_path.read_text(errors="replace")

    def clicks(self):
        """Where on the screen the first mouse button went down."""
        found = re.findall(r"^ButtonPress .*?root:\((\d+),(\d+)\),.*?button 1,", self.events(), re.M | re.S)
        return [tuple(map(int, place)) for place in found]

    def keys(self):
        """Press and release of each key, by the name of what it means."""
        return re.findall(r"^Key(Press|Release) .*?keysym \w+, (\w+)\)", self.events(), re.M | re.S)

    @staticmethod
    def viewers():
        listed = subprocess.run(["ss", "-Htn", "state", "established", f"sport = :{PORT}"],
                                check=True, capture_output=True, text=True).stdout
        return len(listed.splitlines())


def colours(page):
    """Of the screen that the viewer shows, in the middle of the window and beside it."""
    return page.evaluate("""(places) => {
        const canvas = document.querySelector(".screen canvas");
        const context = canvas.getContext("2d");
        return [canvas.width, canvas.height,
            ...places.map(([x, y]) => [...context.getImageData(x, y, 1, 1).data].slice(0, 3))];
    }""", [[WINDOW[0] // 3, WINDOW[1] - 20], [SIZE[0] - 20, SIZE[1] - 20]])


def wait_shown(page):
    page.wait_text("connected")
    expected = [*SIZE, list(WHITE), list(BACKGROUND)]
    wait_until(lambda: colours(page) == expected, "the screen is shown as it is")


def click_at(page, x, y):
    """A click on a place of the remote screen, however large the viewer shows it."""
    box = page.locate(".screen canvas", "boundingBox")
    position = {"x": x * box["width"] / SIZE[0], "y": y * box["height"] / SIZE[1]}
    page.locate(".screen canvas", "click", {"position": position})
