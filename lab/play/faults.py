"""What `--fault` does to the network halfway through a performance.

Each fault runs in the main thread (processes live only as long as the thread that started them)
and returns when what it broke is restored, as far as the network tells; whether captions and audio
flow is judged from what arrived.
"""

from __future__ import annotations

import time
from collections.abc import Callable
from typing import Protocol

from lab.database.cluster import Cluster
from lab.network.relay_network import RelayNetwork
from lab.network.relay_nodes import READY_SECS
from lab.play.archive import Archive
from lab.play.cast import Cast
from lab.play.listeners import Listener
from lab.play.screen import say
from lab.play.summary import Interruption, Outcome
from lab.protocol import messages
from lab.support.waiting import LabTimeout, wait_until

#: A shorter run leaves no time to observe anything before the fault.
LEAST_SECS = 10.0
#: How long the server, the relay or the database is down.
_AWAY_SECS = 3.0
_JOINED_SECS = 30.0
#: How often a relay has to fail to post, far fewer times than make it discard anything; and how
#: long that may take: it checks every 15 s for captions to post.
_RETRIES = 2
_RETRY_SECS = 25.0
#: How long the first delivery may take when the archive is back: relays retry every 2 s.
_DELIVERED_SECS = 10.0


class Performance(Protocol):
    """What a fault uses of the performance that it disturbs."""

    cluster: Cluster
    network: RelayNetwork
    archive: Archive
    cast: Cast
    #: The encoder whose route is ordered only after the fault, if the fault wants one.
    newcomer: Listener
    outcome: Outcome

    def wait(self, seconds: float) -> None:
        """Lets the play go on for that long."""

    def wait_share(self, share: float) -> None:
        """Lets the play go on until this share of its time is over."""

    def route_newcomer(self) -> None:
        """Orders the newcomer's route."""


class Fault(Protocol):
    """A fault by name."""

    name: str
    #: Whether the relays need a backup server.
    wants_backup: bool
    #: Whether an extra encoder is needed, whose route is ordered only after the fault.
    wants_newcomer: bool

    def touches(self, at: str) -> bool:
        """Whether listeners at a relay may lose something."""

    def play(self, play: Performance) -> None:
        """Applies it; notes in the outcome what was down for how long."""


class _Stopwatch:
    """Notes how long something was down."""

    def __init__(self, play: Performance, what: str) -> None:
        self._play, self._what = play, what
        self._began = time.monotonic()

    def stop(self) -> float:
        secs = time.monotonic() - self._began
        self._play.outcome.interruptions.append(Interruption(self._what, secs))
        return secs

    def wait_for(self, wait: Callable[[], object]) -> float | None:
        """How long `wait` took; None, and noted as a failure, if it timed out."""
        try:
            wait()
        except LabTimeout as error:
            self._play.outcome.interruptions.append(Interruption(self._what, None))
            self._play.outcome.note_problem(self._what, error)
            return None
        return self.stop()


class ServerFault:
    """The connection server stops, comes back with its sessions, and is replaced by a backup,
    whose orders have to take effect. Captions and audio are not interrupted."""

    name = "cs"
    wants_backup = True
    wants_newcomer = True

    def touches(self, at: str) -> bool:
        return False

    def play(self, play: Performance) -> None:
        network = play.network
        play.wait_share(0.2)
        say("connserver", "is stopped: no relay has a connection server now")
        watch = _Stopwatch(play, "the connection server, stopped and started again")
        network.stop_server()
        play.wait(_AWAY_SECS)
        say("connserver", "is started again")
        self._await_continued(play, watch, network.start_server)
        play.wait_share(0.55)
        say("connserver", f"is stopped for good, replaced by the one at {network.backup.address}")
        watch = _Stopwatch(play, "the connection server, replaced by the backup")
        self._await_continued(play, watch, network.replace_server)
        play.route_newcomer()

    @staticmethod
    def _await_continued(play: Performance, watch: _Stopwatch, wait: Callable[[], object]) -> None:
        secs = watch.wait_for(wait)
        if secs is None:
            return
        say("connserver", f"has both relays again after {secs:.1f} s")
        for name in play.network.nodes:
            function = play.network.known(name).login.function
            if function != "CONTINUE":
                play.outcome.problems.append(f"{name} came back with a new session ({function})")


class PeerFault:
    """The second relay is killed and started again; the server joins it to the first one again
    and orders its routes, its stations reconnect. Stations at the first relay are unaffected."""

    name = "peer"
    wants_backup = False
    wants_newcomer = False

    def touches(self, at: str) -> bool:
        return at == "west"

    def play(self, play: Performance) -> None:
        network = play.network
        play.wait_share(0.25)
        since = network.mark()
        say("west", "is killed")
        watch = _Stopwatch(play, "relay west, killed and started again")
        joined = _Stopwatch(play, "the connection of east and west")
        play.outcome.struck = time.monotonic()
        network.kill("west")
        play.wait(_AWAY_SECS)
        say("west", "is started again")
        secs = watch.wait_for(lambda: network.restart("west"))
        if secs is None:
            return
        say("west", f"is logged in again after {secs:.1f} s")
        secs = joined.wait_for(
            lambda: network.wait_joined("east", "west", _JOINED_SECS, since=since)
        )
        if secs is not None:
            say("east", f"is joined to west again after {secs:.1f} s")


class DatabaseFault:
    """PostgreSQL stops and comes back. Routes that the relays have cached stay in effect; an order
    sent when the database is back has to take effect at once."""

    name = "db"
    wants_backup = False
    wants_newcomer = True

    def touches(self, at: str) -> bool:
        return False

    def play(self, play: Performance) -> None:
        play.wait_share(0.25)
        say("database", "is stopped")
        watch = _Stopwatch(play, "PostgreSQL, stopped and started again")
        play.cluster.stop()
        self._let_relays_notice(play)
        play.wait(_AWAY_SECS)
        say("database", "is started again")
        play.cluster.start()
        secs = watch.wait_for(
            lambda: wait_until(lambda: self._all_connected(play), READY_SECS, "both connected")
        )
        if secs is not None:
            say("database", f"has both relays again after {secs:.1f} s")
        play.route_newcomer()

    @staticmethod
    def _let_relays_notice(play: Performance) -> None:
        """A relay notices the loss of its database when it next needs it, and that order is lost:
        here it is one for chats, which are never sent."""
        since = play.network.mark()
        chat = (play.cast.captioner.client_id, play.newcomer.client_id, messages.PIPE_CHAT)
        for name, node in play.network.nodes.items():
            play.network.server.orders.connect_route(*chat, name)
            node.log.expect("Retrying connection to SQL", READY_SECS, since=since[name])
            say(name, "has lost the database and continues with the routes in its cache")

    @staticmethod
    def _all_connected(play: Performance) -> bool:
        sql = (
            "SELECT count(*) FROM pg_stat_activity "
            "WHERE datname = 'tessel' AND pid <> pg_backend_pid()"
        )
        return int(play.cluster.query(sql)[0][0]) >= len(play.network.nodes)


class ArchiveFault:
    """The archive's web server stops until a relay has failed to post twice, and comes back. The
    relay keeps what it could not post and delivers it then."""

    name = "archive"
    wants_backup = False
    wants_newcomer = False

    def touches(self, at: str) -> bool:
        return False

    def play(self, play: Performance) -> None:
        endpoint = play.archive.endpoint
        play.wait_share(0.25)
        since = play.network["east"].log.mark()
        say("archive", "is stopped: relays cannot post")
        watch = _Stopwatch(play, "the archive's web server, stopped and started again")
        endpoint.stop()
        try:
            self._see_retries(play, since)
        finally:
            before = len(endpoint.posts())
            say("archive", "is started again")
            endpoint.start()
        secs = watch.wait_for(lambda: endpoint.wait_posts(before + 1, _DELIVERED_SECS))
        if secs is not None:
            say("archive", f"receives posts again after {secs:.1f} s")

    @staticmethod
    def _see_retries(play: Performance, since: int) -> None:
        """Returns when the relay that archives has failed often enough."""
        log = play.network["east"].log
        for count in range(1, _RETRIES + 1):
            log.expect(f"Consecutive retry errors: {count}", _RETRY_SECS, since=since)
            say("east", f"cannot reach the archive (failure {count} in a row), retries in 2 s")


_FAULTS = (ServerFault(), PeerFault(), DatabaseFault(), ArchiveFault())
FAULTS: dict[str, Fault] = {one.name: one for one in _FAULTS}
