"""Connections that do not log in within 15 seconds are dropped, whatever they send meanwhile."""

from __future__ import annotations

import time

from lab.protocol import messages
from lab.support import channel
from lab.support.waiting import wait_until

_TIME_OUT_SECS = 15
#: The timers run every 4 seconds; the rest is for slow machines.
_AT_MOST_SECS = 25
_NO_TICKET = "Dropping client that has sent no login ticket after "
_NO_HANDSHAKE = "SSL handshake timed out on socket "


def _closed_after(station, began):
    assert station.closed_by_peer(_AT_MOST_SECS)
    return time.monotonic() - began


def test_connections_without_a_login_are_dropped_after_15_seconds(tls_relay, make_station, server):
    """In one test, because all their waits run in parallel."""
    began = time.monotonic()
    silent = make_station(tls_relay, login=False)
    half_a_frame = make_station(tls_relay, login=False)
    half_a_frame.send_raw(messages.RelayConnect(4001, server.ticket_for(4001)).frame()[:20])
    silent_over_tls = make_station(tls_relay, tls=True, login=False)
    chatty = make_station(tls_relay, login=False)
    chatty.start_heartbeats(1.0)
    no_handshake = channel.connect(tls_relay.address, tls_relay.tls_port)
    half_a_handshake = channel.connect(tls_relay.address, tls_relay.tls_port)
    half_a_handshake.write(b"\x16\x03\x01\x02\x00\x01\x00")
    tls_relay.log.expect_in_order(*["Starting SSL handshake on socket "] * 3)
    tls_relay.log.expect_in_order(*["New client request received from "] * 3)
    held = tls_relay.open_descriptors()

    loose = [silent, half_a_frame, silent_over_tls, chatty]
    for station in loose:
        assert _closed_after(station, began) > _TIME_OUT_SECS
    for link in (no_handshake, half_a_handshake):
        try:
            while link.read(_AT_MOST_SECS):
                pass
            raise AssertionError("still open")
        except channel.PeerClosed:
            assert time.monotonic() - began > _TIME_OUT_SECS
        link.close()
    # With TLS the end is reported before the descriptor is released.
    wait_until(lambda: tls_relay.open_descriptors() == held - 6, 5, "the descriptors given back")

    tls_relay.log.expect_in_order(*[_NO_TICKET] * len(loose))
    tls_relay.log.expect_in_order(*[_NO_HANDSHAKE] * 2)
    for line in tls_relay.log.lines:
        if _NO_TICKET in line:
            assert line.endswith(", 127.0.0.1")
            seconds = int(line.partition(_NO_TICKET)[2].split()[0])
            assert _TIME_OUT_SECS < seconds <= _AT_MOST_SECS
    # Messages before the log-in do not count as a sign of life.
    assert tls_relay.log.count("Message type 0x0c received from unauthorized client") >= 10


def test_a_late_login_is_still_in_time(relay, make_station):
    """The limit runs from the connection to the log-in; after that only silence counts."""
    early = make_station(relay, login=False)
    late = make_station(relay, login=False)
    late.login(4001, relay.server.ticket_for(4001))
    late.start_heartbeats()
    assert early.closed_by_peer(_AT_MOST_SECS)
    relay.server.orders.send(messages.Chat("SERVER", b"hello", dest_id=4001))
    late.expect(messages.Chat, chat=b"hello")
