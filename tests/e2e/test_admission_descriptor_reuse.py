"""Descriptor numbers that pass from one client to the next, also within one batch of events."""

from __future__ import annotations

import contextlib
import random

import pytest

from lab.protocol import messages
from lab.stations.crowd import Crowd, source_addresses
from lab.support import channel
from lab.support.addresses import new_address
from lab.support.waiting import wait_until

_PAIRS = 12


@pytest.mark.parametrize("how", ["close", "reset"])
def test_an_event_of_a_closed_connection_does_not_affect_its_successor(how, server, relay):
    """While the relay is stopped the following becomes one batch: log-ins that push out older
    connections, a newcomer, and the end of the older connections. The newcomer gets the number of
    the first that was pushed out, whose own event is still pending."""
    with Crowd(relay.address, relay.tcp_port) as crowd:
        older = crowd.admit(_PAIRS, server)
        newer = crowd.connect(_PAIRS)
        wait_until(
            lambda: relay.log.count("New client request received") == 2 * _PAIRS, 5, "all accepted"
        )
        since = relay.log.mark()
        with relay.stopped():
            for old, new in zip(older, newer):
                crowd.send_login(new, server, old.client_id)
            newcomers = crowd.connect(_PAIRS)
            for newcomer in newcomers:
                crowd.send_login(newcomer, server)
            for old in older:
                old.reset() if how == "reset" else old.close()
        for station in (*newer, *newcomers):
            station.expect(messages.Response, return_code="OK")
        relay.log.expect_in_order(*["closing older connection"] * _PAIRS, since=since)
        _all_are_served(server, (*newer, *newcomers))
        assert relay.log.count("could not identify client") == 0


def _all_are_served(server, stations):
    for station in stations:
        server.orders.send(messages.Chat("SERVER", b"hello", dest_id=station.client_id))
    for station in stations:
        station.expect(messages.Chat, chat=b"hello")


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_new_clients_are_not_affected_by_leaving_ones(tls, server, make_relay):
    """Rounds of clients leaving and connecting in any order, each of them one burst for the
    relay."""
    relay = make_relay(tls=True)
    dice = random.Random(7)
    port = relay.tls_port if tls else relay.tcp_port
    with Crowd(relay.address, port, tls=tls) as crowd:
        staying = crowd.admit(30, server)
        for _ in range(12):
            dice.shuffle(staying)
            leaving, staying = staying[:15], staying[15:]
            newcomers = _burst(relay, server, crowd, leaving, tls)
            for station in newcomers:
                station.expect(messages.Response, return_code="OK")
            staying += newcomers
            _all_are_served(server, staying)
            # On a busy machine the rounds take longer than a client may be silent.
            for station in staying:
                station.send(messages.Heartbeat())
    assert relay.log.count("could not identify client") == 0


def _burst(relay, server, crowd, leaving, tls):
    """`leaving` disconnect in every way while as many others connect and log in."""
    newcomers = []
    # A TLS handshake needs the relay to answer.
    with contextlib.nullcontext() if tls else relay.stopped():
        for number, station in enumerate(leaving):
            if number % 3 == 0:
                station.logout()
            if number % 3 == 1:
                station.reset()
            else:
                station.close()
            newcomers += crowd.connect(1)
            crowd.send_login(newcomers[-1], server)
    return newcomers


def test_hundreds_of_connections_and_disconnections_leak_no_descriptor(server, tls_relay):
    """Of every kind: logged in, not logged in, in the middle of a handshake, plain and TLS."""
    held = tls_relay.open_descriptors()
    sources = source_addresses()
    address, plain_port, tls_port = tls_relay.address, tls_relay.tcp_port, tls_relay.tls_port
    for _ in range(50):
        with (
            Crowd(address, plain_port, sources=sources) as plain,
            Crowd(address, tls_port, tls=True, sources=sources) as secure,
        ):
            plain.admit(3, server)
            plain.connect(2)
            secure.admit(1, server)
            secure.connect(1)
            handshake = channel.connect(address, tls_port, source_ip=next(sources))
            handshake.write(b"\x16\x03\x01")
            refused = plain.connect(1)[0]
            refused.login(4001, b"bad ticket", expect="UNAUTHORIZED")
            handshake.close()
    wait_until(lambda: tls_relay.open_descriptors() == held, 20, "descriptors given back")


def test_an_interrupted_wait_continues(server, relay, make_station):
    """Stopping and continuing a process interrupts its wait for events, if it is in one."""
    station = make_station(relay)

    def interrupt():
        with relay.stopped():
            pass
        return relay.log.count(" - epoll error - Interrupted system call") >= 3

    wait_until(interrupt, 20, "three interrupted waits")
    server.orders.send(messages.Chat("SERVER", b"hello", dest_id=station.client_id))
    station.expect(messages.Chat, chat=b"hello")
    make_station(relay, source_ip=new_address())
