"""Clients that leave: the last messages before the end of a connection count, and a client that is
deleted while its own messages are handled takes nothing with it."""

from __future__ import annotations

import pytest
from switching_tools import arriving_image, got_before_fence, images

from lab.protocol import messages
from lab.protocol.messages import PIPE_CAPTION, Caption, LogOut, LostConnection
from lab.stations.caption_stations import Captioner, Encoder, Station

pytestmark = pytest.mark.threads

LEAVERS = 15


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
@pytest.mark.parametrize("how", ["close", "reset", "finish_sending"])
def test_a_log_out_before_the_end_is_a_log_out(tls_relay, make_station, how, tls):
    relay, server = tls_relay, tls_relay.server
    leavers = [make_station(relay, Station, tls=tls, heartbeats=False) for _ in range(LEAVERS)]
    for leaver in leavers:
        leaver.logout()
        getattr(leaver, how)()
    for leaver in leavers:
        log_out = server.record.wait_for_type(LogOut, sender_id=leaver.client_id)
        assert log_out.name == leaver.name
        relay.log.expect(f"received logout from client {leaver.client_id}")
    # One more client of the same kind: by now the ends have been handled too.
    last = make_station(relay, Station, tls=tls)
    assert got_before_fence(last, last) == []
    assert server.record.messages_of(LostConnection) == []
    ids = [m.sender_id for m in server.record.messages_of(LogOut)]
    assert sorted(ids) == sorted(leaver.client_id for leaver in leavers)


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_what_follows_a_log_out_is_not_handled(tls_relay, make_station, route, tls):
    relay = tls_relay
    captioner, encoder = make_station(relay, Captioner, tls=tls), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    first, late = Caption(b"\x41\x41"), Caption(b"\x42\x42")
    captioner.send_all([first, LogOut("captioner"), late, LogOut("again")])
    assert captioner.closed_by_peer()
    assert images(got_before_fence(encoder, encoder)) == [arriving_image(first)]
    encoder.send(messages.Opaque(224, b"after that~"))
    relay.server.record.wait_for_type(messages.Opaque, code=224)
    assert [m.name for m in relay.server.record.messages_of(LogOut)] == ["captioner"]


@pytest.mark.parametrize("how", ["close", "reset"])
@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_captions_before_the_end_are_delivered(tls_relay, make_station, route, how, tls):
    relay = tls_relay
    encoder = make_station(relay, Encoder)
    for _ in range(8):
        captioner = make_station(relay, Captioner, tls=tls, heartbeats=False)
        route(relay, captioner, encoder, PIPE_CAPTION)
        sent = [Caption(b"%d" % number) for number in range(100)]
        captioner.send_all(sent)
        getattr(captioner, how)()
        assert images(encoder.receive_count(100)) == [arriving_image(m) for m in sent]
        relay.server.record.wait_for_type(LostConnection, client_id=captioner.client_id)


def test_half_a_message_at_the_end_is_discarded(relay, make_station, route):
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    whole = Caption(b"\x41\x41", sender_id=captioner.client_id)
    captioner.send_raw(whole.frame() + LogOut("x", sender_id=captioner.client_id).frame()[:-1])
    captioner.close()
    relay.server.record.wait_for_type(LostConnection, client_id=captioner.client_id)
    assert images(got_before_fence(encoder, encoder)) == [arriving_image(whole)]
    assert relay.server.record.messages_of(LogOut) == []


def test_a_newer_login_ends_the_older_in_the_middle_of_its_messages(relay, make_station, route):
    encoder = make_station(relay, Encoder)
    older = make_station(relay, Captioner)
    route(relay, older, encoder, PIPE_CAPTION)
    flood = [Caption(b"%d" % number) for number in range(3000)]
    older.send_all(flood, within_secs=10)
    newer = make_station(relay, Captioner, client_id=older.client_id)
    assert older.closed_by_peer()
    sent = arriving_image(newer.caption(b"\x43\x44"))
    got = images(got_before_fence(newer, encoder))
    flooded = [arriving_image(message) for message in flood]
    assert got[-1] == sent
    assert got[:-1] == flooded[: len(got) - 1]
    relay.log.expect(f"closing older connection with ID {older.client_id}")
    # The connection that took over is not the one that ended.
    assert relay.server.record.messages_of(LostConnection) == []


def test_a_log_out_ends_the_connection(relay, make_station):
    station, other = make_station(relay), make_station(relay)
    station.logout()
    assert station.closed_by_peer()
    relay.log.expect_in_order(
        "Removing client table entry for address", "received logout from client"
    )
    station.close()
    again = make_station(relay, client_id=station.client_id)
    again.send(messages.Opaque(9, b"back~", dest_id=other.client_id))
    assert len(got_before_fence(again, other)) == 1
