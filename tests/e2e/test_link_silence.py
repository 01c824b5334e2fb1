"""A connection server that falls silent, before and after the login of a running relay, and one
that is away longer than clients may be kept."""

from __future__ import annotations

import contextlib
import socket

from lab.protocol import messages
from lab.server.connection_server import PLAIN_PORT, Fault
from lab.support.addresses import new_address

#: Fifteen seconds of silence and a tick of the timers.
_GIVEN_UP_SECS = 30


def test_a_silent_server_is_abandoned_and_the_session_continued_there(
    make_server, make_relay, make_station
):
    server, backup = make_server(heartbeat_secs=0), make_server()
    relay = make_relay(using=server, servers=[server.address, backup.address])
    station = make_station(relay)
    relay.log.expect_in_order(
        "abandoning connection with connserver - idle for ",
        "Lost connection to CS!",
        f"Attempting connection to server {server.address}",
        "Successful continuation with server",
        within_secs=_GIVEN_UP_SECS,
    )
    server.wait_logged_in(number=1)
    assert len(backup.links) == 0
    assert station.end_seen is None


def test_a_server_that_sends_is_not_abandoned(server, relay):
    since = 0
    for _ in range(6):
        since = _next_heartbeat(server, since)
    assert relay.log.count("abandoning") == 0
    assert len(server.links) == 1


def _next_heartbeat(server, since):
    """Waits for one more heartbeat of the relay; returns the end of the record up to it. It may be
    two ticks of the timers away."""
    server.record.wait_for_type(messages.Heartbeat, 12, since=since)
    return server.record.mark()


def test_a_reconnect_that_hangs_leads_to_the_next_server(make_server, make_relay, make_station):
    server, backup = make_server(), make_server()
    backup.script.continue_any = True
    relay = make_relay(using=server, servers=[server.address, backup.address])
    station = make_station(relay)
    # A server that closes with unread data resets the link, which is another case.
    server.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    server.script.fault("challenge", Fault("silence"))
    server.links.end()
    relay.log.expect_in_order(
        "abandoning connection with connserver - idle for ",
        "Lost connection to CS!",
        f"Attempting connection to server {backup.address}",
        within_secs=2 * _GIVEN_UP_SECS,
    )
    backup.wait_logged_in()
    backup.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)


@contextlib.contextmanager
def _plugged(address):
    """A listener so full that further connections get no answer."""
    with contextlib.ExitStack() as sockets:
        listener = sockets.enter_context(socket.socket())
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((address, PLAIN_PORT))
        listener.listen(0)
        with contextlib.suppress(TimeoutError):
            while True:
                filler = sockets.enter_context(socket.socket())
                filler.settimeout(0.5)
                filler.connect((address, PLAIN_PORT))
        yield


def test_an_unanswered_connect_leads_to_the_next_server(
    make_server, make_relay, make_station
):
    server, backup = make_server(), make_server()
    backup.script.continue_any = True
    relay = make_relay(using=server, servers=[server.address, backup.address])
    station = make_station(relay)
    server.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    server.stop_listening()
    with _plugged(server.address):
        server.links.end()
        relay.log.expect_in_order(
            f"Attempting connection to server {server.address}",
            "Lost connection to CS!",
            f"Attempting connection to server {server.address}",
            "abandoning connection with connserver - idle for ",
            "Connection attempt timed out to CS!",
            f"Attempting connection to server {backup.address}",
            "Successful continuation with server",
            within_secs=2 * _GIVEN_UP_SECS,
        )
        backup.wait_logged_in()
    assert station.end_seen is None


def test_a_relay_too_long_without_server_drops_its_clients_until_it_is_back(
    server, make_relay, make_station, route
):
    relay = make_relay(max_time_away_secs=2, servers=[server.address, new_address()])
    station = make_station(relay)
    route(relay, station, station, messages.PIPE_CHAT)
    server.close()
    relay.log.expect_in_order(
        "Haven't been able to reach connection server for 2 seconds, dropping clients and "
        "hibernating accepting new ones until connection made",
        "Cancelled 1 client connections",
        within_secs=20,
    )
    assert station.closed_by_peer()
    relay.schema.wait_for_routes(set())
    refused = make_station(relay, login=False)
    assert refused.closed_by_peer()
    relay.log.expect("No connection to CS, not accepting connection from")
    server.start()
    server.wait_logged_in(30, number=1)
    relay.log.expect("Successful continuation with server")
    make_station(relay, client_id=station.client_id)
