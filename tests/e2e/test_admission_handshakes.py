"""TLS handshakes that fail, stop half-way or arrive in pieces affect only their own connection."""

from __future__ import annotations

import ssl

import pytest

from lab.protocol import messages, wire
from lab.support import channel

_FAILED = "SSL handshake failed on socket "


class _Handshake:
    """A handshake by hand: the test decides whether what TLS wants to send is sent."""

    def __init__(self, link):
        self.link = link
        self._received, self._to_send = ssl.MemoryBIO(), ssl.MemoryBIO()
        context = channel.client_tls_context()
        self._tls = context.wrap_bio(self._received, self._to_send)

    def step(self):
        """Goes as far as possible; returns what has to be sent, and whether the handshake is
        done."""
        try:
            self._tls.do_handshake()
        except ssl.SSLWantReadError:
            return self._to_send.read(), False
        return self._to_send.read(), True

    def receive(self):
        self._received.write(self.link.read(5))

    def complete(self):
        """Shakes hands byte by byte; the last bytes remain to be sent."""
        out, done = self.step()
        while not done:
            for byte in out:
                self.link.write(bytes([byte]))
            self.receive()
            out, done = self.step()
        return out

    def encrypt(self, data):
        self._tls.write(data)
        return self._to_send.read()


@pytest.fixture
def link(tls_relay):
    """A connection to the TLS port, so far without TLS."""
    link = channel.connect(tls_relay.address, tls_relay.tls_port)
    yield link
    link.close()


@pytest.fixture
def relay_is_well(tls_relay, make_station):
    """Asserts that others are served afterwards, and that nothing of the failed connection is
    left."""
    held = tls_relay.open_descriptors()
    yield
    station = make_station(tls_relay, tls=True)
    assert tls_relay.open_descriptors() == held + 1
    station.close()


def _expect_end(link):
    """Alerts may come first."""
    with pytest.raises(channel.PeerClosed):
        for _ in range(10):
            assert link.read(5)


@pytest.mark.parametrize(
    "garbage",
    [
        b"GET / HTTP/1.0\r\n\r\n",
        bytes(300),
        bytes(range(256)) * 64,
        b"\x16\x03\x01\xff\xff" + b"\xff" * 70000,
        messages.RelayConnect(4001, bytes(16)).frame(),
    ],
    ids=["http", "zeros", "16 KB", "endless record", "plain log-in"],
)
def test_bytes_other_than_a_handshake_end_the_connection(relay_is_well, garbage, link, tls_relay):
    try:
        link.write(garbage)
    except channel.PeerClosed:
        pass  # the relay may close before all is written
    _expect_end(link)
    line = tls_relay.log.expect(f" - {_FAILED}")
    assert line.endswith(": SSL_ERROR_SSL, see callback above")
    tls_relay.log.expect("Removing client table entry for address ")


@pytest.mark.parametrize("share", [0.0, 0.5, 1.0], ids=["nothing", "half", "all"])
@pytest.mark.parametrize("how", ["close", "reset"])
def test_a_peer_that_leaves_before_the_answer_is_removed(
    relay_is_well, share, how, link, tls_relay
):
    """It has sent nothing, half of its first message, or all of it."""
    tls_relay.log.expect("Starting SSL handshake on socket ")
    hello, _ = _Handshake(link).step()
    link.write(hello[: int(len(hello) * share)])
    host, port = link.local
    getattr(link, how)()
    tls_relay.log.expect(f"Removing client table entry for address {host}({port}).")


@pytest.mark.parametrize("how", ["close", "reset"])
def test_a_peer_that_leaves_in_the_middle_is_removed(relay_is_well, how, link, tls_relay):
    """It has the relay's half of the handshake and leaves without its own."""
    handshake = _Handshake(link)
    link.write(handshake.step()[0])
    handshake.receive()
    host, port = link.local
    getattr(link, how)()
    tls_relay.log.expect(f"Removing client table entry for address {host}({port}).")
    assert tls_relay.log.count("Completed SSL handshake") == 0


def test_a_handshake_in_single_bytes_succeeds_and_the_login_after_it_counts(
    server, link, tls_relay
):
    """Its last bytes and the log-in are one write; the log-in must not wait for more to come."""
    handshake = _Handshake(link)
    last_bytes = handshake.complete()
    login = messages.RelayConnect(4001, server.ticket_for(4001)).frame()
    link.write(last_bytes + handshake.encrypt(login))
    server.record.wait_for_type(messages.ConnectConfirm, client_id=4001)
    tls_relay.log.expect_in_order(
        "Completed SSL handshake on socket ", "authenticated ticket for client 4001"
    )


def test_a_session_that_stops_being_tls_ends(relay_is_well, link, tls_relay):
    """Here with a client that has not logged in yet."""
    link.write(_Handshake(link).complete())
    tls_relay.log.expect("Completed SSL handshake on socket ")
    link.write(b"this is no record at all" * 10)
    _expect_end(link)
    host, port = link.local
    line = tls_relay.log.expect(" - Socket connection broken fd ")
    assert line.endswith(f", with client {host}({port}) : SSL lib error")


def test_tls_at_the_plain_port_ends_without_harm(tls_relay, make_station):
    """Its bytes look like frames; the connection stays open and others are served."""
    link = channel.connect(tls_relay.address, tls_relay.tcp_port)
    link.write(_Handshake(link).step()[0] + wire.to_frame(wire.make_image(3, 0, 0)))
    tls_relay.log.expect("received from unauthorized client at ")
    make_station(tls_relay)
    link.close()
    host, port = link.local
    tls_relay.log.expect(f"Removing client table entry for address {host}({port}).")
