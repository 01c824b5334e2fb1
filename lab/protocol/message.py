"""How a message packs itself into an image and is parsed from one; the kinds of fields.

A message type is a dataclass derived from Message whose members are made by dec(), udec(), text()
and raw(), in wire order. Deriving it makes parse() know it.
"""

from __future__ import annotations

import dataclasses
import re
from typing import Any, Callable, ClassVar, TypeVar

from lab.protocol import wire

_INTEGER = re.compile(rb"\s*[+-]?\d+")
_UNSIGNED = re.compile(rb"\s*([+-]?)(0[xX][0-9a-fA-F]+|0[0-7]*|[1-9]\d*)")


def signed32(value: int) -> int:
    """`value` as a signed 32-bit number, the form of client ids in some messages."""
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


DEC = _Kind(lambda value: b"%d" % signed32(value), read_signed)
_UDEC = _Kind(lambda value: b"%d" % (value & 0xFFFFFFFF), read_unsigned)
_TEXT = _Kind(lambda value: value.encode("latin-1"), _read_text)
_BYTES = _Kind(bytes, bytes)


def _field(kind: _Kind, default: Any) -> Any:
    return dataclasses.field(default=default, metadata={"kind": kind})


def dec(default: int = 0) -> Any:
    """A member that is sent as a signed decimal number."""
    return _field(DEC, default)


def udec(default: int = 0) -> Any:
    """A member that is sent as an unsigned decimal number."""
    return _field(_UDEC, default)


def text(default: str = "") -> Any:
    """A member that is sent as Latin-1 text."""
    return _field(_TEXT, default)


def raw(default: bytes = b"") -> Any:
    """A member that is sent as bytes."""
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
        """The image; WireError when the payload is too long, as nothing is truncated here."""
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
    """A message of any type with any payload, even of known types, to send bad bytes."""

    code: int = -1
    raw_payload: bytes = b""

    @property
    def type_code(self) -> int:
        return self.code

    def payload(self) -> bytes:
        return self.raw_payload
