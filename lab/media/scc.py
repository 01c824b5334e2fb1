"""Caption files in .scc format: a time code, a tab, pairs of bytes in hexadecimal.

    Scenarist_SCC V1.0

    00:00:01:15	9420 9420 94ae 94ae 9470 9470 c8e5 6c6c ef80 942f 942f

A time code counts hours, minutes, seconds and frames; ";" before the frames says that the count
skips numbers (drop frame) to match the clock. Bytes carry odd parity in bit 7.
"""

from __future__ import annotations

import dataclasses
import re
from pathlib import Path
from typing import Iterable

from lab.media import cea608

HEADER = "Scenarist_SCC V1.0"
#: Frames per second of the television system that captions come from.
FRAME_RATE = 30000 / 1001

_LINE = re.compile(r"(\d\d):(\d\d):(\d\d)([:;])(\d\d)\t+([0-9a-fA-F]{4}(?: +[0-9a-fA-F]{4})*)\s*")
#: Position codes (after 0x14) of the lowest rows, 15 and 14, at the left edge.
_TEXT_ROWS = (0x70, 0x50)


class SccError(Exception):
    """Not a valid .scc file."""


@dataclasses.dataclass(frozen=True)
class Cue:
    """One line: when its bytes go out (seconds from the start), and the bytes as in the file."""

    seconds: float
    data: bytes


def seconds_of(hours: int, minutes: int, seconds: int, frames: int, drop_frame: bool) -> float:
    """Real seconds of a time code."""
    total_minutes = hours * 60 + minutes
    count = (total_minutes * 60 + seconds) * 30 + frames
    if drop_frame:
        # Two numbers are skipped each minute except every tenth.
        count -= 2 * (total_minutes - total_minutes // 10)
    return count / FRAME_RATE


def parse(text: str) -> list[Cue]:
    """The cues of a file's text, in order; SccError names the line that is wrong."""
    lines = text.splitlines()
    if not lines or lines[0].strip() != HEADER:
        raise SccError(f"the first line is not {HEADER!r}")
    cues: list[Cue] = []
    for number, line in enumerate(lines[1:], start=2):
        if not line.strip():
            continue
        match = _LINE.fullmatch(line)
        if match is None:
            raise SccError(f"line {number} is not a time code and byte pairs")
        hours, minutes, seconds, frames = (int(match.group(i)) for i in (1, 2, 3, 5))
        when = seconds_of(hours, minutes, seconds, frames, match.group(4) == ";")
        data = bytes.fromhex(match.group(6))
        wrong = [byte for byte in data if not cea608.has_odd_parity(byte)]
        if wrong:
            raise SccError(f"line {number}: byte {wrong[0]:02x} has even parity")
        if cues and when < cues[-1].seconds:
            raise SccError(f"line {number} is earlier than the line before")
        cues.append(Cue(when, data))
    return cues


def read(path: Path) -> list[Cue]:
    """The cues of a file."""
    return parse(path.read_text(encoding="ascii"))


def pop_on(rows: Iterable[str]) -> bytes:
    """A pop-on caption of one or two rows with odd parity: loaded off-screen, then shown."""
    data = bytearray()

    def control(pair: tuple[int, int]) -> None:
        if len(data) % 2:
            data.append(0)
        # Twice, for noisy lines; receivers ignore the repetition.
        data.extend(pair * 2)

    control(cea608.ERASE_HIDDEN)
    control(cea608.RESUME_LOADING)
    texts = list(rows)
    for text, row in zip(texts, reversed(_TEXT_ROWS[: len(texts)])):
        control((0x14, row))
        data.extend(cea608.code_of(character) for character in text)
    control(cea608.END_OF_CAPTION)
    return bytes(cea608.with_odd_parity(byte) for byte in data)


def format_cue(frame: int, data: bytes) -> str:
    """A line of a file, its time given in frames (non-drop)."""
    seconds, frames = divmod(frame, 30)
    minutes, seconds = divmod(seconds, 60)
    pairs = " ".join(data[i : i + 2].hex() for i in range(0, len(data), 2))
    return f"00:{minutes:02d}:{seconds:02d}:{frames:02d}\t{pairs}"
