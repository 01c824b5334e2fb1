"""Audio sockets: what they send, where they receive, what they refuse."""

from __future__ import annotations

import struct
from collections.abc import Iterator

import pytest
from stand_in_audio_relay import StandInAudioRelay

from lab.audio import audio_wire
from lab.audio.audio_socket import AudioAddress, AudioSocket
from lab.protocol import messages, wire
from lab.support.waiting import LabTimeout


@pytest.fixture
def relay() -> Iterator[StandInAudioRelay]:
    with StandInAudioRelay() as relay:
        yield relay


def registered(relay: StandInAudioRelay, program: int = 0) -> AudioSocket:
    audio = AudioSocket(relay, program)
    audio.register(7, b"ticket", receive=True, send=True)
    return audio


def test_a_registration_byte_by_byte():
    datagram = audio_wire.registration(0x01020304, b"t~t", 5)
    assert datagram == (
        bytes(12) + b"\4\3\2\1" + b"\x13" + b"\4\3\2\1" + b"\5\0\0\0" + b"16909060~t\\~t~"
    )


def test_malformed_registrations_are_sent_as_requested():
    malformed = audio_wire.registration(0, b"", 9, marked_id=77, terminator=False, tail=b"x" * 3000)
    marked_id, image = wire.from_datagram(malformed)
    assert marked_id == 77 and wire.read_header(image) == (19, 0, 9)
    assert image[9:] == b"0~" + b"x" * 3000


def test_datagrams_come_back_unchanged_from_the_port_they_were_sent_to(relay):
    with registered(relay, 3) as audio:
        sent = audio.send(b"sound")
        assert sent == bytes(12) + struct.pack("<I", 7) + b"sound"
        audio.expect(sent)


def test_each_channel_is_received_at_its_own_port(relay):
    with registered(relay, 5) as audio:
        for channel in (2, 1, 0):
            audio.expect(audio.send(b"%d" % channel, channel), channel=channel)
        assert audio.receives_nothing(0.05)


def test_an_unexpected_datagram_is_an_error(relay):
    with registered(relay) as audio:
        audio.send(b"a")
        with pytest.raises(AssertionError, match="expected"):
            audio.expect(b"b")


def test_a_datagram_from_another_source_is_an_error(relay):
    with registered(relay) as audio, AudioSocket(relay) as stranger:
        stranger.relay = AudioAddress(*audio.local_address)
        with pytest.raises(AssertionError, match="expected it from"):
            audio.expect(stranger.send(b"a"))


def test_silence_and_audio_are_distinguished(relay):
    with registered(relay) as audio:
        audio.expect(audio.send(b"first"))
        with pytest.raises(LabTimeout):
            audio.receive(0.05)
        assert audio.receives_nothing(0.05)
        sent = audio.send(b"second")
        assert not audio.receives_nothing(5)
        audio.expect(sent)


def test_bursts_arrive_whole_and_in_order(relay):
    with registered(relay) as audio:
        sent = audio.send_burst(struct.pack("<I", i) * 40 for i in range(1500))
        assert audio.receive_count(1500, 10) == sent
        assert audio.overflows == 0


def test_datagrams_lost_in_our_own_kernel_are_counted(monkeypatch):
    monkeypatch.setattr("lab.audio.udp_row._RECEIVE_BUFFER", 4096)
    with AudioSocket(AudioAddress("127.0.0.1", 1), fec=False) as audio:
        with AudioSocket(AudioAddress(*audio.local_address), fec=False) as sender:
            sender.send_burst([bytes(1000)] * 50)
            got = len(audio.receive_waiting(5))
            sender.send(b"last")
            audio.receive()
            assert 0 < got < 50 and audio.overflows == 50 - got


def test_sockets_of_one_station_never_share_a_port(relay):
    sockets = [AudioSocket(relay, program) for program in audio_wire.PROGRAMS]
    ports = {audio.local_address[1] + step for audio in sockets for step in (0, 2, 4)}
    for audio in sockets:
        audio.close()
    assert len(ports) == 18


def test_a_port_that_is_taken_is_refused(relay):
    with AudioSocket(relay) as audio, pytest.raises(OSError):
        AudioSocket(relay, port=audio.local_address[1] - 4)


def test_parity_recovers_a_packet():
    one, other = b"long packet", b"short"
    parity = audio_wire.parity(one, other)
    assert audio_wire.parity(parity, one).rstrip(b"\0") == other
    assert audio_wire.parity(parity, other) == one


def test_an_rtp_packet_is_never_taken_for_a_registration():
    packet = audio_wire.rtp_packet(b"\x13~", 0x10001, 2.0, 7, channel=1)
    assert packet == struct.pack(">BBHII", 0x80, 97, 1, 96000, 7) + b"\x13~"
    assert wire.type_of(packet) != messages.RelayConnect.TYPE
