"""A flood of datagrams that nobody asked for: the log stays small, captions and the sound of others
go on, and the relay does not grow."""

from __future__ import annotations

import time
from pathlib import Path

import pytest
from audio_tools import listening, on_air
from switching_tools import got_before_order_fence, in_threads

from lab import audio_wire
from lab.addresses import new_address
from lab.audio_player import ClipListener, ClipPlayer
from lab.audio_socket import AudioSocket
from lab.audio_stations import AudioStation
from lab.messages import PIPE_AUDIO, PIPE_CAPTION, Response
from lab.stations import Captioner, Encoder
from lab.waiting import patient, wait_until

DATAGRAMS = 60_000
PROGRAM = 5
#: Discarded datagrams until one is reported, that one included.
PER_REPORT = 1002
TOLD_PER_SEC = 200
#: What a caption may take at most meanwhile; on an idle machine it is under a millisecond.
NOTICEABLE_SECS = 1.0
GROWTH_BYTES = 4 << 20
#: Lines that have nothing to do with the flood.
OTHER_LINES = 20


def resident_bytes(relay) -> int:
    """The memory that the process holds; 0 under sanitizers, which keep what is given back."""
    if "san.so" in Path(f"/proc/{relay.pid}/maps").read_text():
        return 0
    pages = Path(f"/proc/{relay.pid}/statm").read_text().split()[1]
    return int(pages) * 4096


def dropped_by_kernel(relay, program) -> int:
    """Datagrams that found the receive buffer of the relay full."""
    port = f":{relay.audio_port(program):04X} "
    rows = [row for row in Path("/proc/net/udp").read_text().splitlines() if port in row]
    host = "".join(f"{int(part):02X}" for part in reversed(relay.address.split(".")))
    return sum(int(row.split()[-1]) for row in rows if host in row)


@pytest.fixture
def everyday(relay, make_station, route):
    """Runs `flood` while captions and a clip of speech cross the relay; all of them arrive, each
    caption soon. How many captions crossed meanwhile."""
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    source, receiver = on_air(make_station, relay), listening(make_station, relay)
    route(relay, source, receiver, PIPE_AUDIO)

    def during(flood) -> int:
        busy, trips = [True], []

        def pour():
            try:
                flood()
            finally:
                busy[0] = False

        def write():
            while busy[0]:
                begun = time.monotonic()
                captioner.caption(b"%d" % len(trips))
                assert encoder.receive_caption(20)[0] == b"%d" % len(trips)
                trips.append(time.monotonic() - begun)

        with ClipListener(receiver.audio(0)) as listener:
            player = ClipPlayer(source.audio(0), seconds=60).start()
            try:
                in_threads([pour, write])
            finally:
                player.stop()
            listener.wait_for(len(player.sent()))
            assert listener.verdict(player.sent()).perfect
        assert max(trips) < patient(NOTICEABLE_SECS)
        return len(trips)

    return during


def _flood(relay, datagrams, addresses):
    audios = [AudioSocket(relay, PROGRAM, address=one, fec=False) for one in addresses]
    try:
        for number in range(DATAGRAMS):
            audios[number % len(audios)].send_raw(datagrams[number % len(datagrams)])
    finally:
        for audio in audios:
            audio.close()


def _settle(relay, station):
    """All of the flood that was received has been dealt with; the line that proves it is told
    although thousands were refused just now."""

    def is_told():
        since = relay.log.mark()
        station.audio(PROGRAM).register_raw(station.client_id, flags=8)
        got = got_before_order_fence(relay.server, station)
        return any(isinstance(one, Response) for one in got) and relay.log.mark() > since

    wait_until(is_told, 20, "the end of the flood")


def _grown(relay, before):
    """By how much memory and descriptors grew."""
    return resident_bytes(relay) - before[0], relay.open_descriptors() - before[1]


@pytest.mark.parametrize("addresses", [1, 250])
def test_unregistered_datagrams(relay, make_station, everyday, addresses):
    station = make_station(relay, AudioStation)
    station.open_audio(relay, PROGRAM)
    kinds = [audio_wire.audio_datagram(marked, b"\x07noise\n" * 20) for marked in (0, 77, 2**32 - 1)]
    hosts = [new_address() for _ in range(addresses)]
    _flood(relay, kinds, hosts[:1])
    _settle(relay, station)
    before = resident_bytes(relay), relay.open_descriptors()
    since, lost = relay.log.mark(), dropped_by_kernel(relay, PROGRAM)
    captions = everyday(lambda: _flood(relay, kinds, hosts))
    _settle(relay, station)
    lost = dropped_by_kernel(relay, PROGRAM) - lost
    reports = relay.log.count("UDP packets from un-registered source", since=since)
    assert abs(reports - (DATAGRAMS - lost) // PER_REPORT) <= 1
    assert relay.log.mark() - since < 4 * reports + OTHER_LINES
    assert captions > 20
    bytes_more, descriptors_more = _grown(relay, before)
    assert bytes_more < GROWTH_BYTES
    assert descriptors_more == 0


def test_refused_registrations(relay, server, make_station, everyday):
    """In the name of a client that is connected, under tickets of another key."""
    victim = make_station(relay, AudioStation)
    victim.open_audio(relay, PROGRAM)
    ticket = server.ticket_for(victim.client_id, des_key=bytes(range(1, 16, 2)))
    datagrams = [
        audio_wire.registration(victim.client_id, bad, flags)
        for bad, flags in ((ticket, 1), (b"", 5), (b"\xff" * 400, 7), (ticket, 8), (ticket, 2**31))
    ]
    hosts = [new_address() for _ in range(50)]
    _flood(relay, datagrams, hosts[:1])
    _settle(relay, victim)
    before = resident_bytes(relay), relay.open_descriptors()
    since, began = relay.log.mark(), time.time()
    captions = everyday(lambda: _flood(relay, datagrams, hosts))
    answers = []

    def settled():
        got = got_before_order_fence(server, victim)
        answers.extend(one for one in got if isinstance(one, Response))
        victim.audio(PROGRAM).register_raw(victim.client_id, flags=1000)
        return relay.log.count("ill-formed flags - 1000. ", since=since)

    wait_until(settled, 20, "a refusal that is told again")
    seconds = int(time.time()) - int(began) + 1
    told = relay.log.count("udp registration ticket not accepted", since=since)
    answers.extend(one for one in got_before_order_fence(server, victim))
    assert 0 < told <= TOLD_PER_SEC * seconds
    assert abs(len(answers) - told) <= 1
    assert {one.return_code for one in answers} == {"UDP UNAUTHORIZED"}
    assert 1 <= relay.log.count("more UDP registrations were refused within", since=since) <= seconds
    assert relay.log.mark() - since < 3 * told + seconds + OTHER_LINES
    assert captions > 20
    bytes_more, descriptors_more = _grown(relay, before)
    assert bytes_more < GROWTH_BYTES
    assert descriptors_more == 0


def test_a_good_registration_gets_through_a_flood_of_bad_ones(relay, server, make_station, route):
    """It is taken and told of, however many were refused within the same second."""
    victim, source = make_station(relay, AudioStation), on_air(make_station, relay, [PROGRAM])
    station = make_station(relay, AudioStation)
    audio = station.open_audio(relay, PROGRAM)
    route(relay, source, station, PIPE_AUDIO)
    bad = audio_wire.registration(victim.client_id, b"bad", 1)
    with relay.stopped():
        for _ in range(400):
            audio.send_raw(bad)
        audio.register(station.client_id, server.ticket_for(station.client_id))
    relay.log.expect(f"Client {station.client_id} registered to rx audio program {PROGRAM} at ")
    audio.expect(source.say(b"word", PROGRAM))
