"""Reads genner/messages.toml and checks it: a mistake in the table must not become a class."""

import tomllib
from dataclasses import dataclass, field
from pathlib import Path

ENCODINGS = ("dec", "udec", "text", "code", "bytes", "key", "blob", "list", "page")
CODE_CLASSES = ("ReturnCode", "RequestCode", "Function")
#: Pipes that are no class of routes, by the names that the table gives them.
NAMED_PIPES = {"none": -1, "direct": 96, "server": 224}
TYPE_KEYS = ("constant", "pipe", "never_queued", "own_decision")
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
class MessageType:
    """What the relay knows of a message by its type byte alone."""

    type: int
    pipe: int
    constant: str = ""
    doc: str = ""
    never_queued: bool = False
    own_decision: bool = False


@dataclass(frozen=True)
class CodeConstant:
    code_class: str
    name: str
    text: str


@dataclass(frozen=True)
class Table:
    messages: list["Message"]
    #: All types that have an entry, with a class or without, in the order of their numbers.
    types: list[MessageType]
    codes: list[CodeConstant]


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


def _read_type(where: str, raw: dict) -> MessageType:
    pipe = raw.pop("pipe", None)
    if isinstance(pipe, str) and pipe not in NAMED_PIPES:
        raise TableError(f"{where}: unknown pipe {pipe!r}")
    if pipe is None or (isinstance(pipe, int) and pipe not in range(0, 256, 32)):
        raise TableError(f"{where}: pipe {pipe!r} is no multiple of 32 below 256")
    if pipe in NAMED_PIPES.values():
        raise TableError(f"{where}: pipe {pipe} has a name")
    raw["own_decision"] = raw.get("own_decision", False) or pipe in NAMED_PIPES
    try:
        entry = MessageType(pipe=NAMED_PIPES.get(pipe, pipe), **raw)
    except TypeError as error:
        raise TableError(f"{where}: {error}") from error
    if not 0 <= entry.type < 255:
        raise TableError(f"{where}: type {entry.type} is no type byte (255 is the unset one)")
    return entry


def _read_typed_message(raw: dict) -> tuple[Message, MessageType]:
    of_type = {key: raw.pop(key) for key in TYPE_KEYS if key in raw}
    kind = _read_type(raw["class"], {"type": raw["type"], "doc": raw.get("summary", ""), **of_type})
    return _read_message(raw), kind


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
    if message.paged != any(entry.encoding == "page" for entry in message.fields):
        raise TableError(f"{class_name}: a paged message, and no other, has a page field")
    return message


def _read_codes(raw: dict) -> list[CodeConstant]:
    if raw["class"] not in CODE_CLASSES:
        raise TableError(f"unknown code class {raw['class']!r}")
    return [CodeConstant(raw["class"], name, text) for name, text in raw["constants"].items()]


def _refuse_doubles(what: str, values: list) -> None:
    for value in values:
        if value and values.count(value) > 1:
            raise TableError(f"{what} {value} is given twice")


def read_table(path: Path) -> Table:
    """All messages in the table's order, all types and codes; TableError if it contradicts itself."""
    with path.open("rb") as file:
        raw = tomllib.load(file)
    typed = [_read_typed_message(entry) for entry in raw["message"]]
    types = [kind for _, kind in typed]
    types += [_read_type(f"type {entry.get('type')}", entry) for entry in raw.get("type", [])]
    codes = [code for entry in raw.get("code", []) for code in _read_codes(entry)]
    _refuse_doubles("type", [kind.type for kind in types])
    _refuse_doubles("class_name", [message.class_name for message, _ in typed])
    _refuse_doubles("constant", [kind.constant for kind in types] + [code.name for code in codes])
    types.sort(key=lambda kind: kind.type)
    return Table([message for message, _ in typed], types, codes)
