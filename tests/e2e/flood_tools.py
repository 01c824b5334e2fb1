"""Floods of datagrams on one program of a relay, and ordinary traffic during them."""

from __future__ import annotations

import itertools
from pathlib import Path

from audio_tools import listening, on_air
from switching_tools import got_before_order_fence, in_threads, line_count

from lab.audio.audio_socket import AudioSocket
from lab.audio.clip_player import ClipListener, ClipPlayer
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.stopwatch import Stopwatch
from lab.support.waiting import patient, wait_until

DATAGRAMS = 60_000
PROGRAM = 5
#: The longest that a caption may take meanwhile; on an idle machine it is under a millisecond.
NOTICEABLE_SECS = 1.0
GROWTH_BYTES = 4 << 20
#: Lines unrelated to the flood.
OTHER_LINES = 20

_ill_formed_flags = itertools.count(2000)


def resident_bytes(relay) -> int:
    """The memory of the process; 0 under sanitizers, which keep what is freed."""
    if "san.so" in Path(f"/proc/{relay.pid}/maps").read_text():
        return 0
    pages = Path(f"/proc/{relay.pid}/statm").read_text().split()[1]
    return int(pages) * 4096


def dropped_by_kernel(relay, program) -> int:
    """Datagrams dropped because the relay's receive buffer was full."""
    host = "".join(f"{int(part):02X}" for part in reversed(relay.address.split(".")))
    place = f" {host}:{relay.audio_port(program):04X} "

    def row():
        """Other sockets come and go while the table is read: ours may be missing, or listed
        twice."""
        rows = Path("/proc/net/udp").read_text().splitlines()
        return next((one for one in rows if place in one), None)

    return int(wait_until(row, 5, "the relay's socket in the table").split()[-1])


def make_everyday(relay, make_station, route):
    """A function that runs `flood` while captions and a clip of speech cross the relay; all of them
    arrive, each caption soon. It returns how many captions crossed meanwhile."""
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
                watch = Stopwatch(relay.pid)
                captioner.caption(b"%d" % len(trips))
                assert encoder.receive_caption(20)[0] == b"%d" % len(trips)
                trips.append(watch.secs())

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


def flood(relay, datagrams, addresses):
    audios = [AudioSocket(relay, PROGRAM, address=one, fec=False) for one in addresses]
    try:
        for number in range(DATAGRAMS):
            audios[number % len(audios)].send_raw(datagrams[number % len(datagrams)])
    finally:
        for audio in audios:
            audio.close()


def settle(relay, station):
    """Waits until the part of the flood that was received has been handled, logged and answered;
    returns the answers, and how many log lines are due only to this check. Each try registers under
    flags of its own, so that no line or answer of the flood is taken for its own."""
    answers, looks = [], itertools.count(1)

    def is_told():
        mine = next(_ill_formed_flags)
        station.audio(PROGRAM).register_raw(station.client_id, flags=mine)
        answers.extend(got_before_order_fence(relay.server, station))
        next(looks)
        return line_count(relay, station, f"ill-formed flags - {mine}. ")

    wait_until(is_told, 20, "a refusal that is told again")
    answers.extend(got_before_order_fence(relay.server, station))
    # The last one may have been logged after the line that was waited for.
    line_count(relay, station, "")
    return answers, next(looks)


def grown(relay, before):
    """By how much memory and descriptors grew."""
    return resident_bytes(relay) - before[0], relay.open_descriptors() - before[1]
