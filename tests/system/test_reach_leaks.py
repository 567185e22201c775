"""A thousand terminals and a thousand viewers, ended in every way: the daemon is as it was before."""
import contextlib

import pytest
from footprint import check_rounds_leave_nothing
from processes import end_instances
from programs import wait_until
from screen import abort, accepted, fill, read_all, screen_server
from websocket import MEBIBYTE, RawTerminal, RawViewer, frame

ROUNDS, AT_ONCE = 20, 50


# -- terminals --

def leave_by_close_frame(terminal):
    terminal.type("sleep 1000\n")
    terminal.send(frame(8))
    assert terminal.frames()[-1] == (8, b"")


def lose_connection_amid_output(terminal):
    terminal.type("exec yes\n")
    terminal.read_until(b"y\r\ny\r\n")
    terminal.abort()


def lose_connection_amid_keys(terminal):
    terminal.type("stty raw -echo; echo rea''dy; exec sleep 1000\n")
    terminal.read_until(b"ready\n")
    fill(terminal.socket, frame(2, b"x" * 60_000))
    terminal.abort()


def end_the_shell(terminal):
    terminal.type("exec echo go''ne\n")
    terminal.read_until(b"gone\r\n")
    # The first message may come before the daemon has seen the end.
    with contextlib.suppress(ConnectionError):
        while terminal.answer_to_ping(b"") is not None:
            terminal.type("x")


def leave_a_job(terminal):
    """It holds the terminal, and goes on without its shell."""
    terminal.type("trap '' HUP; sleep 1000 & exec echo go''ne\n")
    terminal.read_until(b"gone\r\n")
    terminal.send(frame(8))
    assert terminal.frames()[-1] == (8, b"")


def lose_connection_with_a_job(terminal):
    terminal.type("trap '' HUP; (while :; do echo busy; sleep 0.01; done) & exec echo go''ne\n")
    terminal.read_until(b"gone\r\n")
    terminal.abort()


def break_off_within_a_frame(terminal):
    terminal.send(frame(2, b"echo never")[:-1])


def send_too_much(terminal):
    terminal.send(frame(2, length=MEBIBYTE + 1))
    assert all(opcode == 2 for opcode, _ in terminal.frames())


TERMINAL_ENDS = [leave_by_close_frame, lose_connection_amid_output, lose_connection_amid_keys, end_the_shell,
                 leave_a_job, lose_connection_with_a_job, break_off_within_a_frame, send_too_much]


def test_a_thousand_terminals_leave_nothing_behind(daemon):
    daemon.start()

    def run_round(_):
        terminals = [RawTerminal() for _ in range(AT_ONCE)]
        assert all(terminal.is_open for terminal in terminals)
        wait_until(lambda: len(daemon.children()) == AT_ONCE, "these shells run")
        for number, terminal in enumerate(terminals):
            TERMINAL_ENDS[number % len(TERMINAL_ENDS)](terminal)
            terminal.close()
        wait_until(lambda: not daemon.children(), "the shells have ended")
        end_instances("sleep", "sh")
    check_rounds_leave_nothing(daemon, run_round, ROUNDS)


# -- viewers --

def viewer_leaves_by_close_frame(viewer, backend):
    viewer.send(frame(2, b"key") + frame(8))
    assert viewer.frames() == [(8, b"")]
    assert read_all(backend, 4) == b"key"


def viewer_leaves_a_silent_server(viewer, backend):
    viewer.close()
    assert read_all(backend, 1) == b""


def viewer_is_lost(viewer, backend):
    viewer.abort()
    assert read_all(backend, 1) == b""


def viewer_is_lost_amid_pictures(viewer, backend):
    fill(backend, b"x" * 60_000)
    viewer.abort()


def viewer_is_lost_amid_input(viewer, _):
    """For a server that reads nothing of it. An ordinary end would wait behind the input."""
    fill(viewer.socket, frame(2, b"x" * 60_000))
    viewer.abort()


def viewer_breaks_off_within_a_frame(viewer, backend):
    viewer.send(frame(2, b"key") + frame(2, b"never")[:-1])
    viewer.close()
    assert read_all(backend, 4) == b"key"


def server_ends(viewer, backend):
    backend.sendall(b"last")
    backend.close()
    assert viewer.read_until(b"last") == b"last"
    # The first frame may come before the daemon has seen the end.
    with contextlib.suppress(ConnectionError):
        while viewer.answer_to_ping(b"") is not None:
            viewer.send(frame(2, b"key"))


def server_is_lost(viewer, backend):
    abort(backend)
    with contextlib.suppress(ConnectionError):
        while viewer.answer_to_ping(b"") is not None:
            viewer.send(frame(2, b"key"))


VIEWER_ENDS = [viewer_leaves_by_close_frame, viewer_leaves_a_silent_server, viewer_is_lost,
               viewer_is_lost_amid_pictures, viewer_is_lost_amid_input, viewer_breaks_off_within_a_frame,
               server_ends, server_is_lost]


@pytest.fixture
def screen():
    with screen_server() as listener:
        yield listener


def test_a_thousand_viewers_leave_nothing_behind(daemon, screen):
    daemon.start()
    backends = []

    def run_round(_):
        viewers = []
        for _ in range(AT_ONCE):
            viewers.append(RawViewer())
            assert viewers[-1].is_open
            backends.append(accepted(screen))
        for number, (viewer, backend) in enumerate(zip(viewers, backends[-AT_ONCE:])):
            VIEWER_ENDS[number % len(VIEWER_ENDS)](viewer, backend)
            viewer.close()
    # The screen server keeps its sides of all of them: the daemon ends a bridge by itself.
    check_rounds_leave_nothing(daemon, run_round, ROUNDS)
    for backend in backends:
        backend.close()
