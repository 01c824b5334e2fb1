"""PostgreSQL stops and starts again under the relay: cached routes continue, new ones are empty
until an order names them."""

from __future__ import annotations

import pytest
from switching_tools import (
    arriving_image,
    got_before_fence,
    got_before_order_fence,
    images,
    line_count,
)

from lab.protocol.messages import PIPE_CAPTION, LostConnection
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.waiting import wait_until


@pytest.fixture
def relay(own_cluster, make_relay):
    """A relay on a database server that the test may stop."""
    return make_relay(schema=own_cluster.new_schema())


@pytest.fixture
def encoder(relay, make_station):
    return make_station(relay, Encoder)


@pytest.fixture
def captioners(relay, make_station, route, encoder):
    """Two of them, both routed to the encoder."""
    captioners = [make_station(relay, Captioner) for _ in range(2)]
    for captioner in captioners:
        route(relay, captioner, encoder, PIPE_CAPTION)
    return captioners


def delivered(captioner, encoder, count=5):
    """Whether captions arrive: all or none."""
    sent = [arriving_image(captioner.caption(b"%d" % number)) for number in range(count)]
    got = images(got_before_fence(captioner, encoder))
    assert got in ([], sent)
    return got == sent


def order_until_delivered(relay, captioner, encoder):
    """The first orders may come before the relay has its database back."""

    def order():
        relay.server.orders.connect_route(captioner.client_id, encoder.client_id, PIPE_CAPTION)
        got_before_order_fence(relay.server, encoder)
        return delivered(captioner, encoder)

    wait_until(order, 10, "an order that has an effect")


@pytest.mark.parametrize("mode", ["fast", "immediate"])
def test_cached_routes_continue_and_new_ones_wait_for_an_order(
    relay, own_cluster, captioners, encoder, mode
):
    known, unknown = captioners
    server = relay.server
    assert delivered(known, encoder)
    own_cluster.query("CHECKPOINT")  # the table itself has to survive a crash
    own_cluster.stop(mode)
    assert delivered(known, encoder)
    # Its route is in the table, which cannot be queried: the empty answer is cached.
    assert not delivered(unknown, encoder)
    line = f"cache miss for source {unknown.client_id} type 192, now sending to 0 clients"
    relay.log.expect(line)
    # An order that cannot be carried out invalidates the cached route of its key too.
    server.orders.disconnect_route(known.client_id, 424242, PIPE_CAPTION)
    got_before_order_fence(server, encoder)
    assert not delivered(known, encoder)
    relay.log.expect("PostgreSQL database not connected!")

    own_cluster.start()
    assert not delivered(unknown, encoder)
    assert line_count(relay, encoder, line) == 1
    for captioner in captioners:
        order_until_delivered(relay, captioner, encoder)
    assert {(c.client_id, encoder.client_id, PIPE_CAPTION) for c in captioners} == (
        relay.schema.routes()
    )
    assert server.record.messages_of(LostConnection) == []


def test_a_restart_between_two_messages_is_not_noticed(relay, own_cluster, captioners, encoder):
    """The connection is found broken when it is next used, and opened again."""
    known, unknown = captioners
    assert delivered(known, encoder)
    own_cluster.restart()
    assert delivered(known, encoder)
    assert not delivered(unknown, encoder)  # the query that fails is not repeated
    relay.log.expect("Retrying connection to SQL")
    order_until_delivered(relay, unknown, encoder)


def test_clients_come_and_go_without_a_database(
    relay, own_cluster, captioners, encoder, make_station
):
    assert delivered(captioners[0], encoder)
    own_cluster.stop()
    for _ in range(3):
        newcomer = make_station(relay, Captioner)
        assert not delivered(newcomer, encoder)
        newcomer.close()
        relay.server.record.wait_for_type(LostConnection, client_id=newcomer.client_id)
    assert delivered(captioners[0], encoder)


def test_a_failed_statement_does_not_end_the_connection(relay, captioners, encoder):
    """The table is gone: no routes, and no reconnects, because the connection is intact."""
    relay.schema.query("ALTER TABLE iopatch RENAME TO elsewhere")
    assert not delivered(captioners[0], encoder)
    relay.log.expect("SQL statement SELECT clientto FROM iopatch WHERE clientfrom=")
    assert line_count(relay, encoder, "Retrying connection to SQL") == 0
    relay.schema.query("ALTER TABLE elsewhere RENAME TO iopatch")
    assert not delivered(captioners[0], encoder)
    relay.server.orders.connect_route(captioners[0].client_id, encoder.client_id, PIPE_CAPTION)
    got_before_order_fence(relay.server, encoder)
    assert delivered(captioners[0], encoder)
