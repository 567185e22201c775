"""Things that keep a daemon busy: clients that never rest, and a registry that never finishes."""
import http.client
import selectors
import socket
import threading

from daemon import WEB_PORT


def request_bytes(method, path, body=b""):
    return b"%s %s HTTP/1.1\r\nContent-Length: %d\r\n\r\n%s" % (
        method.encode(), path.encode(), len(body), body)


class Clients:
    """Threads that send one request after the other while they are told to, and count the answers."""

    def __init__(self, requests, count):
        self.requests = requests
        self.told_to_work = False
        self.ended = False
        self.at_work = 0
        self.answers = 0
        self.changed = threading.Condition()
        self.threads = [threading.Thread(target=self.work, args=(number,)) for number in range(count)]
        for thread in self.threads:
            thread.start()

    def work(self, number):
        while self.begin_request():
            answered = False
            try:
                connection = http.client.HTTPConnection("127.0.0.1", WEB_PORT, timeout=20)
                connection.request(*self.requests[number % len(self.requests)])
                connection.getresponse().read()
                connection.close()
                answered = True
                number += 1
            except (OSError, http.client.HTTPException):
                pass  # it is being stopped
            finally:
                self.end_request(answered)

    def begin_request(self):
        with self.changed:
            self.changed.wait_for(lambda: self.told_to_work or self.ended)
            self.at_work += not self.ended
            return not self.ended

    def end_request(self, answered):
        with self.changed:
            self.at_work -= 1
            self.answers += answered
            self.changed.notify_all()

    def work_until(self, answers):
        """Sets them to work, and returns when there are so many more answers; they go on."""
        with self.changed:
            goal = self.answers + answers
            self.told_to_work = True
            self.changed.notify_all()
            assert self.changed.wait_for(lambda: self.answers >= goal, 60), "no answers"

    def rest(self):
        """Returns when none of them is at work any more: the next daemon would get what is left."""
        with self.changed:
            self.told_to_work = False
            assert self.changed.wait_for(lambda: self.at_work == 0, 60), "a client is at work still"

    def end(self):
        with self.changed:
            self.ended = True
            self.changed.notify_all()
        for thread in self.threads:
            thread.join()


def end_requests(clients, connections):
    clients.rest()
    for connection in connections:
        connection.close()


class HangingRegistry:
    """Answers each request with the beginning of an answer, and never with the rest."""

    def __init__(self, port=7081):
        self.listener = socket.create_server(("127.0.0.1", port), backlog=128)
        self.url = f"http://127.0.0.1:{port}"
        self.count = 0
        self.selector = selectors.DefaultSelector()
        self.selector.register(self.listener, selectors.EVENT_READ)
        self.stopper, stop = socket.socketpair()
        self.selector.register(stop, selectors.EVENT_READ)
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while True:
            for key, _ in self.selector.select():
                if key.fileobj is self.listener:
                    self.selector.register(self.listener.accept()[0], selectors.EVENT_READ)
                elif key.fileobj.family == socket.AF_UNIX:
                    return
                else:
                    self.answer(key.fileobj)

    def answer(self, connection):
        try:
            if connection.recv(65536):
                self.count += 1
                connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n[")
                return
        except OSError:
            pass
        self.selector.unregister(connection)
        connection.close()

    def end(self):
        self.stopper.send(b"x")
        self.thread.join()
        for key in list(self.selector.get_map().values()):
            key.fileobj.close()
        self.stopper.close()
        self.selector.close()


def send_without_waiting(requests):
    """Connections on which a request was sent and whose answer nobody reads yet."""
    connections = []
    for request in requests:
        connection = socket.create_connection(("127.0.0.1", WEB_PORT), timeout=20)
        connection.sendall(request_bytes(*request))
        connections.append(connection)
    return connections
