"""The header of message types: named constants, and what the relay knows of each type by its byte alone."""

from class_code import FIRST_LINE, comment
from message_table import NAMED_PIPES, CodeConstant, MessageType, Table

NAME = "message_types.h"

_HEAD = f"""{FIRST_LINE}
/// The message types and codes that the relay compares with, and what it knows of a message by its
/// type byte alone: which pipe it travels down (the pipe is the class of a route), whether it is
/// kept for a connection server that is out of reach, and whether it is decided by itself.
#pragma once

#include <array>
#include <cstdint>

#include "orvex/message_codes.h"
"""

_PIPES = f"""
/// The message is not switched at all.
inline constexpr int kPipeNone = {NAMED_PIPES["none"]};
/// Goes to the destination that its header names.
inline constexpr int kPipeDirect = {NAMED_PIPES["direct"]};
/// Goes to the connection server.
inline constexpr int kPipeConnServer = {NAMED_PIPES["server"]};

/// What holds for all messages of one type.
struct MessageTraits {{
    std::int16_t nPipe;
    bool bNeverQueued;
    bool bOwnDecision;
}};

/// Of a type that the table does not name: its upper three bits are its pipe.
constexpr MessageTraits traitsOfUnnamed(unsigned nTypeByte) {{
    const auto nPipe = static_cast<std::int16_t>(nTypeByte & 0xE0U);
    return {{nPipe, false, nPipe == kPipeDirect || nPipe == kPipeConnServer}};
}}

/// The traits of all types, by type byte.
constexpr std::array<MessageTraits, 256> makeMessageTraits() {{
    std::array<MessageTraits, 256> traits{{}};
    for (unsigned nTypeByte = 0; nTypeByte < traits.size(); ++nTypeByte) {{
        traits[nTypeByte] = traitsOfUnnamed(nTypeByte);
    }}
"""

_TAIL = """    return traits;
}

inline constexpr std::array<MessageTraits, 256> kMessageTraits = makeMessageTraits();

/// The pipe of messages whose type byte is `nTypeByte` (0..255).
constexpr int nPipeType(unsigned char nTypeByte) {
    return kMessageTraits[nTypeByte].nPipe;
}

/// Whether such a message is not kept for a connection server that is out of reach.
constexpr bool bIsNeverQueued(unsigned char nTypeByte) {
    return kMessageTraits[nTypeByte].bNeverQueued;
}

/// Whether the relay acts on each such message, or decides for each where it goes. All others go to
/// the destinations of their route and nowhere else, whatever they say, and may travel in a run.
constexpr bool bIsOwnDecision(unsigned char nTypeByte) {
    return kMessageTraits[nTypeByte].bOwnDecision;
}
"""


def _type_constant(kind: MessageType) -> list[str]:
    return [
        *comment(kind.doc[0].upper() + kind.doc[1:].rstrip(".") + "."),
        f"inline constexpr Orvex::NetMessageType {kind.constant}({kind.type});",
    ]


def _code_constant(code: CodeConstant) -> str:
    return f'inline constexpr Orvex::{code.code_class} {code.name} = Orvex::{code.code_class}::of("{code.text}");'


def _traits(kind: MessageType) -> str:
    pipes = {-1: "kPipeNone", 96: "kPipeDirect", 224: "kPipeConnServer"}
    flags = f"{str(kind.never_queued).lower()}, {str(kind.own_decision).lower()}"
    return f"    traits[{kind.type}] = {{{pipes.get(kind.pipe, kind.pipe)}, {flags}}};"


def message_types_header(table: Table) -> str:
    lines = [_HEAD]
    for kind in table.types:
        if kind.constant:
            lines += _type_constant(kind)
    lines += ["", *(_code_constant(code) for code in table.codes)]
    return "\n".join(lines) + "\n" + _PIPES + "\n".join(map(_traits, table.types)) + "\n" + _TAIL
