"""Listeners of the demonstration, at a minimal relay: they receive, and they reconnect."""

from __future__ import annotations

from pathlib import Path

import pytest

from lab.database.cluster import Cluster
from lab.network.relay_network import RelayNetwork
from lab.play.listeners import CaptionListener
from lab.protocol import messages
from lab.stations.caption_stations import Captioner
from lab.support.waiting import wait_until

FAKE = Path(__file__).resolve().parents[1] / "fake_relayserver.py"


@pytest.fixture(name="network")
def fixture_network():
    with Cluster() as cluster, RelayNetwork(cluster, ("east", "west"), binary=FAKE) as network:
        yield network


def _captions(listener):
    return [item.data for item in listener.arrived("captions")]


def test_a_listener_reconnects_to_a_relay_that_was_killed(network, capsys):
    listener = CaptionListener(network, "encoder 1", "west")
    try:
        for text in (b"\x14\x20AB\x14\x2f", b"\x14\x20CD\x14\x2f"):
            captioner = network.station(Captioner, at="west")
            network.route(captioner, listener.client_id, messages.PIPE_CAPTION)
            captioner.caption(text)
            wait_until(lambda text=text: text in _captions(listener), 5, "the caption arrives")
            if not listener.losses:
                before = listener.arrived("captions")[-1].at
                network.kill("west")
                network.restart("west")
                wait_until(lambda: listener.log_ins, 10, "the listener reconnects")
        assert len(listener.losses) == len(listener.log_ins) == 1 and not listener.error
        assert listener.losses[0] < listener.log_ins[0]
        assert listener.received_since(before)
        assert not listener.received_since(listener.arrived("captions")[-1].at)
    finally:
        listener.close()
    shown = capsys.readouterr().out
    assert "encoder 1   reads  AB" in shown and "encoder 1   reads  CD" in shown
    assert "is logged in again after" in shown


def test_a_message_that_is_no_caption_is_an_error(network):
    listener = CaptionListener(network, "encoder 1", "west")
    try:
        network.kill("east")
        wait_until(lambda: network.server.relays["west"].clients, 5, "the listener is confirmed")
        assert not listener.error
        listener._station._inbox.append(messages.Chat("me", b"text"))
        wait_until(lambda: "expected Caption" in listener.error, 5, "the error is noted")
    finally:
        listener.close()


def test_a_listener_that_expects_the_end_does_not_reconnect(network):
    listener = CaptionListener(network, "encoder 1", "west")
    listener.expect_end()
    assert network["west"].relay.stop() == 0
    listener.read_to_end()
    listener.close()
    assert listener.losses == [] and not listener.error
