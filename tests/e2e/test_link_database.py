"""PostgreSQL stopped and started again under a running relay: clients and links stay, and routes
work again without a restart of the relay."""

from __future__ import annotations

import pytest
from switching_tools import line_count

from lab.protocol import messages
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.waiting import wait_until

_DOWN = "PostgreSQL database not connected!"


def _knows_it_is_connected(relay, server):
    """An order that arrives in the table proves it; orders sent before are lost."""

    def arrives():
        server.orders.connect_route(1, 2, messages.PIPE_CHAT)
        return (1, 2, messages.PIPE_CHAT) in relay.schema.routes()

    wait_until(arrives, 20, "an order gets through to the table")


@pytest.mark.parametrize("mode", ["fast", "immediate"])
def test_routing_works_again_when_the_database_is_back(
    mode, own_cluster, server, make_relay, make_station, route
):
    relay = make_relay(schema=own_cluster.new_schema())
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    late = make_station(relay, Encoder)
    route(relay, captioner, encoder, messages.PIPE_CAPTION)
    captioner.caption(b"before")
    assert encoder.receive_caption()[0] == b"before"

    # Without this the crash of the cluster, which commits lazily, would lose the table.
    own_cluster.query("CHECKPOINT")
    own_cluster.stop(mode)
    # Cached routes continue to work.
    captioner.caption(b"while down")
    assert encoder.receive_caption()[0] == b"while down"
    server.orders.connect_route(captioner.client_id, late.client_id, messages.PIPE_CAPTION)
    relay.log.expect_in_order("Retrying connection to SQL", _DOWN, _DOWN, within_secs=10)
    # The order invalidated the cached route: now this source reaches no destination.
    captioner.caption(b"no route")
    no_clients = f"cache miss for source {captioner.client_id} type 192, now sending to 0 clients"
    relay.log.expect(no_clients, 10)

    own_cluster.start()
    _knows_it_is_connected(relay, server)
    for one in (encoder, late):
        route(relay, captioner, one, messages.PIPE_CAPTION)
    captioner.caption(b"after")
    assert encoder.receive_caption()[0] == b"after"
    assert late.receive_caption()[0] == b"after"
    assert len(server.links) == 1, "the link to the connection server has nothing to do with it"
    downs = line_count(relay, late, _DOWN)
    captioner.caption(b"and on")
    assert encoder.receive_caption()[0] == b"and on"
    assert line_count(relay, late, _DOWN) == downs


def test_a_relay_without_database_neither_spins_nor_floods_its_log(
    own_cluster, server, make_relay, make_station
):
    relay = make_relay(schema=own_cluster.new_schema())
    station = make_station(relay)
    own_cluster.stop()
    server.orders.connect_route(1, 2, messages.PIPE_CHAT)
    relay.log.expect(_DOWN, 10)
    since = relay.log.mark()
    beats = station.heartbeats_received
    # Several client heartbeats later ...
    wait_until(lambda: _heard(station) >= beats + 2, 20, "heartbeats go on")
    # ... there are about as many lines as seconds.
    assert 2 <= relay.log.count(_DOWN, since=since) <= 40
    station.send(messages.StatusKeyPost("still", "served"))
    server.record.wait_for_type(messages.StatusKeyPost)


def _heard(station):
    """The heartbeats that a station has got so far."""
    station.receives_nothing(0.5)
    return station.heartbeats_received


def test_a_relay_ends_in_order_without_its_database(own_cluster, server, make_relay):
    relay = make_relay(schema=own_cluster.new_schema())
    own_cluster.stop()
    server.orders.connect_route(1, 2, messages.PIPE_CHAT)
    relay.log.expect(_DOWN, 10)
    assert relay.stop() == 0
    relay.log.expect("Cleaning up main method")


def test_a_terminated_database_session_is_replaced_without_a_stop(
    own_cluster, server, make_relay
):
    relay = make_relay(schema=own_cluster.new_schema())
    own_cluster.query_in(
        "postgres",
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = 'tessel'",
    )
    server.orders.connect_route(5, 6, messages.PIPE_CHAT)
    relay.log.expect_in_order("Retrying connection to SQL", "ResetSQL successful")
    server.orders.connect_route(7, 8, messages.PIPE_CHAT)
    relay.schema.wait_for_routes({(7, 8, messages.PIPE_CHAT)})
