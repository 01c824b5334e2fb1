"""A session that the connection server ends or restarts by a message: its log-out, alone and
between orders, and an unexpected challenge."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.stations.caption_stations import Captioner, Encoder


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def _orders(ids):
    """Frames that order a route from each id, and the rows that they make."""
    rows = [(from_id, 9, 192) for from_id in ids]
    frames = [messages.RoutingUpdate("CONNECT", *row, sender_id=1).frame() for row in rows]
    return b"".join(frames), set(rows)


def _log_out():
    return messages.LogOut("connserver", sender_id=1).frame()


def test_a_log_out_by_the_server_ends_the_link_and_the_relay_comes_back(
    any_server, make_relay, make_station, route
):
    relay = make_relay(using=any_server)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, messages.PIPE_CAPTION)
    any_server.orders.log_out_relay()
    relay.log.expect_in_order("logged out by connserver", "Lost connection to CS!")
    any_server.links.wait_for("closed")
    captioner.caption(b"logged out")
    assert encoder.receive_caption()[0] == b"logged out"
    any_server.wait_logged_in(20, number=1)
    assert any_server.record.messages_of(messages.LogIn)[-1].function == "CONTINUE"
    captioner.caption(b"in again")
    assert encoder.receive_caption()[0] == b"in again"


def test_orders_after_a_log_out_do_not_belong_to_the_session(any_server, make_relay):
    relay = make_relay(using=any_server)
    before, rows = _orders(range(1000, 1020))
    behind, _ = _orders(range(5000, 5200))
    any_server.orders.send_raw(before + _log_out() + behind)
    any_server.wait_logged_in(20, number=1)
    any_server.orders.connect_route(5, 9, 192)
    relay.schema.wait_for_route((5, 9, 192))
    assert relay.schema.routes() == rows | {(5, 9, 192)}
    assert relay.log.count("logged out by connserver") == 1


def test_two_log_outs_in_one_batch_end_one_link(any_server, make_relay):
    relay = make_relay(using=any_server)
    any_server.orders.send_raw(_log_out() * 2)
    any_server.wait_logged_in(20, number=1)
    any_server.orders.connect_route(5, 9, 192)
    relay.schema.wait_for_routes({(5, 9, 192)})
    relay.log.expect_in_order("Lost connection to CS!", "sending relay port message")
    assert relay.log.count("Lost connection to CS!") == 1
    assert len(any_server.links) == 2


def test_an_unexpected_challenge_is_answered_by_another_login(
    any_server, make_relay, make_station
):
    relay = make_relay(using=any_server)
    station = make_station(relay)
    since = any_server.record.mark()
    any_server.orders.send_challenge(424242)
    relay.log.expect_in_order(
        "INFO: challenge number recieved out of place, re-sending login",
        "sent login- waiting for response",
        "Server response: OK.",
        "Successful continuation with server",
        "sending relay port message",
    )
    login = any_server.record.wait_for_type(messages.LogIn, since=since)
    assert (login.function, login.login_number) == ("CONTINUE", 424242)
    any_server.record.wait_for_type(
        messages.ConnectConfirm, since=since, client_id=station.client_id
    )
    any_server.record.wait_for_type(messages.RelayPort, since=since)
    assert len(any_server.links) == 1
    station.send(messages.StatusKeyPost("still", "served"))
    any_server.record.wait_for_type(messages.StatusKeyPost)


def test_an_order_after_an_unexpected_challenge_ends_the_link(
    server, relay
):
    frames, _ = _orders([5])
    server.orders.send_raw(messages.Challenge(7, sender_id=1).frame() + frames)
    relay.log.expect_in_order(
        "INFO: challenge number recieved out of place, re-sending login",
        "E401: unexpected response to login from connection server",
        "Message contents: ",
        "Lost connection to CS!",
    )
    server.wait_logged_in(20, number=1)
    assert relay.schema.routes() == set()


def test_a_refused_login_after_an_unexpected_challenge_ends_only_the_link(
    server, relay, make_station
):
    station = make_station(relay)
    server.script.answer_next_login("UNAUTHORIZED")
    server.orders.send_challenge()
    relay.log.expect_in_order("Server response: UNAUTHORIZED.", "Lost connection to CS!")
    server.wait_logged_in(20, number=1)
    station.send(messages.StatusKeyPost("still", "here"))
    server.record.wait_for_type(messages.StatusKeyPost)
