"""Configuration keys at start-up: what is required, what they default to, what is logged."""

from __future__ import annotations

import pytest

LOGIN_KEYS = ["company", "username", "password"]


def ends_with(relay, status: int) -> None:
    relay.expected_status = status
    assert relay.wait_exit() == status


@pytest.mark.parametrize("key", LOGIN_KEYS)
def test_a_missing_login_key_is_logged_and_ends_the_start(make_relay, key):
    relay = make_relay(keys={("Login", key): None}, ready=False)
    ends_with(relay, 255)
    assert relay.log.count(f"'{key}' in section 'Login'") == 1
    assert relay.log.count("ERROR: bad login information in conf file") == 1


def test_a_missing_configuration_file_ends_like_a_missing_login(make_relay):
    relay = make_relay(arguments=["-d", "-f", "elsewhere.conf"], ready=False)
    ends_with(relay, 255)
    assert relay.log.count("'company' in section 'Login'") == 1


def test_a_missing_primary_server_ends_the_start(make_relay):
    relay = make_relay(keys={("Servers", "primary"): None}, ready=False)
    ends_with(relay, 255)
    assert relay.log.count("no primary server specified in conf file") == 1


def test_a_missing_tls_port_of_the_servers_is_logged_and_ends_the_start(make_relay):
    relay = make_relay(keys={("Servers", "use_ssl"): "yes"}, ready=False)
    ends_with(relay, 1)
    assert relay.log.count("'cs_ssl_port' in section 'Servers'") == 1


@pytest.mark.parametrize("value", ["0", "70000", "nan", "1e300", "none"])
def test_an_invalid_tls_port_of_the_servers_ends_the_start(make_relay, value):
    keys = {("Servers", "use_ssl"): "yes", ("Servers", "cs_ssl_port"): value}
    relay = make_relay(keys=keys, ready=False)
    ends_with(relay, 1)
    assert relay.log.count("'cs_ssl_port' in section 'Servers'") == 1


def test_an_unknown_value_for_tls_to_the_servers_is_warned_of_and_counts_as_no(make_relay):
    relay = make_relay(keys={("Servers", "use_ssl"): "maybe"})
    text = "WARNING: unsupported SSL to connserver enable string: maybe. Use 'yes' or 'no'"
    assert relay.log.count(text) == 1


def test_the_password_is_logged_as_stars(make_relay):
    relay = make_relay(company="Acme", username="box", password="abc")
    relay.log.expect_in_order(
        "Using company name: Acme", "Using encoder name: box", "Using password: ***"
    )
    assert relay.log.count("abc") == 0


def test_the_network_settings_are_logged_in_order(make_relay):
    relay = make_relay(public_address="192.0.2.1")
    first = relay.config.rtp_port
    relay.log.expect_in_order(
        "binding to device *",
        f"binding to address {relay.address}",
        "requesting clients connect at 192.0.2.1",
        f"using port {relay.tcp_port} for tcp",
        f"using port range {first} to {first + 11} for rtp",
    )


@pytest.mark.parametrize("value", ["70000", "1e300", "1023.9", "nan", "-inf"])
def test_a_configured_tcp_port_out_of_range_ends_the_start(make_relay, value):
    relay = make_relay(keys={("Ports", "tcp"): value}, ready=False)
    ends_with(relay, 1)
    assert relay.log.count("invalid tcp port option ") == 1


@pytest.mark.parametrize("value", ["65526", "1e300", "2147483647"])
def test_a_configured_audio_port_out_of_range_ends_the_start(make_relay, value):
    relay = make_relay(keys={("Ports", "rtp"): value}, ready=False)
    ends_with(relay, 1)
    assert relay.log.count("invalid rtp port option ") == 1


def test_two_of_the_three_tls_keys_have_no_effect(make_relay):
    relay = make_relay(tls=True, keys={("SSL", "key_file"): None})
    assert relay.log.count("SSL certificate load error") == 0
    assert relay.log.count("and ssl tcp=0") == 1


def test_a_certificate_that_cannot_be_loaded_ends_the_start(make_relay):
    relay = make_relay(tls=True, keys={("SSL", "pem_file"): "/nowhere.crt"}, ready=False)
    ends_with(relay, 1)
    assert relay.log.count("SSL certificate load error: ") == 1


def test_a_private_key_that_cannot_be_loaded_ends_the_start(make_relay):
    relay = make_relay(tls=True, keys={("SSL", "key_file"): "/nowhere.key"}, ready=False)
    ends_with(relay, 1)
    assert relay.log.count("SSL private key load error: ") == 1


def test_values_and_names_longer_than_any_buffer_do_no_harm(make_relay):
    long = "x" * 100_000
    keys = {
        ("Logging", "folder"): long,
        ("Public", "listen_addr"): long,
        ("Long", long): long,
        ("Servers", "backup1"): long,
    }
    relay = make_relay(keys=keys, company="y" * 40)
    assert relay.log.count("ERROR: Failed to parse public listen address") == 1


def test_a_login_too_long_for_a_message_is_never_sent_in_clear(make_relay, server):
    relay = make_relay(company="y" * 400, ready=False)
    relay.log.expect("error sending log in message", 20)
    assert relay.log.count("RSA encryption failed") >= 1
    relay.stop()
    assert server.record.received == []
