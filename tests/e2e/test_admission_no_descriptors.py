"""A relay that has no descriptor left does not spin or fill its log, serves the clients it has, and
admits others as soon as descriptors are free."""

from __future__ import annotations

import time
from pathlib import Path

import pytest

from lab.protocol import messages
from lab.stations.caption_stations import Captioner, Encoder
from lab.stations.crowd import Crowd
from lab.support.waiting import wait_until

_LIMIT = 64
_EMFILE = 24
_PLAIN = f"Warning: socket accept call returned -1 with error {_EMFILE}"
_TLS = f"Warning ssl socket accept call return -1 with error {_EMFILE}"


@pytest.fixture
def small_relay(make_relay):
    """A relay with few descriptors, logged in."""
    return make_relay(tls=True, wrapper=["prlimit", f"--nofile={_LIMIT}:{_LIMIT}"])


def _accepted(relay):
    return relay.log.count("New client request received")


def test_the_soft_limit_is_raised_to_the_hard_one(make_relay):
    relay = make_relay(wrapper=["prlimit", "--nofile=100:2000"])
    limits = Path(f"/proc/{relay.pid}/limits").read_text().splitlines()
    (line,) = [line for line in limits if line.startswith("Max open files")]
    assert line.split()[3:5] == ["2000", "2000"]
    with Crowd(relay.address, relay.tcp_port) as crowd:
        crowd.admit(200, relay.server)


def test_the_shortage_costs_no_processor_time_and_no_log_lines(small_relay, make_station, route):
    captioner = make_station(small_relay, Captioner)
    encoder = make_station(small_relay, Encoder)
    route(small_relay, captioner, encoder, messages.PIPE_CAPTION)
    encoder.show_heartbeats = True
    with (
        Crowd(small_relay.address, small_relay.tcp_port) as plain,
        Crowd(small_relay.address, small_relay.tls_port) as secure,
    ):
        plain.connect(_LIMIT)
        small_relay.log.expect(_PLAIN)
        secure.connect(5)
        small_relay.log.expect(_TLS)
        began, used = time.monotonic(), small_relay.cpu_secs()
        since = small_relay.log.mark()
        # Two bursts of heartbeats are at least 4 seconds apart: that is how long it is observed.
        encoder.receive_until(lambda got: isinstance(got, messages.Heartbeat), 15)
        encoder.receive_until(lambda got: isinstance(got, messages.Heartbeat), 15)
        watched = time.monotonic() - began
        assert (small_relay.cpu_secs() - used) / watched < 0.1
        assert len(small_relay.log.lines) - since < 20
        assert small_relay.log.count("error 24") <= 4
        # Clients already admitted are served.
        captioner.caption(b"AB")
        *beats, caption = encoder.receive_until(lambda got: isinstance(got, messages.Caption))
        assert caption.caption == b"AB"
        assert all(isinstance(beat, messages.Heartbeat) for beat in beats)


def test_service_resumes_when_descriptors_are_free(small_relay, server):
    """Clients that waited in the queue are served when the others have left."""
    with Crowd(small_relay.address, small_relay.tcp_port) as crowd:
        crowd.connect(_LIMIT + 10)
        small_relay.log.expect(_PLAIN)
        first_in = crowd.stations[: _accepted(small_relay)]
        waiting = crowd.stations[len(first_in) :]
        assert waiting
        for station in first_in:
            station.close()
        crowd.log_in(waiting, server)
        # Other clients are admitted again as well, on both ports.
        crowd.admit(5, server)
        with Crowd(small_relay.address, small_relay.tls_port, tls=True) as secure:
            secure.admit(5, server)


def test_one_descriptor_at_a_time_is_reused(small_relay, server):
    """The shortage lasts: whenever one client leaves, the next one in the queue is admitted."""
    with Crowd(small_relay.address, small_relay.tcp_port) as crowd:
        crowd.connect(_LIMIT)
        small_relay.log.expect(_PLAIN)
        accepted = _accepted(small_relay)
        for station in crowd.stations[:3]:
            station.close()
            accepted += 1
            wait_until(lambda: _accepted(small_relay) >= accepted, 10, "the next one in")


def test_the_link_to_the_connection_server_survives_the_shortage(small_relay, server):
    with Crowd(small_relay.address, small_relay.tcp_port) as crowd:
        client = crowd.admit(1, server)[0]
        crowd.connect(_LIMIT)
        small_relay.log.expect(_PLAIN)
        server.orders.connect_route(5, 6, messages.PIPE_CAPTION)
        small_relay.schema.wait_for_route((5, 6, messages.PIPE_CAPTION))
        server.orders.send(messages.Chat("SERVER", b"hello", dest_id=client.client_id))
        client.expect(messages.Chat, chat=b"hello")
        assert len(server.links) == 1
