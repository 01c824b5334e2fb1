"""The datagrams on a relay's audio ports: registrations, audio and its error correction.

Every datagram begins with 12 zero bytes and the sender's client id (the marked id). A
registration continues with a RelayConnect message that carries a ticket, with flags in place of the
destination id; audio continues with whatever the stations agree on, here RTP.
"""

from __future__ import annotations

import struct

from lab.protocol import messages, wire

#: Flags of a registration.
RECEIVE, CALL_BACK, SEND = 1, 2, 4
#: Programs of a relay; the port of each is two above the one before.
PROGRAMS = range(6)
#: Channel 0 is the audio, 1 and 2 are its error correction. Relays listen for a channel at the
#: program's port + 100 per channel, stations at their receive port + 2 per channel.
CHANNELS = range(3)
RELAY_CHANNEL_STEP = 100
STATION_CHANNEL_STEP = 2

#: RTP payload types: Opus has none of its own, so each channel takes one of the free ones.
_RTP_TYPES = (96, 97, 98)
_RTP_HEADER = struct.Struct(">BBHII")
RTP_CLOCK_RATE = 48000


def audio_datagram(marked_id: int, payload: bytes) -> bytes:
    """An audio datagram."""
    return wire.to_datagram(payload, marked_id)


def registration(
    client_id: int,
    ticket: bytes,
    flags: int,
    *,
    marked_id: int | None = None,
    terminator: bool = True,
    tail: bytes = b"",
) -> bytes:
    """A registration, valid or not: any flags, a `marked_id` unlike the client id, no "~" at
    the end, a `tail` before that "~". Its length is not limited."""
    connect = messages.RelayConnect(client_id, ticket)
    payload = connect.payload()[:-1] + tail + (b"~" if terminator else b"")
    image = wire.make_image(connect.TYPE, client_id, flags, payload)
    return wire.to_datagram(image, client_id if marked_id is None else marked_id)


def rtp_packet(
    payload: bytes, sequence: int, seconds: float, source_id: int, channel: int = 0
) -> bytes:
    """An RTP packet (RFC 3550) played `seconds` after the first of its stream."""
    timestamp = round(seconds * RTP_CLOCK_RATE) & 0xFFFFFFFF
    return (
        _RTP_HEADER.pack(0x80, _RTP_TYPES[channel], sequence & 0xFFFF, timestamp, source_id)
        + payload
    )


def parity(one: bytes, other: bytes) -> bytes:
    """The exclusive or of two packets, the shorter one padded with zeros: from it and either
    packet the other can be recovered."""
    length = max(len(one), len(other))
    first, second = (int.from_bytes(packet.ljust(length, b"\0"), "big") for packet in (one, other))
    return (first ^ second).to_bytes(length, "big")
