"""The answer to a log-in, byte for byte, over plain TCP and TLS, and what the connection server is
told about an admitted client."""

from __future__ import annotations

import pytest

from lab.protocol import messages, wire


@pytest.fixture(params=["plain", "tls"])
def tls(request):
    """Whether the client uses TLS."""
    return request.param == "tls"


def _answer(relay_id, code):
    """The image of an answer as it arrives: padded to an odd length."""
    image = wire.make_image(0, relay_id, 0, b"%d~%s~" % (relay_id, code))
    return image if len(image) % 2 else image + b"~"


@pytest.mark.parametrize("relay_id", [1, 10, 100, 4000000000])
def test_an_admitted_client_gets_ok_and_the_id_of_the_relay(
    relay_id, tls, make_server, make_relay, make_station
):
    server = make_server(relay_id=relay_id)
    relay = make_relay(using=server, tls=True)
    station = make_station(relay, tls=tls, login=False)
    answer = station.login(5001, server.ticket_for(5001))
    assert answer.received_image == _answer(relay_id, b"OK")
    assert (answer.client_id, answer.return_code) == (relay_id, "OK")
    relay.log.expect("authenticated ticket for client 5001")


def test_a_refused_client_gets_unauthorized_and_is_disconnected(
    tls, server, tls_relay, make_station
):
    station = make_station(tls_relay, tls=tls, login=False)
    answer = station.login(5001, server.ticket_for(5002), expect="UNAUTHORIZED")
    assert answer.received_image == _answer(server.relay_id, b"UNAUTHORIZED")
    assert station.closed_by_peer()
    tls_relay.log.expect("client ID 5001 sent invalid ticket")
    assert tls_relay.log.count("authenticated ticket") == 0
    assert server.record.messages_of(messages.ConnectConfirm) == []


def test_the_steps_of_an_admission_are_logged_in_their_order(tls, server, tls_relay, make_station):
    since = tls_relay.log.mark()
    station = make_station(tls_relay, tls=tls)
    host, port = station.local_address
    steps = [f"New client request received from {host}({port})"]
    if tls:
        steps = [
            f"New SSL client request received from {host}({port})",
            "Starting SSL handshake on socket ",
            "Completed SSL handshake on socket ",
        ]
    steps.append(f"authenticated ticket for client {station.client_id}")
    tls_relay.log.expect_in_order(*steps, since=since)


def test_the_connection_server_is_told_of_an_admitted_client(tls, server, tls_relay, make_station):
    station = make_station(tls_relay, tls=tls)
    confirm = server.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    assert confirm.sender_id == server.relay_id
    assert wire.payload_of(confirm.received_image).startswith(b"%d~" % station.client_id)


def test_ids_of_the_whole_range_are_admitted(server, relay, make_station):
    """Ids above 2147483647 are admitted like others; the log shows them as signed."""
    for client_id in (1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF):
        station = make_station(relay, client_id=client_id)
        signed = client_id - (1 << 32) if client_id >> 31 else client_id
        relay.log.expect(f"authenticated ticket for client {signed}")
        server.record.wait_for_type(messages.ConnectConfirm, client_id=signed)
        server.orders.send(messages.Chat("SERVER", b"hello", dest_id=client_id))
        station.expect(messages.Chat, chat=b"hello")


@pytest.mark.parametrize("wavecast", [True, False, None])
def test_the_wavecast_status_follows_the_ok_where_the_feature_is_on(
    wavecast, tls, server, make_relay, make_station
):
    relay = make_relay(tls=True, wavecast=wavecast)
    station = make_station(relay, tls=tls)
    if wavecast:
        post = station.expect(messages.StatusKeyPost, key="WavecastServer", value="true")
        assert wire.payload_of(post.received_image) == b"WavecastServer~true~"
        assert post.sender_id == server.relay_id
    # Anything else sent at the log-in would come before this.
    server.orders.send(messages.Chat("SERVER", b"hello", dest_id=station.client_id))
    station.expect(messages.Chat, chat=b"hello")


def test_a_refused_client_gets_no_wavecast_status(tls, server, make_relay, make_station):
    relay = make_relay(tls=True, wavecast=True)
    station = make_station(relay, tls=tls, login=False)
    station.login(5001, b"", expect="UNAUTHORIZED")
    assert station.closed_by_peer()
    with pytest.raises(ConnectionError):
        station.receive()
