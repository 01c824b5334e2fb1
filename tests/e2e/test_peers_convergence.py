"""Relays accept nine tickets of an id within ten seconds, and two that join need more: they still
get every program registered both ways by themselves, with few requests for tickets."""

from __future__ import annotations

import pytest
from peer_tools import StandInPeer
from switching_tools import got_before_fence, in_threads

from lab.audio.audio_wire import PROGRAMS
from lab.protocol import messages
from lab.protocol.messages import PIPE_AUDIO, TicketRequest
from lab.relay import join_log
from lab.stations.audio_stations import AudioReceiver, AudioSource
from lab.stations.caption_stations import Station
from lab.support.waiting import Deadline, LabTimeout, patient

pytestmark = pytest.mark.long

_CONVERGED_SECS = 30.0
#: Requests of one relay: the first and three retries.
_REQUESTS = 4
#: Longer than relays wait before they retry.
_QUIET_SECS = 10.0


def _use_up_log_ins(network, at, client_id, count=9):
    """Logs in as one relay at another until that accepts no more."""
    for _ in range(count):
        station = network.station(Station, at=at, client_id=client_id, heartbeats=False)
        station.close()
    lost = f"Connection lost to user {client_id} at"
    network[at].log.expect(lost)


def _requests(network):
    record = network.server.record
    return [len(record.messages_of(TicketRequest, relay=at)) for at in ("east", "west")]


def _prepare_plain(network):
    """No disturbance but the limit itself."""


def _prepare_used_up(network):
    _use_up_log_ins(network, "west", 1000)
    _use_up_log_ins(network, "east", 1001)


def _prepare_late(network):
    network.server.ticket_issuer.delay_secs = 4.0


def _prepare_very_late(network):
    network.server.ticket_issuer.delay_secs = 7.0


def _prepare_bad(network):
    network.server.ticket_issuer.bad_tickets = 1


_CASES = [_prepare_plain, _prepare_used_up, _prepare_late, _prepare_very_late, _prepare_bad]


@pytest.mark.parametrize("fec", [False, True], ids=["plain", "fec"])
def test_two_relays_get_all_programs_registered_both_ways(make_network, fec):
    """Within 30 s, whatever disturbs them, and with four requests at most on each side: there is
    never a fifth. The disturbances are tried at once, each on separate relays."""
    networks = [make_network(fec=fec) for _ in _CASES]
    pairs = zip(networks, _CASES)
    in_threads([lambda at=at, prepare=prepare: _converge(at, prepare) for at, prepare in pairs])


def _converge(network, prepare):
    prepare(network)
    since = network.mark()
    network.server.orders.keep_joined("east", "west")
    network.wait_joined("east", "west", since=since)
    end = Deadline(_CONVERGED_SECS)
    # The relays' timers are not extended by patience.
    watched = Deadline((_CONVERGED_SECS + _QUIET_SECS) / patient(1))
    for at, peer_id in (("east", 1001), ("west", 1000)):
        join_log.wait_registered(network[at].log, peer_id, since[at], _left(end))
    _play_all_programs(network)
    # A fifth request must not come.
    with pytest.raises(LabTimeout):
        network.server.record.wait_for(
            lambda _: max(_requests(network)) > _REQUESTS, _left(watched)
        )
    assert max(_requests(network)) <= _REQUESTS, prepare.__name__
    assert max(_requests(network)) >= 1, prepare.__name__


def _left(deadline):
    """The seconds left, before they are extended by patience."""
    return deadline.left() / patient(1)


def _play_all_programs(network):
    """Asserts that each program really passes, both ways."""
    for at, other in (("east", "west"), ("west", "east")):
        source = network.station(AudioSource, at=at)
        receiver = network.station(AudioReceiver, at=other)
        network.route(source, receiver, PIPE_AUDIO)
        for program in PROGRAMS:
            source.go_on_air(network[at].relay, network.known(at).ticket_for, program)
            receiver.listen(network[other].relay, network.known(other).ticket_for, program)
            said = source.send_audio(b"program %d" % program, program)
            receiver.audio(program).expect(said)


def test_a_server_that_never_answers_is_asked_four_times(make_relay, server, make_station):
    """A peer refuses the registration: the relay asks for a new ticket, and three times more when
    none comes; then it stops. The link stays, and works."""
    relay = make_relay()
    station = make_station(relay)
    with StandInPeer(server.new_client_id()) as peer:
        link = peer.join(relay)
        peer.receive_count(6)
        record = server.record
        since = record.mark()
        for _ in range(6):
            peer.answer(link, "UDP UNAUTHORIZED")
        relay.log.expect(f"relay-to-relay ticket rejected by {peer.id}")
        for number in range(_REQUESTS):
            record.wait_for(lambda _: len(record.messages_of(TicketRequest, since)) > number, 15)
        asked = [one for one in record.received[since:] if isinstance(one.message, TicketRequest)]
        times = [one.at for one in asked]
        assert all(after - before > 5.5 for before, after in zip(times, times[1:]))
        request = record.messages_of(TicketRequest, since)[0]
        assert (request.requested_id, request.request) == (peer.id, "UDP_REG")
        with pytest.raises(LabTimeout):
            record.wait_for_type(TicketRequest, _QUIET_SECS / patient(1), since=record.mark())
        assert len(record.messages_of(TicketRequest, since)) == _REQUESTS
        assert peer.heard_within(0.1) == [], "no ticket, no registration"
        link.send(messages.Opaque(9, b"still a peer", sender_id=5, dest_id=station.client_id))
        assert station.receive().raw_payload.startswith(b"still a peer")
        # A ticket that comes after all is used at once.
        server.orders.order_connect(peer.order("UDP_REG"))
        peer.receive_count(6)
        got_before_fence(station, station)


def test_a_refused_registration_is_answered_and_leads_to_a_new_ticket(make_network):
    """Over the connection: the refusing relay says so, the other one asks for a ticket and
    registers with it."""
    network = make_network()
    network.server.ticket_issuer.enabled = False
    network.server.orders.join("east", "west")
    network.wait_joined("east", "west")
    join_log.wait_registered(network["west"].log, 1000, 0, 10)
    since, marks = network.server.record.mark(), network.mark()
    network.server.orders.order_udp_registration("east", "west", bad_ticket=True)
    refused = "udp registration ticket not accepted from ID 1000"
    network["west"].log.expect(refused, since=marks["west"])
    network["east"].log.expect("relay-to-relay ticket rejected by 1001", since=marks["east"])
    network.server.record.wait_for_type(
        TicketRequest, 15, since=since, relay="east", requested_id=1001
    )
    network.server.ticket_issuer.enabled = True
    network.server.orders.order_udp_registration("east", "west")
    network.server.orders.order_udp_registration("west", "east")
    join_log.wait_registered(network["east"].log, 1001, 0, _CONVERGED_SECS)
