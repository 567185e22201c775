"""A registry server that can be stopped in the middle of an artifact."""
import http.server
import pathlib
import threading


class HeldRegistry:
    """Serves a registry folder's artifacts; those of the held versions in halves, the second one
    only when `release` is called."""

    def __init__(self, folder, held=()):
        self.folder = pathlib.Path(folder)
        self.held = set(held)
        self.released = threading.Event()
        outer = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                outer.answer(self)

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.thread = threading.Thread(target=self.server.serve_forever)
        self.thread.start()

    @property
    def url(self):
        return f"http://127.0.0.1:{self.server.server_port}"

    def answer(self, request):
        name, channel, version, arch, _ = request.path.removeprefix("/api/packages/").split("/")
        data = (self.folder / "packages" / name / channel / version / arch / "artifact").read_bytes()
        request.send_response(200)
        request.send_header("Content-Length", str(len(data)))
        request.end_headers()
        try:
            request.wfile.write(data[:len(data) // 2])
            request.wfile.flush()
            if version in self.held:
                self.released.wait()
            request.wfile.write(data[len(data) // 2:])
        except OSError:
            pass  # the client was ended

    def release(self):
        self.released.set()

    def stop(self):
        self.release()
        self.server.shutdown()
        self.server.server_close()
        self.thread.join()
