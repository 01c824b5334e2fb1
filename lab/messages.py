"""Every message type as a dataclass that packs itself into an image and is parsed from one.

Codes (return code, request code, function) are kept as the text that travels, so a test sees
exactly what came over the wire; the tables below give their numbers. `sender_id` and `dest_id`
are header fields and are given by keyword. `received_image` holds the bytes a message was parsed
from and takes no part in comparisons.
"""

from __future__ import annotations

import dataclasses
import re
from typing import Any, Callable, ClassVar, TypeVar

from lab import wire

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

#: Message types that relays switch by type alone; send them as Opaque(TYPE_..., payload).
TYPE_CAPTION_COMMAND = 6
TYPE_MULTIPLE_CAPTION_COMMAND = 160

_INTEGER = re.compile(rb"\s*[+-]?\d+")
_UNSIGNED = re.compile(rb"\s*([+-]?)(0[xX][0-9a-fA-F]+|0[0-7]*|[1-9]\d*)")


def signed32(value: int) -> int:
    """`value` as a signed 32-bit number sees it; client ids travel so in some messages."""
    return (value + 0x80000000) % 0x100000000 - 0x80000000


def read_signed(text: bytes) -> int:
    """A signed decimal number at the start of `text`, 0 when there is none."""
    match = _INTEGER.match(text)
    return signed32(int(match.group())) if match else 0


def read_unsigned(text: bytes) -> int:
    """An unsigned 32-bit number: decimal, hexadecimal after 0x, octal after a leading 0."""
    match = _UNSIGNED.match(text)
    if match is None:
        return 0
    digits = match.group(2)
    if digits[:2].lower() == b"0x":
        value = int(digits, 16)
    else:
        value = int(digits, 8 if digits[:1] == b"0" else 10)
    return (-value if match.group(1) == b"-" else value) & 0xFFFFFFFF


@dataclasses.dataclass(frozen=True)
class _Kind:
    """How one kind of field is written and read."""

    write: Callable[[Any], bytes]
    read: Callable[[bytes], Any]


def _read_text(raw: bytes) -> str:
    return raw.decode("latin-1")


_DEC = _Kind(lambda value: b"%d" % signed32(value), read_signed)
_UDEC = _Kind(lambda value: b"%d" % (value & 0xFFFFFFFF), read_unsigned)
_TEXT = _Kind(lambda value: value.encode("latin-1"), _read_text)
_BYTES = _Kind(bytes, bytes)


def _field(kind: _Kind, default: Any) -> Any:
    return dataclasses.field(default=default, metadata={"kind": kind})


def _dec(default: int = 0) -> Any:
    return _field(_DEC, default)


def _udec(default: int = 0) -> Any:
    return _field(_UDEC, default)


def _text(default: str = "") -> Any:
    return _field(_TEXT, default)


def _bytes(default: bytes = b"") -> Any:
    return _field(_BYTES, default)


M = TypeVar("M", bound="Message")
_CLASS_OF_TYPE: dict[int, type[Message]] = {}


@dataclasses.dataclass
class Message:
    """What all messages share: the header, packing and parsing."""

    TYPE: ClassVar[int] = -1

    sender_id: int = dataclasses.field(default=0, kw_only=True)
    dest_id: int = dataclasses.field(default=0, kw_only=True)
    received_image: bytes = dataclasses.field(default=b"", kw_only=True, repr=False, compare=False)

    def __init_subclass__(cls) -> None:
        if cls.TYPE >= 0:
            _CLASS_OF_TYPE[cls.TYPE] = cls

    @property
    def type_code(self) -> int:
        """The type byte of this message."""
        return self.TYPE

    def fields(self) -> list[bytes]:
        """The payload fields, unescaped, in wire order."""
        return [
            member.metadata["kind"].write(getattr(self, member.name))
            for member in dataclasses.fields(self)
            if "kind" in member.metadata
        ]

    def payload(self) -> bytes:
        """The payload bytes."""
        return wire.join_fields(self.fields())

    def image(self) -> bytes:
        """The image; WireError when the payload is too long, for nothing is cut off here."""
        payload = self.payload()
        if len(payload) > wire.MAX_PAYLOAD_LEN:
            raise wire.WireError(f"{type(self).__name__}: payload of {len(payload)} bytes")
        return wire.make_image(self.type_code, self.sender_id, self.dest_id, payload)

    def frame(self) -> bytes:
        """The stream frame."""
        return wire.to_frame(self.image())

    @classmethod
    def from_payload(cls: type[M], payload: bytes, **header: Any) -> M:
        """Reads the fields of `payload`; missing ones read as empty text."""
        texts = wire.split_fields(payload)
        values = {}
        members = [m for m in dataclasses.fields(cls) if "kind" in m.metadata]
        for index, member in enumerate(members):
            text = texts[index] if index < len(texts) else b""
            values[member.name] = member.metadata["kind"].read(text)
        return cls(**values, **header)


def parse(image: bytes) -> Message:
    """The message in `image`; a type without a class gives an Opaque."""
    type_code, sender_id, dest_id = wire.read_header(image)
    payload = wire.payload_of(image)
    header = {"sender_id": sender_id, "dest_id": dest_id, "received_image": image}
    known = _CLASS_OF_TYPE.get(type_code)
    if known is None:
        return Opaque(type_code, payload, **header)
    return known.from_payload(payload, **header)


@dataclasses.dataclass
class Opaque(Message):
    """A message of any type with any payload, also of known types when a test wants bad bytes."""

    code: int = -1
    raw_payload: bytes = b""

    @property
    def type_code(self) -> int:
        return self.code

    def payload(self) -> bytes:
        return self.raw_payload


@dataclasses.dataclass
class Response(Message):
    TYPE = 0
    client_id: int = _udec()
    return_code: str = _text("OK")


@dataclasses.dataclass
class LogIn(Message):
    TYPE = 1
    name: str = _text()
    password: str = _text()
    function: str = _text("RELAY")
    agency: str = _text()
    des_key: bytes = _bytes()
    login_number: int = _dec()


@dataclasses.dataclass
class LogOut(Message):
    TYPE = 2
    name: str = _text()
    organisation: str = _text()


@dataclasses.dataclass
class Chat(Message):
    TYPE = 3
    name: str = _text()
    chat: bytes = _bytes()


@dataclasses.dataclass
class Caption(Message):
    TYPE = 5
    caption: bytes = _bytes()


@dataclasses.dataclass
class Heartbeat(Message):
    TYPE = 12


@dataclasses.dataclass
class Challenge(Message):
    TYPE = 14
    login_number: int = _dec()


@dataclasses.dataclass
class ConnectOrder(Message):
    TYPE = 15
    connect_to_id: int = _dec()
    relay_address: int = _udec()
    tcp_port: int = _dec()
    ticket: bytes = _bytes()
    request: str = _text("CONNECT")
    udp_port: int = _dec()
    tls_port: int = _dec()


@dataclasses.dataclass
class ConnectConfirm(Message):
    TYPE = 16
    client_id: int = _dec()


@dataclasses.dataclass
class RoutingUpdate(Message):
    TYPE = 17
    request: str = _text("CONNECT")
    from_id: int = _udec()
    to_id: int = _udec()
    msg_class: int = _dec()


@dataclasses.dataclass
class LostConnection(Message):
    TYPE = 18
    client_id: int = _dec()


@dataclasses.dataclass
class RelayConnect(Message):
    TYPE = 19
    client_id: int = _udec()
    ticket: bytes = _bytes()


@dataclasses.dataclass
class TicketRequest(Message):
    TYPE = 20
    requested_id: int = _dec()
    request: str = _text("UDP_REG")


@dataclasses.dataclass
class RelayIdentify(Message):
    TYPE = 24
    relays: list[int] = dataclasses.field(default_factory=list)

    def fields(self) -> list[bytes]:
        return [_DEC.write(number) for number in (len(self.relays), *self.relays)]

    @classmethod
    def from_payload(cls, payload: bytes, **header: Any) -> RelayIdentify:
        numbers = [read_signed(text) for text in wire.split_fields(payload)]
        count = max(numbers[0], 0) if numbers else 0
        return cls(numbers[1 : 1 + count], **header)


@dataclasses.dataclass
class VideoFeedback(Message):
    """One page of a video frame; pages count from 1."""

    TYPE = 65
    paging: int = _dec(1 * 256 + 1)
    sequence: int = _udec()
    video_format: str = _text()
    video: bytes = _bytes()

    @property
    def page(self) -> int:
        return self.paging >> 8 & 0xFF

    @property
    def total_pages(self) -> int:
        return self.paging & 0xFF


@dataclasses.dataclass
class AudioConfirm(Message):
    TYPE = 97
    program_index: int = _udec()


@dataclasses.dataclass
class PremiumFeatureResponse(Message):
    TYPE = 106
    transmit_id: int = _dec()
    receive_id: int = _dec()
    message_type: int = _dec(VideoFeedback.TYPE)
    return_code: str = _text("OK")


@dataclasses.dataclass
class RelayPort(Message):
    TYPE = 225
    tcp_port: int = _dec()
    udp_port: int = _dec()
    address: int = _udec()
    tls_port: int = _dec()
    private_address: int = _udec()

    @classmethod
    def from_payload(cls, payload: bytes, **header: Any) -> RelayPort:
        """Older senders leave the address empty and then mean nothing by what follows."""
        port = super().from_payload(payload, **header)
        texts = wire.split_fields(payload)
        if len(texts) < 3 or not texts[2]:
            port.tls_port = port.private_address = 0
        return port


@dataclasses.dataclass
class StatusKeyPost(Message):
    TYPE = 232
    key: str = _text()
    value: str = _text()
