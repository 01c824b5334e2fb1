"""Clients that vanish at every stage of their admission leave nothing behind."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.support import channel
from lab.support.addresses import new_address
from lab.support.waiting import wait_until

pytestmark = pytest.mark.threads

_ROUNDS = 60


@pytest.fixture
def nothing_is_left(tls_relay, make_station):
    """Asserts that the relay then has as many descriptors as before, and admits as before."""
    held = tls_relay.open_descriptors()
    yield
    wait_until(lambda: tls_relay.open_descriptors() == held, 10, "descriptors given back")
    make_station(tls_relay, source_ip=new_address())
    make_station(tls_relay, source_ip=new_address(), tls=True)
    assert tls_relay.log.count("could not identify client") == 0


def _leave(link, how):
    link.reset() if how == "reset" else link.close()


@pytest.mark.parametrize("how", ["close", "reset"])
def test_right_after_connecting(nothing_is_left, how, tls_relay):
    source = new_address()
    for number in range(_ROUNDS):
        port = tls_relay.tls_port if number % 2 else tls_relay.tcp_port
        _leave(channel.connect(tls_relay.address, port, source_ip=source), how)


@pytest.mark.parametrize("how", ["close", "reset"])
def test_before_the_relay_has_accepted_it(nothing_is_left, how, tls_relay):
    """The connections begin and end while the relay is stopped."""
    source = new_address()
    with tls_relay.stopped():
        for number in range(_ROUNDS):
            port = tls_relay.tls_port if number % 2 else tls_relay.tcp_port
            link = channel.connect(tls_relay.address, port, source_ip=source)
            link.write(b"\x0f")
            _leave(link, how)


@pytest.mark.parametrize("how", ["close", "reset"])
@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_while_the_answer_is_in_transit(nothing_is_left, how, tls, tls_relay, server, make_station):
    """A client announced to the connection server is reported lost there."""
    source = new_address()
    for number in range(_ROUNDS):
        station = make_station(tls_relay, tls=tls, login=False, source_ip=source)
        client_id = 4001 + number
        station.send(messages.RelayConnect(client_id, server.ticket_for(client_id)))
        station.reset() if how == "reset" else station.close()

    def all_reported():
        confirmed = [one.client_id for one in server.record.messages_of(messages.ConnectConfirm)]
        lost = [one.client_id for one in server.record.messages_of(messages.LostConnection)]
        return confirmed == lost or sorted(confirmed) == sorted(lost)

    gone = "Removing client table entry for address " + source
    wait_until(lambda: tls_relay.log.count(gone) == _ROUNDS, 20, "all removed")
    wait_until(all_reported, 5, "every admitted client reported lost")


def test_with_the_login_unread_and_the_answer_refused(nothing_is_left, tls_relay, server):
    """The relay finds the log-in, and that nothing waits for the answer any more."""
    source = new_address()
    links = []
    with tls_relay.stopped():
        for number in range(_ROUNDS):
            link = channel.connect(tls_relay.address, tls_relay.tcp_port, source_ip=source)
            client_id = 4001 + number
            login = messages.RelayConnect(client_id, server.ticket_for(client_id))
            link.write(login.frame() + messages.Caption(b"AB", sender_id=client_id).frame())
            links.append(link)
        for link in links:
            link.reset()
    gone = "Removing client table entry for address " + source
    wait_until(lambda: tls_relay.log.count(gone) == _ROUNDS, 20, "all removed")
    confirmed = {one.client_id for one in server.record.messages_of(messages.ConnectConfirm)}
    for client_id in confirmed:
        server.record.wait_for_type(messages.LostConnection, client_id=client_id)
