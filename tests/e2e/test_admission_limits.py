"""How often one address may connect and one id log in within the counting period of 10 seconds."""

from __future__ import annotations

import time

import pytest

from lab.protocol import messages
from lab.support import channel
from lab.support.addresses import new_address
from lab.support.waiting import wait_until

_CONNECTS = 99
_LOGINS = 9
_PERIOD_SECS = 10


@pytest.fixture
def connect(tls_relay):
    """Connects from an address and sends nothing, also to the TLS port; closed at the end."""
    opened = []

    def connect(source_ip, tls_port=False):
        port = tls_relay.tls_port if tls_port else tls_relay.tcp_port
        opened.append(channel.connect(tls_relay.address, port, source_ip=source_ip))
        return opened[-1]

    yield connect
    for one in opened:
        one.close()


def _expect_refused(link):
    """Whether the stream ends without any data."""
    with pytest.raises(channel.PeerClosed):
        assert link.read(5) == b""


def _use_up(connect, relay, source_ip):
    """Uses all connections of an address, half of them at the TLS port: both count as one."""
    since = relay.log.mark()
    for number in range(_CONNECTS):
        connect(source_ip, tls_port=number % 2 == 1)
    wait_until(
        lambda: relay.log.count(f"request received from {source_ip}(", since=since) == _CONNECTS,
        10,
        "99 connections of one address",
    )
    assert relay.log.count("temporarily, limit exceeded", since=since) == 0


def test_the_hundredth_connection_of_an_address_is_closed(tls_relay, connect, make_station):
    source = new_address()
    _use_up(connect, tls_relay, source)
    _expect_refused(connect(source))
    tls_relay.log.expect(f" - Blocking connection from {source} temporarily, limit exceeded")
    _expect_refused(connect(source, tls_port=True))
    tls_relay.log.expect(f" - Blocking SSL connection from {source} temporarily, limit exceeded")
    # Other addresses are not affected.
    make_station(tls_relay, source_ip=new_address())
    make_station(tls_relay, source_ip=new_address(), tls=True)


def test_an_address_may_connect_again_when_the_period_is_over(tls_relay, connect):
    source = new_address()
    began = time.monotonic()
    _use_up(connect, tls_relay, source)
    refusal = f"Blocking connection from {source} temporarily"

    def is_accepted():
        refused = tls_relay.log.count(refusal)
        _, port = connect(source).local
        accepted = f"New client request received from {source}({port})"
        wait_until(
            lambda: tls_relay.log.count(accepted) or tls_relay.log.count(refusal) > refused,
            5,
            "admitted or refused",
        )
        return tls_relay.log.count(accepted)

    wait_until(is_accepted, 3 * _PERIOD_SECS, "a new period")
    assert time.monotonic() - began > _PERIOD_SECS
    # The count began again with that connection.
    for _ in range(_CONNECTS - 1):
        connect(source)
    _expect_refused(connect(source))


def test_an_id_may_log_in_nine_times(server, relay, make_station):
    stations = [make_station(relay, client_id=4001) for _ in range(_LOGINS)]
    late = make_station(relay, login=False)
    late.login(4001, server.ticket_for(4001), expect="UNAUTHORIZED")
    assert late.closed_by_peer()
    relay.log.expect_in_order(
        " - Rejecting ticket for client 4001 based on temporary connection limits for this ID!",
        "client ID 4001 sent invalid ticket",
    )
    # The latest of those admitted is still served, and so are other ids.
    server.orders.send(messages.Chat("SERVER", b"hello", dest_id=4001))
    stations[-1].expect(messages.Chat, chat=b"hello")
    make_station(relay, client_id=4002)


def test_refused_tickets_do_not_count_against_their_id(server, relay, make_station):
    for _ in range(2 * _LOGINS):
        station = make_station(relay, login=False)
        station.login(4001, server.ticket_for(4001, age_secs=400), expect="UNAUTHORIZED")
    for _ in range(_LOGINS):
        make_station(relay, client_id=4001)


def test_an_id_may_log_in_again_when_the_period_is_over(server, relay, make_station):
    began = time.monotonic()
    stations = [make_station(relay, client_id=4001) for _ in range(_LOGINS)]

    def is_admitted():
        # No more attempts than the address has; the admitted connection is quiet meanwhile.
        assert stations[-1].receives_nothing(0.3)
        station = make_station(relay, login=False)
        station.send(messages.RelayConnect(4001, server.ticket_for(4001)))
        return station.expect(messages.Response).return_code == "OK"

    wait_until(is_admitted, 3 * _PERIOD_SECS, "a new period")
    assert time.monotonic() - began > _PERIOD_SECS
