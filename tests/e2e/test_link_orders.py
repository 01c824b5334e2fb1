"""Orders of the connection server in batches: behind one another, before an end, behind a log-out,
inside one large TLS record, and between challenges."""

from __future__ import annotations

import signal

import pytest

from lab import messages
from lab.stations import Captioner, Encoder

_MANY = 300


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def _orders(count, first_from=100000, to_id=9):
    """Frames that order `count` routes, and the rows that they make."""
    ids = range(first_from, first_from + count)
    frames = [
        messages.RoutingUpdate("CONNECT", from_id, to_id, 192, sender_id=1).frame()
        for from_id in ids
    ]
    return b"".join(frames), {(from_id, to_id, 192) for from_id in ids}


def _log_out():
    return messages.LogOut("connserver", sender_id=1).frame()


@pytest.mark.parametrize("end", ["close", "reset"])
@pytest.mark.parametrize("absent", ["one", "many"])
def test_a_batch_of_orders_before_the_end_of_the_link_is_carried_out(
    end, absent, any_server, make_relay
):
    """Also when the relay finds out about the end in the middle of them: it tells the server of
    every destination that is not here."""
    relay = make_relay(using=any_server)
    batches = [_orders(1, 100000 + n, 9 + n * (absent == "many")) for n in range(_MANY)]
    rows = set().union(*(rows for _, rows in batches))
    # Asleep, so that everything is there together with the end.
    relay.signal(signal.SIGSTOP)
    any_server.send_raw(b"".join(frames for frames, _ in batches))
    any_server.end_links(end)
    relay.signal(signal.SIGCONT)
    relay.log.expect("Lost connection to CS!", 20)
    any_server.wait_logged_in(20, number=1)
    assert relay.schema.routes() == rows


def test_orders_are_carried_out_when_a_client_message_finds_the_link_broken(
    server, relay, make_station
):
    stations = [make_station(relay) for _ in range(4)]
    frames, rows = _orders(_MANY)
    relay.signal(signal.SIGSTOP)
    for station in stations:
        station.send_all([messages.StatusKeyPost("key", "value")] * 20)
    server.send_raw(frames)
    server.end_links("reset")
    relay.signal(signal.SIGCONT)
    server.wait_logged_in(20, number=1)
    assert relay.schema.routes() == rows


def test_a_record_larger_than_a_read_is_handled_without_further_data(tls_server, make_relay):
    tls_server.heartbeat_secs = 0
    relay = make_relay(using=tls_server)
    frames, rows = _orders(16384 // len(_orders(1)[0]))
    assert 16000 < len(frames) <= 16384
    tls_server.send_raw(frames)
    # Well within the time after which anything else would wake the link up.
    relay.schema.wait_for_routes(rows, 8)
    assert len(tls_server.links) == 1


def test_an_order_in_two_halves_is_put_together(any_server, make_relay):
    relay = make_relay(using=any_server)
    frames, rows = _orders(2)
    any_server.send_raw(frames[:-5])
    relay.schema.wait_for_route((100000, 9, 192))
    any_server.send_raw(frames[-5:])
    relay.schema.wait_for_routes(rows)


def test_the_half_of_an_order_at_the_end_of_a_link_is_forgotten_with_it(any_server, make_relay):
    relay = make_relay(using=any_server)
    frames, rows = _orders(2)
    any_server.send_raw(frames[:-5])
    any_server.end_links()
    any_server.wait_logged_in(20, number=1)
    any_server.connect_route(5, 9, 192)
    relay.schema.wait_for_routes({(100000, 9, 192), (5, 9, 192)})


def test_a_log_out_by_the_server_ends_the_link_and_the_relay_comes_back(
    any_server, make_relay, make_station, route
):
    relay = make_relay(using=any_server)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, messages.PIPE_CAPTION)
    any_server.log_out_relay()
    relay.log.expect_in_order("logged out by connserver", "Lost connection to CS!")
    any_server.wait_for_link("closed")
    captioner.caption(b"logged out")
    assert encoder.receive_caption()[0] == b"logged out"
    any_server.wait_logged_in(20, number=1)
    assert any_server.messages_of(messages.LogIn)[-1].function == "CONTINUE"
    captioner.caption(b"in again")
    assert encoder.receive_caption()[0] == b"in again"


def test_orders_behind_a_log_out_are_not_those_of_this_session(any_server, make_relay):
    relay = make_relay(using=any_server)
    before, rows = _orders(20)
    behind, _ = _orders(200, first_from=500000)
    any_server.send_raw(before + _log_out() + behind)
    any_server.wait_logged_in(20, number=1)
    any_server.connect_route(5, 9, 192)
    relay.schema.wait_for_route((5, 9, 192))
    assert relay.schema.routes() == rows | {(5, 9, 192)}
    assert relay.log.count("logged out by connserver") == 1


def test_two_log_outs_in_one_batch_end_one_link(any_server, make_relay):
    relay = make_relay(using=any_server)
    any_server.send_raw(_log_out() * 2)
    any_server.wait_logged_in(20, number=1)
    any_server.connect_route(5, 9, 192)
    relay.schema.wait_for_routes({(5, 9, 192)})
    assert relay.log.count("Lost connection to CS!") == 1
    assert len(any_server.links) == 2


def test_a_challenge_out_of_place_is_answered_by_another_login(
    any_server, make_relay, make_station
):
    relay = make_relay(using=any_server)
    station = make_station(relay)
    since = any_server.mark()
    any_server.send_challenge(424242)
    relay.log.expect_in_order(
        "INFO: challenge number recieved out of place, re-sending login",
        "sent login- waiting for response",
        "Server response: OK.",
        "Successful continuation with server",
        "sending relay port message",
    )
    login = any_server.wait_for_type(messages.LogIn, since=since)
    assert (login.function, login.login_number) == ("CONTINUE", 424242)
    any_server.wait_for_type(messages.ConnectConfirm, since=since, client_id=station.client_id)
    any_server.wait_for_type(messages.RelayPort, since=since)
    assert len(any_server.links) == 1
    station.send(messages.StatusKeyPost("still", "served"))
    any_server.wait_for_type(messages.StatusKeyPost)


def test_an_order_behind_a_challenge_out_of_place_is_unexpected_and_ends_the_link(
    server, relay
):
    frames, _ = _orders(1)
    server.send_raw(messages.Challenge(7, sender_id=1).frame() + frames)
    relay.log.expect_in_order(
        "INFO: challenge number recieved out of place, re-sending login",
        "E401: unexpected response to login from connection server",
        "Message contents: ",
        "Lost connection to CS!",
    )
    server.wait_logged_in(20, number=1)
    assert relay.schema.routes() == set()


def test_a_refused_login_after_a_challenge_out_of_place_ends_the_link_only(
    server, relay, make_station
):
    station = make_station(relay)
    server.answer_next_login("UNAUTHORIZED")
    server.send_challenge()
    relay.log.expect_in_order("Server response: UNAUTHORIZED.", "Lost connection to CS!")
    server.wait_logged_in(20, number=1)
    station.send(messages.StatusKeyPost("still", "here"))
    server.wait_for_type(messages.StatusKeyPost)


def test_permissions_are_granted_and_denied_by_the_server(server, relay):
    server.grant_video(11, 12)
    relay.log.expect("Video link permissions granted for 11 to 12")
    server.deny_video(11, 12)
    relay.log.expect("Video link permissions denied for 11 to 12")
