"""A stand-in for the other relay, for everything that a relay may meet when it is ordered to
connect.

    with StandInPeer(server.new_client_id()) as peer:
        link = peer.join(relay)                # ordered, connected, logged in, answered "OK"
        peer.receive_registrations(6)
        link.send(messages.Caption(b"AB", sender_id=captioner_id))
"""

from __future__ import annotations

import socket
import time
from collections import deque
from typing import NamedTuple

from lab.audio import audio_wire
from lab.audio.audio_wire import CHANNELS, PROGRAMS, RELAY_CHANNEL_STEP
from lab.audio.udp_row import UdpRow
from lab.protocol import messages
from lab.protocol.tickets import address_value
from lab.stations.caption_stations import Station
from lab.support.addresses import new_address
from lab.support.channel import Channel
from lab.support.waiting import Deadline, LabTimeout, patient


class PeerHeard(NamedTuple):
    """A datagram at one of a peer's audio sockets, and where it came from."""

    channel: int
    program: int
    datagram: bytes
    source: tuple[str, int]


class StandInPeer:
    """Listens for TCP unless told not to, and at all audio ports that a relay has. The test decides
    what it answers."""

    def __init__(self, peer_id: int, *, address: str = "", tcp_port: int = 0) -> None:
        """`tcp_port`: a port of something else, or one where nothing listens."""
        self.id = peer_id
        self.address = address or new_address()
        self.ticket = b"ticket %08d" % (peer_id % 10**8)
        self._places = [(channel, program) for channel in CHANNELS for program in PROGRAMS]
        steps = [RELAY_CHANNEL_STEP * channel + 2 * program for channel, program in self._places]
        self.row = UdpRow(self.address, steps)
        self.base = self.row.sockets[0].getsockname()[1]
        self.listener = None if tcp_port else socket.create_server((self.address, 0), backlog=16)
        self.tcp_port = tcp_port or self.listener.getsockname()[1]
        self.links: list[Station] = []
        self._inbox: deque[PeerHeard] = deque()

    def __enter__(self) -> StandInPeer:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        for link in self.links:
            link.close()
        self.row.close()
        if self.listener is not None:
            self.listener.close()

    # -- TCP -------------------------------------------------------------------------------

    def order(self, request: str = "CONNECT", **changes: object) -> messages.ConnectOrder:
        """An order that names this peer; `changes` replace fields."""
        fields = {
            "connect_to_id": self.id,
            "relay_address": address_value(self.address),
            "tcp_port": self.tcp_port,
            "ticket": self.ticket,
            "request": request,
            "udp_port": self.base,
        }
        return messages.ConnectOrder(**{**fields, **changes})

    def accept(self, within_secs: float = 5.0) -> Station:
        """The next connection to us."""
        self.listener.settimeout(patient(within_secs))
        try:
            sock, _ = self.listener.accept()
        except TimeoutError:
            raise LabTimeout(f"no connection to {self.id} within {within_secs} s") from None
        link = Station(Channel(sock), f"link at {self.id}")
        link.client_id = self.id
        self.links.append(link)
        return link

    def no_connection_waits(self) -> bool:
        """Asserts that no connection waits for us now."""
        self.listener.settimeout(0)
        try:
            self.listener.accept()[0].close()
        except BlockingIOError:
            return True
        return False

    def accept_login(self, relay_id: int, ticket: bytes | None = None) -> Station:
        """The next connection, whose first message has to be a log-in with the order's ticket."""
        link = self.accept()
        wanted = self.ticket if ticket is None else ticket
        link.expect(messages.RelayConnect, client_id=relay_id, ticket=wanted, sender_id=relay_id)
        return link

    def answer(self, link: Station, return_code: str = "OK") -> None:
        link.send(messages.Response(self.id, return_code))

    def join(self, relay, *, heartbeats: bool = True, **changes: object) -> Station:
        """Has the relay ordered to connect to us and welcomes it."""
        relay.server.orders.order_connect(self.order(**changes))
        link = self.accept_login(relay.server.relay_id)
        self.answer(link)
        relay.log.expect(f"debug: sending udp reg to other relay {self.id}")
        if heartbeats:
            link.start_heartbeats()
        return link

    # -- audio -----------------------------------------------------------------------------

    def receive(self, within_secs: float = 5.0) -> PeerHeard:
        """The next datagram, at any socket."""
        deadline = Deadline(within_secs)
        while not self._inbox:
            ready = self.row.wait(deadline.left())
            if not ready:
                raise LabTimeout(f"peer {self.id} heard nothing within {within_secs} s")
            for index in ready:
                heard = [PeerHeard(*self._places[index], *one) for one in self.row.drain(index)]
                self._inbox.extend(heard)
        return self._inbox.popleft()

    def receive_count(self, count: int, within_secs: float = 5.0) -> list[PeerHeard]:
        deadline = Deadline(within_secs)
        return [self.receive(deadline.left()) for _ in range(count)]

    def heard_within(self, secs: float) -> list[PeerHeard]:
        """All that arrives within some time, when nothing that must come later can be waited
        for."""
        end, heard = time.monotonic() + secs, []
        while (left := end - time.monotonic()) > 0:
            try:
                heard.append(self.receive(left))
            except LabTimeout:
                break
        return heard

    def register(
        self,
        relay,
        program: int = 0,
        flags: int = audio_wire.RECEIVE | audio_wire.SEND,
        *,
        ticket: bytes | None = None,
        channel: int = 0,
    ) -> None:
        """Registers a program with the relay."""
        ticket = relay.server.ticket_for(self.id) if ticket is None else ticket
        self.send(relay, audio_wire.registration(self.id, ticket, flags), program, channel=channel)

    def send(self, relay, datagram: bytes, program: int = 0, *, channel: int = 0) -> bytes:
        """Sends as a relay does: from the socket of a channel to the same one at the other end."""
        port = relay.audio_port(program) + RELAY_CHANNEL_STEP * channel
        sock = self.row.sockets[self._places.index((channel, program))]
        sock.sendto(datagram, (relay.address, port))
        return datagram
