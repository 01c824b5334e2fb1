"""What the stand-in connection server orders relays to do with each other, byte by byte."""

from __future__ import annotations

import time

import pytest

from lab.protocol import messages, tickets
from lab.protocol.tickets import address_value
from lab.support.waiting import LabTimeout, wait_until


@pytest.fixture(name="pair")
def fixture_pair(two_relay_server, log_in):
    """The server and two relays, logged in: ids 1000 and 1001."""
    return two_relay_server, log_in(two_relay_server, "east"), log_in(two_relay_server, "west")


def _ask(relay, requested_id, request="UDP_REG"):
    relay.send(messages.TicketRequest(requested_id, request))


def test_a_join_order_holds_all_that_the_opener_needs(pair):
    server, east, west = pair
    sent = server.orders.join("east", "west")
    order = east.expect(messages.ConnectOrder)
    assert order == sent
    assert (order.connect_to_id, order.request) == (1001, "CONNECT")
    assert order.relay_address == address_value(west.local_address[0])
    assert (order.tcp_port, order.udp_port, order.tls_port) == (10002, 20002, 443)
    ticket_id, _, issued_at = tickets.read_ticket(order.ticket, west.des_key)
    assert ticket_id == 1000 and abs(issued_at - time.time()) < 60
    fields = [b"1001", b"%d" % order.relay_address, b"10002", order.ticket, b"CONNECT"]
    assert order.fields() == [*fields, b"20002", b"443"]
    assert [(one.relay, one.order) for one in server.orders.sent_orders] == [("east", sent)]
    assert west.receives_nothing(0.1)


def test_malformed_orders_can_be_built(pair):
    server, east, west = pair
    server.orders.join("east", "west", tcp_port=1, address="127.9.9.9", connect_to_id=7)
    order = east.expect(messages.ConnectOrder, tcp_port=1, connect_to_id=7)
    assert order.relay_address == address_value("127.9.9.9")
    server.orders.join("east", "west", request="DISCONNECT", ticket=b"short", udp_port=0)
    east.expect(messages.ConnectOrder, request="DISCONNECT", ticket=b"short", udp_port=0)
    server.orders.join("east", "west", ticket_age_secs=400)
    _, _, issued_at = tickets.read_ticket(east.expect(messages.ConnectOrder).ticket, west.des_key)
    assert 340 < time.time() - issued_at < 460
    server.orders.join("east", "west", bad_ticket=True)
    bad = east.expect(messages.ConnectOrder).ticket
    assert len(bad) == 16 and tickets.read_ticket(bad, west.des_key)[0] != 1000
    server.orders.join("east", "east")
    east.expect(messages.ConnectOrder, connect_to_id=1000)


def test_a_request_for_a_ticket_is_answered_at_once(pair):
    server, east, west = pair
    _ask(west, 1000)
    order = west.expect(messages.ConnectOrder, connect_to_id=1000, request="UDP_REG")
    assert (order.tcp_port, order.udp_port) == (10001, 20001)
    assert tickets.read_ticket(order.ticket, east.des_key)[0] == 1001
    assert [(one.relay, one.order) for one in server.orders.sent_orders] == [("west", order)]
    assert server.relays["west"].messages_of(messages.TicketRequest)[0].requested_id == 1000


@pytest.mark.parametrize(
    ("requested_id", "request_code"), [(1001, "UDP_REG"), (77, "UDP_REG"), (1000, "CONNECT")]
)
def test_requests_for_an_unknown_relay_oneself_or_anything_else_stay_unanswered(
    pair, requested_id, request_code
):
    server, _, west = pair
    _ask(west, requested_id, request_code)
    _ask(west, 1000)
    west.expect(messages.ConnectOrder, connect_to_id=1000)
    assert len(server.orders.sent_orders) == 1


def test_answers_can_be_disabled_delayed_and_made_bad(pair):
    server, east, west = pair
    server.ticket_issuer.enabled = False
    _ask(west, 1000)
    server.record.wait_for_type(messages.TicketRequest)
    assert west.receives_nothing(0.2)
    server.ticket_issuer.enabled, server.ticket_issuer.bad_tickets = True, 1
    for expected_good in (False, True):
        _ask(west, 1000)
        ticket = west.expect(messages.ConnectOrder, request="UDP_REG").ticket
        assert (tickets.read_ticket(ticket, east.des_key)[0] == 1001) is expected_good
    server.ticket_issuer.delay_secs = 0.5
    start = time.monotonic()
    _ask(west, 1000)
    west.expect(messages.ConnectOrder, request="UDP_REG")
    assert time.monotonic() - start >= 0.5
    server.orders.order_udp_registration("west", "east", udp_port=5)
    west.expect(messages.ConnectOrder, request="UDP_REG", udp_port=5)


def test_an_answer_carries_the_key_that_the_peer_has_now(pair, log_in):
    server, east, west = pair
    east.reset()
    again = log_in(server, "east")
    _ask(west, 1000)
    ticket = west.expect(messages.ConnectOrder).ticket
    assert tickets.read_ticket(ticket, again.des_key)[0] == 1001
    assert tickets.read_ticket(ticket, east.des_key)[0] != 1001


def test_an_answer_for_a_relay_that_has_left_is_dropped(pair, log_in):
    server, _, west = pair
    server.ticket_issuer.delay_secs = 0.2
    _ask(west, 1000)
    server.record.wait_for_type(messages.TicketRequest)
    west.reset()
    wait_until(lambda: not server.relays["west"].logged_in, 5)
    again = log_in(server, "west")
    server.ticket_issuer.delay_secs = 0.0
    _ask(again, 1000)
    again.expect(messages.ConnectOrder, request="UDP_REG")


def test_a_route_across_is_ordered_at_both_relays(pair):
    server, east, west = pair
    server.orders.route_across(2001, "east", 2002, "west", messages.PIPE_AUDIO)
    east.expect(messages.RoutingUpdate, request="CONNECT", from_id=2001, to_id=1001, msg_class=64)
    west.expect(messages.RoutingUpdate, request="CONNECT", from_id=2001, to_id=2002, msg_class=64)


def test_the_server_sees_when_relays_are_joined_from_either_report(pair):
    server, east, west = pair
    west.send(messages.ConnectConfirm(1000))
    server.relays.wait_joined("east", "west")
    mark = server.record.mark()
    east.send(messages.ConnectConfirm(2001))
    with pytest.raises(LabTimeout):
        server.relays.wait_joined("east", "west", 0.1, since=mark)
    east.send(messages.ConnectConfirm(1001))
    server.relays.wait_joined("east", "west", since=mark)
