"""The byte level of the protocol: message images, fields, stream frames, datagrams.

An image is a 9-byte header (type, sender id, destination id; little-endian) and a payload of at
most 499 bytes. The payload is a sequence of fields, each ended by "~"; backslash, "~" and NUL
inside a field are preceded by a backslash. In a TCP stream an image of odd length 2*L - 1 follows
its length code L; an image of even length is padded with one "~" first.
"""

from __future__ import annotations

import re
import struct
from typing import Iterable, Iterator

HEADER_LEN = 9
MAX_IMAGE_LEN = 508
MAX_PAYLOAD_LEN = MAX_IMAGE_LEN - HEADER_LEN
#: The longest image a frame can carry: a maximal image plus the pad byte.
MAX_FRAMED_IMAGE_LEN = 509
DATAGRAM_PREFIX_LEN = 16
MAX_DATAGRAM_LEN = DATAGRAM_PREFIX_LEN + MAX_IMAGE_LEN
#: The type byte that means "no type".
UNSET_TYPE_BYTE = 255

_HEADER = struct.Struct("<BII")
_SPECIAL = re.compile(rb"[\\~\x00]")
_ESCAPED = re.compile(rb"\\(.?)", re.DOTALL)
_FIELD = re.compile(rb"((?:[^\\~]|\\.)*)(?:~|\\?\Z)", re.DOTALL)


class WireError(Exception):
    """Bytes that break the protocol, or a message that does not fit into it."""


def escape(raw: bytes) -> bytes:
    """The field text `raw` as written between delimiters."""
    return _SPECIAL.sub(rb"\\\g<0>", raw)


def unescape(text: bytes) -> bytes:
    """Undoes `escape`; every backslash is an escape, and a lone one at the end is dropped."""
    return _ESCAPED.sub(rb"\1", text)


def join_fields(fields: Iterable[bytes]) -> bytes:
    """The payload made of `fields`."""
    return b"".join(escape(field) + b"~" for field in fields)


def split_fields(payload: bytes) -> list[bytes]:
    """The fields of `payload`, unescaped; the pad of a frame shows up as one more empty field."""
    fields = []
    position = 0
    while position < len(payload):
        match = _FIELD.match(payload, position)
        if match is None:
            raise WireError(f"unreadable field at payload byte {position}")
        fields.append(unescape(match.group(1)))
        position = match.end()
    return fields


def make_image(type_code: int, sender_id: int, dest_id: int, payload: bytes = b"") -> bytes:
    """An image as given, with no check of its size, so that tests can build forbidden ones."""
    return _HEADER.pack(type_code & 0xFF, sender_id & 0xFFFFFFFF, dest_id & 0xFFFFFFFF) + payload


def type_of(image: bytes) -> int:
    """The type code of an image; -1 when it is unset."""
    return -1 if image[0] == UNSET_TYPE_BYTE else image[0]


def read_header(image: bytes) -> tuple[int, int, int]:
    """Type code, sender id and destination id of an image."""
    if len(image) < HEADER_LEN:
        raise WireError(f"an image of {len(image)} bytes has no complete header")
    _, sender_id, dest_id = _HEADER.unpack_from(image)
    return type_of(image), sender_id, dest_id


def payload_of(image: bytes) -> bytes:
    """What follows the header."""
    return image[HEADER_LEN:]


def to_frame(image: bytes) -> bytes:
    """The stream frame of `image`, padded when its length is even."""
    if not image:
        raise WireError("an empty image cannot be framed")
    if len(image) % 2 == 0:
        image += b"~"
    if len(image) > MAX_FRAMED_IMAGE_LEN:
        raise WireError(f"an image of {len(image)} bytes does not fit into a frame")
    return bytes([(len(image) + 1) // 2]) + image


class FrameReader:
    """Cuts a byte stream into images."""

    def __init__(self) -> None:
        self._buffer = bytearray()

    def feed(self, data: bytes) -> None:
        """Appends what was read from the stream."""
        self._buffer += data

    def __iter__(self) -> Iterator[bytes]:
        """The complete images held so far, each returned once.

        A correct peer never sends a length code of 0, so it raises WireError here instead of
        being skipped: the lab has to detect such a fault.
        """
        while self._buffer:
            if self._buffer[0] == 0:
                raise WireError("length code 0 in the stream")
            frame_len = 2 * self._buffer[0]
            if len(self._buffer) < frame_len:
                return
            image = bytes(self._buffer[1:frame_len])
            del self._buffer[:frame_len]
            yield image

    @property
    def pending(self) -> bytes:
        """Bytes of a frame that is not complete yet."""
        return bytes(self._buffer)


def to_datagram(image: bytes, marked_id: int | None = None) -> bytes:
    """A UDP datagram: 12 zero bytes, the marked id (the image's sender by default), the image."""
    if marked_id is None:
        marked_id = read_header(image)[1]
    return bytes(12) + struct.pack("<I", marked_id & 0xFFFFFFFF) + image


def from_datagram(datagram: bytes) -> tuple[int, bytes]:
    """Marked id and image (or audio bytes) of a datagram."""
    if len(datagram) < DATAGRAM_PREFIX_LEN:
        raise WireError(f"a datagram of {len(datagram)} bytes is too short")
    if any(datagram[:12]):
        raise WireError("the first 12 bytes of a datagram are not zero")
    return struct.unpack_from("<I", datagram, 12)[0], datagram[DATAGRAM_PREFIX_LEN:]
