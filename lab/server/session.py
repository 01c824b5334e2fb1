"""What the stand-in connection server does on a link: challenge, log-in, traffic, faults."""

from __future__ import annotations

import dataclasses
import ssl
import threading
import time

from lab.protocol import messages, wire
from lab.protocol.keys import ServerKey
from lab.server.link import ServerLink
from lab.server.record import ServerRecord
from lab.server.relays import ServerRelays
from lab.server.script import ServerScript
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout

_TURN_SECS = 0.5


@dataclasses.dataclass
class LinkSettings:
    """How links are served; may be changed at any time."""

    key: ServerKey
    #: None: no TLS.
    tls_context: ssl.SSLContext | None = None
    #: 0: no heartbeats.
    heartbeat_secs: float = 3.0
    reading_paused: bool = False


class ServerSession:
    """Serves one link, in that link's thread."""

    def __init__(
        self,
        link: ServerLink,
        settings: LinkSettings,
        script: ServerScript,
        record: ServerRecord,
        relays: ServerRelays,
        changed: threading.Condition,
    ) -> None:
        """`changed` is notified when reading goes on after a pause."""
        self._link = link
        self._settings = settings
        self._script = script
        self._record = record
        self._relays = relays
        self._changed = changed
        self._last_heartbeat = time.monotonic()

    def run(self) -> None:
        """Serves the link until either side ends it."""
        try:
            if self._begin():
                self._serve()
        except (PeerClosed, LabTimeout, OSError):
            pass
        except wire.WireError as error:
            self._record.note_problem(f"link {self._link.number}: {error}")

    def _begin(self) -> bool:
        """Brings the connection up to the sent challenge; false when it has to be ended."""
        link = self._link
        link.set_no_delay()
        if self._fault_takes_over("accept"):
            return False
        if self._settings.tls_context is not None:
            link.shake_hands(self._settings.tls_context)
        link.open()
        if self._fault_takes_over("challenge"):
            return not link.end_wanted
        # The stage first: the log-in may be here before the next line runs.
        link.set_stage("challenge")
        link.send_challenge()
        return True

    def _serve(self) -> None:
        reader = wire.FrameReader()
        while not self._link.end_wanted:
            self._pause()
            reader.feed(self._link.read(_TURN_SECS))
            for image in reader:
                self._take(image)
                if self._link.end_wanted:
                    return
            self._heartbeat()

    def _pause(self) -> None:
        """Waits while reading is paused; heartbeats go on."""
        while self._settings.reading_paused and not self._link.end_wanted:
            with self._changed:
                self._changed.wait(_TURN_SECS)
            self._heartbeat()

    def _heartbeat(self) -> None:
        """Keeps the relay from giving up a silent server."""
        period, now = self._settings.heartbeat_secs, time.monotonic()
        if self._link.logged_in and period and now - self._last_heartbeat >= period:
            self._last_heartbeat = now
            self._link.send(messages.Heartbeat())

    def _take(self, image: bytes) -> None:
        if wire.type_of(image) == messages.LogIn.TYPE:
            self._take_login(image)
            return
        message = messages.parse(image)
        is_port = isinstance(message, messages.RelayPort)
        finished = is_port and not self._fault_takes_over("port")
        self._note(message, "finished" if finished else "")

    def _take_login(self, image: bytes) -> None:
        try:
            login = self._settings.key.decrypt_login(image)
        except ValueError:
            # Unencrypted, or under another key: recorded as it came, answered with a refusal.
            self._note(messages.Opaque(1, image[9:], received_image=image))
            self._link.send(messages.Response(0, "UNAUTHORIZED"))
            return
        self._link.login = login
        self._note(login, "login")
        if self._fault_takes_over("login"):
            return
        code = self._script.judge_login(login, self._link.challenge)
        relay_id = self._relays.admit(login, self._link) if code == "OK" else 0
        self._link.send(messages.Response(relay_id, code))
        if code == "NO CONTINUE":
            self._link.set_stage("challenge")
            self._link.send_challenge()

    def _note(self, message: messages.Message, stage: str = "") -> None:
        """Records a message together with the stage that it brings the link to, if any."""
        with self._changed:
            self._link.stage = stage or self._link.stage
            self._relays.note(message, self._link)
            self._record.add(message, self._link)

    def _fault_takes_over(self, stage: str) -> bool:
        """Applies the fault scripted for `stage`, if any; true when it replaces the normal step."""
        fault = self._script.take_fault(stage)
        if fault is None:
            return False
        if fault.data:
            self._link.open()
            self._link.send_raw(fault.data)
        if fault.then == "silence":
            if stage == "accept":
                self._stay_silent()
        elif fault.then in ("close", "reset"):
            self._link.end_wanted = fault.then
        return fault.then != "go on"

    def _stay_silent(self) -> None:
        """Holds a connection open and sends nothing (with TLS: without a handshake)."""
        self._link.open()
        while not self._link.end_wanted:
            self._link.read(_TURN_SECS)
