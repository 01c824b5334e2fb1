"""Which server is tried next: the order of the configured servers, and what makes the relay move
on."""

from __future__ import annotations

from lab.protocol import messages
from lab.server.connection_server import Fault
from lab.support.addresses import new_address

_ATTEMPT = "Attempting connection to server "
_UNRESOLVED = "gethostbyname failed: invalid server."


def _attempts(relay):
    """The addresses that were tried, in order."""
    return [line.split(_ATTEMPT)[1] for line in relay.log.lines if _ATTEMPT in line]


def test_refused_connects_lead_through_the_servers_in_order_and_back_to_the_first(
    make_server, make_relay
):
    third = make_server(start=False)
    first, second = new_address(), new_address()
    relay = make_relay(servers=[first, second, third.address], using=third, ready=False)
    relay.log.expect_in_order(
        *[_ATTEMPT + address for address in (first, second, third.address, first, second)],
        within_secs=20,
    )
    third.start()
    relay.wait_ready()
    relay.log.expect(f"Switched from server  to server {third.address}")
    tried = _attempts(relay)
    assert tried == ([first, second, third.address] * len(tried))[: len(tried)]
    assert relay.log.count("connection to server failed with code -1...") == len(tried) - 1
    assert relay.log.count("waiting for login response timed out") == 0


def test_the_first_of_three_that_answers_is_kept(make_server, make_relay):
    servers = [make_server() for _ in range(3)]
    relay = make_relay(servers=[one.address for one in servers], using=servers[0])
    assert _attempts(relay) == [servers[0].address]
    assert len(servers[1].links) == len(servers[2].links) == 0


def test_after_a_silent_first_and_a_resetting_second_the_third_is_used(make_server, make_relay):
    first, second, third = (make_server() for _ in range(3))
    first.script.fault("challenge", Fault("silence"), times=None)
    second.script.fault("login", Fault("reset"), times=None)
    relay = make_relay(servers=[first.address, second.address, third.address], using=third)
    relay.log.expect_in_order(
        _ATTEMPT + first.address,
        "waiting for login response timed out",
        _ATTEMPT + second.address,
        "sent login- waiting for response",
        _ATTEMPT + third.address,
        f"Switched from server  to server {third.address}",
    )
    assert len(third.record.messages_of(messages.LogIn)) == 1


def test_an_unresolvable_name_keeps_its_place_and_is_tried_again(make_server, make_relay):
    backup = make_server()
    name = "no-such-host.invalid"
    relay = make_relay(servers=[name, backup.address], ready=False)
    relay.log.expect_in_order(
        _UNRESOLVED, "connection to server failed with code -1...", "retrying",
        _UNRESOLVED, "connection to server failed with code -1...", "retrying",
        within_secs=40,
    )  # fmt: skip
    assert _attempts(relay) == []
    assert len(backup.links) == 0


def test_a_name_that_resolves_works_like_an_address(
    make_server, make_relay, server_certificate
):
    server = make_server(address="127.0.0.1", port=0, certificate=server_certificate)
    relay = make_relay(using=server, servers=["localhost"], server_tls_port=server.port)
    assert _attempts(relay) == ["127.0.0.1"]
    relay.log.expect("Switched from server  to server localhost")


def test_numbered_backups_end_at_the_first_gap(make_server, make_relay):
    unreachable, skipped = new_address(), make_server()
    relay = make_relay(
        servers=[unreachable], keys={("Servers", "backup2"): skipped.address}, ready=False
    )
    relay.log.expect_in_order(_ATTEMPT + unreachable, _ATTEMPT + unreachable)
    assert set(_attempts(relay)) == {unreachable}


def test_a_session_is_continued_at_the_next_server_when_its_own_is_reset(
    make_server, make_relay, make_station
):
    first, second = make_server(), make_server()
    second.script.continue_any = True
    relay = make_relay(servers=[first.address, second.address], using=first)
    station = make_station(relay)
    first.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    first.links.end("reset")
    second.wait_logged_in(within_secs=20)
    # The session is still the one that began at the first server.
    relay.log.expect(f"Successful continuation with server {first.address}")
    login = second.record.messages_of(messages.LogIn)[0]
    assert login.function == "CONTINUE"
    assert login.des_key == first.des_key
    second.record.wait_for_type(messages.ConnectConfirm, client_id=station.client_id)
    second.record.wait_for_type(messages.RelayPort)


def test_a_session_that_ended_in_order_is_continued_at_its_own_server(make_server, make_relay):
    first, second = make_server(), make_server()
    relay = make_relay(servers=[first.address, second.address], using=first)
    first.links.end("close")
    first.wait_logged_in(within_secs=20, number=1)
    relay.log.expect(f"Successful continuation with server {first.address}")
    assert len(second.links) == 0


def test_a_continuation_that_another_server_refuses_becomes_a_new_session_there(
    make_server, make_relay, make_station
):
    first, second = make_server(), make_server()
    relay = make_relay(servers=[first.address, second.address], using=first)
    station = make_station(relay)
    first.close("reset")
    second.wait_logged_in(within_secs=30)
    relay.log.expect_in_order(
        "Server response: NO CONTINUE.",
        "server didn't recognize our continue id",
        f"Switched from server {first.address} to server {second.address}",
        "Cancelled 1 client connections",
    )
    logins = second.record.messages_of(messages.LogIn)
    assert [one.function for one in logins] == ["CONTINUE", "RELAY"]
    assert station.closed_by_peer()
