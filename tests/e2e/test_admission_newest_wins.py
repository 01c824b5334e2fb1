"""Two connections of one id: the newest wins, whatever the two are doing."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.stations.caption_stations import Captioner, Encoder


@pytest.mark.parametrize("older_tls", [False, True], ids=["older plain", "older tls"])
@pytest.mark.parametrize("newer_tls", [False, True], ids=["newer plain", "newer tls"])
def test_the_older_connection_is_closed_and_the_newer_served(
    older_tls, newer_tls, server, tls_relay, make_station, route
):
    captioner = make_station(tls_relay, Captioner)
    older = make_station(tls_relay, Encoder, client_id=4001, tls=older_tls)
    route(tls_relay, captioner, 4001, messages.PIPE_CAPTION)
    captioner.caption(b"before")
    assert older.receive_caption()[0] == b"before"

    newer = make_station(tls_relay, Encoder, client_id=4001, tls=newer_tls)
    assert older.closed_by_peer()
    host, port = older.local_address
    tls_relay.log.expect_in_order(
        " - closing older connection with ID 4001",
        f" - Removing client table entry for address {host}({port}).",
    )
    captioner.caption(b"after!")
    assert newer.receive_caption()[0] == b"after!"


def test_the_replaced_id_is_confirmed_again_and_not_reported_lost(server, relay, make_station):
    older = make_station(relay, client_id=4001)
    make_station(relay, client_id=4001)
    assert older.closed_by_peer()
    server.record.wait_for(lambda _: len(server.record.messages_of(messages.ConnectConfirm)) == 2)
    # Anything said about the older connection would have come before this.
    make_station(relay, client_id=4002)
    server.record.wait_for_type(messages.ConnectConfirm, client_id=4002)
    assert server.record.messages_of(messages.LostConnection) == []


def test_the_newer_connection_wins_while_the_older_sends(server, relay, make_station, route):
    """The older one's messages and the newer one's log-in are handled in parallel."""
    encoder = make_station(relay, Encoder)
    route(relay, 4001, encoder, messages.PIPE_CAPTION)
    older = make_station(relay, Captioner, client_id=4001)
    for round_number in range(6):
        older.send_all(messages.Caption(b"old%d" % round_number * 40) for _ in range(100))
        newer = make_station(relay, Captioner, client_id=4001)
        assert older.closed_by_peer()
        newer.caption(b"new%d" % round_number)
        encoder.receive_until(lambda got: got.caption == b"new%d" % round_number)
        older = newer


def test_a_refused_login_does_not_affect_the_older_connection(server, relay, make_station):
    older = make_station(relay, client_id=4001)
    newer = make_station(relay, login=False)
    newer.login(4001, server.ticket_for(4001, age_secs=400), expect="UNAUTHORIZED")
    server.orders.send(messages.Chat("SERVER", b"hello", dest_id=4001))
    older.expect(messages.Chat, chat=b"hello")
