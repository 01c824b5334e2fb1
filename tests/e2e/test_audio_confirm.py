"""Every 300th datagram of a source's program is confirmed to it, with the number of the program;
error correction does not count. At its end the relay logs how many datagrams there were."""

from __future__ import annotations

import pytest
from audio_tools import on_air, register
from switching_tools import got_before_order_fence

from lab.protocol.messages import AudioConfirm
from lab.stations.audio_stations import AudioSource

CONFIRMED = 300


@pytest.fixture
def relay(make_relay):
    return make_relay(fec=True)


def _say(source, count, program=2, channel=0):
    for _ in range(count):
        source.send_audio(b"sound", program, channel)


def _confirmed(relay, source, program=2):
    """The programs confirmed to the source until now."""
    source.prove_seen(source.audio(program))
    got = got_before_order_fence(relay.server, source)
    return [one.program_index for one in got if isinstance(one, AudioConfirm)]


@pytest.mark.parametrize("program", range(6))
def test_the_300th_datagram_is_confirmed(relay, make_station, program):
    source = on_air(make_station, relay, [program])
    # The fence of the first check is not audio, but it comes from a source, and it counts.
    _say(source, CONFIRMED - 2, program)
    assert _confirmed(relay, source, program) == []
    _say(source, 1, program)
    source.expect(AudioConfirm, program_index=program)
    # The count starts again.
    _say(source, CONFIRMED - 2, program)
    assert _confirmed(relay, source, program) == []
    _say(source, 1, program)
    source.expect(AudioConfirm, program_index=program)


def test_each_program_is_counted_separately(relay, make_station):
    source = on_air(make_station, relay, [1, 2])
    for program in (1, 2):
        _say(source, CONFIRMED - 1, program)
    assert source.receives_nothing(0.1)
    _say(source, 1, 2)
    source.expect(AudioConfirm, program_index=2)
    _say(source, 1, 1)
    source.expect(AudioConfirm, program_index=1)


def test_error_correction_does_not_count(relay, make_station):
    source = on_air(make_station, relay, [2])
    for channel in (1, 2) * 6:
        _say(source, CONFIRMED // 3, channel=channel)
        # Proves that all was handled: each socket is read in order.
        source.audio(2).register_raw(source.client_id, flags=8, channel=channel)
        source.expect_refusal()
    assert _confirmed(relay, source) == []
    _say(source, CONFIRMED - 1)
    assert _confirmed(relay, source) == [2]


def test_registering_again_does_not_reset_the_count(relay, server, make_station):
    source = on_air(make_station, relay, [2])
    _say(source, CONFIRMED - 4)
    result = register(relay, source, server.ticket_for(source.client_id), 4, program=2)
    assert result.taken
    # The registration and the fences around it come from the source, too.
    _say(source, 1)
    source.expect(AudioConfirm, program_index=2)


def test_the_relay_logs_at_its_end_how_many_there_were(relay, make_station):
    """All that came from registered sources, with or without a receiver; no error correction, no
    datagrams from unknown senders."""
    first, second = on_air(make_station, relay, [0]), on_air(make_station, relay, [5])
    stranger = make_station(relay, AudioSource)
    stranger.open_audio(relay).send_burst([b"stranger"] * 50)
    _say(first, 123, 0)
    _say(second, 45, 5)
    _say(second, 67, 5, channel=1)
    for source, program in ((first, 0), (second, 5)):
        source.prove_seen(source.audio(program))  # two more
    assert relay.stop() == 0
    relay.log.expect_in_order(" - 170 Audio packets forwarded.", "Cleaning up main method")
    assert relay.log.count("Audio packets forwarded") == 1


def test_without_any_audio_the_count_is_zero(relay):
    assert relay.stop() == 0
    relay.log.expect(" - 0 Audio packets forwarded.")
