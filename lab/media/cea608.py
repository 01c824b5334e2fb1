"""CEA-608 caption bytes as text: the basic character set, pop-on and roll-up captions.

Inside the caption network bit 7 of a byte is the field tag (clear: field 1), not parity; in files
it is odd parity. The decoder uses only the low seven bits, so it reads both.
"""

from __future__ import annotations

#: Where the basic character set differs from ASCII.
_BASIC = {
    0x27: "\u2019", 0x2A: "á", 0x5C: "é", 0x5E: "í", 0x5F: "ó", 0x60: "ú",
    0x7B: "ç", 0x7C: "÷", 0x7D: "Ñ", 0x7E: "ñ", 0x7F: "\u2588",
}
_CODE_OF_CHARACTER = {character: code for code, character in _BASIC.items()}

RESUME_LOADING = (0x14, 0x20)
BACKSPACE = (0x14, 0x21)
ROLL_UP = ((0x14, 0x25), (0x14, 0x26), (0x14, 0x27))
ERASE_DISPLAYED = (0x14, 0x2C)
CARRIAGE_RETURN = (0x14, 0x2D)
ERASE_HIDDEN = (0x14, 0x2E)
END_OF_CAPTION = (0x14, 0x2F)


def with_odd_parity(byte: int) -> int:
    """The low seven bits of `byte`, with bit 7 set so that the number of ones is odd."""
    byte &= 0x7F
    return byte if byte.bit_count() % 2 else byte | 0x80


def has_odd_parity(byte: int) -> bool:
    """Whether the number of ones in `byte` is odd."""
    return byte.bit_count() % 2 == 1


def strip_parity(data: bytes, field: int = 1) -> bytes:
    """Caption bytes as the network carries them: bit 7 tells the field (1 or 2)."""
    tag = 0x80 if field == 2 else 0
    return bytes(byte & 0x7F | tag for byte in data)


def character_of(code: int) -> str:
    """The character of a basic code 0x20..0x7F."""
    return _BASIC.get(code, chr(code))


def code_of(character: str) -> int:
    """The basic code of a character; ValueError when it has none."""
    code = _CODE_OF_CHARACTER.get(character, ord(character))
    if not 0x20 <= code <= 0x7F or character_of(code) != character:
        raise ValueError(f"{character!r} is not in the basic character set")
    return code


class Decoder:
    """Turns byte pairs into texts. A pop-on text is complete when it is shown, a roll-up line
    when the next carriage return comes."""

    def __init__(self) -> None:
        self._text = ""
        self._last_control: tuple[int, int] | None = None
        self._roll_up = False

    def feed(self, data: bytes) -> list[str]:
        """The texts that `data` completes. An odd byte at the end is ignored."""
        texts: list[str] = []
        for first, second in zip(data[0::2], data[1::2]):
            self._take(first & 0x7F, second & 0x7F, texts)
        return texts

    def _take(self, first: int, second: int, texts: list[str]) -> None:
        if 0x10 <= first <= 0x1F:
            control = (first, second)
            # Control codes are sent twice, for noisy lines; the second one has no effect.
            if control == self._last_control:
                self._last_control = None
                return
            self._last_control = control
            self._obey(control, texts)
            return
        self._last_control = None
        for code in (first, second):
            if code >= 0x20:
                self._text += character_of(code)

    def _obey(self, control: tuple[int, int], texts: list[str]) -> None:
        if control == END_OF_CAPTION or (control == CARRIAGE_RETURN and self._roll_up):
            self._complete(texts)
        elif control == ERASE_HIDDEN:
            self._text = ""
        elif control == RESUME_LOADING:
            self._roll_up = False
        elif control in ROLL_UP:
            self._roll_up = True
        elif control == BACKSPACE:
            self._text = self._text[:-1]
        elif control[1] >= 0x40 and self._text and not self._text.endswith(" "):
            # A position code starts a new row: visually, a word break.
            self._text += " "

    def _complete(self, texts: list[str]) -> None:
        text = self._text.strip()
        self._text = ""
        if text:
            texts.append(text)
