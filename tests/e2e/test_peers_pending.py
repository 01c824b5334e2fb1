"""Orders to connect to an address where nothing answers yet, or ever."""

from __future__ import annotations

import socket

from peer_tools import StandInPeer
from switching_tools import got_before_fence, got_before_order_fence, line_count

from lab.protocol import messages
from lab.protocol.messages import LostConnection
from lab.support.addresses import new_address
from lab.support.waiting import wait_until


def _obeyed(relay, station):
    """Returns when all orders so far have been carried out."""
    assert got_before_order_fence(relay.server, station) == []


class FullListener:
    """Listens with a full backlog: the kernel drops further connections."""

    def __init__(self) -> None:
        self.address = new_address()
        self._listener = socket.socket()
        self._listener.bind((self.address, 0))
        self._listener.listen(0)
        self.port = self._listener.getsockname()[1]
        self._fillers = []

    def __enter__(self):
        for _ in range(4):
            self._fillers.append(socket.socket())
            self._fillers[-1].setblocking(False)
            self._fillers[-1].connect_ex((self.address, self.port))
        return self

    def __exit__(self, *_):
        for sock in (*self._fillers, self._listener):
            sock.close()


def test_an_address_that_never_answers_times_out_after_five_seconds(
    relay, server, bystanders, make_station
):
    """A repeated order for it continues the same attempt; one with another address starts again
    there. The abandoned one leaves no descriptor behind, and the next client that gets its number
    logs in like any other."""
    held = relay.open_descriptors()
    with FullListener() as full, FullListener() as other:
        silent = StandInPeer(server.new_client_id(), address=full.address, tcp_port=full.port)
        with silent:
            server.orders.order_connect(silent.order())
            server.orders.order_connect(silent.order(ticket=b"another ticket~~"))
            _obeyed(relay, bystanders[0])
            assert relay.open_descriptors() == held + 1
            moved = StandInPeer(silent.id, address=other.address, tcp_port=other.port)
            with moved:
                server.orders.order_connect(moved.order())
                _obeyed(relay, bystanders[0])
            assert relay.open_descriptors() == held + 1
            tries = f"debug: connecting with relay peer {silent.id} on tcp port "
            assert line_count(relay, bystanders[0], tries) == 2
            since = server.record.mark()
            relay.log.expect(
                f"Failed to reach out to relay {other.address} in 5 seconds, cancelling attempt", 15
            )
            assert relay.log.count(f"Failed to reach out to relay {full.address}") == 0
            wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
            assert server.record.messages_of(LostConnection, since) == []
            newcomer = make_station(relay)
            assert got_before_fence(newcomer, newcomer) == []
            assert line_count(relay, bystanders[0], "successfully initiated") == 0


def test_an_order_while_the_connect_is_pending_brings_the_newer_ticket(
    relay, server, peer, bystanders
):
    """Two orders that the relay reads at once: one connection, one log-in, the later ticket."""
    with relay.stopped():
        server.orders.order_connect(peer.order())
        server.orders.order_connect(peer.order(ticket=b"the newer ticket"))
    link = peer.accept()
    login = link.expect(messages.RelayConnect, client_id=1000)
    peer.answer(link)
    relay.log.expect(f"received OK message from relay {peer.id}")
    assert peer.no_connection_waits() and login.ticket == b"the newer ticket"
    assert line_count(relay, bystanders[0], f"debug: connecting with relay peer {peer.id}") == 1
