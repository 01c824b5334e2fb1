"""Orders of the connection server in batches: back to back, before an end of the link, in halves,
and inside one large TLS record."""

from __future__ import annotations

import signal

import pytest

from lab.protocol import messages

_MANY = 300


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def _orders(count, first_from=100000, to_id=9):
    """Frames that order `count` routes, and the rows that they make."""
    ids = range(first_from, first_from + count)
    frames = [
        messages.RoutingUpdate("CONNECT", from_id, to_id, 192, sender_id=1).frame()
        for from_id in ids
    ]
    return b"".join(frames), {(from_id, to_id, 192) for from_id in ids}


@pytest.mark.parametrize("end", ["close", "reset"])
@pytest.mark.parametrize("absent", ["one", "many"])
def test_a_batch_of_orders_before_the_end_of_the_link_is_carried_out(
    end, absent, any_server, make_relay
):
    """Also when the relay notices the end in the middle of them: it tells the server of every
    destination that is absent."""
    relay = make_relay(using=any_server)
    batches = [_orders(1, 100000 + n, 9 + n * (absent == "many")) for n in range(_MANY)]
    rows = set().union(*(rows for _, rows in batches))
    # Stopped, so that everything is there together with the end.
    relay.signal(signal.SIGSTOP)
    any_server.orders.send_raw(b"".join(frames for frames, _ in batches))
    any_server.links.end(end)
    relay.signal(signal.SIGCONT)
    relay.log.expect("Lost connection to CS!", 20)
    any_server.wait_logged_in(20, number=1)
    assert relay.schema.routes() == rows


def test_orders_are_carried_out_when_a_client_message_finds_the_link_broken(
    server, relay, make_station
):
    stations = [make_station(relay) for _ in range(4)]
    frames, rows = _orders(_MANY)
    relay.signal(signal.SIGSTOP)
    for station in stations:
        station.send_all([messages.StatusKeyPost("key", "value")] * 20)
    server.orders.send_raw(frames)
    server.links.end("reset")
    relay.signal(signal.SIGCONT)
    server.wait_logged_in(20, number=1)
    assert relay.schema.routes() == rows


def test_a_record_larger_than_a_read_is_handled_without_further_data(tls_server, make_relay):
    tls_server.settings.heartbeat_secs = 0
    relay = make_relay(using=tls_server)
    frames, rows = _orders(16384 // len(_orders(1)[0]))
    assert 16000 < len(frames) <= 16384
    tls_server.orders.send_raw(frames)
    # Well within the time after which anything else would wake up the link.
    relay.schema.wait_for_routes(rows, 8)
    assert len(tls_server.links) == 1


def test_an_order_in_two_halves_is_reassembled(any_server, make_relay):
    relay = make_relay(using=any_server)
    frames, rows = _orders(2)
    any_server.orders.send_raw(frames[:-5])
    relay.schema.wait_for_route((100000, 9, 192))
    any_server.orders.send_raw(frames[-5:])
    relay.schema.wait_for_routes(rows)


def test_half_an_order_at_the_end_of_a_link_is_discarded_with_it(any_server, make_relay):
    relay = make_relay(using=any_server)
    frames, rows = _orders(2)
    any_server.orders.send_raw(frames[:-5])
    any_server.links.end()
    any_server.wait_logged_in(20, number=1)
    any_server.orders.connect_route(5, 9, 192)
    relay.schema.wait_for_routes({(100000, 9, 192), (5, 9, 192)})


def test_permissions_are_granted_and_denied_by_the_server(server, relay):
    server.orders.grant_video(11, 12)
    relay.log.expect("Video link permissions granted for 11 to 12")
    server.orders.deny_video(11, 12)
    relay.log.expect("Video link permissions denied for 11 to 12")
