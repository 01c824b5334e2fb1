"""What a relay posts to its archive endpoint: parsing it, and what captions become in it.

    payload = posted_json.read(body)
    payload.feed_id, [record.data for record in payload.records]
    posted_json.renderings(captions) == [record.data for record in payload.of_field(1)]

The body is JSON with one exception: the line ends in the blocks of captions are not escaped in its
strings. A parser told to tolerate that, like `json.loads(text, strict=False)`, accepts it.
"""

from __future__ import annotations

import json
import re
from collections.abc import Iterable
from typing import NamedTuple

from lab.media import cea608

_FORMAT = "SCCP"
_FIELDS = (1, 2)
#: A caption of one field in a block: its time, a tab, pairs of bytes, an empty line.
_RECORD = re.compile(r"(\d+\.\d{3})\t((?:[0-9a-f]{4} )*[0-9a-f]{4})\r\n\r\n")


class BadPayload(AssertionError):
    """A body that differs from what relays post, in at least a byte."""


class Record(NamedTuple):
    """The bytes of one field of one caption."""

    field: int
    #: When the relay received the caption, in seconds since 1970, truncated to the millisecond.
    time: float
    #: As transmitted: with parity, padded to pairs.
    data: bytes


class Payload(NamedTuple):
    """One body."""

    #: When it was made, seconds since 1970, and how long after the previous one.
    time: int
    duration: int
    #: The id of the station that sent the captions.
    feed_id: int
    #: Those of field 1, then those of field 2, each in order of time.
    records: list[Record]

    def of_field(self, field: int) -> list[Record]:
        """The records of field 1 or 2."""
        return [record for record in self.records if record.field == field]


# -- reading and writing -------------------------------------------------------------------


def read(body: bytes) -> Payload:
    """Parses a body. BadPayload unless every byte of it is as relays write it."""
    try:
        text = body.decode("ascii")
        outer = json.loads(text, strict=False)
        inner = outer["CaptionData"]
        blocks = [read_block(inner[f"S{field}data"], field) for field in _FIELDS]
        numbers = [int(str(outer[name])) for name in ("time", "dur", "feedID")]
        payload = Payload(*numbers, sum(blocks, []))
    except (ValueError, KeyError, TypeError) as error:
        raise BadPayload(f"{error!r} in {body!r}") from error
    if min(numbers) < 0 or write(payload) != body:
        raise BadPayload(f"{body!r} is not {write(payload)!r}")
    return payload


def read_block(block: str, field: int) -> list[Record]:
    """The records of a block, the text of "S1data" or "S2data"."""
    records, end = [], 0
    for match in _RECORD.finditer(block):
        if match.start() != end:
            break
        end = match.end()
        records.append(Record(field, float(match[1]), bytes.fromhex(match[2])))
    if end != len(block):
        raise BadPayload(f"no caption of field {field}: {block[end:]!r}")
    return records


def write(payload: Payload) -> bytes:
    """The body that a relay makes from it."""
    s1_data, s2_data = (write_block(payload.of_field(field)) for field in _FIELDS)
    return (
        f'{{"time" : {payload.time},"dur" : {payload.duration},"feedID" : "{payload.feed_id}",'
        f'"CaptionData" : {{"format" : "{_FORMAT}",'
        f'"S1data" : "{s1_data}","S2data" : "{s2_data}"}}}}'
    ).encode("ascii")


def write_block(records: Iterable[Record]) -> str:
    """The block of records of one field."""
    return "".join(f"{one.time:.3f}\t{one.data.hex(' ', 2)}\r\n\r\n" for one in records)


# -- what captions become ------------------------------------------------------------------


def odd_parity_8(byte: int) -> int:
    """A byte of the network as archived: with bit 7 set when the others have an even number of
    ones. Bit 7 of field 2 is never cleared."""
    return byte if (byte & 0x7F).bit_count() % 2 else byte | 0x80


class Keeper:
    """What a relay keeps of the captions of one source, in order of arrival. It remembers which
    field was erased last: erasing it again is not kept."""

    def __init__(self) -> None:
        self._erased = {1: False, 2: False}

    def keep(self, caption: bytes) -> bytes:
        """What is kept of a caption, as it came: pairs, bit 7 tells the field."""
        kept = bytearray()
        for first, second in zip(caption[0::2], caption[1::2]):
            field = field_of(first)
            erase = first & 0x7F in (0x14, 0x15) and second & 0x7F == cea608.ERASE_DISPLAYED[1]
            if not (erase and self._erased[field]):
                kept += bytes((first, second))
            self._erased[field] = erase
        return bytes(kept)


def field_of(byte: int) -> int:
    """The field that a network byte belongs to."""
    return 2 if byte & 0x80 else 1


def rendering(kept: bytes, field: int) -> bytes:
    """The data of the record for kept bytes, empty when none belong to that field."""
    data = bytes(odd_parity_8(byte) for byte in kept if field_of(byte) == field)
    return data + b"\x80" if len(data) % 2 else data


def renderings(
    captions: Iterable[bytes], field: int = 1, keeper: Keeper | None = None
) -> list[bytes]:
    """The data of the records of a field for a source's captions, in order. The first caption is
    the source's first one, unless `keeper` has seen others."""
    keeper = keeper or Keeper()
    made = [rendering(keeper.keep(caption), field) for caption in captions]
    return [data for data in made if data]
