"""All links that relays ever opened to a stand-in connection server, with waits."""

from __future__ import annotations

import socket
import threading
from collections.abc import Iterator

from lab.server.link import ServerLink
from lab.support.channel import PeerClosed
from lab.support.waiting import Deadline, LabTimeout

_JOIN_SECS = 5.0


class ServerLinks:
    """Links in the order in which they were accepted. Safe from any thread."""

    def __init__(self, changed: threading.Condition) -> None:
        """`changed` is notified of new links and of every change of their stages."""
        self._changed = changed
        self._links: list[ServerLink] = []

    def __len__(self) -> int:
        return len(self._links)

    def __getitem__(self, number: int) -> ServerLink:
        return self._links[number]

    def __iter__(self) -> Iterator[ServerLink]:
        with self._changed:
            return iter(list(self._links))

    def add(self, sock: socket.socket, peer: tuple[str, int]) -> ServerLink:
        """A link of an accepted connection; the caller starts it."""
        with self._changed:
            link = ServerLink(sock, peer, len(self._links), self._changed)
            self._links.append(link)
            self._changed.notify_all()
        return link

    @property
    def newest(self) -> ServerLink:
        """The newest link that is still up; PeerClosed when there is none."""
        for link in reversed(list(self)):
            if link.stage != "closed":
                return link
        raise PeerClosed("no relay is connected")

    def wait_for(
        self, stage: str = "finished", within_secs: float = 10.0, *, number: int = 0
    ) -> ServerLink:
        """Waits until a link numbered `number` or later has come to `stage`."""
        deadline = Deadline(within_secs)
        with self._changed:
            while True:
                for link in self._links[number:]:
                    if link.stage == stage:
                        return link
                if not self._changed.wait(deadline.left()) and deadline.passed():
                    raise LabTimeout(f"no link at {stage!r} within {within_secs} s; {self}")

    def wake(self) -> None:
        """Has the threads of all links check for an end or a pause again."""
        for link in self:
            link.wake()

    def end(self, how: str = "close") -> None:
        """Ends the links that are up: "close" or "reset"; LabTimeout when one stays."""
        links = list(self)
        for link in links:
            link.end(how)
        for link in links:
            if not link.join(_JOIN_SECS):
                raise LabTimeout(f"link {link.number} does not end")

    def __repr__(self) -> str:
        return f"links {[link.stage for link in self._links[-5:]]}"
