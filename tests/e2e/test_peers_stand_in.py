"""Peers that are not what one expects: silent, hostile, gone at once, too talkative."""

from __future__ import annotations

import pytest
from peer_tools import StandInPeer
from switching_tools import got_before_fence, got_before_order_fence, line_count

from lab import audio_wire, messages, wire
from lab.audio_wire import CALL_BACK, RECEIVE, SEND
from lab.messages import PIPE_CAPTION, Caption, ConnectConfirm, LostConnection
from lab.stations import Captioner, Encoder
from lab.waiting import LabTimeout, wait_until

LIMIT = 6_000_000


@pytest.fixture(name="peer")
def fixture_peer(server):
    with StandInPeer(server.new_client_id()) as peer:
        yield peer


@pytest.fixture(name="stations")
def fixture_stations(relay, make_station, route):
    """A captioner and an encoder that notice nothing, whatever the peer does."""
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    yield captioner, encoder
    captioner.caption(b"still here")
    assert encoder.receive_caption()[0] == b"still here"


def test_a_peer_that_says_nothing_is_dropped_and_reported(relay, server, peer, stations):
    """It accepted the connection and stays silent; 15 s of silence end it like any client. Its
    place is then free for the next order."""
    held = relay.open_descriptors()
    server.order_connect(peer.order())
    link = peer.accept_login(1000)
    since = server.mark()
    farewell = link.expect(messages.Chat, 40)
    assert farewell.name == "SERVER" and link.closed_by_peer()
    server.wait_for_type(LostConnection, since=since, client_id=peer.id)
    relay.log.expect(f"Dropping connect to client ID {peer.id}, socket ")
    wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
    peer.join(relay)
    assert relay.log.count(f"Removed recently lost message on client {peer.id} from re-send") == 1
    peer.receive_count(6)


@pytest.mark.parametrize("code", ["UNAUTHORIZED", "NOT LOGGED IN", "REDIRECT"])
def test_a_refusal_of_the_log_in_is_told_and_makes_no_peer(relay, server, peer, stations, code):
    """The connection stays until the other end closes it; no audio is registered."""
    since = server.mark()
    server.order_connect(peer.order())
    link = peer.accept_login(1000)
    peer.answer(link, code)
    relay.log.expect(f"recieved response message with code {code} from client {peer.id}")
    stations[0].send(Caption(b"fence"))
    assert stations[1].receive_caption()[0] == b"fence"
    assert peer.heard_within(0.2) == [] and server.messages_of(LostConnection, since) == []
    link.send(Caption(b"of another", sender_id=stations[0].client_id))
    relay.log.expect(f"Message with invalid sender id string {stations[0].client_id} and len ")
    link.close()
    server.wait_for_type(LostConnection, since=since, client_id=peer.id)


def test_the_same_refusal_ends_a_marked_peer(relay, server, peer, stations):
    link = peer.join(relay)
    since = server.mark()
    peer.answer(link, "UNAUTHORIZED")
    assert link.closed_by_peer()
    server.wait_for_type(LostConnection, since=since, client_id=peer.id)
    relay.log.expect(f"recieved response message with code UNAUTHORIZED from client {peer.id}")


@pytest.mark.parametrize("how", ["close", "reset"])
@pytest.mark.parametrize("answered", [False, True], ids=["unanswered", "answered"])
def test_a_peer_that_leaves_at_once_is_reported(relay, server, peer, stations, how, answered):
    held, since = relay.open_descriptors(), server.mark()
    server.order_connect(peer.order())
    link = peer.accept_login(1000)
    if answered:
        peer.answer(link)
    link.reset() if how == "reset" else link.close()
    server.wait_for_type(LostConnection, since=since, client_id=peer.id)
    wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
    assert got_before_order_fence(server, stations[0]) == []
    peer.join(relay)


def test_a_peer_that_closes_before_the_log_in_leaves_nothing(relay, server, peer, stations):
    """The relay finds the connection made and ended in one."""
    held, since = relay.open_descriptors(), server.mark()
    with relay.stopped():
        server.order_connect(peer.order())
        server.order_connect(peer.order(connect_to_id=0))
    peer.accept().reset()
    peer.accept().reset()
    wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
    assert got_before_order_fence(server, stations[0]) == []
    confirmed = {one.client_id for one in server.messages_of(ConnectConfirm, since)}
    assert not confirmed & {peer.id, 0}


def test_garbage_of_a_peer_harms_nobody(relay, server, peer, stations):
    """Broken frames, messages of no known type and under ill ids, answers without a code."""
    for marked in (False, True):
        link = peer.join(relay) if marked else None
        if link is None:
            server.order_connect(peer.order())
            link = peer.accept_login(1000)
        for sender in (peer.id, 0xFFFFFFFF, 0, stations[0].client_id + 1000000):
            for type_code in range(256):
                if type_code not in (0, 2):
                    link.send_image(wire.make_image(type_code, sender, stations[0].client_id, b"\xff"))
        link.send_raw(bytes(4000))
        link.send_raw(b"\xff" * 300)
        link.send_image(wire.make_image(0, peer.id, 0, b"~~~~"))
        link.close()
        server.wait_for_type(LostConnection, client_id=peer.id)
        got_before_fence(stations[0], stations[0])


def test_a_peer_carries_messages_of_others_and_more_than_a_client_may(relay, server, peer, stations, make_station):  # fmt: skip
    """What an ordinary client may not: speak for others, and send over 6 000 000 bytes between two
    heartbeats."""
    captioner, encoder = stations
    link = peer.join(relay)
    link.send(Caption(b"for another", sender_id=captioner.client_id))
    assert encoder.receive_caption()[0] == b"for another"
    negative = Caption(b"negative", sender_id=0x80000001)
    link.send(negative)
    relay.log.expect("Message with invalid sender id string -2147483647 and len ")
    frame = messages.Opaque(9, b"x" * 490, sender_id=captioner.client_id, dest_id=5).frame()
    link.send_raw(frame * (3 * LIMIT // len(frame)), within_secs=60)
    link.send(Caption(b"behind it all", sender_id=captioner.client_id))
    assert encoder.receive_caption(30)[0] == b"behind it all"
    bursts = link.heartbeats_received
    link.show_heartbeats = True
    while link.heartbeats_received < bursts + 2:
        link.expect(messages.Heartbeat, 15)
    assert line_count(relay, captioner, "over limit") == 0
    client = make_station(relay, Captioner)
    client.send(Caption(b"for another", sender_id=captioner.client_id))
    relay.log.expect(f"id string {captioner.client_id} and len 21 passed from client {client.client_id}")


def test_a_peer_is_called_back_for_the_program_that_asks(relay, server, peer, stations, make_station):  # fmt: skip
    """A relay that connected to us becomes a peer by its registration alone; without an order the
    call back needs a ticket from the server first, and one is asked for."""
    link = make_station(relay, client_id=peer.id, source_ip=peer.address)
    link.send(Caption(b"too early", sender_id=stations[0].client_id))
    relay.log.expect(f"Message with invalid sender id string {stations[0].client_id} and len ")
    since = server.mark()
    peer.register(relay, 4, RECEIVE | SEND | CALL_BACK)
    relay.log.expect(f"debug: performing udp registration callback to client {peer.id}")
    request = server.wait_for_type(messages.TicketRequest, since=since, requested_id=peer.id)
    assert request.request == "UDP_REG"
    link.send(Caption(b"in time", sender_id=stations[0].client_id))
    assert stations[1].receive_caption()[0] == b"in time"
    with pytest.raises(LabTimeout):
        peer.receive(0.2)
    server.order_connect(peer.order("UDP_REG"))
    heard = peer.receive_count(6)
    assert {one.program for one in heard} == set(audio_wire.PROGRAMS)
