"""More clients at once than 1024, the limit of select()."""

from __future__ import annotations

import pytest

from lab.protocol import messages
from lab.stations.crowd import Crowd
from lab.support.waiting import wait_until

_CROWD = 1550
_WAVE = 155
_SAMPLE = 12


def _admit(crowd, server):
    """Admits the crowd, which may take longer than a client may be silent."""
    for _ in range(_CROWD // _WAVE):
        crowd.admit(_WAVE, server)
        crowd.send_heartbeats()
    assert len(crowd.stations) == _CROWD


@pytest.mark.parametrize("tls", [False, True], ids=["plain", "tls"])
def test_clients_on_descriptors_above_1024_are_served(tls, server, make_relay, route):
    """A plain crowd comes first; the clients under test take the numbers above it."""
    relay = make_relay(tls=True)
    with Crowd(relay.address, relay.tcp_port) as crowd:
        _admit(crowd, server)
        assert relay.open_descriptors() > _CROWD
        port = relay.tls_port if tls else relay.tcp_port
        with Crowd(relay.address, port, tls=tls) as late:
            clients = late.admit(_SAMPLE, server)
            captioner, *encoders = clients
            for encoder in encoders:
                route(relay, captioner, encoder, messages.PIPE_CAPTION)
            for number in range(5):
                captioner.send(messages.Caption(b"caption %d" % number))
                for encoder in encoders:
                    encoder.expect(messages.Caption, caption=b"caption %d" % number)
            crowd.send_heartbeats()
        # The earliest are still there, too.
        server.orders.send(messages.Chat("SERVER", b"hello", dest_id=crowd.stations[0].client_id))
        crowd.stations[0].expect(messages.Chat, chat=b"hello")


def test_a_crowd_that_leaves_gives_all_descriptors_back(server, relay):
    held = relay.open_descriptors()
    with Crowd(relay.address, relay.tcp_port) as crowd:
        _admit(crowd, server)
        clients = {station.client_id for station in crowd.stations}
        assert relay.open_descriptors() == held + _CROWD
    wait_until(
        lambda: {
            one.client_id for one in server.record.messages_of(messages.LostConnection)
        } == clients,
        20,
        "every client reported lost",
    )
    wait_until(lambda: relay.open_descriptors() == held, 5, "descriptors given back")
