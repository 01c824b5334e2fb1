"""Which datagrams are passed on: those of a registered source, from its address, under its id, on
its program, unchanged, whatever their contents; all others leave no trace."""

from __future__ import annotations

import os
import random
import struct

import pytest
from audio_tools import listening, on_air

from lab.audio import audio_wire
from lab.audio.audio_socket import AudioSocket
from lab.protocol.messages import PIPE_AUDIO, PIPE_CAPTION
from lab.stations.audio_stations import AudioSource
from lab.support.addresses import new_address


@pytest.fixture
def pair(relay, make_station, route):
    """A source of programs 0 and 2 and a receiver of all."""
    source = on_air(make_station, relay, [0, 2])
    receiver = listening(make_station, relay, range(6))
    route(relay, source, receiver, PIPE_AUDIO)
    return source, receiver


def _expect_only_the_last(source, receiver, program=0):
    receiver.audio(program).expect(source.send_audio(b"the last", program))
    assert all(receiver.audio(one).receives_nothing(0.02) for one in range(6))


def test_every_length_is_sent_unchanged(pair):
    source, receiver = pair
    for length in (0, 1, 2, 3, 15, 16, 17, 491, 492, 493, 1000, 1456, 2030, 2031, 2032):
        payload = os.urandom(length)
        receiver.audio(2).expect(source.send_audio(payload, 2))


@pytest.mark.parametrize("total", [2049, 2050, 4096, 65507])
def test_more_than_2048_bytes_are_dropped_whole(pair, total):
    source, receiver = pair
    source.send_audio(bytes(total - 16))
    source.send_audio(b"~" * (total - 16))
    _expect_only_the_last(source, receiver)


def test_any_first_byte_is_allowed(pair):
    """No message type has a meaning here, not even a registration's without its terminator."""
    source, receiver = pair
    for number in range(256):
        receiver.audio(0).expect(source.send_audio(bytes([number]) + b"sound"))


def test_the_bytes_before_the_marked_id_do_not_matter(pair):
    source, receiver = pair
    datagram = b"\xff" * 12 + struct.pack("<I", source.client_id) + b"sound"
    receiver.audio(0).expect(source.audio(0).send_raw(datagram))


def test_from_another_address_nothing_is_passed_on(relay, pair):
    source, receiver = pair
    with AudioSocket(relay, 0, client_id=source.client_id, address=new_address()) as stranger:
        stranger.send_burst([b"stranger"] * 20)
    _expect_only_the_last(source, receiver)


@pytest.mark.parametrize("marked_id", [0, 1, 2**31 - 1, 2**31, 2**31 + 7, 2**32 - 1])
def test_an_unknown_id_is_no_source(pair, marked_id):
    source, receiver = pair
    source.audio(0).send_raw(audio_wire.audio_datagram(marked_id, b"whose?"))
    _expect_only_the_last(source, receiver)


def test_the_id_of_another_client_is_no_source(relay, make_station, route, pair):
    """One that only receives, one that is not registered at all, one of another program."""
    source, receiver = pair
    mute, other = make_station(relay), on_air(make_station, relay, [3])
    for one in (receiver, mute, other):
        route(relay, one, receiver, PIPE_AUDIO)
        source.audio(0).send_raw(audio_wire.audio_datagram(one.client_id, b"feigned"))
    _expect_only_the_last(source, receiver)


def test_an_unregistered_program_is_not_passed_on(relay, pair):
    source, receiver = pair
    for program in (1, 3, 4, 5):
        with AudioSocket(relay, program, client_id=source.client_id) as audio:
            audio.send(b"unasked")
    _expect_only_the_last(source, receiver, 2)


def test_audio_before_the_registration_is_lost_and_does_no_harm(relay, make_station, route, server):
    source, receiver = make_station(relay, AudioSource), listening(make_station, relay)
    route(relay, source, receiver, PIPE_AUDIO)
    source.open_audio(relay).send_burst([b"too early"] * 50)
    source.go_on_air(relay, server.ticket_for)
    receiver.audio(0).expect(source.send_audio(b"in time"))


def test_only_audio_routes_are_used(relay, make_station, route):
    source, receiver = on_air(make_station, relay), listening(make_station, relay)
    other = listening(make_station, relay)
    route(relay, source, other, PIPE_CAPTION)
    route(relay, source, receiver, PIPE_AUDIO)
    receiver.audio(0).expect(source.send_audio(b"sound"))
    assert other.audio(0).receives_nothing(0.05)


def test_noise_of_every_kind_is_harmless(relay, pair):
    """Thousands of random datagrams, many of them nearly right, at every program."""
    source, receiver = pair
    dice = random.Random(4711)
    audios = [AudioSocket(relay, program, client_id=source.client_id) for program in range(6)]
    ids = [0, source.client_id, receiver.client_id, 2**31, 2**32 - 1]
    try:
        for number in range(3000):
            body = dice.randbytes(dice.choice([0, 1, 2, 9, 10, 20, 100, 508, 509, 2032, 2033]))
            if number % 3 == 0:
                # Not under a client's id: refusals would be reported to it.
                body = b"\x13" + body[:-2] + b"~"
                client_id = 77
            else:
                client_id = dice.choice(ids)
            datagram = audio_wire.audio_datagram(client_id, body)
            if number % 7 == 0:
                datagram = datagram[: dice.randrange(20)]
            audio = dice.choice([one for one in audios if one.program in (1, 3, 4, 5)])
            audio.send_raw(datagram)
    finally:
        for audio in audios:
            audio.close()
    _expect_only_the_last(source, receiver)
    _expect_only_the_last(source, receiver, 2)
