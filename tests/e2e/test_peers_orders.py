"""Orders to connect that have no effect, or none that is new, while stations are not disturbed."""

from __future__ import annotations

import pytest
from peer_tools import StandInPeer
from switching_tools import got_before_order_fence, line_count

from lab.protocol.messages import ConnectConfirm, LostConnection
from lab.support.addresses import free_port
from lab.support.waiting import wait_until


def _obeyed(relay, station):
    """Returns when all orders so far have been carried out."""
    assert got_before_order_fence(relay.server, station) == []


def test_an_order_to_itself_makes_no_socket(relay, server, peer, bystanders):
    held = relay.open_descriptors()
    server.orders.order_connect(peer.order(connect_to_id=1000))
    server.orders.join("relay", "relay")
    _obeyed(relay, bystanders[0])
    relay.log.expect_in_order(
        "got ticket for relay peer 1000",
        "debug: requestcode was connect",
        "ERROR: ConnectOrder is telling relay 1000 to connect to itself - ignoring to prevent "
        "self-connection loop",
    )
    assert relay.open_descriptors() == held and peer.no_connection_waits()
    assert line_count(relay, bystanders[0], "debug: connecting with relay peer") == 0


def test_a_repeated_order_for_a_connected_peer_confirms_it_again(relay, server, peer, bystanders):
    """It makes no second socket and does not touch the first. The same holds for a peer that
    connected to this relay, which becomes a peer that way."""
    link = peer.join(relay)
    held, since = relay.open_descriptors(), server.record.mark()
    server.orders.order_connect(peer.order())
    line = f"WARNING: already connected to relay id {peer.id}, not initiating new connection"
    relay.log.expect(line)
    server.record.wait_for_type(ConnectConfirm, since=since, client_id=peer.id)
    _obeyed(relay, bystanders[0])
    assert relay.open_descriptors() == held and peer.no_connection_waits()
    assert link.receives_nothing(0.2) and not server.record.messages_of(LostConnection, since)
    server.orders.order_connect(peer.order())
    record = server.record
    wait_until(lambda: len(record.messages_of(ConnectConfirm, since)) == 2, 5, "confirmed again")


@pytest.mark.parametrize(
    ("request_code", "shown"),
    [("DISCONNECT", "DISCONNECT"), ("NO SUCH CODE", "INVALID"), ("connect", "INVALID")],
)
def test_an_order_with_another_request_is_logged_and_ignored(
    relay, server, peer, bystanders, request_code, shown
):
    server.orders.order_connect(peer.order(request=request_code))
    _obeyed(relay, bystanders[0])
    relay.log.expect(f"got ticket for relay peer {peer.id}")
    line = relay.log.expect("connect order net message had request code: ")
    assert line.endswith("request code: " + shown)
    assert peer.no_connection_waits()


def test_to_register_with_an_unknown_relay_does_nothing(relay, server, peer, bystanders):
    held = relay.open_descriptors()
    server.orders.order_connect(peer.order("UDP_REG"))
    _obeyed(relay, bystanders[0])
    relay.log.expect(f"got ticket for relay peer {peer.id}")
    assert relay.open_descriptors() == held and peer.no_connection_waits()
    assert peer.heard_within(0.2) == []
    assert line_count(relay, bystanders[0], "registering udp with relay peer") == 0


def test_a_refused_connect_leaves_nothing_for_the_next_client_on_its_descriptor(
    relay, server, bystanders, make_station
):
    """The new client gets neither the ticket nor the state of the peer that was not there."""
    held = relay.open_descriptors()
    for _ in range(3):
        with StandInPeer(server.new_client_id(), tcp_port=free_port()) as absent:
            since, log_since = server.record.mark(), relay.log.mark()
            server.orders.order_connect(absent.order())
            relay.log.expect_in_order(
                f"debug: connecting with relay peer {absent.id} on tcp port {absent.tcp_port}",
                "cleaning up socket fd ",
                since=log_since,
            )
            _obeyed(relay, bystanders[0])
            assert relay.open_descriptors() == held
            newcomer = make_station(relay, login=False)
            wait_until(lambda: relay.open_descriptors() == held + 1, 5, "the newcomer is in")
            newcomer.finish_sending()
            assert newcomer.closed_by_peer()
            wait_until(lambda: relay.open_descriptors() == held, 5, "the newcomer is gone")
            assert newcomer.receives_nothing(0.0), "it got the log-in that was not for it"
            assert server.record.messages_of(LostConnection, since) == []
            assert server.record.messages_of(ConnectConfirm, since) == []
            assert line_count(relay, bystanders[0], "successfully initiated") == 0
