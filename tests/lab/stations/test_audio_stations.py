"""Stations with audio: registrations that are waited for, with the relay's log and without."""

from __future__ import annotations

from collections.abc import Iterator

import pytest
from stand_in_audio_relay import StandInAudioRelay

from lab.audio.audio_socket import AudioAddress
from lab.protocol import messages, wire
from lab.stations.audio_stations import AudioReceiver, AudioSource, AudioStation
from lab.support.waiting import LabTimeout


@pytest.fixture
def relay() -> Iterator[StandInAudioRelay]:
    with StandInAudioRelay() as relay:
        yield relay


def station(relay: StandInAudioRelay, kind: type[AudioStation], client_id: int) -> AudioStation:
    one = kind.connect(relay.address, relay.tcp_port)
    one.login(client_id, b"ticket")
    return one


def test_the_receiver_gets_what_the_source_sends(relay):
    with station(relay, AudioSource, 7) as source, station(relay, AudioReceiver, 8) as receiver:
        source.go_on_air(relay, b"ticket", 2)
        receiver.listen(relay, b"ticket", 2)
        for channel in (0, 1, 2):
            receiver.audio(2).expect(source.send_audio(b"hello", 2, channel), channel=channel)


def test_a_ticket_is_made_for_the_station_that_registers(relay):
    with station(relay, AudioReceiver, 8) as receiver:
        receiver.listen(relay, lambda client_id: b"ticket of %d" % client_id)
        connect = messages.parse(wire.from_datagram(relay.registrations[0])[1])
        assert (connect.client_id, connect.ticket, connect.dest_id) == (8, b"ticket of 8", 1)


def test_a_registration_that_the_relay_refuses_is_an_error(relay):
    with station(relay, AudioReceiver, 8) as receiver:
        with pytest.raises(LabTimeout, match="registered to rx"):
            receiver.listen(relay, b"bad", within_secs=2)
        assert receiver.expect_refusal().client_id == 8


def test_a_station_that_moves_registers_again_and_receives_at_the_new_port(relay):
    with station(relay, AudioReceiver, 8) as receiver:
        before = receiver.listen(relay, b"ticket").local_address
        receiver.open_audio(relay)
        audio = receiver.listen(relay, b"ticket")
        assert audio.local_address != before
        audio.expect(receiver.audio().send(b"a"))


def test_without_a_log_a_refusal_proves_that_the_registration_was_seen(relay):
    silent = AudioAddress(relay.address, relay.audio_port(0))
    with station(relay, AudioReceiver, 8) as receiver:
        relay.clients[8].send(messages.Chat("me", b"stays"))
        audio = receiver.listen(silent, b"ticket", 1)
        assert [messages.parse(one[16:]).dest_id for one in relay.registrations] == [1, 8]
        audio.expect(audio.send(b"a"))
        receiver.expect(messages.Chat, chat=b"stays")
        assert receiver.receives_nothing(0.05)


def test_audio_sockets_outlive_the_connection_until_the_station_closes(relay):
    with station(relay, AudioReceiver, 8) as receiver:
        audio = receiver.listen(relay, b"ticket")
        receiver.hang_up()
        audio.expect(audio.send(b"a"))
    with pytest.raises(OSError):
        audio.send(b"a")
