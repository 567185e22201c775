"""Screens over WebSockets, in front of a real TCP server: with a real client and with hostile bytes."""
import asyncio
import socket

import pytest
import websockets

from daemon import LOG_FILE, STOPPED_BY_SIGTERM
from processes import thread_names
from programs import wait_until
from screen import VNC_PORT, accepted, fill, read_all, screen_server
from websocket import ENDS, MEBIBYTE, RawViewer, frame, in_viewer, raw_viewer

GREETING = b"RFB 003.008\n\0\xff"
ANSWER = (b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
          b"Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n")


@pytest.fixture
def screen(daemon):
    with screen_server() as listener:
        daemon.start()
        yield listener


def bridges(daemon):
    return thread_names(daemon.pid).count("vnc-reader")


def pattern(size):
    return bytes(range(251)) * (size // 251 + 1)


def test_bytes_go_both_ways_as_they_are(screen):
    async def scenario(viewer):
        backend = await asyncio.to_thread(accepted, screen)
        backend.sendall(GREETING)
        assert await viewer.recv() == GREETING
        await viewer.send(GREETING)
        assert await asyncio.to_thread(read_all, backend, len(GREETING)) == GREETING
        backend.close()
    in_viewer(scenario)


def test_megabytes_arrive_whole_in_messages_of_one_read_each(screen):
    data = pattern(5 * MEBIBYTE)[:5 * MEBIBYTE]

    async def scenario(viewer):
        backend = await asyncio.to_thread(accepted, screen)
        sending = asyncio.create_task(asyncio.to_thread(backend.sendall, data))
        received = bytearray()
        while len(received) < len(data):
            message = await viewer.recv()
            assert 0 < len(message) <= 8192
            received += message
        await sending
        assert received == data
        backend.close()
    in_viewer(scenario)


def test_messages_up_to_one_mebibyte_reach_the_server_whole(screen):
    data = pattern(MEBIBYTE)[:MEBIBYTE]

    async def scenario(viewer):
        backend = await asyncio.to_thread(accepted, screen)
        reading = asyncio.create_task(asyncio.to_thread(read_all, backend, 2 * len(data) + 2))
        await viewer.send(data)
        await viewer.send([b"a", data[:-1]])  # in two fragments
        await viewer.send(b"bc")
        assert await reading == data + b"a" + data[:-1] + b"bc"
        backend.close()
    in_viewer(scenario)


def test_a_client_that_pings_amid_a_fragmented_message_and_closes_gets_its_answers(screen):
    async def scenario(viewer):
        backend = await asyncio.to_thread(accepted, screen)

        async def fragments():
            yield b"one "
            await asyncio.wait_for(await viewer.ping(b"x"), 20)
            yield b"two "
            await asyncio.wait_for(await viewer.ping(), 20)
            yield b"three"
        await viewer.send(fragments())
        assert await asyncio.to_thread(read_all, backend, 13) == b"one two three"
        await viewer.close()
        assert (viewer.close_code, viewer.close_reason) == (1005, "")  # a close frame without a status
        assert await asyncio.to_thread(read_all, backend, 1) == b""
        backend.close()
    in_viewer(scenario)


def test_text_frames_and_unknown_ones_are_ignored(screen):
    with raw_viewer() as viewer, accepted(screen) as backend:
        viewer.send(frame(1, b"not for the server") + frame(3, b"nor this") + frame(10, b"nor that") +
                    frame(0, b"nor a continuation of nothing") + frame(2, b"for it"))
        assert read_all(backend, 6) == b"for it"


@pytest.mark.parametrize("sent", ENDS.values(), ids=ENDS.keys())
def test_a_connection_that_ends_badly_ends_its_bridge(daemon, screen, sent):
    with raw_viewer() as viewer, accepted(screen) as backend:
        viewer.send(frame(2, b"first") + sent)
        viewer.socket.shutdown(socket.SHUT_WR)
        assert viewer.frames() == ([(8, b"")] if sent[:1] == b"\x88" else [])
        assert read_all(backend, 100) == b"first"
    wait_until(lambda: bridges(daemon) == 0, "the bridge has ended")
    assert daemon.get("/api/self").status == 200


@pytest.mark.parametrize("headers", [{"connection": "keep-alive, Upgrade"}, {"upgrade": "WebSocket"}])
def test_a_handshake_is_answered_whatever_its_case_and_other_tokens(screen, headers):
    with raw_viewer(**headers) as viewer, accepted(screen) as backend:
        assert viewer.head == ANSWER
        backend.sendall(GREETING)
        assert viewer.read_frame() == (2, GREETING)


@pytest.mark.parametrize("headers", [{"connection": "keep-alive"}, {"upgrade": "h2c"}])
def test_a_wrong_handshake_is_silently_closed_and_nobody_dialled(screen, headers):
    with raw_viewer(**headers) as viewer:
        assert viewer.head == b""
    with raw_viewer(), accepted(screen):  # the first that was dialled for, and the only one
        screen.setblocking(False)
        with pytest.raises(BlockingIOError):
            screen.accept()


def test_without_a_server_the_connection_opens_and_ends_without_a_close_frame(daemon):
    daemon.start()
    with raw_viewer() as viewer:
        assert viewer.head == ANSWER
        assert viewer.frames() == []

    async def scenario(viewer):
        with pytest.raises(websockets.ConnectionClosedError) as closed:
            await viewer.recv()
        return closed.value.rcvd
    assert in_viewer(scenario) is None


@pytest.mark.parametrize("opcode", [2, 1, 3])
def test_after_the_servers_end_pings_are_answered_and_the_next_message_ends_it(daemon, screen, opcode):
    with raw_viewer() as viewer:
        with accepted(screen) as backend:
            backend.sendall(b"last")
        assert viewer.read_frame() == (2, b"last")
        wait_until(lambda: bridges(daemon) == 0, "the daemon has seen the end")
        for payload in [b"a", b""]:
            assert viewer.answer_to_ping(payload) == (10, payload)
        viewer.send(frame(opcode, b"x"))
        assert viewer.read_frame() is None


@pytest.mark.parametrize("leave", [RawViewer.close, RawViewer.abort, RawViewer.send_close],
                         ids=["closed", "lost", "by a close frame"])
def test_a_viewer_that_leaves_a_silent_server_ends_its_bridge(daemon, screen, leave):
    viewer = RawViewer()
    with accepted(screen) as backend:
        leave(viewer)
        assert read_all(backend, 1) == b""
        wait_until(lambda: bridges(daemon) == 0, "the bridge has ended")
    viewer.close()


def test_a_viewer_that_is_lost_before_a_server_that_reads_nothing_ends_its_bridge(daemon, screen):
    viewer = RawViewer()
    with accepted(screen):
        fill(viewer.socket, frame(2, b"x" * 60_000), patience=0.5)
        viewer.abort()
        wait_until(lambda: bridges(daemon) == 0, "the bridge has ended")


def test_a_viewer_that_is_lost_amid_a_picture_ends_its_bridge(daemon, screen):
    viewer = RawViewer()
    with accepted(screen) as backend:
        fill(backend, b"x" * 60_000, patience=0.5)
        viewer.abort()
        # Within a picture there is no other end of it.
        with pytest.raises(ConnectionError):
            while True:
                backend.sendall(b"x" * 60_000)
        wait_until(lambda: bridges(daemon) == 0, "the bridge has ended")


def test_viewers_have_a_connection_each(screen):
    with raw_viewer() as first, accepted(screen) as first_backend, \
            raw_viewer() as second, accepted(screen) as second_backend:
        second_backend.sendall(b"two")
        first_backend.sendall(b"one")
        assert (first.read_frame(), second.read_frame()) == ((2, b"one"), (2, b"two"))
        fill(first_backend, b"x" * 60_000, patience=0.2)  # which the first viewer does not read
        second_backend.sendall(b"more")
        assert second.read_frame() == (2, b"more")


def test_the_port_is_read_on_each_connection(daemon, screen):
    with raw_viewer(), accepted(screen), screen_server(VNC_PORT + 1) as other:
        assert daemon.post("/api/self/config", {"name": "vnc_local_port", "value": str(VNC_PORT + 1)}).status == 200
        with raw_viewer() as viewer, accepted(other) as backend:
            backend.sendall(b"other")
            assert viewer.read_frame() == (2, b"other")


def test_frames_that_come_in_any_pieces_reach_the_server_whole(screen):
    payloads = [bytes([number]) * number for number in range(1, 130)]
    data = b"".join(frame(2, payload, mask=None if len(payload) % 2 else b"abcd") for payload in payloads)
    with raw_viewer() as viewer, accepted(screen) as backend:
        for byte in data[:2000]:
            viewer.send(bytes([byte]))
        viewer.send(data[2000:])
        expected = b"".join(payloads)
        assert read_all(backend, len(expected)) == expected


def test_a_crash_ends_every_bridge(daemon, screen):
    viewers = [RawViewer() for _ in range(3)]
    backends = [accepted(screen) for _ in viewers]
    daemon.crash()
    assert [viewer.frames() for viewer in viewers] == [[]] * 3
    assert [read_all(backend, 1) for backend in backends] == [b""] * 3
    with raw_viewer() as viewer, accepted(screen) as backend:
        backend.sendall(GREETING)
        assert viewer.read_frame() == (2, GREETING)
    for connection in viewers + backends:
        connection.close()


def test_no_end_of_a_bridge_is_told_in_the_log(daemon):
    def messages_of_a_session(visit):
        daemon.start()
        visit()
        assert daemon.stop() == STOPPED_BY_SIGTERM
        lines = daemon.log().splitlines()
        LOG_FILE.unlink()
        assert "session stop: " in lines[-1]
        return [line.partition("] [20")[2].partition("] ")[2] for line in lines[:-1]]

    def visit():
        for sent in ENDS.values():
            with raw_viewer() as viewer:  # nobody to be dialled
                viewer.frames()
            with screen_server() as listener, raw_viewer() as viewer, accepted(listener) as backend:
                viewer.send(sent)
                viewer.abort()
                read_all(backend, 1)
    daemon.configure(log_min_level=0)
    messages_of_a_session(lambda: None)  # which completes the configuration
    assert messages_of_a_session(visit) == messages_of_a_session(lambda: None)
