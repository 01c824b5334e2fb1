"""The plan of the stand-in connection server: relays are joined again, routes ordered again."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.protocol.tickets import read_ticket
from lab.server import plan
from lab.server.connection_server import ConnectionServer
from lab.support.waiting import wait_until

EAST, WEST = 1000, 1001


@pytest.fixture(name="pair")
def fixture_pair(two_relay_server, log_in):
    """The server and two relays, joined once by the plan."""
    server = two_relay_server
    east, west = log_in(server, "east"), log_in(server, "west")
    server.orders.keep_joined("east", "west")
    east.expect(messages.ConnectOrder, connect_to_id=WEST, request="CONNECT")
    west.send(messages.ConnectConfirm(EAST))
    server.relays.wait_joined("east", "west")
    return server, east, west


def _times(server):
    return [one.at for one in server.orders.sent_orders]


def test_the_first_join_waits_until_both_are_there(two_relay_server, log_in):
    server = two_relay_server
    server.orders.keep_joined("east", "west")
    east = log_in(server, "east")
    assert east.receives_nothing(0.2)
    west = log_in(server, "west")
    order = east.expect(messages.ConnectOrder, connect_to_id=WEST)
    assert read_ticket(order.ticket, west.des_key)[0] == EAST
    assert west.receives_nothing(0.1)


@pytest.mark.parametrize("who", ["east", "west"])
def test_a_reported_loss_joins_again_with_spacing(pair, who):
    server, east, west = pair
    reporter, lost = (east, WEST) if who == "east" else (west, EAST)
    for _ in range(20):
        reporter.send(messages.LostConnection(lost))
    east.expect(messages.ConnectOrder, connect_to_id=WEST)
    west.send(messages.ConnectConfirm(EAST))
    assert east.receives_nothing(1.2)
    first, second = _times(server)
    assert second - first >= plan.SPACING_SECS


def test_endless_losses_cause_one_order_a_second(pair):
    server, east, west = pair

    def four_orders_after_one_more_loss():
        west.send(messages.LostConnection(EAST))
        return len(server.orders.sent_orders) >= 4

    wait_until(four_orders_after_one_more_loss, 20, "four orders")
    times = _times(server)
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(gaps) >= plan.SPACING_SECS


def test_losses_of_other_clients_have_no_effect(pair):
    server, east, west = pair
    west.send(messages.LostConnection(2001))
    east.send(messages.LostConnection(EAST))
    server.record.wait_for_type(messages.LostConnection, client_id=EAST)
    assert east.receives_nothing(1.2)


@pytest.mark.parametrize("who", ["east", "west"])
def test_a_relay_that_starts_a_new_session_is_joined_under_the_new_key(pair, log_in, who):
    server, east, west = pair
    (east if who == "east" else west).reset()
    again = log_in(server, who)
    opener, peer = (again, west) if who == "east" else (east, again)
    order = opener.expect(messages.ConnectOrder, connect_to_id=WEST)
    assert read_ticket(order.ticket, peer.des_key)[0] == EAST


def test_a_relay_that_continues_gets_no_order(pair, log_in):
    server, east, _ = pair
    east.reset()
    again = log_in(server, "east", "CONTINUE", des_key=east.des_key)
    assert again.receives_nothing(1.2)
    assert len(server.orders.sent_orders) == 1


def test_a_loss_during_an_absence_is_repaired_after_it(pair, log_in):
    server, east, west = pair
    east.reset()
    wait_until(lambda: not server.relays["east"].logged_in, 5)
    west.send(messages.LostConnection(EAST))
    server.record.wait_for_type(messages.LostConnection)
    again = log_in(server, "east", "CONTINUE", des_key=east.des_key)
    again.expect(messages.ConnectOrder, connect_to_id=WEST)


def test_an_order_without_effect_is_repeated(two_relay_server, log_in, monkeypatch):
    monkeypatch.setattr(plan, "RETRY_SECS", 1.5)
    server = two_relay_server
    east, _ = log_in(server, "east"), log_in(server, "west")
    server.orders.keep_joined("east", "west")
    for _ in range(3):
        east.expect(messages.ConnectOrder, connect_to_id=WEST)
    first, second, third = _times(server)
    assert second - first >= 1.5 and third - second >= 1.5


def test_a_pair_no_longer_kept_is_not_joined_again(pair):
    server, east, west = pair
    server.orders.stop_keeping_joined("west", "east")
    west.send(messages.LostConnection(EAST))
    assert east.receives_nothing(1.2)


def test_kept_routes_are_sent_now_and_in_every_new_session(two_relay_server, log_in):
    server = two_relay_server
    east, west = log_in(server, "east"), log_in(server, "west")
    for _ in range(2):
        server.orders.route_across(2001, "east", 2002, "west", messages.PIPE_AUDIO, keep=True)
    server.orders.keep_route(2001, 2003, messages.PIPE_CAPTION, "east")
    route_east = messages.RoutingUpdate("CONNECT", 2001, WEST, 64, sender_id=1)
    near = messages.RoutingUpdate("CONNECT", 2001, 2003, 192, sender_id=1)
    assert east.receive_count(2) == [route_east, near]
    east.reset()
    with log_in(server, "east", "CONTINUE", des_key=east.des_key) as continued:
        server.orders.drop_route(2001, 2003, messages.PIPE_CAPTION, "east")
        continued.expect(messages.RoutingUpdate, request="DISCONNECT", to_id=2003)
    with log_in(server, "east") as again:
        assert again.receive() == route_east
        assert again.receives_nothing(0.1)
    west.expect(messages.RoutingUpdate, from_id=2001, to_id=2002, msg_class=64)
    assert west.receives_nothing(0.1)


def test_a_route_ordered_during_an_absence_is_sent_after_it(two_relay_server, log_in):
    server = two_relay_server
    east = log_in(server, "east")
    east.reset()
    wait_until(lambda: not server.relays["east"].logged_in, 5)
    server.orders.keep_route(2001, 2002, messages.PIPE_CAPTION, "east")
    server.orders.keep_route(2001, "west", messages.PIPE_CAPTION, "east")
    again = log_in(server, "east", "CONTINUE", des_key=east.des_key)
    again.expect(messages.RoutingUpdate, request="CONNECT", to_id=2002)
    again.expect(messages.RoutingUpdate, to_id=server.roster.id_of("west"))


def test_a_server_that_was_away_resumes_its_plan(pair, log_in):
    server, east, west = pair
    server.orders.keep_route(2001, "west", messages.PIPE_CAPTION, "east")
    east.expect(messages.RoutingUpdate, to_id=WEST)
    server.restart("reset")
    assert east.closed_by_peer() and west.closed_by_peer()
    again = log_in(server, "east", "CONTINUE", des_key=east.des_key)
    log_in(server, "west", "CONTINUE", des_key=west.des_key)
    assert again.receives_nothing(0.3)
    again.send(messages.LostConnection(WEST))
    again.expect(messages.ConnectOrder, connect_to_id=WEST)


def test_a_replacement_server_knows_ids_plan_and_sessions(pair, log_in):
    server, east, west = pair
    server.orders.keep_route(2001, "west", messages.PIPE_CAPTION, "east")
    east.expect(messages.RoutingUpdate, to_id=WEST)
    client_id = server.new_client_id()
    with ConnectionServer(stands_in_for=server) as backup:
        server.close()
        new_west = log_in(backup, "west", "CONTINUE", des_key=west.des_key)
        new_east = log_in(backup, "east", "CONTINUE", des_key=east.des_key)
        assert (new_east.client_id, new_west.client_id) == (EAST, WEST)
        assert backup.new_client_id() == client_id + 1
        assert new_east.receives_nothing(0.3)
        new_west.send(messages.LostConnection(EAST))
        order = new_east.expect(messages.ConnectOrder, connect_to_id=WEST)
        assert read_ticket(order.ticket, west.des_key)[0] == EAST
        fresh = log_in(backup, "east")
        fresh.expect(messages.RoutingUpdate, from_id=2001, to_id=WEST)
        assert backup.record.problems == []
