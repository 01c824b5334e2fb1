"""A log-in that cannot be encrypted is never sent, not even truncated or unencrypted. The relay
logs why and keeps trying."""

from __future__ import annotations

from lab.protocol import messages
from lab.protocol.keys import public_pem_of


def _refuses_to_log_in(relay, server):
    """Two attempts, so that the retry is seen too; only the connection reaches the server."""
    for number in range(2):
        server.links.wait_for("closed", 20, number=number)
    relay.log.expect_in_order(
        "error sending log in message",
        "Lost connection to CS!",
        "connection to server failed with code -1...",
        "retrying",
        "error sending log in message",
        within_secs=20,
    )
    assert server.record.received == []
    assert relay.log.count("sent login- waiting for response") == 0


def test_a_key_of_4096_bits_is_reported_and_its_login_not_sent(make_server, make_relay):
    server = make_server()
    relay = make_relay(using=server, public_key=public_pem_of(4096), ready=False)
    relay.log.expect_in_order("RSA Size: 512", "ERROR: ", "Attempting connection to server")
    _refuses_to_log_in(relay, server)


def test_a_login_longer_than_one_cipher_block_is_not_sent(server, make_relay):
    relay = make_relay(password="p" * 200, company="c" * 200, ready=False)
    _refuses_to_log_in(relay, server)


def test_a_refused_encryption_moves_on_to_the_next_server(make_server, make_relay):
    first, second = make_server(), make_server()
    relay = make_relay(
        servers=[first.address, second.address], public_key=public_pem_of(4096), ready=False
    )
    relay.log.expect_in_order(
        f"Attempting connection to server {first.address}",
        "error sending log in message",
        f"Attempting connection to server {second.address}",
        within_secs=15,
    )
    assert first.record.messages_of(messages.Message) == []
