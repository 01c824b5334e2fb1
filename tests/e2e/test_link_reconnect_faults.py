"""A running relay whose connection server fails again while it comes back: refusals, resets and
noise at every stage of a new login cost neither a client nor a descriptor."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.server.connection_server import Fault
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.waiting import wait_until

_STAGES = ("accept", "challenge", "login")
#: One attempt at each tick of the relay's timers.
_PER_ATTEMPT_SECS = 12


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


@pytest.mark.parametrize("end", ["close", "reset"])
def test_clients_survive_an_end_at_each_stage_of_the_reconnect(
    end, any_server, make_relay, make_station, route
):
    relay = make_relay(using=any_server)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, messages.PIPE_CAPTION)
    descriptors = relay.open_descriptors()
    for stage in _STAGES:
        any_server.script.fault(stage, Fault(end))
    any_server.links.end(end)
    for number in range(1, len(_STAGES) + 1):
        any_server.links.wait_for("closed", _PER_ATTEMPT_SECS, number=number)
        captioner.caption(b"in between %d" % number)
        assert encoder.receive_caption()[0] == b"in between %d" % number
    any_server.wait_logged_in(2 * _PER_ATTEMPT_SECS, number=len(_STAGES) + 1)
    any_server.record.wait_for_type(messages.RelayPort, since=5)
    wait_until(lambda: relay.open_descriptors() == descriptors, 5, "descriptors as before")
    assert any_server.record.messages_of(messages.LogIn)[-1].function == "CONTINUE"
    if end == "close":
        relay.log.expect("failure in connecttoserver, disconnecting")


def test_a_refused_continuation_is_tried_again(server, relay, make_station):
    station = make_station(relay)
    server.script.answer_next_login("UNAUTHORIZED", "NOT LOGGED IN")
    server.links.end()
    server.wait_logged_in(30, number=3)
    relay.log.expect_in_order(
        "Server response: UNAUTHORIZED.",
        "failure in connecttoserver, disconnecting",
        "Server response: NOT LOGGED IN.",
        "failure in connecttoserver, disconnecting",
        "Successful continuation with server",
    )
    station.send(messages.StatusKeyPost("still", "here"))
    server.record.wait_for_type(messages.StatusKeyPost)


def test_noise_during_the_reconnect_is_survived(any_server, make_relay, make_station):
    relay = make_relay(using=any_server)
    station = make_station(relay)
    chat = messages.Chat("someone", b"too early", sender_id=1).frame()
    any_server.script.fault("challenge", Fault("silence", chat))
    any_server.links.end()
    relay.log.expect_in_order(
        "E401: unexpected response to login from connection server",
        "failure in connecttoserver, disconnecting",
        within_secs=_PER_ATTEMPT_SECS,
    )
    any_server.wait_logged_in(2 * _PER_ATTEMPT_SECS, number=2)
    assert station.end_seen is None


def test_a_server_that_is_gone_is_retried_at_every_tick_until_it_is_back(
    server, relay, make_station
):
    station = make_station(relay)
    descriptors = relay.open_descriptors()
    server.close()
    relay.log.expect_in_order(*["auto retrying connect to connection server"] * 3, within_secs=40)
    server.start()
    server.wait_logged_in(30, number=1)
    server.record.wait_for_type(messages.RelayPort, since=3)
    wait_until(lambda: relay.open_descriptors() == descriptors, 5, "descriptors as before")


def test_a_link_reset_soon_after_the_attempt_is_not_retried_at_once(server, relay):
    """The attempt is younger than a second: a throttle line is logged, and the timers retry it."""
    for number in range(1, 4):
        server.links.end("reset")
        server.wait_logged_in(30, number=number)
    relay.log.expect("cleanbadsocket was on connection server")
    assert len(server.links) == 4
