"""Return codes other than OK end the attempt; the relay tries the same server again and logs in as
soon as it is admitted."""

from __future__ import annotations

import pytest

from lab.protocol import messages

_REFUSALS = [code for code in messages.RETURN_CODES if code not in ("OK", "NO CONTINUE")]
_UNKNOWN = ["BRAND NEW CODE", "", "11", "-1", "~" * 30, "%s%n"]


def test_every_refusal_ends_the_attempt_and_the_same_server_is_retried(
    make_server, make_relay
):
    server, backup = make_server(), make_server()
    codes = ["UNAUTHORIZED", "NOT LOGGED IN"]
    server.script.answer_next_login(*codes)
    relay = make_relay(using=server, servers=[server.address, backup.address])
    for code in codes:
        relay.log.expect_in_order(
            f"Server response: {code}.",
            "Lost connection to CS!",
            "connection to server failed with code -1...",
            "retrying",
        )
    assert len(server.record.messages_of(messages.LogIn)) == 3
    assert len(backup.links) == 0


@pytest.mark.parametrize("codes", [_REFUSALS[0::2], _REFUSALS[1::2], _UNKNOWN])
def test_any_other_code_is_a_refusal(codes, server, make_relay):
    server.script.answer_next_login(*codes)
    relay = make_relay(ready=False)
    relay.wait_ready(40)
    relay.log.expect_in_order(*["Server response: ", "Lost connection to CS!"] * len(codes))
    assert relay.log.count("Server response: ") == len(codes) + 1
    assert relay.log.count("connection to server failed with code -1...") == len(codes)
    assert relay.log.count("Switched from server") == 1


def test_a_refused_first_login_is_repeated_as_a_first_login(server, make_relay):
    server.script.answer_next_login("UNAUTHORIZED", "NO CONTINUE")
    relay = make_relay()
    relay.log.expect_in_order(
        "Server response: UNAUTHORIZED.",
        "Server response: NO CONTINUE.",
        "server didn't recognize our continue id",
        "sent login- waiting for response",
        "Server response: OK.",
    )
    logins = server.record.messages_of(messages.LogIn)
    assert [login.function for login in logins] == ["RELAY"] * 3
    assert len({login.des_key for login in logins}) == 1
    assert len(server.links) == 2, "a NO CONTINUE goes on on the same connection"


def test_wrong_credentials_keep_the_relay_out(server, make_relay):
    server.script.credentials = ("company", "relay", "right")
    relay = make_relay(password="wrong", ready=False)
    relay.log.expect_in_order(
        "Server response: UNAUTHORIZED.", "retrying", "Server response: UNAUTHORIZED."
    )
    server.script.credentials = ("company", "relay", "wrong")
    relay.wait_ready()
