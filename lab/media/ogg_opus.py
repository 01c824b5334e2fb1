"""Opus packets from an Ogg file (RFC 3533, RFC 7845), strictly: one stream, valid checksums, no
gaps.

    for packet in ogg_opus.read(Path("welcome.opus")):
        packet.data, packet.seconds
"""

from __future__ import annotations

import dataclasses
import struct
from collections.abc import Iterator
from pathlib import Path

_PAGE_HEADER = struct.Struct("<4sBBqIIIB")
_CONTINUED, _FIRST, _LAST = 1, 2, 4
_HEADER_MAGIC, _TAGS_MAGIC = b"OpusHead", b"OpusTags"
#: A packet never lasts longer.
_MAX_PACKET_SECS = 0.12


class OggError(Exception):
    """Not a valid Ogg file with one Opus stream."""


@dataclasses.dataclass(frozen=True)
class Packet:
    """One Opus packet and its duration."""

    data: bytes
    seconds: float


def _make_crc_table() -> list[int]:
    table = []
    for value in range(256):
        crc = value << 24
        for _ in range(8):
            crc = (crc << 1) ^ (0x04C11DB7 if crc & 0x80000000 else 0)
        table.append(crc & 0xFFFFFFFF)
    return table


_CRC_TABLE = _make_crc_table()


def page_crc(page: bytes) -> int:
    """The checksum of a page, with its checksum field taken as zero."""
    crc = 0
    for byte in page[:22] + bytes(4) + page[26:]:
        crc = (crc << 8 & 0xFFFFFFFF) ^ _CRC_TABLE[crc >> 24 ^ byte]
    return crc


@dataclasses.dataclass(frozen=True)
class _Page:
    flags: int
    serial: int
    number: int
    lacing: bytes
    body: bytes


def _pages(data: bytes) -> Iterator[_Page]:
    """The pages of a file, back to back."""
    position = 0
    while position < len(data):
        if len(data) - position < _PAGE_HEADER.size:
            raise OggError(f"half a page header at byte {position}")
        magic, version, flags, _, serial, number, crc, segments = _PAGE_HEADER.unpack_from(
            data, position
        )
        if magic != b"OggS" or version != 0:
            raise OggError(f"no page at byte {position}")
        lacing_at = position + _PAGE_HEADER.size
        lacing = data[lacing_at : lacing_at + segments]
        end = lacing_at + segments + sum(lacing)
        if len(lacing) < segments or end > len(data):
            raise OggError(f"page {number} is cut off")
        if page_crc(data[position:end]) != crc:
            raise OggError(f"page {number} has a wrong checksum")
        yield _Page(flags, serial, number, lacing, data[lacing_at + segments : end])
        position = end


def _check_order(pages: list[_Page]) -> None:
    """One stream from its first page to its last, none missing."""
    if not pages:
        raise OggError("the file is empty")
    for index, page in enumerate(pages):
        if page.serial != pages[0].serial:
            raise OggError("there is more than one stream")
        if page.number != index:
            raise OggError(f"page {index} is missing")
        if bool(page.flags & _FIRST) != (index == 0):
            raise OggError(f"page {index} has a wrong first-page flag")
        if bool(page.flags & _LAST) != (index == len(pages) - 1):
            raise OggError(f"page {index} has a wrong last-page flag")


def _packets(pages: list[_Page]) -> Iterator[bytes]:
    """The packets of all pages; one may span several."""
    packet = bytearray()
    open_ended = False
    for page in pages:
        if bool(page.flags & _CONTINUED) != open_ended:
            raise OggError(f"page {page.number} does not continue the one before")
        position = 0
        for length in page.lacing:
            packet += page.body[position : position + length]
            position += length
            open_ended = length == 255
            if not open_ended:
                yield bytes(packet)
                packet.clear()
    if open_ended:
        raise OggError("the last packet has no end")


def _frame_secs(config: int) -> float:
    """Length of one frame by the configuration number of the packet's first byte."""
    if config < 12:
        return (0.01, 0.02, 0.04, 0.06)[config % 4]
    if config < 16:
        return (0.01, 0.02)[config % 2]
    return (0.0025, 0.005, 0.01, 0.02)[config % 4]


def packet_secs(packet: bytes) -> float:
    """The duration of an Opus packet, by its first bytes."""
    if not packet:
        raise OggError("an empty Opus packet")
    kind = packet[0] & 3
    if kind == 3 and len(packet) < 2:
        raise OggError("an Opus packet without its number of frames")
    frames = (1, 2, 2, packet[1] & 0x3F if kind == 3 else 0)[kind]
    seconds = frames * _frame_secs(packet[0] >> 3)
    if not 0 < seconds <= _MAX_PACKET_SECS + 1e-9:
        raise OggError(f"an Opus packet of {seconds} s")
    return seconds


def parse(data: bytes) -> list[Packet]:
    """The audio packets of a file's bytes, in order; OggError tells what is wrong."""
    pages = list(_pages(data))
    _check_order(pages)
    packets = list(_packets(pages))
    if len(packets) < 2 or not packets[0].startswith(_HEADER_MAGIC) or len(packets[0]) < 19:
        raise OggError("the stream does not begin with an Opus header")
    if packets[0][8] >> 4 != 0:
        raise OggError(f"Opus header version {packets[0][8]}")
    if not packets[1].startswith(_TAGS_MAGIC):
        raise OggError("the Opus header is not followed by tags")
    return [Packet(packet, packet_secs(packet)) for packet in packets[2:]]


def read(path: Path) -> list[Packet]:
    """The audio packets of a file."""
    return parse(path.read_bytes())
