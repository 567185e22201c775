"""A stop while people use the machine: terminals, viewers and streams of the tunnel are open."""
import re
import socket

import pytest
from daemon import CRASHES, MIRELCLIENT, SESSIONS, STOPPED_BY_SIGTERM, WEB_PORT
from full_listener import attempts_under_way, filled
from processes import instances, jobs_of, thread_names
from programs import wait_until
from screen import VNC_PORT, abort, accepted, fill, read_all, screen_server
from sessions import check_stop_line
from shells import open_terminals
from tunnel_server import TunnelServer
from websocket import PATH, RawTerminal, RawViewer, VNC_PATH, frame, handshake

COUNT = 50
LOG_LINE = re.compile(r"\[mirelclient\] \[[A-Z]+\] \[\d{4}-\d\d-\d\d_\d\d:\d\d:\d\d\.\d{3}\] .+")


@pytest.fixture
def screen():
    with screen_server() as listener:
        yield listener


def stay_silent(viewer, backend):
    pass


def paint_what_nobody_reads(viewer, backend):
    fill(backend, b"x" * 60_000, patience=0.2)


def type_what_nobody_reads(viewer, backend):
    fill(viewer.socket, frame(2, b"x" * 60_000), patience=0.2)


def do_both(viewer, backend):
    paint_what_nobody_reads(viewer, backend)
    type_what_nobody_reads(viewer, backend)


def ping_what_nobody_reads(viewer, backend):
    """The answer to a ping waits for the picture before it."""
    paint_what_nobody_reads(viewer, backend)
    viewer.send(frame(9, b"x"))


def lose_the_server(viewer, backend):
    abort(backend)


def end_within_a_frame(viewer, backend):
    viewer.send(frame(2, b"never")[:-1])


STATES = [stay_silent, paint_what_nobody_reads, type_what_nobody_reads, do_both, ping_what_nobody_reads,
          lose_the_server, end_within_a_frame]


def open_viewers(screen, count):
    """That many, in all states that a bridge may be in; and the other sides of their bridges."""
    viewers, backends = [], []
    for number in range(count):
        viewers.append(RawViewer())
        assert viewers[-1].is_open
        backends.append(accepted(screen))
        STATES[number % len(STATES)](viewers[-1], backends[-1])
    return viewers, backends


def open_streams(tunnel, screen, count):
    """That many in turn to the web API, to the screen server and to a shell; the other sides of the second."""
    backends = []
    for stream in range(count):
        tunnel.open(stream, ["http", "vnc", "console"][stream % 3])
        if stream % 3 == 1:
            backends.append(accepted(screen))
        elif stream % 3 == 2:
            tunnel.type(stream, ["sleep 1000\n", "trap '' HUP; while :; do sleep 1000; done\n"][stream % 2])
    return backends


def check_clean_stop(daemon):
    """As without anybody: the same end, everything said of it whole, and nothing left behind."""
    pid = daemon.pid
    assert daemon.stop() == STOPPED_BY_SIGTERM
    check_stop_line(SESSIONS, pid)
    assert not CRASHES.read_text()
    log = daemon.log()
    assert log.endswith("\n") and all(map(LOG_LINE.fullmatch, log.splitlines()))
    assert log.count(f"session stop: pid={pid} ") == 1
    assert not instances(MIRELCLIENT)
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", WEB_PORT))


def close_all(connections):
    for connection in connections:
        connection.close()


def test_with_50_terminals_it_is_as_clean_as_without(daemon, tmp_path):
    daemon.start()
    terminals, shells = open_terminals(tmp_path, COUNT)
    for terminal in terminals:
        terminal.send(frame(2, b"x" * 20_000))  # some of them never read it
    check_clean_stop(daemon)
    wait_until(lambda: not jobs_of(shells), "nothing runs in the terminals any more")
    for terminal in terminals:
        assert all(opcode == 2 for opcode, _ in terminal.frames())
        terminal.close()


def test_with_50_viewers_it_is_as_clean_as_without(daemon, screen):
    daemon.start()
    viewers, backends = open_viewers(screen, COUNT)
    check_clean_stop(daemon)
    for number, (viewer, backend) in enumerate(zip(viewers, backends)):
        viewer.frames()  # no more than what was there
        if STATES[number % len(STATES)] is stay_silent:
            assert read_all(backend, 1) == b""
    close_all(viewers + backends)


def test_viewers_whose_server_takes_no_connection_do_not_hold_it(daemon):
    daemon.start()
    with screen_server(backlog=0), filled(VNC_PORT):
        viewers = [RawViewer() for _ in range(COUNT)]
        assert all(viewer.is_open for viewer in viewers)
        wait_until(lambda: attempts_under_way(VNC_PORT) > COUNT, "all of them are being dialled")
        check_clean_stop(daemon)
        assert [viewer.frames() for viewer in viewers] == [[]] * COUNT
        close_all(viewers)


def test_with_50_of_everything_at_once_it_is_as_clean_as_without(daemon, screen, tmp_path):
    server = TunnelServer()
    daemon.configure(tunnel_addr=server.address)
    daemon.start()
    tunnel = server.accept()
    terminals, shells = open_terminals(tmp_path, COUNT)
    viewers, backends = open_viewers(screen, COUNT)
    backends += open_streams(tunnel, screen, COUNT)
    wait_until(lambda: thread_names(daemon.pid).count("tunnel-stream") == COUNT, "all streams are open")
    shells += daemon.children()
    assert len(set(shells)) >= COUNT + COUNT // 3
    check_clean_stop(daemon)
    wait_until(lambda: not jobs_of(shells), "no shell runs any more")
    close_all(terminals + viewers + backends)
    server.end()


def test_with_people_who_come_and_go_it_is_as_clean_as_without(daemon, screen):
    """Some connections are just being closed, and some opened."""
    for number in range(20):
        daemon.start()
        connections = [kind() for kind in [RawTerminal, RawViewer] * 10]
        for connection in connections[:number]:
            connection.abort()
        connections += [newcomer(path) for path in [PATH, VNC_PATH] * 5]
        check_clean_stop(daemon)
        close_all(connections)


def newcomer(path):
    """One that asks for a WebSocket and does not wait for the answer."""
    connection = socket.create_connection(("127.0.0.1", WEB_PORT))
    connection.sendall(handshake(path))
    return connection
