"""An archive endpoint that answers as a test plans and records its requests.

    endpoint = make_endpoint(Answer("silence"), 500)   # the first two posts; later ones get 200
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    posts = endpoint.wait_for(3)
"""

from __future__ import annotations

import dataclasses
import socket
import struct
import threading
import time
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import NamedTuple

from lab.archive import posted_json
from lab.support.addresses import free_port, new_address
from lab.support.waiting import LabTimeout, patient

#: A relay checks for captions to post every 15 seconds; captions of up to two such periods wait.
PASS_SECS = 40.0

_PIECE_LEN = 1 << 16
#: Endless, but not as fast as possible, so that other tests can run too.
_PIECE_PAUSE_SECS = 0.001
_RESET = struct.pack("ii", 1, 0)


@dataclasses.dataclass(frozen=True)
class Answer:
    """`how`: "status"; "silence", until the client leaves; "close" or "reset" without an answer;
    "garbage" that is not HTTP; an "endless" body. All of it after `delay_secs`."""

    how: str = "status"
    status: int = 200
    delay_secs: float = 0.0
    body: bytes = b"kept"


class Post(NamedTuple):
    """A request whose body was read whole, and when (monotonic clock)."""

    at: float
    method: str
    target: str
    headers: dict[str, str]
    body: bytes

    @property
    def payload(self) -> posted_json.Payload:
        """What it says; asserts that it is exactly as relays write it."""
        return posted_json.read(self.body)


class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server: _Server

    def log_message(self, format: str, *args: object) -> None:
        """Logs nothing: the posts are recorded."""

    def do_POST(self) -> None:
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        headers = {name.lower(): value for name, value in self.headers.items()}
        post = Post(time.monotonic(), self.command, self.path, headers, body)
        answer = self.server.endpoint.take(post)
        if not self.server.over.wait(answer.delay_secs):
            getattr(self, f"_{answer.how}")(answer)

    def _status(self, answer: Answer) -> None:
        body = b"" if answer.status == HTTPStatus.NO_CONTENT else answer.body
        self.send_response(answer.status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def _silence(self, answer: Answer) -> None:
        self.close_connection = True
        self.connection.recv(1)  # nothing arrives but the end of the stream

    def _close(self, answer: Answer) -> None:
        self.close_connection = True

    def _reset(self, answer: Answer) -> None:
        self.close_connection = True
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, _RESET)

    def _garbage(self, answer: Answer) -> None:
        self.close_connection = True
        self.wfile.write(bytes(range(256)) * 40 + b"\r\n\r\n")

    def _endless(self, answer: Answer) -> None:
        self.close_connection = True
        self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n")
        while not self.server.over.wait(_PIECE_PAUSE_SECS):
            self.wfile.write(bytes(_PIECE_LEN))


class _Server(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64

    def __init__(self, endpoint: ScriptedEndpoint) -> None:
        super().__init__((endpoint.address, endpoint.port), _Handler)
        self.endpoint = endpoint
        self.over = threading.Event()
        self.links: set[socket.socket] = set()

    def process_request(self, request: socket.socket, client_address: object) -> None:
        self.links.add(request)
        super().process_request(request, client_address)

    def shutdown_request(self, request: socket.socket) -> None:
        self.links.discard(request)
        self.close_request(request)  # at once, so that a reset is one

    def handle_error(self, request: object, client_address: object) -> None:
        """Clients may leave at any time."""


class ScriptedEndpoint:
    """Listens at an address of its own from `open` to `close`, which also ends its connections."""

    def __init__(self, *plan: Answer | int) -> None:
        """`plan`: the answers to the posts, in order, a number being a status."""
        self.address = new_address()
        self.port = free_port(self.address)
        self.url = f"http://{self.address}:{self.port}/archive"
        self._plan = [Answer(status=one) if isinstance(one, int) else one for one in plan]
        self._posts: list[Post] = []
        self._changed = threading.Condition()
        self._server: _Server | None = None

    def open(self) -> ScriptedEndpoint:
        self._server = _Server(self)
        threading.Thread(target=self._server.serve_forever, args=(0.02,), daemon=True).start()
        return self

    def close(self) -> None:
        server, self._server = self._server, None
        if server is None:
            return
        server.over.set()
        server.shutdown()
        server.server_close()
        for link in list(server.links):
            try:
                link.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # its client closed first

    def take(self, post: Post) -> Answer:
        """Records a post; returns the answer to it."""
        with self._changed:
            self._posts.append(post)
            self._changed.notify_all()
            return self._plan.pop(0) if self._plan else Answer()

    @property
    def posts(self) -> list[Post]:
        with self._changed:
            return list(self._posts)

    def has(self, count: int, within_secs: float = 0.0) -> bool:
        """Whether `count` posts arrive in that time; not extended by patience."""
        with self._changed:
            return self._changed.wait_for(lambda: len(self._posts) >= count, within_secs)

    def wait_for(self, count: int, within_secs: float = PASS_SECS) -> list[Post]:
        """All posts so far, at least `count`."""
        if not self.has(count, patient(within_secs)):
            raise LabTimeout(f"{len(self.posts)} of {count} posts within {within_secs} s")
        return self.posts
