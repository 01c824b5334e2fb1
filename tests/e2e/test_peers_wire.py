"""The bytes on the wire between a relay and its peer, seen from the peer."""

from __future__ import annotations

import socket

import pytest
from peer_tools import StandInPeer

from lab.audio import audio_wire
from lab.audio.audio_wire import CALL_BACK, CHANNELS, PROGRAMS, RECEIVE, SEND
from lab.protocol import messages, wire
from lab.protocol.messages import PIPE_AUDIO
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.support.addresses import new_address

ALL_FLAGS = RECEIVE | CALL_BACK | SEND


def test_the_log_in_is_the_relays_id_with_the_orders_ticket(relay, peer):
    """Nothing before it and nothing after it; special bytes of the ticket are escaped, and a ticket
    has up to 64 bytes."""
    ticket = (b"~\\\x00\xff" * 16)[:64]
    relay.server.orders.order_connect(peer.order(ticket=ticket))
    link = peer.accept()
    image = wire.make_image(19, 1000, 0, b"1000~" + wire.escape(ticket) + b"~")
    assert link.receive().received_image == wire.to_frame(image)[1:]
    peer.answer(link)
    relay.server.orders.send(messages.Chat("SERVER", b"fence", dest_id=peer.id))
    link.expect(messages.Chat, chat=b"fence")
    relay.log.expect(f"Non-blocking connection to relay {peer.address} successfully initiated")


@pytest.mark.parametrize("fec", [False, True], ids=["plain", "fec"])
def test_registrations_go_to_the_base_port_of_the_order(fec, make_relay, server, peer):
    """To base + 2 * program from the same program, with FEC to + 100 and + 200 too: 6 or 18 equal
    datagrams that ask to receive, to send and to be called back."""
    relay = make_relay(fec=fec)
    peer.join(relay)
    channels = CHANNELS if fec else CHANNELS[:1]
    expected = audio_wire.registration(1000, peer.ticket, ALL_FLAGS)
    heard = peer.receive_count(6 * len(channels))
    assert {one.datagram for one in heard} == {expected}
    assert len(expected) == 16 + 9 + len(b"1000~" + wire.escape(peer.ticket) + b"~")
    assert {(one.channel, one.program) for one in heard} == {
        (channel, program) for channel in channels for program in PROGRAMS
    }
    for one in heard:
        port = relay.audio_port(one.program) + 100 * one.channel
        assert one.source == (relay.address, port)
    # The later callback of one program proves that nothing else was in transit.
    peer.register(relay, 3, ALL_FLAGS)
    back = peer.receive_count(len(channels))
    answer = audio_wire.registration(1000, peer.ticket, RECEIVE | SEND)
    assert {one.datagram for one in back} == {answer}, "without a call back, or it never ends"
    assert [(one.channel, one.program) for one in back] == [(one, 3) for one in channels]
    assert peer.heard_within(0.3) == []


def test_a_peers_audio_may_come_from_any_port_under_any_id(
    relay, server, peer, make_station, route
):
    """It is recognized by its IP address; datagrams from an unknown sender under the same id are
    dropped."""
    peer.join(relay)
    receiver = make_station(relay, AudioReceiver)
    speakers = [server.new_client_id(), peer.id, 0x7FFFFFF0]
    for speaker in speakers:
        route(relay, speaker, receiver, PIPE_AUDIO)
    audio = receiver.listen(relay, server.ticket_for, program=0)
    with (
        socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other_port,
        socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger,
    ):
        other_port.bind((peer.address, 0))
        stranger.bind((new_address(), 0))
        where = (relay.address, relay.audio_port(0))
        for speaker in speakers:
            sound = audio_wire.audio_datagram(speaker, b"sound of %d" % speaker)
            stranger.sendto(sound, where)
            audio.expect(peer.send(relay, sound + b"1"))
            other_port.sendto(sound + b"2", where)
            audio.expect(sound + b"2")


def test_a_peer_sends_only_programs_that_it_has_registered(
    relay, server, peer, make_station, route
):
    """A marked peer is on program 0 by its address; the others wait for a registration."""
    peer.join(relay)
    receiver = make_station(relay, AudioReceiver)
    speaker = server.new_client_id()
    route(relay, speaker, receiver, PIPE_AUDIO)
    audio = receiver.listen(relay, server.ticket_for, program=2)
    peer.send(relay, audio_wire.audio_datagram(speaker, b"too early"), 2)
    peer.register(relay, 2, SEND)
    relay.log.expect(f"Client {peer.id} registered to send audio program 2 at {peer.address}(")
    audio.expect(peer.send(relay, audio_wire.audio_datagram(speaker, b"in time"), 2))


def test_audio_to_a_peer_goes_to_its_address_and_the_orders_base(
    relay, server, peer, make_station, route
):
    """Before it has registered anything, and unchanged. A later order changes the destination."""
    peer.join(relay)
    peer.receive_count(6)
    source = make_station(relay, AudioSource)
    route(relay, source, peer.id, PIPE_AUDIO)
    source.go_on_air(relay, server.ticket_for)
    said = source.send_audio(b"\x00~anything\xff")
    heard = peer.receive()
    assert (heard.channel, heard.program, heard.datagram) == (0, 0, said)
    assert heard.source == (relay.address, relay.audio_port(0))
    with StandInPeer(peer.id, address=peer.address, tcp_port=peer.tcp_port) as moved:
        relay.server.orders.order_connect(moved.order())
        server.record.wait_for_type(messages.ConnectConfirm, client_id=peer.id)
        said = source.send_audio(b"to the new place")
        assert moved.receive().datagram == said
        assert peer.heard_within(0.2) == []


def test_a_registration_from_an_error_correction_socket_moves_no_audio(
    make_relay, server, peer, make_station, route
):
    """A relay registers from all its sockets; each channel still goes to the socket for it."""
    relay = make_relay(fec=True)
    link = peer.join(relay)
    peer.receive_count(18)
    source = make_station(relay, AudioSource)
    route(relay, source, peer.id, PIPE_AUDIO)
    source.go_on_air(relay, server.ticket_for, program=1)
    for channel in CHANNELS:
        since = relay.log.mark()
        peer.register(relay, 1, channel=channel)
        relay.log.expect(f"from source {peer.id}, program_idx 1, addr {peer.address}", since=since)
    server.orders.send(messages.Chat("SERVER", b"fence", dest_id=peer.id))
    link.expect(messages.Chat, chat=b"fence")
    for channel in CHANNELS:
        said = source.send_audio(b"on %d" % channel, 1, channel)
        assert peer.receive()[:3] == (channel, 1, said)
