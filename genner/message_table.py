"""Reads genner/messages.toml and checks it: a mistake in the table must not become a class."""

import tomllib
from dataclasses import dataclass, field
from pathlib import Path

ENCODINGS = ("dec", "udec", "text", "code", "bytes", "key", "blob", "list", "page")
RULES = {"stop_if_empty": ("dec", "udec"), "unchanged_if_shorter": ("key",)}
NEEDED_KEYS = {
    "code": ("code",),
    "bytes": ("element", "length", "limit", "limit_name"),
    "key": ("limit", "limit_name"),
}


class TableError(Exception):
    """The table contradicts itself; the text says where."""


@dataclass(frozen=True)
class Field:
    name: str
    member: str
    encoding: str
    code: str = ""
    element: str = ""
    length: str = ""
    limit: int = 0
    limit_name: str = ""
    doc: str = ""
    rule: str = ""


@dataclass(frozen=True)
class Message:
    type: int
    class_name: str
    summary: str
    constructors: list[list[Field]]
    fields: list[Field] = field(default_factory=list)
    paged: bool = False
    flagged: bool = False


def _check_field(where: str, entry: Field) -> None:
    if entry.encoding not in ENCODINGS:
        raise TableError(f"{where}: unknown encoding {entry.encoding!r}")
    for key in NEEDED_KEYS.get(entry.encoding, ()):
        if not getattr(entry, key):
            raise TableError(f"{where}: encoding {entry.encoding!r} needs {key!r}")
    if entry.rule and entry.encoding not in RULES.get(entry.rule, ()):
        raise TableError(f"{where}: rule {entry.rule!r} is unknown or not for {entry.encoding!r}")


def _read_fields(class_name: str, raw_fields: list[dict]) -> dict[str, Field]:
    fields: dict[str, Field] = {}
    for raw in raw_fields:
        try:
            entry = Field(**raw)
        except TypeError as error:
            raise TableError(f"{class_name}: {error}") from error
        where = f"{class_name}.{entry.name}"
        _check_field(where, entry)
        if entry.name in fields:
            raise TableError(f"{where}: named twice")
        fields[entry.name] = entry
    return fields


def _read_message(raw: dict) -> Message:
    class_name = raw.pop("class")
    fields = _read_fields(class_name, raw.pop("field", []))
    constructors = []
    for names in raw.pop("constructors"):
        unknown = [name for name in names if name not in fields]
        if unknown:
            raise TableError(f"{class_name}: constructor of unknown fields {unknown}")
        constructors.append([fields[name] for name in names])
    try:
        message = Message(class_name=class_name, constructors=constructors, fields=list(fields.values()), **raw)
    except TypeError as error:
        raise TableError(f"{class_name}: {error}") from error
    if not 0 <= message.type < 255:
        raise TableError(f"{class_name}: type {message.type} is no type byte (255 is the unset one)")
    if message.paged != any(entry.encoding == "page" for entry in message.fields):
        raise TableError(f"{class_name}: a paged message, and no other, has a page field")
    return message


def read_table(path: Path) -> list[Message]:
    """All messages in the table's order; TableError if it contradicts itself."""
    with path.open("rb") as file:
        messages = [_read_message(raw) for raw in tomllib.load(file)["message"]]
    for attribute in ("type", "class_name"):
        values = [getattr(message, attribute) for message in messages]
        for value in values:
            if values.count(value) > 1:
                raise TableError(f"{attribute} {value} is given twice")
    return messages
