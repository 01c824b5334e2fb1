"""Bursts: thousands of messages at once arrive complete and in order, even when nothing follows
that could push them on."""

from __future__ import annotations

import pytest
from switching_tools import arriving_image, got_before_fence, images, in_threads

from lab.protocol import messages, wire
from lab.protocol.messages import PIPE_CAPTION, Caption, LostConnection
from lab.stations.caption_stations import Captioner, Encoder

pytestmark = pytest.mark.threads

BURST = 5000
KINDS = [False, True]


@pytest.fixture
def receivers(tls_relay, make_station):
    return [make_station(tls_relay, Encoder, tls=kind) for kind in KINDS * 2]


def burst_of(sender, count=BURST):
    return [
        Caption(b"%04d" % number + b"x" * (number * 7 % 90), sender_id=sender.client_id)
        for number in range(count)
    ]


def send_and_collect(sender, burst, receivers, ending):
    """Sends while all receive; returns what each of them got."""

    def send():
        sender.send_all(burst, within_secs=30)
        if ending == "finished":
            sender.finish_sending()

    collect = [lambda r=r: images(r.receive_count(len(burst), within_secs=30)) for r in receivers]
    return in_threads([send, *collect])[1:]


@pytest.mark.parametrize("ending", ["silent", "finished"])
@pytest.mark.parametrize("tls", KINDS, ids=["plain", "tls"])
def test_a_burst_arrives_whole_and_in_order(tls_relay, make_station, route, receivers, tls, ending):
    sender = make_station(tls_relay, Captioner, tls=tls, heartbeats=False)
    for receiver in receivers:
        route(tls_relay, sender, receiver, PIPE_CAPTION)
    burst = burst_of(sender)
    expected = [arriving_image(message) for message in burst]
    for got in send_and_collect(sender, burst, receivers, ending):
        assert got == expected
    if ending == "finished":
        lost = tls_relay.server.record.wait_for_type(LostConnection)
        assert lost.client_id == sender.client_id
    assert len(tls_relay.server.record.messages_of(LostConnection)) == (ending == "finished")


@pytest.mark.parametrize("tls", KINDS, ids=["plain", "tls"])
@pytest.mark.parametrize("payload", [0, 2, 30, 499])
def test_one_write_of_16_kb_and_then_silence(
    tls_relay, make_station, route, receivers, tls, payload
):
    """Over TLS that is one record, more than one read of the relay takes."""
    sender = make_station(tls_relay, Captioner, tls=tls, heartbeats=False)
    for receiver in receivers[:2]:
        route(tls_relay, sender, receiver, PIPE_CAPTION)
    frame = messages.Opaque(5, b"x" * payload, sender_id=sender.client_id).frame()
    count = 16384 // len(frame)
    sender.send_raw(frame * count)
    for receiver in receivers[:2]:
        got = images(receiver.receive_count(count, within_secs=10))
        assert got == [frame[1:]] * count
    assert got_before_fence(receivers[0], receivers[1]) == []


@pytest.mark.parametrize("tls", KINDS, ids=["plain", "tls"])
def test_frames_split_anywhere_are_reassembled(tls_relay, make_station, route, receivers, tls):
    sender = make_station(tls_relay, Captioner, tls=tls, heartbeats=False)
    route(tls_relay, sender, receivers[0], PIPE_CAPTION)
    burst = burst_of(sender, 150)
    stream = b"".join(message.frame() for message in burst)
    step = 1
    while stream:
        sender.send_raw(stream[:step])
        stream = stream[step:]
        step = step % 97 + 1
    assert images(receivers[0].receive_count(150)) == [arriving_image(m) for m in burst]


@pytest.mark.parametrize("tls", KINDS, ids=["plain", "tls"])
def test_messages_in_one_write_with_the_log_in_are_handled(tls_relay, make_station, route, tls):
    relay, receiver = tls_relay, make_station(tls_relay, Encoder)
    sender = make_station(relay, Captioner, tls=tls, login=False)
    sender.client_id = relay.server.new_client_id()
    route(relay, sender, receiver, PIPE_CAPTION)
    burst = burst_of(sender, 400)
    login = messages.RelayConnect(sender.client_id, relay.server.ticket_for(sender.client_id))
    sender.send_all([login, *burst])
    sender.expect(messages.Response, return_code="OK")
    assert images(receiver.receive_count(400)) == [arriving_image(m) for m in burst]


def test_a_burst_of_the_server_reaches_clients_in_order(tls_relay, receivers):
    sent = [
        messages.Chat("SERVER", b"%d" % number, dest_id=receivers[number % 4].client_id)
        for number in range(4000)
    ]
    for message in sent:
        message.sender_id = 1
    tls_relay.server.orders.send_raw(b"".join(wire.to_frame(message.image()) for message in sent))
    for index, receiver in enumerate(receivers):
        expected = [arriving_image(message) for message in sent[index::4]]
        assert images(receiver.receive_count(1000, within_secs=20)) == expected
