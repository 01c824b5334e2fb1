"""Caption files and caption bytes."""

from __future__ import annotations

import pytest

from lab.media import cea608, scc
from lab.play.speakers import CLIP, schedule


def test_the_clip_is_valid_and_decodes_to_text():
    cues = scc.read(CLIP)
    decoder = cea608.Decoder()
    texts = [decoder.feed(cea608.strip_parity(cue.data)) for cue in cues]
    assert len(cues) == 12 and all(len(text) == 1 for text in texts)
    assert texts[0] == ["Welcome to the caption relay."]
    assert texts[4] == ["A café, a señor, a jalapeño:"]
    assert 16 < cues[-1].seconds < 18


def test_the_clip_contains_every_special_byte():
    data = b"".join(cea608.strip_parity(cue.data) for cue in scc.read(CLIP))
    assert all(byte in data for byte in b"\\~\0")


@pytest.mark.parametrize(("byte", "with_parity"), [(0x00, 0x80), (0x01, 0x01), (0x41, 0xC1),
                                                   (0x43, 0x43), (0xFE, 0xFE)])  # fmt: skip
def test_odd_parity(byte, with_parity):
    assert cea608.with_odd_parity(byte) == with_parity
    assert cea608.has_odd_parity(with_parity)


def test_the_field_replaces_parity():
    assert cea608.strip_parity(b"\xc1\x43") == b"\x41\x43"
    assert cea608.strip_parity(b"\xc1\x43", field=2) == b"\xc1\xc3"


def test_time_codes_with_and_without_dropped_frames():
    assert scc.seconds_of(0, 0, 1, 0, False) == pytest.approx(1.001)
    assert scc.seconds_of(1, 0, 0, 0, False) == pytest.approx(3603.6)
    assert scc.seconds_of(1, 0, 0, 0, True) == pytest.approx(3600, abs=0.01)


@pytest.mark.parametrize(
    ("body", "words"),
    [
        ("00:00:01:00\t9420 9421", "even parity"),
        ("00:00:01:00 9420", "line 3"),
        ("00:00:02:00\t9420\n00:00:01:00\t9420", "earlier"),
    ],
)
def test_errors_in_a_file_are_reported(body, words):
    with pytest.raises(scc.SccError, match=words):
        scc.parse(f"{scc.HEADER}\n\n{body}\n")


def test_a_file_needs_its_first_line():
    with pytest.raises(scc.SccError, match="first line"):
        scc.parse("00:00:01:00\t9420\n")


def test_a_cue_is_written_as_it_is_read():
    line = scc.format_cue(75, scc.pop_on(["Hello"]))
    assert line.startswith("00:00:02:15\t94ae 94ae 9420 9420 9470 9470 ")
    cue = scc.parse(f"{scc.HEADER}\n\n{line}\n")[0]
    assert cue.data == scc.pop_on(["Hello"])


def test_roll_up_lines_are_complete_at_the_carriage_return():
    decoder = cea608.Decoder()
    assert decoder.feed(b"\x14\x25\x14\x25\x14\x2d\x14\x2dHi") == []
    assert decoder.feed(b"\x14\x2d\x14\x2dyou\0") == ["Hi"]
    assert decoder.feed(b"\x14\x2d") == ["you"]


def test_a_control_code_counts_once_when_it_is_doubled():
    decoder = cea608.Decoder()
    assert decoder.feed(b"\x14\x20abcd\x14\x21\x14\x21\x14\x2f") == ["abc"]


def test_a_letter_outside_the_set_is_refused():
    with pytest.raises(ValueError):
        cea608.code_of("*")


def test_the_schedule_repeats_and_truncates():
    cues = [scc.Cue(1.0, b"a"), scc.Cue(2.0, b"b")]
    assert [cue.seconds for cue in schedule(cues, 5.0)] == [1.0, 2.0, 4.5]
    assert schedule(cues, 0.5) == []
