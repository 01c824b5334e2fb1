"""Routes to clients that are absent, and clients that left: what the connection server is told, and
what is remembered for it."""

from __future__ import annotations

from switching_tools import got_before_order_fence, line_count

from lab.protocol.message import signed32
from lab.protocol.messages import PIPE_CAPTION, PIPE_CHAT, LostConnection
from lab.stations.caption_stations import Captioner, Encoder

ABSENT = "Got a routing insert request for client ID {}, but it's not currently one connected to"
AND_SO = " this relay. Re-confirming that to conn server"
FORGOTTEN = "Removed recently lost message on client {} from re-send list"
TAKEN_CARE_OF = "CS seems to have taken care of links for client {}"


def losses(server, client_id, since=0):
    lost = server.record.messages_of(LostConnection, since)
    return [one for one in lost if one.client_id == signed32(client_id)]


def test_an_absent_destination_is_confirmed_once_per_id_in_a_row(relay, make_station):
    station, server = make_station(relay), relay.server
    first, second = 900001, 4000000000
    orders = [first, first, first, second, second, first]
    for number, to_id in enumerate(orders):
        server.orders.connect_route(100 + number, to_id, PIPE_CAPTION)
    # A destination that is present makes the relay forget nothing.
    server.orders.connect_route(100, station.client_id, PIPE_CAPTION)
    server.orders.connect_route(200, first, PIPE_CAPTION)
    got_before_order_fence(server, station)
    server.record.wait_for(lambda _: len(losses(server, first)) == 2)
    assert len(losses(server, second)) == 1
    assert losses(server, station.client_id) == []
    assert line_count(relay, station, ABSENT.format(first)) == 2
    assert line_count(relay, station, ABSENT.format(second) + AND_SO) == 1
    # The rows exist all the same: the client may still connect.
    expected = {(100 + n, to_id, PIPE_CAPTION) for n, to_id in enumerate(orders)}
    expected |= {(100, station.client_id, PIPE_CAPTION), (200, first, PIPE_CAPTION)}
    assert relay.schema.routes() == expected


def test_a_route_ordered_before_its_destination_arrives_works_then(relay, make_station):
    captioner = make_station(relay, Captioner)
    late_id = relay.server.new_client_id()
    relay.server.orders.connect_route(captioner.client_id, late_id, PIPE_CAPTION)
    relay.server.record.wait_for_type(LostConnection, client_id=late_id)
    captioner.caption(b"\x41\x41")
    relay.log.expect(f"cache miss for source {captioner.client_id} type 192, now sending to 1")
    encoder = make_station(relay, Encoder, client_id=late_id)
    sent = captioner.caption(b"\x42\x42")
    assert encoder.receive_caption()[0] == sent.caption


def test_a_lost_client_is_confirmed_with_its_last_row(relay, make_station):
    server, other = relay.server, make_station(relay)
    gone = make_station(relay, Captioner)
    lost_id, other_id = gone.client_id, other.client_id
    server.orders.connect_route(other_id, lost_id, PIPE_CAPTION)
    server.orders.connect_route(other_id, lost_id, PIPE_CHAT)
    server.orders.connect_route(lost_id, other_id, PIPE_CAPTION)
    got_before_order_fence(server, other)
    gone.close()
    server.record.wait_for_type(LostConnection, client_id=lost_id)
    confirmed = TAKEN_CARE_OF.format(lost_id)

    server.orders.disconnect_route(other_id, lost_id, PIPE_CAPTION)
    server.orders.disconnect_route(0, lost_id, PIPE_CHAT)
    got_before_order_fence(server, other)
    assert relay.schema.routes() == {(lost_id, other_id, PIPE_CAPTION)}
    assert line_count(relay, other, confirmed) == 0  # it is still a source

    server.orders.disconnect_route(lost_id, 0, PIPE_CAPTION)
    got_before_order_fence(server, other)
    assert relay.schema.routes() == set()
    # The order named no destination, so the destination looked up has no id.
    assert line_count(relay, other, confirmed) == 0

    server.orders.disconnect_route(other_id, lost_id, PIPE_CAPTION)
    relay.log.expect_in_order(FORGOTTEN.format(lost_id) + " (1 instances)", confirmed)
    server.orders.disconnect_route(other_id, lost_id, PIPE_CAPTION)
    got_before_order_fence(server, other)
    assert line_count(relay, other, confirmed) == 1


def test_a_client_that_is_here_is_not_confirmed(relay, make_station):
    one, two = make_station(relay), make_station(relay)
    relay.server.orders.connect_route(one.client_id, two.client_id, PIPE_CAPTION)
    relay.server.orders.disconnect_route(one.client_id, two.client_id, PIPE_CAPTION)
    got_before_order_fence(relay.server, one)
    assert line_count(relay, one, TAKEN_CARE_OF.format(two.client_id)) == 0
    assert losses(relay.server, two.client_id) == []
