"""Terminals over WebSockets, with a real client and with hostile bytes; one-shot commands."""
import asyncio
import json
import os
import signal
import time

import pytest
import websockets

from load import send_without_waiting
from processes import is_alive, jobs_of, terminal_masters, thread_names
from programs import wait_until
from shells import open_terminals, pid_in
from websocket import ENDS, MEBIBYTE, PATH, RawTerminal, frame, in_browser, raw_terminal

NOTE = "\n[...output truncated at 1 MiB...]"


def execute(daemon, command):
    body = json.dumps({"command": command}, ensure_ascii=False).encode()
    answer = daemon.post("/api/console/exec", body)
    assert answer.status == 200
    return answer.json()


def result(exit_code, output="", timed_out=False):
    return {"exit_code": exit_code, "output": output, "timed_out": timed_out}


# -- terminals --

def test_a_terminal_is_a_shell_on_the_daemons_machine(daemon):
    daemon.start()

    async def scenario(terminal):
        await terminal.quiet()
        return [await terminal.answer_to(command) for command in ["stty size", "echo $TERM $0", "cat /proc/$PPID/comm"]]
    assert in_browser(scenario) == ["24 80\r\n", "xterm-256color sh\r\n", "mirelclient\r\n"]


def test_the_window_is_resized(daemon):
    daemon.start()

    async def scenario(terminal):
        await terminal.quiet()
        sizes = []
        for control in ['{"cols":132,"rows":43}', '{"cols":120}', "{", '{"cols":70000,"rows":-1}']:
            await terminal.connection.send(control)
            sizes.append((await terminal.answer_to("stty size")).strip())
        return sizes
    assert in_browser(scenario) == ["43 132", "0 120", "0 120", "65535 4464"]


def test_text_of_every_script_goes_both_ways(daemon):
    daemon.start()
    text = "grüß dich, мир, 世界, 👍🏽"

    async def scenario(terminal):
        await terminal.quiet()
        return await terminal.answer_to(f"echo '{text}'")
    assert in_browser(scenario) == text + "\r\n"


def test_a_paste_of_100_kilobytes_arrives_whole(daemon, tmp_path):
    daemon.start()
    paste = "".join(f"{number:07d} {'x' * 41}\n" for number in range(2000))
    file = tmp_path / "pasted"

    async def scenario(terminal):
        await terminal.quiet()
        await terminal.type(f"cat >{file}\n")
        await terminal.type(paste + "\x04")
        await terminal.answer_to("true")
    in_browser(scenario)
    assert file.read_text() == paste


def test_a_long_output_arrives_whole(daemon, tmp_path):
    daemon.start()
    text = b"".join(b"%09d %s\n" % (number, b"x" * 60) for number in range(30_000))
    (tmp_path / "text").write_bytes(text)

    async def scenario(terminal):
        await terminal.quiet()
        await terminal.type(f"cat {tmp_path}/text; echo en''d\n")
        return await terminal.read_until(b"end\r\n")
    assert in_browser(scenario) == text.replace(b"\n", b"\r\n")


def test_keys_interrupt_what_runs(daemon):
    daemon.start()

    async def scenario(terminal):
        await terminal.quiet()
        await terminal.type("sh -c 'trap \"echo interrupted; exit\" INT; echo begun; while :; do sleep 0.1; done'\n")
        await terminal.read_until(b"begun\r\n")
        await terminal.type("\x03")
        await terminal.read_until(b"interrupted\r\n")
    in_browser(scenario)


def test_a_ping_is_answered_in_the_middle_of_a_fragmented_message(daemon):
    daemon.start()
    with raw_terminal() as terminal:
        terminal.send(frame(2, b"echo fra", fin=False) + frame(9, b"x") + frame(0, b"gme", fin=False) +
                      frame(9, b"") + frame(0, b"nt''s\n"))
        answers = []
        output = b""
        while b"fragments\r\n" not in output:
            opcode, payload = terminal.read_frame()
            if opcode == 2:
                output += payload
            else:
                answers.append((opcode, payload))
        assert answers == [(10, b"x"), (10, b"")]


def test_a_client_that_pings_amid_a_fragmented_message_and_closes_gets_its_answers(daemon):
    daemon.start()

    async def scenario(terminal):
        await terminal.quiet()

        async def fragments():
            yield b"echo fra"
            await asyncio.wait_for(await terminal.connection.ping(b"x"), 20)
            yield b"gme"
            await asyncio.wait_for(await terminal.connection.ping(), 20)
            yield b"nts\n"
        await terminal.connection.send(fragments())
        await terminal.read_until(b"fragments\r\n")
        await terminal.connection.close()
        return terminal.connection.close_code, terminal.connection.close_reason
    assert in_browser(scenario) == (1005, "")  # a close frame without a status
    wait_until(lambda: not daemon.children(), "the shell has ended")


def test_a_message_of_one_mebibyte_is_taken(daemon):
    daemon.start()

    async def scenario(terminal):
        await terminal.quiet()
        await terminal.type(f"stty raw; echo g''o; head -c {2 * MEBIBYTE} | cksum\n")
        await terminal.read_until(b"go\n")
        await terminal.type(b"x" * MEBIBYTE)
        await terminal.connection.send([b"x" * 5, b"x" * (MEBIBYTE - 5)])  # in two fragments
        return await terminal.read_until(b"\n")
    assert in_browser(scenario).split()[1] == b"%d" % (2 * MEBIBYTE)


def test_a_frame_of_two_mebibytes_ends_the_session_without_a_close_frame(daemon):
    daemon.start()
    with raw_terminal() as terminal:
        terminal.send(frame(2, length=2 * MEBIBYTE))
        assert all(opcode == 2 for opcode, _ in terminal.frames())

    async def scenario(terminal):
        with pytest.raises(websockets.ConnectionClosedError) as closed:
            await terminal.type("x" * 2 * MEBIBYTE)
            await terminal.read_until(b"never")
        return closed.value.rcvd
    assert in_browser(scenario) is None
    wait_until(lambda: not daemon.children(), "the shells have ended")


@pytest.mark.parametrize("sent", ENDS.values(), ids=ENDS.keys())
def test_a_connection_that_ends_badly_ends_its_shell(daemon, sent):
    daemon.start()
    with raw_terminal() as terminal:
        assert terminal.is_open
        terminal.type("stty -echo; exec cat >/dev/null\n")
        terminal.send(sent)
        terminal.socket.shutdown(1)
        closes = [answer for answer in terminal.frames() if answer[0] != 2]
        assert closes == ([(8, b"")] if sent[:1] == b"\x88" else [])
    wait_until(lambda: not daemon.children(), "the shell has ended")
    assert daemon.get("/api/self").status == 200


def test_frames_without_a_mask_and_with_reserved_bits_are_accepted(daemon):
    daemon.start()
    with raw_terminal() as terminal:
        bare = frame(2, b"echo ba''re\n", mask=None)
        terminal.send(bytes([bare[0] | 0x70]) + bare[1:])
        terminal.read_until(b"bare\r\n")


@pytest.mark.parametrize("headers, accepted", [
    ({"connection": "keep-alive, Upgrade"}, True), ({"upgrade": "WebSocket"}, True),
    ({"connection": "keep-alive"}, False), ({"upgrade": "h2c"}, False), ({"connection": ","}, False)])
def test_a_handshake_is_answered_or_silently_closed(daemon, headers, accepted):
    daemon.start()
    with raw_terminal(**headers) as terminal:
        assert terminal.head == (
            b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            b"Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n" if accepted else b"")
    assert daemon.raw(f"GET {PATH} HTTP/1.1\r\n\r\n".encode()) == b""
    assert daemon.post(PATH).status == 404


def test_after_the_shells_end_pings_are_answered_and_the_next_message_ends_it(daemon):
    daemon.start()
    with raw_terminal() as terminal:
        terminal.type("PS1=; echo $$; exec 2>/dev/null; exit\n")
        shell, = wait_until(daemon.children, "there is a shell")
        wait_until(lambda: not is_alive(shell), "the shell has ended")
        for payload in [b"a", b"b"]:
            assert terminal.answer_to_ping(payload) == (10, payload)
        # The daemon may not have noticed yet: then a further message ends it, and none gets an answer.
        wait_until(lambda: terminal.is_ended_by("x"), "a message ends the connection")
    wait_until(lambda: not daemon.children(), "the shell was waited for")


@pytest.mark.parametrize("leave", [RawTerminal.close, RawTerminal.abort, RawTerminal.send_close],
                         ids=["closed", "lost", "by a close frame"])
def test_a_job_that_keeps_the_terminal_open_does_not_keep_the_session(daemon, tmp_path, leave):
    daemon.start()
    terminal = RawTerminal()
    terminal.type(f"PS1=; trap '' HUP; (while :; do echo bu''sy; sleep 0.1; done) & echo $! >{tmp_path}/job; exit\n")
    job = pid_in(tmp_path / "job")
    shell, = wait_until(daemon.children, "there is a shell")
    wait_until(lambda: not is_alive(shell), "the shell has ended")
    for payload in [b"a", b"b"]:
        terminal.type("x")
        assert terminal.answer_to_ping(payload) == (10, payload)
        terminal.read_until(b"busy\r\n")  # there is somebody still to see and to type to
    leave(terminal)
    wait_until(lambda: not daemon.children() and not terminal_masters(daemon.pid), "the session has ended")
    wait_until(lambda: "console-reader" not in thread_names(daemon.pid), "its threads have ended")
    os.kill(job, signal.SIGKILL)
    terminal.close()


def test_a_stop_does_not_wait_for_a_shell_that_ignores_the_hang_up(daemon, tmp_path):
    """A tab was closed, its shell ignores that, and its thread waits for it."""
    daemon.start()
    with raw_terminal() as terminal:
        assert terminal.is_open
        terminal.type(f"trap '' HUP; sh -c 'echo $$ >{tmp_path}/job; exec sleep 1000'\n")
        job = pid_in(tmp_path / "job")
        shell = os.getsid(job)
    wait_until(lambda: not terminal_masters(daemon.pid), "the terminal is hung up")
    assert is_alive(shell) and is_alive(job)
    assert daemon.stop() == 143
    wait_until(lambda: not jobs_of([shell]), "nothing runs in the terminal any more")


def test_a_crash_with_open_terminals_hangs_them_up(daemon, tmp_path):
    daemon.start()
    terminals, shells = open_terminals(tmp_path, 3)
    assert len(terminal_masters(daemon.pid)) == 3
    daemon.crash()
    wait_until(lambda: not is_alive(shells[2]), "a terminal is hung up")
    for terminal in terminals:
        terminal.frames()
        terminal.close()
    assert not terminal_masters(daemon.pid)
    for process in jobs_of(shells):
        os.kill(process, signal.SIGKILL)
    wait_until(lambda: not daemon.children(), "the shells were waited for")


# -- commands --

@pytest.mark.parametrize("command, expected", [
    ("exit 3", result(3)), ("kill -9 $$", result(-1)), ("echo out; echo err >&2", result(0, "out\nerr\n")),
    ("printf 'grüß\\t\"dich\"\\\\'", result(0, 'grüß\t"dich"\\')), ("false", result(1)),
    ("head -c 3000000 /dev/zero | tr '\\0' x", result(0, "x" * MEBIBYTE + NOTE)),
    ("head -c 1048576 /dev/zero | tr '\\0' x", result(0, "x" * MEBIBYTE))])
def test_a_command_gives_its_exit_code_and_its_output(daemon, command, expected):
    daemon.start()
    assert execute(daemon, command) == expected


def test_a_command_answers_with_its_keys_in_order(daemon):
    daemon.start()
    answer = daemon.post("/api/console/exec", {"command": "echo hello"})
    assert answer.text == '{"exit_code":0,"output":"hello\\n","timed_out":false}'


@pytest.mark.parametrize("body", [None, "", "{}", "sleep", '{"command":5}', '{"command":""}', '["command"]'])
def test_a_command_is_required(daemon, body):
    daemon.start()
    answer = daemon.post("/api/console/exec", body)
    assert (answer.status, answer.text) == (400, '{"error":"\\"command\\" is required"}')


def test_a_command_does_not_wait_for_the_job_that_it_leaves(daemon):
    daemon.start()
    job = int(execute(daemon, "sleep 1000 & echo $!")["output"])
    assert is_alive(job)
    os.kill(job, signal.SIGKILL)


def test_a_command_that_takes_too_long_is_cut_off_after_half_a_minute(daemon):
    """Both at once: one that is silent, and one that never is."""
    daemon.start()

    async def both():
        return await asyncio.gather(*(asyncio.to_thread(execute, daemon, command)
                                      for command in ["echo begun; sleep 100", "yes"]))
    begin = time.monotonic()
    silent, loud = asyncio.run(both())
    assert time.monotonic() - begin >= 30
    assert silent == result(-1, "begun\n", True)
    assert (loud["exit_code"], loud["timed_out"]) == (-1, True)
    assert loud["output"] == "y\n" * (MEBIBYTE // 2) + NOTE
    assert not daemon.children()


def test_a_stop_kills_the_commands_that_run(daemon, tmp_path):
    daemon.start()
    commands = ["sleep 1000", "yes", "trap '' TERM HUP; while :; do sleep 1000; done"] * 10
    connections = send_without_waiting(
        ("POST", "/api/console/exec", json.dumps({"command": f"echo $$ >{tmp_path}/pid{number}; {command}"}).encode())
        for number, command in enumerate(commands))
    shells = [pid_in(tmp_path / f"pid{number}") for number in range(30)]
    assert daemon.stop() == 143
    wait_until(lambda: not jobs_of(shells), "no command runs any more")
    for connection in connections:
        connection.close()
