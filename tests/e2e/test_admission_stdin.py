"""Without TLS there is no TLS listener, and descriptor 0 is not one: whatever standard input is,
the relay does not spin on it or give that number to a client."""

from __future__ import annotations

import os
import time

import pytest

from lab.protocol import messages
from lab.stations.crowd import Crowd


def _kind_of_descriptor(relay, number):
    return os.readlink(f"/proc/{relay.pid}/fd/{number}").partition(":")[0]


@pytest.mark.parametrize(
    ("stdin", "tls"),
    [("null", False), ("closed", False), ("pipe", False), ("ended pipe", False), ("closed", True)],
)
def test_standard_input_does_not_matter(stdin, tls, server, make_relay):
    relay = make_relay(tls=tls, stdin=stdin.split()[-1])
    if stdin == "ended pipe":
        relay._process.stdin.close()  # noqa: SLF001
    with Crowd(relay.address, relay.tcp_port) as crowd:
        client = crowd.admit(20, server)[0]
        assert _kind_of_descriptor(relay, 0) != "socket"
        began, used = time.monotonic(), relay.cpu_secs()
        assert client.receives_nothing(2)
        assert (relay.cpu_secs() - used) / (time.monotonic() - began) < 0.1
        for station in crowd.stations:
            server.orders.send(messages.Chat("SERVER", b"hello", dest_id=station.client_id))
        for station in crowd.stations:
            station.receive_until(lambda got: isinstance(got, messages.Chat))
