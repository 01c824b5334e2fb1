"""Reading what relays archive: exact bodies, and what captions become in them."""

from __future__ import annotations

import pytest

from lab.archive import posted_json
from lab.archive.posted_json import BadPayload, Keeper, Payload, Record

ERASE, OTHER_ERASE, TEXT = b"\x14\x2c", b"\x15\x2c", b"AB"
#: Both fields: the second one's first caption has an odd number of bytes, which 80 pads.
BODY = (
    b'{"time" : 1700000075,"dur" : 60,"feedID" : "4294967295",'
    b'"CaptionData" : {"format" : "SCCP",'
    b'"S1data" : "1700000000.123\t9420 942c\r\n\r\n1700000001.000\tc180\r\n\r\n",'
    b'"S2data" : "1700000000.123\tc180\r\n\r\n"}}'
)
EMPTY = (
    b'{"time" : 0,"dur" : 0,"feedID" : "1","CaptionData" : '
    b'{"format" : "SCCP","S1data" : "","S2data" : ""}}'
)


def test_a_body_is_parsed():
    payload = posted_json.read(BODY)
    assert payload == Payload(
        time=1700000075,
        duration=60,
        feed_id=4294967295,
        records=[
            Record(1, 1700000000.123, bytes.fromhex("9420942c")),
            Record(1, 1700000001.0, bytes.fromhex("c180")),
            Record(2, 1700000000.123, bytes.fromhex("c180")),
        ],
    )
    assert [record.field for record in payload.of_field(2)] == [2]
    assert posted_json.write(payload) == BODY


def test_a_body_without_captions_is_valid():
    assert posted_json.read(EMPTY) == Payload(0, 0, 1, [])


@pytest.mark.parametrize(
    ("right", "wrong"),
    [
        (b"\r\n\r\n1700000001", b"\r\n1700000001"),
        (b"\r\n", b"\\r\\n"),
        (b"\t", b" "),
        (b"9420 942c", b"9420  942c"),
        (b"9420 942c", b"9420942c"),
        (b"9420 942c", b"9420 942C"),
        (b"c180", b"c1"),
        (b"0.123", b"0.12"),
        (b'"time" : ', b'"time": '),
        (b'"dur" : 60', b'"dur" : "60"'),
        (b'"dur" : 60', b'"dur" : -1'),
        (b'"dur" : 60', b'"dur" : 60.0'),
        (b'"dur" : 60,', b""),
        (b'"4294967295"', b"4294967295"),
        (b"SCCP", b"SCC"),
        (b"S2data", b"S3data"),
        (b"}}", b"}} "),
        (b"}}", b"}"),
        (b"SCCP", b"SCC\xff"),
    ],
)
def test_anything_not_as_relays_write_it_is_refused(right, wrong):
    assert right in BODY
    with pytest.raises(BadPayload):
        posted_json.read(BODY.replace(right, wrong))


@pytest.mark.parametrize(
    ("byte", "parity"), [(0x00, 0x80), (0x01, 0x01), (0x14, 0x94), (0x81, 0x81), (0x94, 0x94)]
)
def test_parity_is_added_and_the_tag_of_field_2_stays(byte, parity):
    assert posted_json.odd_parity_8(byte) == parity


@pytest.mark.parametrize(
    ("captions", "kept"),
    [
        ([ERASE, ERASE], [ERASE, b""]),
        ([ERASE + ERASE + TEXT + ERASE], [ERASE + TEXT + ERASE]),
        ([ERASE, OTHER_ERASE], [ERASE, b""]),
        ([ERASE, b"\x94\x2c", b"\x94\x2c"], [ERASE, b"\x94\x2c", b""]),
        ([ERASE, b"\xc1\xc2", ERASE], [ERASE, b"\xc1\xc2", b""]),
        ([b"A", b"ABC"], [b"", b"AB"]),
    ],
)
def test_a_run_of_erasing_is_kept_once_in_each_field(captions, kept):
    keeper = Keeper()
    assert [keeper.keep(caption) for caption in captions] == kept


def test_captions_become_the_records_of_their_field():
    captions = [TEXT, ERASE, ERASE, b"\xc1C", b"\xc1\xc2"]
    # A pair belongs to the field of its first byte, but each byte is written to its own.
    assert posted_json.renderings(captions) == [b"\xc1\xc2", b"\x94\x2c", b"C\x80"]
    assert posted_json.renderings(captions, field=2) == [b"\xc1\x80", b"\xc1\xc2"]


def test_what_was_erased_before_is_remembered():
    keeper = Keeper()
    keeper.keep(ERASE)
    assert posted_json.renderings([ERASE, TEXT], keeper=keeper) == [b"\xc1\xc2"]
