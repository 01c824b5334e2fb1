"""What start-up requires: database, key file, free ports, a log folder; and starts without them."""

from __future__ import annotations

import socket

import pytest

from lab.protocol.keys import ServerKey

pytestmark = pytest.mark.threads


def ends_with(relay, status: int, within_secs: float = 20) -> None:
    relay.expected_status = status
    assert relay.wait_exit(within_secs) == status


def test_without_a_database_the_start_ends(make_relay):
    relay = make_relay(env={"PGPORT": "1"}, ready=False)
    ends_with(relay, 1)
    assert relay.log.count("could not connect to database. relayserver quitting.") == 1
    failed = "Connection to db server host=127.0.0.1 dbname=tessel user=postgres password= failed"
    assert relay.log.count(failed) == 1


def test_the_route_table_is_emptied(make_relay, cluster):
    schema = cluster.new_schema()
    schema.query("INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES (4294967295, 1, 192)")
    make_relay(schema=schema)
    assert schema.routes() == set()


def test_without_a_public_key_the_process_ends_with_status_0(make_relay):
    relay = make_relay(public_key=None, ready=False)
    ends_with(relay, 0)
    text = "ERROR: no public key file to access server. relayserver quitting."
    assert relay.log.count(text) == 1
    assert relay.log.lines[-1] == "signal handler thread joined"


def test_an_unreadable_public_key_ends_the_start(make_relay):
    relay = make_relay(public_key=b"no key\n", ready=False)
    ends_with(relay, 1)
    assert relay.log.count("RSA key read error: error:") == 1


def test_the_keys_are_logged(relay, server):
    assert relay.log.count("RSA Size: 256") == 1
    key = server.des_key
    shown = "".join(f"{byte} " for byte in key)
    assert relay.log.count(f"Client DES Key: {shown}") == 1


def test_a_public_key_too_long_for_a_login_is_reported(make_relay, server):
    relay = make_relay(public_key=ServerKey(4096).public_pem(), ready=False)
    relay.log.expect("ERROR: public key gives 512 bytes of cipher text", 20)
    relay.log.expect_in_order(
        "RSA Size: 512", "RSA encryption failed", "error sending log in message", within_secs=20
    )
    relay.stop()
    assert server.record.received == []


def test_a_busy_port_is_retried_until_the_process_is_told_to_end(make_relay):
    relay = make_relay(start=False, ready=False)
    with socket.socket() as holder:
        holder.bind((relay.address, relay.tcp_port))
        holder.listen()
        relay.start()
        relay.log.expect("Error: Couldn't bind server. Address already in use", 20)
        assert relay.stop() == 0
    relay.log.expect_in_order("0 Audio packets forwarded.", "Cleaning up main method")


def test_a_busy_port_that_becomes_free_is_taken(make_relay):
    relay = make_relay(start=False, ready=False, tls=True)
    with socket.socket() as holder:
        holder.bind((relay.address, relay.tls_port))
        holder.listen()
        relay.start()
        relay.log.expect("Error: Couldn't bind SSL server: Address already in use", 20)
    relay.wait_ready(30)


def test_a_busy_audio_port_ends_the_start(make_relay):
    relay = make_relay(start=False, ready=False)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
        holder.bind((relay.address, relay.audio_port(3)))
        relay.start()
        ends_with(relay, 1)
    text = "Error: bind udp failed. Address already in use. relayserver quitting."
    assert relay.log.count(text) == 1
    assert relay.log.count("bind udp: Address already in use") == 1


def test_an_invalid_bind_address_falls_back_to_any(make_relay):
    relay = make_relay(keys={("Bind", "address"): "not.an.address"}, ready=False)
    relay.log.expect_in_order(
        "ERROR: Invalid TCP bind address: not.an.address, using INADDR_ANY",
        *["ERROR: Invalid UDP bind address: not.an.address, using INADDR_ANY"] * 6,
        "ERROR: Invalid bind address: not.an.address",
        "connection to server failed with code -1...",
        within_secs=20,
    )


def test_an_unknown_device_ends_the_start(make_relay):
    relay = make_relay(bind_device="nodevice0", ready=False)
    ends_with(relay, 1)
    assert relay.log.count("Error: couldn't set socket interface to nodevice0") == 1


def test_the_loopback_device_is_accepted(make_relay):
    relay = make_relay(bind_device="lo")
    assert relay.log.count("binding to device lo") == 1


def test_fec_sockets_are_set_up_for_all_programs(make_relay):
    relay = make_relay(fec=True)
    assert relay.log.count("INFO: FEC enabled in log file") == 1
    assert relay.log.count("INFO: FEC sockets set correctly") == 6


@pytest.mark.parametrize(
    ("offset", "text"),
    [
        (104, "WARNING: could not set up udp FEC socket: Address already in use"),
        (204, "WARNING: could not set up udp  FEC 2 socket: Address already in use"),
    ],
)
def test_one_busy_fec_port_ends_fec_for_all(make_relay, offset, text):
    relay = make_relay(fec=True, start=False, ready=False)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
        holder.bind((relay.address, relay.audio_port(0) + offset))
        relay.start().wait_ready()
    assert relay.log.count(text) == 1
    assert relay.log.count("INFO: FEC sockets set correctly") == 2


def test_without_a_marker_file_the_log_goes_to_standard_output(make_relay):
    hide = "mount -t tmpfs none /var/log && exec \"$@\""
    wrapper = ["unshare", "--mount", "sh", "-c", hide, "sh"]
    relay = make_relay(arguments=["-f", "tessel_rs.conf"], wrapper=wrapper)
    text = (
        "Logging error: sys/currentlyusedlogfile.name not found in /var/log/tessel/relayserver/. "
        "Please modify LOGGING_DIRECTORY value. connserver quitting."
    )
    assert text in relay.log.lines
    assert relay.log.count("using port") == 2


def test_with_a_marker_file_the_log_goes_to_the_file_it_names(make_relay, tmp_path):
    folder = tmp_path / "relayserver"
    (folder / "sys").mkdir(parents=True)
    (folder / "sys" / "currentlyusedlogfile.name").write_text("today.log\n")
    show = (
        "mount -t tmpfs none /var/log && mkdir -p /var/log/tessel/relayserver && "
        f'mount --bind {folder} /var/log/tessel/relayserver && exec "$@"'
    )
    wrapper = ["unshare", "--mount", "sh", "-c", show, "sh"]
    relay = make_relay(arguments=["-f", "tessel_rs.conf"], wrapper=wrapper, ready=False)
    relay.log.expect("all file logs are in /var/log/tessel/relayserver/", 20)
    relay.server.wait_logged_in(20)
    assert relay.stop() == 0
    logged = (folder / "today.log").read_text().splitlines()
    assert logged[0].endswith(" - relayserver Version 3.4.8")
    # The very last lines are there too, although the process ends at once.
    assert logged[-1].endswith("Cleaning up main method")
