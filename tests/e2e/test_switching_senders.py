"""Clients may send only under their own id. Other messages are ignored with a log line, and the
client stays."""

from __future__ import annotations

import pytest
from switching_tools import arriving_image, got_before_fence, images, line_count, server_heard

from lab.protocol import messages
from lab.protocol.message import signed32
from lab.protocol.messages import PIPE_CAPTION, Caption, Opaque
from lab.stations.caption_stations import Captioner, Encoder

IGNORED = (
    "Message with invalid sender id string {} and len {} passed from client {}, ignoring message"
)


@pytest.fixture
def victim(relay, make_station):
    return make_station(relay, Captioner)


@pytest.fixture
def forger(relay, make_station):
    return make_station(relay, Captioner)


@pytest.fixture
def encoder(relay, make_station, route, victim, forger):
    encoder = make_station(relay, Encoder)
    for captioner in (victim, forger):
        route(relay, captioner, encoder, PIPE_CAPTION)
    return encoder


def stays_with(relay, forger, encoder):
    """The forger's own messages pass as before, and no client was reported lost."""
    sent = arriving_image(forger.caption(b"\x41\x42"))
    assert images(got_before_fence(forger, encoder)) == [sent]
    assert relay.server.record.messages_of(messages.LostConnection) == []


@pytest.mark.parametrize("name", ["victim", "relay", "unknown", "0", "2^31", "2^32-1"])
def test_a_message_under_a_foreign_id_is_ignored(relay, victim, forger, encoder, name):
    foreign = {
        "victim": victim.client_id, "relay": relay.server.relay_id, "unknown": 987654, "0": 0,
        "2^31": 1 << 31, "2^32-1": 0xFFFFFFFF,
    }[name]  # fmt: skip
    mark = relay.server.record.mark()
    kinds = (
        Caption(b"\x58\x58"),
        Opaque(9, b"direct~", dest_id=encoder.client_id),
        Opaque(224, b"server~"),
        messages.LogOut("victim"),
        messages.Response(1, "OK"),
    )
    for message in kinds:
        message.sender_id = foreign
        forger.send_raw(message.frame())
        length = len(arriving_image(message))
        relay.log.expect(IGNORED.format(signed32(foreign), length, forger.client_id))
    stays_with(relay, forger, encoder)
    sent = arriving_image(victim.caption(b"\x43\x44"))
    assert images(got_before_fence(victim, encoder)) == [sent]
    assert server_heard(relay.server, mark) == []


def test_ten_thousand_foreign_ids_are_ignored(relay, forger, encoder):
    """They leave no queries or routes behind."""
    misses = line_count(relay, encoder, "cache miss")
    ignored = "passed from client {}, ignoring message".format(forger.client_id)
    for start in range(100000, 110000, 500):
        batch = [Caption(b"\x58\x58", sender_id=number) for number in range(start, start + 500)]
        forger.send_all(batch, within_secs=20)
    assert got_before_fence(forger, encoder, within_secs=30) == []
    assert line_count(relay, encoder, ignored) == 10000
    assert line_count(relay, encoder, "cache miss") == misses
    stays_with(relay, forger, encoder)


def test_a_foreign_log_in_or_ticket_does_not_affect_an_admitted_client(relay, forger, encoder):
    """Once logged in, such messages are switched like others of their pipe."""
    ticket = relay.server.ticket_for(5555)
    forger.send(messages.RelayConnect(5555, ticket))
    forger.send(messages.LogIn("x", "y"))
    stays_with(relay, forger, encoder)
    assert line_count(relay, forger, "authenticated ticket for client 5555") == 0
