"""Every message type as a dataclass, and the code tables.

Codes (return code, request code, function) are kept as transmitted text, so a test sees
exactly what came over the wire; the tables below give their numbers. `sender_id` and `dest_id`
are header fields and are given by keyword. `received_image` holds the bytes a message was parsed
from and takes no part in comparisons.
"""

from __future__ import annotations

import dataclasses
from typing import Any

from lab.protocol import wire
from lab.protocol.message import DEC, Message, Opaque, dec, parse, raw, read_signed, text, udec

__all__ = ["Message", "Opaque", "parse"]

RETURN_CODES = {
    "OK": 0, "NOT LOGGED IN": 1, "UNAUTHORIZED": 2, "NO CONTINUE": 3, "UDP UNAUTHORIZED": 4,
    "SERVICE2 OK": 5, "SERVICE3 OK": 6, "SERVICE4 OK": 7, "REDIRECT": 8, "SERVICE5 OK": 9,
    "SERVICE6 OK": 10,
}
REQUEST_CODES = {"CONNECT": 0, "DISCONNECT": 1, "UDP_REG": 2}
FUNCTIONS = {"ENCODE": 1, "CAPTION": 2, "MONITOR": 4, "RELAY": 5, "CONTINUE": 6, "TEXTCAST": 7}

#: The pipe types (message classes of routes) that carry the common traffic.
PIPE_CAPTION = 192
PIPE_CAPTION_COMMAND = 160
PIPE_CHAT = 128
PIPE_DIRECT = 96
PIPE_VIDEO = 64
PIPE_AUDIO = 64
PIPE_TO_SERVER = 224

#: Message types that relays switch by type only; send them as Opaque(TYPE_..., payload).
TYPE_CAPTION_COMMAND = 6
TYPE_MULTIPLE_CAPTION_COMMAND = 160


@dataclasses.dataclass
class Response(Message):
    """The answer to a log-in or a registration: a return code."""

    TYPE = 0
    client_id: int = udec()
    return_code: str = text("OK")


@dataclasses.dataclass
class LogIn(Message):
    """A relay's log-in to the connection server; its payload travels encrypted."""

    TYPE = 1
    name: str = text()
    password: str = text()
    function: str = text("RELAY")
    agency: str = text()
    des_key: bytes = raw()
    login_number: int = dec()


@dataclasses.dataclass
class LogOut(Message):
    """The end of a session, from either side."""

    TYPE = 2
    name: str = text()
    organisation: str = text()


@dataclasses.dataclass
class Chat(Message):
    """A chat line."""

    TYPE = 3
    name: str = text()
    chat: bytes = raw()


@dataclasses.dataclass
class Caption(Message):
    """Caption bytes."""

    TYPE = 5
    caption: bytes = raw()


@dataclasses.dataclass
class Heartbeat(Message):
    """A sign of life."""

    TYPE = 12


@dataclasses.dataclass
class Challenge(Message):
    """The number that a relay has to repeat in its log-in."""

    TYPE = 14
    login_number: int = dec()


@dataclasses.dataclass
class ConnectOrder(Message):
    """Orders a relay to connect to another, or to register its UDP addresses there."""

    TYPE = 15
    connect_to_id: int = dec()
    relay_address: int = udec()
    tcp_port: int = dec()
    ticket: bytes = raw()
    request: str = text("CONNECT")
    udp_port: int = dec()
    tls_port: int = dec()


@dataclasses.dataclass
class ConnectConfirm(Message):
    """A relay's report that a client has connected."""

    TYPE = 16
    client_id: int = dec()


@dataclasses.dataclass
class RoutingUpdate(Message):
    """Orders a route connected or disconnected."""

    TYPE = 17
    request: str = text("CONNECT")
    from_id: int = udec()
    to_id: int = udec()
    msg_class: int = dec()


@dataclasses.dataclass
class LostConnection(Message):
    """A relay's report that a client is gone."""

    TYPE = 18
    client_id: int = dec()


@dataclasses.dataclass
class RelayConnect(Message):
    """A client's log-in to a relay by a ticket; over UDP, a registration."""

    TYPE = 19
    client_id: int = udec()
    ticket: bytes = raw()


@dataclasses.dataclass
class TicketRequest(Message):
    """A relay's request for a ticket to another relay."""

    TYPE = 20
    requested_id: int = dec()
    request: str = text("UDP_REG")


@dataclasses.dataclass
class RelayIdentify(Message):
    """A list of relays by id."""

    TYPE = 24
    relays: list[int] = dataclasses.field(default_factory=list)

    def fields(self) -> list[bytes]:
        return [DEC.write(number) for number in (len(self.relays), *self.relays)]

    @classmethod
    def from_payload(cls, payload: bytes, **header: Any) -> RelayIdentify:
        numbers = [read_signed(text) for text in wire.split_fields(payload)]
        count = max(numbers[0], 0) if numbers else 0
        return cls(numbers[1 : 1 + count], **header)


@dataclasses.dataclass
class VideoFeedback(Message):
    """One page of a video frame; pages count from 1."""

    TYPE = 65
    paging: int = dec(1 * 256 + 1)
    sequence: int = udec()
    video_format: str = text()
    video: bytes = raw()

    @property
    def page(self) -> int:
        """The number of this page."""
        return self.paging >> 8 & 0xFF

    @property
    def total_pages(self) -> int:
        """How many pages the frame has."""
        return self.paging & 0xFF


@dataclasses.dataclass
class AudioConfirm(Message):
    """A relay's confirmation of 300 datagrams of an audio program."""

    TYPE = 97
    program_index: int = udec()


@dataclasses.dataclass
class PremiumFeatureResponse(Message):
    """Whether video may be sent from one client to another."""

    TYPE = 106
    transmit_id: int = dec()
    receive_id: int = dec()
    message_type: int = dec(VideoFeedback.TYPE)
    return_code: str = text("OK")


@dataclasses.dataclass
class RelayPort(Message):
    """A relay's announcement of its ports and addresses."""

    TYPE = 225
    tcp_port: int = dec()
    udp_port: int = dec()
    address: int = udec()
    tls_port: int = dec()
    private_address: int = udec()

    @classmethod
    def from_payload(cls, payload: bytes, **header: Any) -> RelayPort:
        """Older senders leave the address empty; what follows it then has no meaning."""
        port = super().from_payload(payload, **header)
        texts = wire.split_fields(payload)
        if len(texts) < 3 or not texts[2]:
            port.tls_port = port.private_address = 0
        return port


@dataclasses.dataclass
class StatusKeyPost(Message):
    """A status value of a client for the connection server."""

    TYPE = 232
    key: str = text()
    value: str = text()
