"""One daemon on a machine: what a second start finds, waits for or ends."""
import os
import pathlib
import signal

import pytest
from daemon import LOCK, LOG_FILE, LOG_ROOT, MIRELCLIENT, run_to_its_end
from frame_app import FRAME_LOCK, frame_log, FRAME_PROGRAM
from instance_lock import holder_text, KILL, WAIT, wait_until_it_waits_for_the_lock
from processes import instances
from programs import DEADLINE, wait_until


def refusal(pid):
    return f'"mirelclient" is already running:\n{holder_text(pid, MIRELCLIENT)}\n'


# -- no policy --


def test_a_second_start_is_refused_and_told_who_runs(daemon):
    daemon.start()
    done = run_to_its_end()
    assert (done.returncode, done.stdout, done.stderr) == (255, "", refusal(daemon.pid))


@pytest.mark.parametrize("arguments", [
    ["--instance-policy=warn"], ["--instance-policy", "0"], ["--instance-policy"],
    ["--help"], ["-h"], ["--version"], ["-v"], ["--list-config"], ["--verbose"], ["--no-such-option"]])
def test_whatever_it_is_started_for(daemon, arguments):
    daemon.start()
    done = run_to_its_end(*arguments)
    assert (done.returncode, done.stdout, done.stderr) == (255, "", refusal(daemon.pid))


def test_a_refused_start_leaves_the_log_files_as_they_are(daemon):
    LOG_FILE.parent.mkdir()
    LOG_FILE.write_text("an old line\n" * 100_000)
    daemon.start()
    wait_until(lambda: len(list(LOG_FILE.parent.iterdir())) == 2, "the log was rotated")
    daemon.get("/api/packages")

    def files():
        return {path: (path.read_bytes(), path.stat().st_mtime_ns, path.stat().st_ino)
                for path in LOG_ROOT.rglob("*") if path.is_file()}

    before = files()
    assert run_to_its_end("--verbose").returncode == 255
    assert files() == before
    assert not pathlib.Path("/tmp/mirelclient/app.log").exists()
    assert daemon.stop() == 143
    assert sum(path.read_text().count("Logger started") for path in before) == 1


def test_a_refused_start_has_no_session(daemon):
    daemon.start()
    before = daemon.sessions_log.read_bytes()
    assert run_to_its_end().returncode == 255
    assert daemon.sessions_log.read_bytes() == before


def test_the_lock_is_free_again_however_the_holder_ended(daemon):
    for end in [daemon.stop, daemon.kill, lambda: daemon.stop(signal.SIGINT)]:
        daemon.start()
        assert LOCK.read_text() == holder_text(daemon.pid, MIRELCLIENT)
        end()
        assert LOCK.is_file()


def test_of_ten_started_at_once_exactly_one_stays(frame):
    programs = [frame() for _ in range(10)]
    wait_until(lambda: sum(program.is_alive() for program in programs) == 1, "nine have ended")
    winner, = (program for program in programs if program.is_alive())
    winner.wait_ready()
    assert FRAME_LOCK.read_text() == holder_text(winner.pid, FRAME_PROGRAM)
    for program in programs:
        if program is not winner:
            assert program.wait_end() == 255
            assert program.errors().startswith('"frame_app" is already running')
    assert winner.stop() == 143


# -- stale text and odd names --


@pytest.mark.parametrize("arguments", [[], *KILL])
def test_the_text_of_a_lock_that_nobody_holds_means_nothing(daemon, sleeper, arguments):
    LOCK.write_text(holder_text(sleeper.pid, "/bin/something/with/a/longer/name/than/the/daemon" * 10))
    daemon.start(arguments=arguments)
    assert LOCK.read_text() == holder_text(daemon.pid, MIRELCLIENT)
    assert sleeper.poll() is None


def test_a_name_with_a_blank_has_a_lock_file_without(daemon):
    daemon.configure(app_name="my own daemon")
    daemon.start()
    assert pathlib.Path("/tmp/my_own_daemon.lock").read_text() == holder_text(daemon.pid, MIRELCLIENT)
    done = run_to_its_end()
    assert (done.returncode, done.stderr) == (255, refusal(daemon.pid).replace("mirelclient", "my own daemon", 1))


@pytest.fixture
def directory_as_lock_file():
    FRAME_LOCK.unlink(missing_ok=True)
    FRAME_LOCK.mkdir()
    yield "Failed to open lock file /tmp/frame_app.lock: Is a directory\n"
    FRAME_LOCK.rmdir()


@pytest.mark.parametrize("arguments, middle", [
    ([], ""),
    (["--instance-policy=wait"],
     '"frame_app" is already running\nWaiting for it to exit...\n'
     "Failed to open lock file /tmp/frame_app.lock: Is a directory\n"),
    (["--instance-policy=kill"],
     "--instance-policy=kill: couldn't find a pid= line in the current holder's info, "
     "not killing anything:\n\n")])
def test_a_lock_file_that_cannot_be_opened_is_told(frame, directory_as_lock_file, arguments, middle):
    program = frame(*arguments)
    assert program.wait_end() == 255
    assert program.errors() == directory_as_lock_file + middle + '"frame_app" is already running.\n'
    assert "[ERROR] " in frame_log() and directory_as_lock_file in frame_log()
    assert not program.sessions()


# -- the wait policy --


@pytest.mark.parametrize("arguments", WAIT)
def test_the_wait_policy_takes_over_when_the_first_stops(daemon, second, arguments):
    daemon.start()
    second.spawn(arguments=arguments)
    wait_until_it_waits_for_the_lock(second.pid)
    assert daemon.get("/api/self").status == 200
    assert second.process.poll() is None and second.output() == ""
    assert daemon.log().count("Logger started") == 1
    assert daemon.stop() == 143
    second.wait_ready()
    assert LOCK.read_text() == holder_text(second.pid, MIRELCLIENT)
    assert second.stop() == 143


def test_the_wait_policy_takes_over_from_one_that_was_killed(daemon, second):
    daemon.start()
    second.spawn(arguments=WAIT[0])
    wait_until_it_waits_for_the_lock(second.pid)
    daemon.kill()
    second.wait_ready()


def test_a_stop_signal_ends_one_that_waits(daemon, second):
    daemon.start()
    second.spawn(arguments=WAIT[0])
    wait_until_it_waits_for_the_lock(second.pid)
    assert second.stop() == -signal.SIGTERM
    assert daemon.get("/api/self").status == 200


# -- the kill policy --


@pytest.mark.parametrize("arguments", KILL)
def test_the_kill_policy_ends_the_first(daemon, second, arguments):
    daemon.start()
    first_pid = daemon.pid
    second.spawn(arguments=arguments)
    assert daemon.process.wait(DEADLINE) == 143
    second.wait_ready()
    assert instances(MIRELCLIENT) == {second.pid}
    assert LOCK.read_text() == holder_text(second.pid, MIRELCLIENT)
    assert "already running" not in second.output() and "terminating" not in second.output()
    sessions = second.sessions_log.read_text().splitlines()
    assert [line.split()[0] for line in sessions] == ["event=start", "event=stop", "event=start"]
    assert f" pid={first_pid} " in sessions[1] and sessions[1].endswith(" reason=signal: Terminated")


@pytest.mark.parametrize("arguments", [["--instance-policy=KILL"], ["--instance-policy", "KILL"],
                                       ["--instance-policy=Wait"]])
def test_a_policy_in_capitals_is_none_while_another_runs(daemon, arguments):
    daemon.start()
    done = run_to_its_end(*arguments)
    assert (done.returncode, done.stderr) == (255, refusal(daemon.pid))
    assert daemon.get("/api/self").status == 200


def test_a_policy_in_capitals_starts_where_nobody_runs(daemon):
    daemon.start(arguments=["--instance-policy=KILL"])
    assert daemon.stop() == 143


def test_a_first_one_that_does_not_listen_is_killed_after_a_grace(daemon, second):
    daemon.start()
    os.kill(daemon.pid, signal.SIGSTOP)
    second.spawn(arguments=KILL[0])
    assert daemon.process.wait(DEADLINE) == -signal.SIGKILL
    second.wait_ready()
    assert instances(MIRELCLIENT) == {second.pid}


# -- instances side by side --


def test_a_suffix_makes_instances_of_their_own(frame):
    one, two = (frame(CONSOLE_APP_LOCK_SUFFIX=suffix).wait_ready() for suffix in ["one", "two"])
    locks = {one: pathlib.Path("/tmp/frame_app_one.lock"), two: pathlib.Path("/tmp/frame_app_two.lock")}
    for program, lock in locks.items():
        assert lock.read_text() == holder_text(program.pid, FRAME_PROGRAM)
    again = frame(CONSOLE_APP_LOCK_SUFFIX="one")
    assert again.wait_end() == 255
    assert again.errors() == f'"frame_app" is already running:\n{holder_text(one.pid, FRAME_PROGRAM)}\n'
    for program, lock in locks.items():
        assert program.stop() == 143
        assert not lock.exists()


def test_without_a_suffix_the_lock_file_stays(frame):
    program = frame(CONSOLE_APP_LOCK_SUFFIX="").wait_ready()
    assert FRAME_LOCK.read_text() == holder_text(program.pid, FRAME_PROGRAM)
    assert program.stop() == 143
    assert FRAME_LOCK.read_text() == holder_text(program.pid, FRAME_PROGRAM)
