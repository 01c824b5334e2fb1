"""The log-in to the connection server, over plain TCP and TLS: what the relay sends, what it keeps
of the answer, and how it reports the addresses that it listens at."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.protocol.keys import shared_server_key
from lab.protocol.tickets import address_value


@pytest.fixture(params=["plain", "tls"])
def any_server(request):
    """A connection server of each kind."""
    return request.getfixturevalue("server" if request.param == "plain" else "tls_server")


def test_the_login_says_who_the_relay_is(any_server, make_relay):
    make_relay(using=any_server, company="Acme ~ Co", username="box 7", password="p\\w~")
    login = any_server.record.messages_of(messages.LogIn)[0]
    assert (login.agency, login.name, login.password) == ("Acme ~ Co", "box 7", "p\\w~")
    assert login.function == "RELAY"
    assert login.login_number == any_server.links.newest.challenge
    assert len(login.des_key) == 8
    assert all(byte.bit_count() % 2 == 1 for byte in login.des_key), "DES keys have odd parity"


def test_nothing_of_the_login_is_sent_in_clear(server, make_relay):
    make_relay(username="visible-name", password="visible-word")
    image = server.record.messages_of(messages.LogIn)[0].received_image
    assert b"visible" not in image
    assert len(image) == 9 + 256  # the header and one cipher block


def test_the_steps_of_a_login_are_logged_in_order(any_server, make_relay):
    any_server.relay_id = 4000000001
    relay = make_relay(using=any_server, public_address="192.0.2.7")
    tls_steps = ["Setting up SSL to connserver, beginning handshake", "handshake"]
    relay.log.expect_in_order(
        "initialized connection server reconnect timer at: ",
        f"Attempting connection to server {any_server.address}",
        "Finished non-blocking connect to connserver",
        *(tls_steps if any_server.tls else []),
        "sent login- waiting for response",
        "debug: got response",
        "Server response: OK.",
        f"Switched from server  to server {any_server.address}",
        "Need to ask clients to re-initiate",
        "Mopping up CS! Client connections being cancelled",
        "Cancelled 0 client connections",
        "assigned id number 4000000001",
        f"public IP {address_value('192.0.2.7')}, private IP 0, and ports plain "
        f"tcp={relay.tcp_port}, udp={relay.audio_port(0)}, and ssl tcp=0",
    )


def test_the_link_comes_from_the_address_that_the_relay_is_bound_to(any_server, make_relay):
    relay = make_relay(using=any_server)
    assert any_server.links.newest.peer[0] == relay.address
    relay.log.expect(f"Bind to local address {relay.address}")


def test_the_relay_port_message_tells_where_clients_connect(any_server, make_relay):
    relay = make_relay(
        using=any_server, tls=True, public_address="192.0.2.7", private_address="10.1.2.3"
    )
    port = any_server.record.wait_for_type(messages.RelayPort)
    assert (port.tcp_port, port.udp_port) == (relay.tcp_port, relay.audio_port(0))
    assert port.tls_port == relay.tls_port
    assert port.address == address_value("192.0.2.7")
    assert port.private_address == address_value("10.1.2.3")
    assert port.sender_id == any_server.relay_id


def test_addresses_and_tls_port_that_are_not_configured_are_zero(server, relay):
    port = server.record.wait_for_type(messages.RelayPort)
    assert (port.address, port.private_address, port.tls_port) == (0, 0, 0)


@pytest.mark.parametrize("bad", ["300.1.1.1", "192.0.2", "example.test", "192.0.2.7x"])
def test_an_invalid_listen_address_is_reported_and_sent_as_zero(bad, server, make_relay):
    relay = make_relay(public_address=bad, private_address=bad)
    relay.log.expect(
        f"ERROR: Failed to parse public listen address '{bad}' - invalid IP format. "
        "Public IP will not be sent to connserver."
    )
    relay.log.expect(
        f"ERROR: Failed to parse private listen address '{bad}' - invalid IP format. "
        "Private IP will not be sent to connserver."
    )
    port = server.record.wait_for_type(messages.RelayPort)
    assert (port.address, port.private_address) == (0, 0)


def test_a_key_whose_cipher_text_still_fits_a_message_works(make_server, make_relay):
    key = shared_server_key(3072)
    server = make_server(key=key)
    relay = make_relay(using=server, public_key=key.public_pem())
    relay.log.expect("RSA Size: 384")
    assert relay.log.count("ERROR") == 0
    assert server.record.messages_of(messages.LogIn)[0].name == "relay"


def test_every_run_generates_a_new_des_key(server, make_relay):
    make_relay()
    make_relay()
    first, second = server.record.messages_of(messages.LogIn)
    assert first.des_key != second.des_key


def test_the_id_of_the_response_is_the_sender_of_everything_after(
    server, relay, make_station, route
):
    station = make_station(relay)
    confirm = server.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    heartbeat = server.record.wait_for_type(messages.Heartbeat, within_secs=12)
    assert confirm.sender_id == heartbeat.sender_id == server.relay_id
