"""What survives a lost link to the connection server: clients and routes stay through a continued
session and are reported again in order; a session that the server forgot starts clean."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.stations.caption_stations import Captioner, Encoder

pytestmark = pytest.mark.threads

_LOSE = ("close", "reset")


def _messages_on(server, link):
    """What came on one link, without heartbeats."""
    return [
        one.message
        for one in server.record.received
        if one.link is link and not isinstance(one.message, messages.Heartbeat)
    ]


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


@pytest.mark.parametrize("how", _LOSE)
def test_clients_and_routes_survive_a_lost_link(how, any_server, make_relay, make_station, route):
    relay = make_relay(using=any_server)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, messages.PIPE_CAPTION)
    any_server.close(how)
    relay.log.expect("Lost connection to CS!")
    captioner.caption(b"while away")
    assert encoder.receive_caption()[0] == b"while away"
    any_server.start()
    any_server.wait_logged_in(20, number=1)
    captioner.caption(b"back again")
    assert encoder.receive_caption()[0] == b"back again"
    assert relay.schema.routes() == {
        (captioner.client_id, encoder.client_id, messages.PIPE_CAPTION)
    }


def test_the_continued_session_reports_losses_then_clients_then_ports_then_held_messages(
    any_server, make_relay, make_station
):
    relay = make_relay(using=any_server)
    first, lost, third = (make_station(relay) for _ in range(3))
    for station in (first, lost, third):
        any_server.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    des_key = any_server.des_key
    any_server.close()
    relay.log.expect("Lost connection to CS!")
    lost.close()
    relay.log.expect("Removing client table entry")
    for number in range(3):
        first.send(messages.StatusKeyPost("waited", str(number)))
    relay.log.expect("TRACE: connection to CS not active, 3 messages queued")
    any_server.start()
    link = any_server.wait_logged_in(20, number=1)
    any_server.record.wait_for_type(messages.StatusKeyPost, value="2")

    login, *rest = _messages_on(any_server, link)
    assert (login.function, login.des_key) == ("CONTINUE", des_key)
    assert login.login_number == link.challenge
    assert rest[0] == messages.LostConnection(lost.client_id, sender_id=any_server.relay_id)
    assert {type(one) for one in rest[1:3]} == {messages.ConnectConfirm}
    assert {one.client_id for one in rest[1:3]} == {first.client_id, third.client_id}
    assert isinstance(rest[3], messages.RelayPort)
    assert [one.value for one in rest[4:]] == ["0", "1", "2"]
    relay.log.expect_in_order(
        f"Successful continuation with server {relay.config.servers[0]}",
        "list may be up to 1 clients long",
        "identifying all 2 currently connected clients to connserver",
        "assigned id number",
        "sending relay port message",
        "TRACE: have collected 3 messages to de-queue to server",
        "TRACE: cleared CS queue to 0 messages",
    )


def test_without_clients_only_the_losses_are_announced(server, relay):
    server.links.end()
    server.wait_logged_in(20, number=1)
    relay.log.expect("list may be up to 0 clients long")
    assert relay.log.count("identifying all") == 0
    assert relay.log.count("TRACE") == 0


def test_a_new_id_may_come_with_a_continued_session(server, relay, make_station):
    station = make_station(relay)
    server.relay_id = 5005
    server.links.end()
    server.wait_logged_in(20, number=1)
    relay.log.expect("assigned id number 5005")
    server.record.wait_for_type(
        messages.ConnectConfirm, client_id=station.client_id, sender_id=5005
    )


@pytest.mark.parametrize("how", _LOSE)
def test_a_forgotten_session_loses_all_its_state(how, any_server, make_relay, make_station, route):
    relay = make_relay(using=any_server)
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    loose = make_station(relay, login=False)
    route(relay, captioner, encoder, messages.PIPE_CAPTION)
    any_server.close(how)
    relay.log.expect("Lost connection to CS!")
    captioner.send(messages.StatusKeyPost("of the", "old session"))
    captioner.send(messages.StatusKeyPost("of the", "old session"))
    relay.log.expect("TRACE: connection to CS not active, 2 messages queued")
    any_server.script.forget()
    any_server.start()
    any_server.wait_logged_in(20, number=1)
    address = relay.config.servers[0]
    relay.log.expect_in_order(
        "Server response: NO CONTINUE.",
        "server didn't recognize our continue id",
        "Server response: OK.",
        f"Switched from server {address} to server {address}",
        "Need to ask clients to re-initiate",
        "Mopping up CS! Client connections being cancelled",
        "Cancelled 3 client connections",
        "assigned id number",
    )
    for station in (captioner, encoder, loose):
        assert station.closed_by_peer()
    relay.schema.wait_for_routes(set())
    functions = [one.function for one in any_server.record.messages_of(messages.LogIn)]
    assert functions == ["RELAY", "CONTINUE", "RELAY"]

    # The new session works like the first, and is continued after the next loss.
    fresh = make_station(relay, Captioner)
    fresh.send(messages.StatusKeyPost("of the", "new session"))
    assert any_server.record.wait_for_type(messages.StatusKeyPost).value == "new session"
    any_server.links.end(how)
    any_server.wait_logged_in(20, number=2)
    assert any_server.record.messages_of(messages.LogIn)[-1].function == "CONTINUE"
    fresh.send(messages.StatusKeyPost("still", "here"))
    any_server.record.wait_for_type(messages.StatusKeyPost, value="here")


def test_tickets_stay_good_through_a_new_session_as_the_key_stays(
    server, relay, make_station
):
    client_id = server.new_client_id()
    ticket = server.ticket_for(client_id)
    server.script.forget()
    server.links.end()
    server.wait_logged_in(20, number=1)
    make_station(relay, login=False).login(client_id, ticket)
