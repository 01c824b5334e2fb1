"""The Opus packets of an Ogg file: the checked-in clip, and invalid files."""

from __future__ import annotations

import struct

import pytest

from lab.audio.clip_player import CLIP
from lab.media import ogg_opus

HEAD = b"OpusHead\1\1" + bytes(9)
TAGS = b"OpusTags" + bytes(8)
#: One frame of 20 ms.
TOC_20_MS = b"\x08"


def page(number: int, packets: list[bytes], flags: int = 0, serial: int = 1) -> bytes:
    """A page with whole packets."""
    lacing = b"".join(b"\xff" * (len(one) // 255) + bytes([len(one) % 255]) for one in packets)
    return sealed(number, lacing, b"".join(packets), flags, serial)


def sealed(number: int, lacing: bytes, body: bytes, flags: int = 0, serial: int = 1) -> bytes:
    header = struct.pack("<4sBBqIIIB", b"OggS", 0, flags, 0, serial, number, 0, len(lacing))
    crc = ogg_opus.page_crc(header + lacing + body)
    return header[:22] + struct.pack("<I", crc) + header[26:] + lacing + body


def stream(*packets: bytes) -> bytes:
    return page(0, [HEAD], flags=2) + page(1, [TAGS]) + page(2, list(packets), flags=4)


def test_the_clip_is_some_seconds_of_speech_in_packets_of_20_ms():
    packets = ogg_opus.read(CLIP)
    assert CLIP.stat().st_size < 30000
    assert len(packets) == 444 and {packet.seconds for packet in packets} == {0.02}
    # Speech, not silence: hardly two packets are equal.
    assert len({packet.data for packet in packets}) > 440


def test_packets_are_read_as_written():
    wanted = [TOC_20_MS + bytes(n) for n in (0, 253, 254, 255, 600)]
    assert [packet.data for packet in ogg_opus.parse(stream(*wanted))] == wanted


def test_a_packet_may_span_pages():
    start, rest = TOC_20_MS + bytes(254), b"rest"
    data = page(0, [HEAD], 2) + page(1, [TAGS]) + sealed(2, b"\xff", start)
    assert ogg_opus.parse(data + page(3, [rest], 5))[0].data == start + rest
    with pytest.raises(ogg_opus.OggError, match="continue"):
        ogg_opus.parse(data + page(3, [rest], 4))
    with pytest.raises(ogg_opus.OggError, match="no end"):
        ogg_opus.parse(data + sealed(3, b"\xff", bytes(255), 5))


@pytest.mark.parametrize(
    ("packet", "seconds"),
    [(b"\x00", 0.01), (b"\x18", 0.06), (b"\x60", 0.01), (b"\x68", 0.02), (b"\x80", 0.0025),
     (b"\xf8", 0.02), (b"\xf9", 0.04), (b"\xfa", 0.04), (b"\xfb\x06", 0.12)],
)  # fmt: skip
def test_the_first_bytes_of_a_packet_give_its_duration(packet, seconds):
    assert ogg_opus.packet_secs(packet) == pytest.approx(seconds)


@pytest.mark.parametrize("packet", [b"", b"\xfb", b"\xfb\x00", b"\xfb\x07"])
def test_packets_without_a_length_are_refused(packet):
    with pytest.raises(ogg_opus.OggError):
        ogg_opus.packet_secs(packet)


SOUND = stream(TOC_20_MS)
FIRST, SECOND = page(0, [HEAD], 2), page(1, [TAGS])


@pytest.mark.parametrize(
    ("data", "words"),
    [
        (b"", "empty"),
        (SOUND[:-1], "cut off"),
        (SOUND + b"OggS", "half a page"),
        (b"x" + SOUND, "no page"),
        (SOUND[:-1] + b"x", "checksum"),
        (FIRST + page(2, [TAGS], 4), "page 1 is missing"),
        (FIRST + page(1, [TAGS], 4, serial=2), "more than one"),
        (FIRST + SECOND, "last-page flag"),
        (page(0, [HEAD]) + page(1, [TAGS], 4), "first-page flag"),
        (page(0, [TAGS], 2) + page(1, [TAGS], 4), "Opus header"),
        (page(0, [HEAD[:8] + b"\x10" + HEAD[9:]], 2) + page(1, [TAGS], 4), "version"),
        (FIRST + page(1, [HEAD], 4), "not followed by tags"),
    ],
)
def test_invalid_files_are_refused(data, words):
    with pytest.raises(ogg_opus.OggError, match=words):
        ogg_opus.parse(data)
