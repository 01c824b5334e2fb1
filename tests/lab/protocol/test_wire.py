"""Images, fields, frames and datagrams, byte by byte."""

from __future__ import annotations

import random

import pytest

from lab.protocol import wire


def test_a_field_with_every_special_byte_is_escaped_and_reads_back():
    field = b"a~b\\c\0"
    payload = wire.join_fields([field])
    assert payload == b"a\\~b\\\\c\\\0~"
    assert wire.split_fields(payload) == [field]


def test_an_empty_field_is_a_delimiter_alone():
    assert wire.join_fields([b""]) == b"~"
    assert wire.split_fields(b"~") == [b""]
    assert wire.split_fields(b"") == []


def test_reading_treats_every_backslash_as_an_escape():
    assert wire.split_fields(b"\\a\\\\~") == [b"a\\"]
    assert wire.split_fields(b"ab\\") == [b"ab"]
    assert wire.split_fields(b"no end") == [b"no end"]


def test_random_fields_read_back():
    chance = random.Random(1)
    for _ in range(300):
        fields = [
            bytes(chance.choice(b"~\\\0ab\xff") for _ in range(chance.randrange(9)))
            for _ in range(chance.randrange(6))
        ]
        assert wire.split_fields(wire.join_fields(fields)) == fields


def test_the_header_is_little_endian():
    image = wire.make_image(232, 0x01020304, 0xA0B0C0D0, b"x~")
    assert image == b"\xe8\x04\x03\x02\x01\xd0\xc0\xb0\xa0x~"
    assert wire.read_header(image) == (232, 0x01020304, 0xA0B0C0D0)


def test_type_byte_255_means_no_type():
    assert wire.type_of(b"\xff" + bytes(8)) == -1
    assert wire.make_image(-1, 0, 0)[0] == 255


def test_a_short_image_has_no_header():
    with pytest.raises(wire.WireError):
        wire.read_header(bytes(8))


@pytest.mark.parametrize(
    ("image_len", "code", "framed_len"),
    [(9, 5, 9), (17, 9, 17), (18, 10, 19), (507, 254, 507), (508, 255, 509), (509, 255, 509)],
)
def test_frames(image_len, code, framed_len):
    frame = wire.to_frame(b"i" * image_len)
    pad = b"~" * (framed_len - image_len)
    assert frame == bytes([code]) + b"i" * image_len + pad


@pytest.mark.parametrize("image", [b"", bytes(510)])
def test_what_cannot_be_framed(image):
    with pytest.raises(wire.WireError):
        wire.to_frame(image)


def test_the_reader_returns_only_complete_frames():
    reader = wire.FrameReader()
    reader.feed(b"\x05" + b"12345678")
    assert list(reader) == [] and reader.pending == b"\x0512345678"
    reader.feed(b"9" + b"\x01A" + b"\x02")
    assert list(reader) == [b"123456789", b"A"]
    assert reader.pending == b"\x02"


def test_the_reader_refuses_a_length_code_of_zero():
    reader = wire.FrameReader()
    reader.feed(b"\x01A\0")
    images = iter(reader)
    assert next(images) == b"A"
    with pytest.raises(wire.WireError):
        next(images)


def test_a_datagram_has_twelve_zero_bytes_and_the_sender():
    image = wire.make_image(19, 0x01020304, 5, b"7~~")
    datagram = wire.to_datagram(image)
    assert datagram == bytes(12) + b"\x04\x03\x02\x01" + image
    assert wire.from_datagram(datagram) == (0x01020304, image)
    assert wire.to_datagram(image, marked_id=9)[12:16] == b"\x09\0\0\0"
    with pytest.raises(wire.WireError):
        wire.from_datagram(datagram[:15])
