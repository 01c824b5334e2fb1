"""The caption archive of the demonstration: all relays post the captions of their stations there.

Each relay posts to its own path at the web server, which tells who posted what: captions are
archived by the relay of their captioner, not by the relay that gets them from that one.
"""

from __future__ import annotations

import math
import threading
from pathlib import PurePosixPath

from lab.archive import posted_json
from lab.archive.endpoint import ArchiveEndpoint, Post
from lab.play.account import Account, Item, compare
from lab.play.screen import say
from lab.relay.config import RelayConfig

NAME = "archive"
#: How far the archived times may be from those of sending.
WITHIN_SECS = 1.0
#: How old captions have to be for relays to post them at the next of their checks every 15 s.
_INTERVAL_SECS = 1
_TURN_SECS = 0.1


class Archive:
    """Runs the web server while it is entered, and reports every post that is stored."""

    def __init__(self, endpoint: ArchiveEndpoint | None = None) -> None:
        self.endpoint = endpoint or ArchiveEndpoint()
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name=NAME, daemon=True)

    def __enter__(self) -> Archive:
        try:
            self.endpoint.start()
        except BaseException:
            self.endpoint.close()
            raise
        say(NAME, f"listens at {self.endpoint.url} (digest authentication)")
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join()
        self.endpoint.close()

    def config(self, relay: str) -> RelayConfig:
        """The settings that make a relay archive here."""
        return RelayConfig(
            archive_endpoint=f"{self.endpoint.url}/{relay}",
            archive_interval_secs=_INTERVAL_SECS,
            archive_username=self.endpoint.user,
            archive_password=self.endpoint.password,
        )

    # -- what is in it ---------------------------------------------------------------------

    def holds(self, count: int) -> bool:
        """Whether it has at least `count` captions."""
        return len(self.arrived()) >= count

    def arrived(self) -> list[Item]:
        """The captions in archived order, with their archived times (seconds since 1970)."""
        payloads = [posted_json.read(post.body) for post in self.endpoint.posts()]
        return [Item(one.time, one.data) for payload in payloads for one in payload.records]

    def account(self, sent: list[Item], zero: float) -> Account:
        """Compares it with what was sent (seconds since 1970). In the account, times count from
        `zero`."""
        rows = (awaited(sent), self.arrived())
        return compare(*([Item(one.at - zero, one.data) for one in row] for row in rows))

    def unexpected_posts(self, relay: str, client_id: int) -> list[str]:
        """Descriptions of posts that are not from this relay or not of this client."""
        found = []
        for post in self.endpoint.posts():
            feed_id = posted_json.read(post.body).feed_id
            if (poster_of(post), feed_id) != (relay, client_id):
                found.append(f"{NAME}: {poster_of(post)} posted captions of client {feed_id}")
        return found

    # -- the thread ------------------------------------------------------------------------

    def _run(self) -> None:
        told = 0
        while not self._stop.wait(_TURN_SECS):
            posts = self.endpoint.posts()
            for post in posts[told:]:
                say(NAME, words(post))
            told = len(posts)


def poster_of(post: Post) -> str:
    """The relay that posted."""
    return PurePosixPath(post.uri).name


def words(post: Post) -> str:
    """The line on the screen for a post."""
    try:
        payload = posted_json.read(post.body)
    except posted_json.BadPayload as error:
        return str(error)
    count = len(payload.records)
    captions = "1 caption" if count == 1 else f"{count} captions"
    who = f"of client {payload.feed_id} from {poster_of(post)}"
    return f"stores {captions} {who}, {len(post.body)} bytes"


def awaited(sent: list[Item]) -> list[Item]:
    """What captions sent in field 1 become in the archive, which truncates times to the
    millisecond."""
    keeper = posted_json.Keeper()
    items = [
        Item(math.floor(one.at * 1000) / 1000, posted_json.rendering(keeper.keep(one.data), 1))
        for one in sent
    ]
    return [item for item in items if item.data]
