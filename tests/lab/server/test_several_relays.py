"""Several relays at one stand-in connection server: their ids, addresses and keys."""

from __future__ import annotations

import pytest

from lab.protocol import messages, tickets
from lab.protocol.tickets import address_value
from lab.server.connection_server import ConnectionServer
from lab.support.addresses import new_address
from lab.support.channel import PeerClosed
from lab.support.waiting import LabTimeout


def test_each_name_has_a_unique_id_that_outlives_the_relay(two_relay_server, log_in):
    server = two_relay_server
    east, west = log_in(server, "east"), log_in(server, "west")
    assert (east.client_id, west.client_id) == (1000, 1001)
    first_key = server.relays["east"].des_key
    east.reset()
    with log_in(server, "east") as again:
        assert again.client_id == 1000
        assert server.relays["east"].des_key == again.des_key != first_key
    with log_in(server, "east", "CONTINUE", des_key=again.des_key) as continued:
        assert continued.client_id == 1000
    assert [one.name for one in server.relays] == ["east", "west"]
    assert len(server.relays["east"].logins) == 3


def test_ids_follow_the_first_or_are_chosen():
    with ConnectionServer(relay_id=4000000001) as server:
        roster = server.roster
        roster.assign("chosen", 7)
        roster.assign("taken", 4000000002)
        ids = [roster.id_of(name) for name in ("first", "chosen", "second", "third", "first")]
        assert ids == [4000000001, 7, 4000000003, 4000000004, 4000000001]
        server.relay_id = 5
        assert [roster.id_of(name) for name in ("first", "second")] == [5, 4000000003]


def test_a_relay_is_found_by_name_id_and_object(two_relay_server, log_in):
    server = two_relay_server
    log_in(server, "east"), log_in(server, "west")
    west = server.relays["west"]
    assert server.relays[1001] is server.relays[west] is west
    assert server.relays.find("north") is None and server.relays.find(999) is None
    with pytest.raises(LabTimeout, match="no relay 'north'"):
        server.relays["north"]
    with pytest.raises(LabTimeout, match="not logged in within"):
        server.relays.wait_for("north", 0.1)
    with pytest.raises(LabTimeout, match="not logged in within"):
        server.relays.wait_for("west", 0.1, logins=2)


def test_the_server_knows_where_each_relay_is(two_relay_server, log_in):
    server, private = two_relay_server, new_address()
    log_in(server, "east", source_ip=private)
    log_in(server, "west", public_address=address_value("192.0.2.7"))
    east, west = server.relays["east"], server.relays["west"]
    assert (east.address, west.address) == (private, "192.0.2.7")
    assert (east.tcp_port, east.udp_port, east.tls_port) == (10001, 20001, 443)
    assert (west.tcp_port, west.udp_port) == (10002, 20002)


def test_each_relay_gets_tickets_under_its_own_key(two_relay_server, log_in):
    server = two_relay_server
    east, west = log_in(server, "east"), log_in(server, "west")
    by_east, by_west = server.ticket_for(2001, relay="east"), server.ticket_for(2001)
    assert tickets.read_ticket(by_east, east.des_key)[0] == 2001
    assert tickets.read_ticket(by_west, west.des_key)[0] == 2001
    assert tickets.read_ticket(by_west, east.des_key)[0] != 2001


def test_messages_reach_the_named_relay_or_the_newest(two_relay_server, log_in):
    server = two_relay_server
    east, west = log_in(server, "east"), log_in(server, "west")
    server.orders.connect_route(1, 2, messages.PIPE_CAPTION, relay="east")
    server.orders.disconnect_route(3, 0, messages.PIPE_CAPTION)
    server.orders.grant_video(5, 6, relay=1000)
    server.orders.log_out_relay(relay="east")
    assert east.receive() == messages.RoutingUpdate("CONNECT", 1, 2, 192, sender_id=1)
    east.expect(messages.PremiumFeatureResponse, transmit_id=5, return_code="OK")
    east.expect(messages.LogOut, name="connserver")
    west.expect(messages.RoutingUpdate, request="DISCONNECT", from_id=3)
    east.close()
    server.links.wait_for("closed")
    with pytest.raises(PeerClosed):
        server.orders.connect_route(1, 2, messages.PIPE_CAPTION, relay="east")


def test_the_record_distinguishes_relays(two_relay_server, log_in):
    server = two_relay_server
    east, west = log_in(server, "east"), log_in(server, "west")
    east.send(messages.ConnectConfirm(2001))
    west.send(messages.ConnectConfirm(2002))
    server.record.wait_for_type(messages.ConnectConfirm, client_id=2002)
    confirm = server.relays["east"].wait_for_type(messages.ConnectConfirm)
    assert confirm.client_id == 2001
    assert len(server.relays["west"].messages_of(messages.ConnectConfirm)) == 1
    assert len(server.record.messages_of(messages.ConnectConfirm)) == 2
    with pytest.raises(LabTimeout):
        server.record.wait_for_type(messages.ConnectConfirm, 0.1, relay="east", client_id=2002)


def test_the_clients_of_a_relay_change_and_end_with_its_session(two_relay_server, log_in):
    server = two_relay_server
    east = log_in(server, "east")
    for message in (messages.ConnectConfirm(1), messages.ConnectConfirm(-2)):
        east.send(message)
    server.record.wait_for_type(messages.ConnectConfirm, client_id=-2)
    assert server.relays["east"].clients == {1, 2**32 - 2}
    east.send(messages.LostConnection(1))
    server.record.wait_for_type(messages.LostConnection)
    assert server.relays["east"].clients == {2**32 - 2}
    log_in(server, "east", "CONTINUE", des_key=east.des_key)
    assert server.relays["east"].clients == {2**32 - 2}
    log_in(server, "east")
    assert server.relays["east"].clients == set()


def test_each_relay_may_have_different_credentials(two_relay_server, log_in):
    server = two_relay_server
    server.script.credentials = {("company", "east", "secret"), ("company", "west", "secret")}
    log_in(server, "east"), log_in(server, "west")
    with pytest.raises(AssertionError, match="UNAUTHORIZED"):
        log_in(server, "north")
