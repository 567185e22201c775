"""A stop while applications are asked that do not answer."""
import concurrent.futures
import http.client

from applications import NO_DATABASE, NO_REPLY, is_discovered
from daemon import STOPPED_BY_SIGTERM
from fake_application import FakeApplication
from programs import wait_until
from sessions import check_stop_line

PATHS = ["log/info", "config", "log", "db", "db/t"]


def ask(daemon, path):
    """What is answered, if anything is."""
    try:
        answer = daemon.get(path)
        return answer.status, answer.json()["error"]
    except (OSError, http.client.HTTPException):
        return None


def test_a_stop_ends_the_questions_to_applications(daemon):
    with FakeApplication(700, "ghost") as ghost:
        ghost.tell_of_itself()
        daemon.start()
        pid = daemon.pid
        wait_until(lambda: is_discovered(daemon, "ghost"), "the application is discovered")
        ghost.asked = []
        with concurrent.futures.ThreadPoolExecutor(40) as pool:
            asking = [pool.submit(ask, daemon, f"/api/packages/ghost/{path}") for path in PATHS * 8]
            wait_until(lambda: len(ghost.asked) >= 2, "an application and a database are asked")
            assert daemon.stop() == STOPPED_BY_SIGTERM
            answers = [future.result() for future in asking]
    assert set(answers) <= {None, (404, NO_REPLY), (404, NO_DATABASE)}
    check_stop_line(daemon.sessions_log, pid)
