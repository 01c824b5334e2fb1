"""What a relay peer may do and an ordinary client may not, and how a client becomes a peer."""

from __future__ import annotations

import pytest
from switching_tools import line_count

from lab.audio import audio_wire
from lab.audio.audio_wire import CALL_BACK, RECEIVE, SEND
from lab.protocol import messages
from lab.protocol.messages import Caption
from lab.stations.caption_stations import Captioner
from lab.support.waiting import LabTimeout

LIMIT = 6_000_000


def test_a_peer_may_send_messages_of_others_and_more_than_a_client(
    relay, server, peer, bystanders, make_station
):
    """An ordinary client may not send messages of others, nor more than 6 000 000 bytes between two
    heartbeats."""
    captioner, encoder = bystanders
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
    line = f"id string {captioner.client_id} and len 21 passed from client {client.client_id}"
    relay.log.expect(line)


def test_a_peer_is_called_back_for_the_program_that_asks(
    relay, server, peer, bystanders, make_station
):
    """A relay that connected to this one becomes a peer by its registration alone; without an order
    the call back needs a ticket from the server first, and one is requested."""
    link = make_station(relay, client_id=peer.id, source_ip=peer.address)
    link.send(Caption(b"too early", sender_id=bystanders[0].client_id))
    relay.log.expect(f"Message with invalid sender id string {bystanders[0].client_id} and len ")
    since = server.record.mark()
    peer.register(relay, 4, RECEIVE | SEND | CALL_BACK)
    relay.log.expect(f"debug: performing udp registration callback to client {peer.id}")
    request = server.record.wait_for_type(messages.TicketRequest, since=since, requested_id=peer.id)
    assert request.request == "UDP_REG"
    link.send(Caption(b"in time", sender_id=bystanders[0].client_id))
    assert bystanders[1].receive_caption()[0] == b"in time"
    with pytest.raises(LabTimeout):
        peer.receive(0.2)
    server.orders.order_connect(peer.order("UDP_REG"))
    heard = peer.receive_count(6)
    assert {one.program for one in heard} == set(audio_wire.PROGRAMS)
