"""Orders to connect that come to nothing, or to nothing new, while stations go on undisturbed."""

from __future__ import annotations

import socket

import pytest
from peer_tools import StandInPeer
from switching_tools import got_before_fence, got_before_order_fence, line_count

from lab import messages
from lab.addresses import free_port, new_address
from lab.messages import PIPE_CAPTION, ConnectConfirm, LostConnection
from lab.stations import Captioner, Encoder
from lab.waiting import wait_until


@pytest.fixture(name="peer")
def fixture_peer(server):
    with StandInPeer(server.new_client_id()) as peer:
        yield peer


@pytest.fixture(name="stations")
def fixture_stations(relay, make_station, route):
    """A captioner and an encoder that hear nothing of it all."""
    captioner, encoder = make_station(relay, Captioner), make_station(relay, Encoder)
    route(relay, captioner, encoder, PIPE_CAPTION)
    yield captioner, encoder
    captioner.caption(b"still here")
    assert encoder.receive_caption()[0] == b"still here"
    assert got_before_fence(captioner, encoder) == []


def _obeyed(relay, station):
    """Returns when all orders so far have been obeyed."""
    assert got_before_order_fence(relay.server, station) == []


def test_an_order_to_itself_makes_no_socket(relay, server, peer, stations):
    held = relay.open_descriptors()
    server.order_connect(peer.order(connect_to_id=1000))
    server.join("relay", "relay")
    _obeyed(relay, stations[0])
    relay.log.expect_in_order(
        "got ticket for relay peer 1000",
        "debug: requestcode was connect",
        "ERROR: ConnectOrder is telling relay 1000 to connect to itself - ignoring to prevent "
        "self-connection loop",
    )
    assert relay.open_descriptors() == held and peer.nobody_connects()
    assert line_count(relay, stations[0], "debug: connecting with relay peer") == 0


def test_a_repeated_order_for_a_connected_peer_confirms_it_again(relay, server, peer, stations):
    """And makes no second socket, nor does it touch the first. The same holds of a peer that
    connected to us, which becomes a peer by it."""
    link = peer.join(relay)
    held, since = relay.open_descriptors(), server.mark()
    server.order_connect(peer.order())
    line = f"WARNING: already connected to relay id {peer.id}, not initiating new connection"
    relay.log.expect(line)
    server.wait_for_type(ConnectConfirm, since=since, client_id=peer.id)
    _obeyed(relay, stations[0])
    assert relay.open_descriptors() == held and peer.nobody_connects()
    assert link.receives_nothing(0.2) and not server.messages_of(LostConnection, since)
    server.order_connect(peer.order())
    wait_until(lambda: len(server.messages_of(ConnectConfirm, since)) == 2, 5, "confirmed again")


@pytest.mark.parametrize(
    ("request_code", "shown"), [("DISCONNECT", "DISCONNECT"), ("NO SUCH CODE", "INVALID"), ("connect", "INVALID")]
)
def test_an_order_with_another_request_is_named_and_ignored(  # fmt: skip
    relay, server, peer, stations, request_code, shown
):
    server.order_connect(peer.order(request=request_code))
    _obeyed(relay, stations[0])
    relay.log.expect(f"got ticket for relay peer {peer.id}")
    line = relay.log.expect("connect order net message had request code: ")
    assert line.endswith("request code: " + shown)
    assert peer.nobody_connects()


def test_to_register_with_an_unknown_relay_does_nothing(relay, server, peer, stations):
    held = relay.open_descriptors()
    server.order_connect(peer.order("UDP_REG"))
    _obeyed(relay, stations[0])
    relay.log.expect(f"got ticket for relay peer {peer.id}")
    assert relay.open_descriptors() == held and peer.nobody_connects()
    assert peer.heard_within(0.2) == []
    assert line_count(relay, stations[0], "registering udp with relay peer") == 0


def test_a_refused_connect_leaves_nothing_for_the_next_on_its_descriptor(relay, server, stations, make_station):  # fmt: skip
    """The newcomer gets neither the ticket nor the place of the peer that was not there."""
    held = relay.open_descriptors()
    for _ in range(3):
        with StandInPeer(server.new_client_id(), tcp_port=free_port()) as absent:
            since, log_since = server.mark(), relay.log.mark()
            server.order_connect(absent.order())
            relay.log.expect_in_order(
                f"debug: connecting with relay peer {absent.id} on tcp port {absent.tcp_port}",
                "cleaning up socket fd ",
                since=log_since,
            )
            _obeyed(relay, stations[0])
            assert relay.open_descriptors() == held
            newcomer = make_station(relay, login=False)
            wait_until(lambda: relay.open_descriptors() == held + 1, 5, "the newcomer is in")
            newcomer.finish_sending()
            assert newcomer.closed_by_peer()
            wait_until(lambda: relay.open_descriptors() == held, 5, "the newcomer is gone")
            assert newcomer.receives_nothing(0.0), "it got the log-in that was not for it"
            assert server.messages_of(LostConnection, since) == []
            assert server.messages_of(ConnectConfirm, since) == []
            assert line_count(relay, stations[0], "successfully initiated") == 0


class FullListener:
    """Listens, and has no room for one connection more: the kernel drops who tries."""

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


def test_an_address_that_never_answers_is_given_up_after_five_seconds(relay, server, stations, make_station):  # fmt: skip
    """A repeated order for it has the same attempt go on; one with another address begins anew
    there. The one that is given up leaves no descriptor behind, and the next client that has its
    number logs in as anybody."""
    held = relay.open_descriptors()
    with FullListener() as full, FullListener() as other:
        silent = StandInPeer(server.new_client_id(), address=full.address, tcp_port=full.port)
        with silent:
            server.order_connect(silent.order())
            server.order_connect(silent.order(ticket=b"another ticket~~"))
            _obeyed(relay, stations[0])
            assert relay.open_descriptors() == held + 1
            moved = StandInPeer(silent.id, address=other.address, tcp_port=other.port)
            with moved:
                server.order_connect(moved.order())
                _obeyed(relay, stations[0])
            assert relay.open_descriptors() == held + 1
            tries = f"debug: connecting with relay peer {silent.id} on tcp port "
            assert line_count(relay, stations[0], tries) == 2
            since = server.mark()
            relay.log.expect(
                f"Failed to reach out to relay {other.address} in 5 seconds, cancelling attempt", 15
            )
            assert relay.log.count(f"Failed to reach out to relay {full.address}") == 0
            wait_until(lambda: relay.open_descriptors() == held, 5, "the descriptor is gone")
            assert server.messages_of(LostConnection, since) == []
            newcomer = make_station(relay)
            assert got_before_fence(newcomer, newcomer) == []
            assert line_count(relay, stations[0], "successfully initiated") == 0


def test_an_order_while_the_connect_is_pending_brings_the_newer_ticket(relay, server, peer, stations):  # fmt: skip
    """Two orders that the relay reads at once: one connection, one log-in, the later ticket."""
    with relay.stopped():
        server.order_connect(peer.order())
        server.order_connect(peer.order(ticket=b"the newer ticket"))
    link = peer.accept()
    login = link.expect(messages.RelayConnect, client_id=1000)
    peer.answer(link)
    relay.log.expect(f"received OK message from relay {peer.id}")
    assert peer.nobody_connects() and login.ticket == b"the newer ticket"
    assert line_count(relay, stations[0], f"debug: connecting with relay peer {peer.id}") == 1
