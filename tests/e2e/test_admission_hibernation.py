"""A relay away from its connection server for too long drops its clients and admits none until the
server is back."""

from __future__ import annotations

import pytest

from lab.support import channel

_AWAY_SECS = 3
_ASLEEP = (
    "Haven't been able to reach connection server for {} seconds, dropping clients and "
    "hibernating accepting new ones until connection made"
)


def _expect_refused(relay, port, text):
    link = channel.connect(relay.address, port)
    with pytest.raises(channel.PeerClosed):
        assert link.read(5) == b""
    relay.log.expect(text)
    link.close()


def test_hibernation_refuses_clients_until_the_server_is_back(server, make_relay, make_station):
    relay = make_relay(tls=True, max_time_away_secs=_AWAY_SECS)
    admitted = [make_station(relay), make_station(relay, tls=True)]
    loose = make_station(relay, login=False)
    server.close()
    for station in [*admitted, loose]:
        assert station.closed_by_peer(20)
    relay.log.expect_in_order(
        f" - {_ASLEEP.format(_AWAY_SECS)}",
        " - Mopping up CS! Client connections being cancelled",
        " - Cancelled 3 client connections",
        " - auto retrying connect to connection server",
    )

    _expect_refused(
        relay, relay.tcp_port, " - No connection to CS, not accepting connection from 127.0.0.1"
    )
    _expect_refused(
        relay, relay.tls_port, " - No connection with CS, not accepting SSL connect from 127.0.0.1"
    )
    asleep = relay.log.mark()
    relay.log.expect("auto retrying connect to connection server", 10, since=asleep)
    assert relay.log.count(_ASLEEP.format(_AWAY_SECS)) == 1

    up_again = len(server.links)
    server.start()
    server.wait_logged_in(20, number=up_again)
    make_station(relay)
    make_station(relay, tls=True)


def test_a_relay_without_a_limit_keeps_its_clients(server, make_relay, make_station):
    """For longer than the other relay waits; and it continues to admit clients."""
    relay = make_relay(tls=True)
    station = make_station(relay)
    ticket = server.ticket_for(4001)
    server.close()
    since = relay.log.mark()
    relay.log.expect_in_order(
        *["auto retrying connect to connection server"] * 2, within_secs=20, since=since
    )
    late = make_station(relay, login=False)
    late.login(4001, ticket)
    assert station.receives_nothing(0.1)
    assert station.end_seen is None
    assert relay.log.count("hibernating") == 0
