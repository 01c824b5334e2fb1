"""A connection server that fails before the first log-in is complete: silence, garbage, a close or
a reset at every stage, over plain TCP and TLS. The attempt is abandoned, and the next good one
succeeds."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.server.connection_server import Fault
from lab.support.waiting import wait_until

_STAGES = ("accept", "challenge", "login")


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def _gives_up_and_gets_in(relay, server, attempts):
    """Asserts that the relay failed `attempts` times, closed each connection and then logged in."""
    relay.wait_ready(40)
    server.wait_logged_in(number=attempts)
    assert relay.log.count("connection to server failed with code -1...") == attempts
    assert relay.log.count("retrying") == attempts
    assert [link.stage for link in server.links[:attempts]] == ["closed"] * attempts
    assert relay.log.count("cs epoll - no new data to operate on!") == 0


def test_silence_at_each_stage_times_out_after_five_seconds(any_server, make_relay):
    undisturbed = make_relay(using=any_server)
    for stage in _STAGES:
        any_server.script.fault(stage, Fault("silence"))
    relay = make_relay(using=any_server, ready=False)
    relay.wait_ready(40)
    any_server.wait_logged_in(number=1 + len(_STAGES))
    assert relay.log.count("waiting for login response timed out") == len(_STAGES)
    assert relay.log.count("connection to server failed with code -1...") == len(_STAGES)
    assert relay.log.count("cs epoll - no new data to operate on!") == 0
    assert [one.stage for one in any_server.links[1:-1]] == ["closed"] * len(_STAGES)
    # The abandoned attempts have left nothing open.
    wait_until(
        lambda: relay.open_descriptors() == undisturbed.open_descriptors(), 5, "as many descriptors"
    )


@pytest.mark.parametrize("end", ["close", "reset"])
def test_an_end_at_each_stage_is_survived(end, any_server, make_relay):
    for stage in _STAGES:
        any_server.script.fault(stage, Fault(end))
    relay = make_relay(using=any_server, ready=False)
    _gives_up_and_gets_in(relay, any_server, len(_STAGES))
    handshakes = relay.log.count("SSL handshake with CS failed, library callback above")
    handshakes += relay.log.count("SSL handshake with CS failed, library trace above")
    broken = relay.log.count(
        "WARNING: broken connection to connserver during initial connect stages : "
    )
    epoll_errors = relay.log.count("Epoll signaling error on CS connection")
    assert handshakes == (1 if any_server.tls else 0)
    assert handshakes + broken + epoll_errors == len(_STAGES)


def test_an_unexpected_message_ends_the_attempt_with_its_bytes_in_the_log(
    any_server, make_relay
):
    chat = messages.Chat("someone", b"too early", sender_id=1).frame()
    any_server.script.fault("challenge", Fault("silence", chat))
    any_server.script.fault("login", Fault("silence", chat))
    relay = make_relay(using=any_server, ready=False)
    _gives_up_and_gets_in(relay, any_server, 2)
    assert relay.log.count("E401: unexpected response to login from connection server") == 2
    assert relay.log.count("Message contents: ") == 2
    assert "too early" in relay.log.text()


def test_a_response_before_the_challenge_is_unexpected(server, make_relay):
    frame = messages.Response(77, "OK", sender_id=1).frame()
    server.script.fault("challenge", Fault("silence", frame))
    relay = make_relay(ready=False)
    relay.log.expect("E401: unexpected response to login from connection server")
    _gives_up_and_gets_in(relay, server, 1)
    assert relay.log.count("assigned id number 77") == 0


def test_bytes_other_than_a_handshake_end_the_attempt(tls_server, make_relay):
    tls_server.script.fault("accept", Fault("silence", b"HTTP/1.1 400 Bad Request\r\n\r\n"))
    relay = make_relay(using=tls_server, ready=False)
    relay.log.expect("SSL handshake with CS failed, library ")
    _gives_up_and_gets_in(relay, tls_server, 1)


def test_a_frame_that_never_ends_times_out_like_silence(server, make_relay):
    server.script.fault("challenge", Fault("silence", b"\xff" + b"x" * 100))
    relay = make_relay(ready=False)
    relay.log.expect("waiting for login response timed out", 20)
    _gives_up_and_gets_in(relay, server, 1)


def test_heartbeats_before_the_challenge_and_before_the_answer_are_ignored(server, make_relay):
    beats = messages.Heartbeat(sender_id=1).frame() * 3
    server.script.fault("challenge", Fault("go on", beats))
    server.script.fault("login", Fault("go on", beats))
    relay = make_relay()
    assert relay.log.count("E401") == 0
    assert len(server.links) == 1


def test_a_zero_length_code_discards_what_was_read_after_it(server, make_relay):
    challenge = messages.Challenge(1, sender_id=1).frame()
    server.script.fault("challenge", Fault("silence", bytes(50) + challenge))
    relay = make_relay(ready=False)
    relay.log.expect("waiting for login response timed out", 20)
    assert relay.log.count("sent login") == 0
    _gives_up_and_gets_in(relay, server, 1)


def test_a_challenge_after_more_than_one_read_in_one_record_is_found(tls_server, make_relay):
    """Everything is already inside the TLS session then, and no event announces it."""
    beats = messages.Heartbeat(sender_id=1).frame() * 900
    challenge = messages.Challenge(12345, sender_id=1).frame()
    tls_server.script.fault("challenge", Fault("silence", beats + challenge))
    tls_server.script.answer_next_login("OK")
    relay = make_relay(using=tls_server)
    assert tls_server.record.messages_of(messages.LogIn)[0].login_number == 12345
    assert relay.log.count("waiting for login response timed out") == 0


def test_the_whole_answer_before_an_end_is_used(server, make_relay):
    """A challenge that arrives with the end of the stream still leads to a log-in attempt."""
    challenge = messages.Challenge(1, sender_id=1).frame()
    server.script.fault("challenge", Fault("close", challenge))
    relay = make_relay(ready=False)
    relay.log.expect_in_order(
        "Finished non-blocking connect",
        "sent login- waiting for response",
        "WARNING: broken connection to connserver during initial connect stages : ",
        "Lost connection to CS!",
    )
    _gives_up_and_gets_in(relay, server, 1)


def test_a_relay_asked_to_end_while_it_waits_for_the_server_ends_in_order(server, make_relay):
    server.script.fault("challenge", Fault("silence"), times=None)
    relay = make_relay(ready=False)
    relay.log.expect("Finished non-blocking connect to connserver")
    assert relay.stop() == 0
    relay.log.expect("Cleaning up main method")
