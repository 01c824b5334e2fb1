"""Peers that misbehave: silent, hostile, gone at once, sending too much."""

from __future__ import annotations

import pytest
from switching_tools import got_before_fence, got_before_order_fence

from lab.protocol import messages, wire
from lab.protocol.messages import Caption, ConnectConfirm, LostConnection
from lab.support.waiting import wait_until

LIMIT = 6_000_000


def test_a_silent_peer_is_dropped_and_reported(relay, server, peer, bystanders):
    """It accepted the connection and stays silent; it is dropped after 15 s like any client. Its
    place is then free for the next order."""
    held = relay.open_descriptors()
    server.orders.order_connect(peer.order())
    link = peer.accept_login(1000)
    since = server.record.mark()
    farewell = link.expect(messages.Chat, 40)
    assert farewell.name == "SERVER" and link.closed_by_peer()
    server.record.wait_for_type(LostConnection, since=since, client_id=peer.id)
    relay.log.expect(f"Dropping connect to client ID {peer.id}, socket ")
    wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
    peer.join(relay)
    assert relay.log.count(f"Removed recently lost message on client {peer.id} from re-send") == 1
    peer.receive_count(6)


@pytest.mark.parametrize("code", ["UNAUTHORIZED", "NOT LOGGED IN", "REDIRECT"])
def test_a_refusal_of_the_log_in_is_logged_and_makes_no_peer(relay, server, peer, bystanders, code):
    """The connection stays until the other end closes it; no audio is registered."""
    since = server.record.mark()
    server.orders.order_connect(peer.order())
    link = peer.accept_login(1000)
    peer.answer(link, code)
    relay.log.expect(f"recieved response message with code {code} from client {peer.id}")
    bystanders[0].send(Caption(b"fence"))
    assert bystanders[1].receive_caption()[0] == b"fence"
    assert peer.heard_within(0.2) == [] and server.record.messages_of(LostConnection, since) == []
    link.send(Caption(b"of another", sender_id=bystanders[0].client_id))
    relay.log.expect(f"Message with invalid sender id string {bystanders[0].client_id} and len ")
    link.close()
    server.record.wait_for_type(LostConnection, since=since, client_id=peer.id)


def test_the_same_refusal_ends_a_marked_peer(relay, server, peer, bystanders):
    link = peer.join(relay)
    since = server.record.mark()
    peer.answer(link, "UNAUTHORIZED")
    assert link.closed_by_peer()
    server.record.wait_for_type(LostConnection, since=since, client_id=peer.id)
    relay.log.expect(f"recieved response message with code UNAUTHORIZED from client {peer.id}")


@pytest.mark.parametrize("how", ["close", "reset"])
@pytest.mark.parametrize("answered", [False, True], ids=["unanswered", "answered"])
def test_a_peer_that_leaves_at_once_is_reported(relay, server, peer, bystanders, how, answered):
    held, since = relay.open_descriptors(), server.record.mark()
    server.orders.order_connect(peer.order())
    link = peer.accept_login(1000)
    if answered:
        peer.answer(link)
    link.reset() if how == "reset" else link.close()
    server.record.wait_for_type(LostConnection, since=since, client_id=peer.id)
    wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
    assert got_before_order_fence(server, bystanders[0]) == []
    peer.join(relay)


def test_a_peer_that_closes_before_the_log_in_leaves_nothing(relay, server, peer, bystanders):
    """The relay finds the connection established and ended at once."""
    held, since = relay.open_descriptors(), server.record.mark()
    with relay.stopped():
        server.orders.order_connect(peer.order())
        server.orders.order_connect(peer.order(connect_to_id=0))
    peer.accept().reset()
    peer.accept().reset()
    wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
    assert got_before_order_fence(server, bystanders[0]) == []
    confirmed = {one.client_id for one in server.record.messages_of(ConnectConfirm, since)}
    assert not confirmed & {peer.id, 0}


def test_garbage_from_a_peer_does_no_harm(relay, server, peer, bystanders):
    """Broken frames, messages of unknown types and under invalid ids, answers without a code."""
    for marked in (False, True):
        link = peer.join(relay) if marked else None
        if link is None:
            server.orders.order_connect(peer.order())
            link = peer.accept_login(1000)
        for sender in (peer.id, 0xFFFFFFFF, 0, bystanders[0].client_id + 1000000):
            for type_code in range(256):
                if type_code not in (0, 2):
                    to_id = bystanders[0].client_id
                    link.send_image(wire.make_image(type_code, sender, to_id, b"\xff"))
        link.send_raw(bytes(4000))
        link.send_raw(b"\xff" * 300)
        link.send_image(wire.make_image(0, peer.id, 0, b"~~~~"))
        link.close()
        server.record.wait_for_type(LostConnection, client_id=peer.id)
        got_before_fence(bystanders[0], bystanders[0])
