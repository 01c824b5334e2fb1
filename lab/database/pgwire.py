"""The minimum of the PostgreSQL protocol: one connection, simple queries, text results.

Enough to read a table many times a second without starting a program for each query.
"""

from __future__ import annotations

import socket
import struct

from lab.support.waiting import Deadline

Row = tuple[str | None, ...]

_PROTOCOL_3 = 196608
_INTEGER = struct.Struct("!i")


class SqlError(Exception):
    """The server refused a statement or the connection."""


class PgConnection:
    """A connection to a server that trusts us. Every call ends within `within_secs`."""

    def __init__(
        self, host: str, port: int, *, database: str, user: str, within_secs: float = 10.0
    ) -> None:
        self._deadline = Deadline(within_secs)
        self._sock = socket.create_connection((host, port), timeout=self._deadline.left() or 0.01)
        try:
            parameters = f"user\0{user}\0database\0{database}\0\0".encode()
            body = _INTEGER.pack(_PROTOCOL_3) + parameters
            self._sock.sendall(_INTEGER.pack(len(body) + 4) + body)
            self._read_until_ready()
        except BaseException:
            self._sock.close()
            raise

    def __enter__(self) -> PgConnection:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def query(self, sql: str) -> list[Row]:
        """Runs one or more statements; the rows of all of them. SqlError when one fails."""
        body = sql.encode() + b"\0"
        self._sock.sendall(b"Q" + _INTEGER.pack(len(body) + 4) + body)
        return self._read_until_ready()

    def close(self) -> None:
        """Ends the session and closes the connection."""
        try:
            self._sock.sendall(b"X" + _INTEGER.pack(4))
        except OSError:
            pass
        self._sock.close()

    def _read_exactly(self, count: int) -> bytes:
        data = b""
        while len(data) < count:
            self._sock.settimeout(self._deadline.left() or 0.01)
            part = self._sock.recv(count - len(data))
            if not part:
                raise ConnectionError("the database server closed the connection")
            data += part
        return data

    def _read_until_ready(self) -> list[Row]:
        rows: list[Row] = []
        failure = ""
        while True:
            kind = self._read_exactly(1)
            length = _INTEGER.unpack(self._read_exactly(4))[0] - 4
            body = self._read_exactly(length)
            if kind == b"D":
                rows.append(_data_row(body))
            elif kind == b"R" and _INTEGER.unpack_from(body)[0] != 0:
                raise SqlError("the server requires a password")
            elif kind == b"E":
                failure = _error_text(body)
                if failure.startswith("FATAL"):
                    raise SqlError(failure)
            elif kind == b"Z":
                if failure:
                    raise SqlError(failure)
                return rows


def _data_row(body: bytes) -> Row:
    (count,) = struct.unpack_from("!h", body)
    position = 2
    values: list[str | None] = []
    for _ in range(count):
        (length,) = _INTEGER.unpack_from(body, position)
        position += 4
        if length < 0:
            values.append(None)
            continue
        values.append(body[position : position + length].decode())
        position += length
    return tuple(values)


def _error_text(body: bytes) -> str:
    """Severity and message from the tagged strings of an error."""
    parts = {part[:1]: part[1:].decode(errors="replace") for part in body.split(b"\0") if part}
    return f"{parts.get(b'V', parts.get(b'S', ''))}: {parts.get(b'M', '')}"
