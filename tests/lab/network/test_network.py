"""The network in a box around a minimal relay."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from lab.database.cluster import Cluster
from lab.network.network import Network
from lab.protocol import messages
from lab.relay.config import RelayConfig
from lab.relay.relay import Relay
from lab.stations.caption_stations import Captioner, Encoder, Monitor, video_pages
from lab.support import addresses
from lab.support.waiting import LabTimeout

TESTS = Path(__file__).resolve().parents[1]
FAKE = TESTS / "fake_relayserver.py"


@pytest.fixture(name="cluster", scope="module")
def fixture_cluster():
    with Cluster() as cluster:
        yield cluster


@pytest.mark.parametrize("tls", [False, True])
def test_a_caption_crosses_and_all_processes_end(cluster, tls):
    with Network(cluster, tls=tls, binary=FAKE) as network:
        captioner = network.station(Captioner)
        encoder = network.station(Encoder, heartbeats=True)
        network.server.record.wait_for_type(messages.ConnectConfirm, client_id=encoder.client_id)
        network.route(captioner, encoder, messages.PIPE_CAPTION)
        captioner.caption(b"\x14\x20AB~\\\x14\x2f")
        data, texts = encoder.receive_caption()
        assert data == b"\x14\x20AB~\\\x14\x2f" and texts == ["ABñé"]
        network.unroute(captioner, encoder, messages.PIPE_CAPTION)
        assert network.schema.routes() == set()
        pid = network.relay.pid
        assert network.relay.stop() == 0
        assert encoder.closed_by_peer()
    with pytest.raises(ProcessLookupError):
        os.kill(pid, 0)
    assert not network.relay.folder.exists()


def test_a_ticket_of_another_client_is_refused(cluster):
    with Network(cluster, binary=FAKE) as network:
        station = network.connect(Encoder)
        station.login(2001, network.server.ticket_for(2002), expect="UNAUTHORIZED")
        assert station.closed_by_peer()


def test_two_networks_share_one_cluster(cluster):
    with Network(cluster, binary=FAKE) as one, Network(cluster, binary=FAKE) as other:
        one.route(1, 2, messages.PIPE_CAPTION)
        assert other.schema.routes() == set()


def test_a_log_wait_reports_the_missing_text_and_the_end_of_the_process():
    with Relay(binary=FAKE, env={"FAKE_RELAY_FAULT": "silent"}) as relay:
        relay.log.expect("Version 3.4.8")
        with pytest.raises(LabTimeout, match="no 'nonsense' within"):
            relay.log.expect("nonsense", 0.1)
        relay.signal(signal.SIGINT)
        with pytest.raises(LabTimeout, match="ended without"):
            relay.log.expect("nonsense", 20)
        relay.log.expect_in_order("Version", "Cleaning up")
        assert relay.wait_exit() == 0
        assert relay.log.count("Cleaning up") == 1
        mark = relay.log.mark()
        relay.start()
        relay.log.expect("Version 3.4.8", since=mark)


def test_a_failed_start_shuts_everything_down(cluster):
    network = Network(cluster, binary=FAKE, env={"PGPORT": "1"})
    with pytest.raises(LabTimeout, match="could not connect to database"):
        network.start()
    assert not network.relay.running and not network.relay.folder.exists()


def test_every_key_is_written_to_its_section():
    config = RelayConfig(
        servers=["a", "b"], tcp_port=1, server_tls_port=2, wavecast=True, fec=False,
        keys={("Login", "password"): None, ("Ports", "tcp"): "1e300"},
    )  # fmt: skip
    assert config.render() == (
        "[Ports]\ntcp = 1e300\n\n[Login]\ncompany = company\nusername = relay\n\n"
        "[Servers]\nuse_ssl = yes\ncs_ssl_port = 2\nprimary = a\nbackup1 = b\n\n"
        "[FEC]\nenable = no\n\n[Features]\nwcast = yes\n"
    )
    assert RelayConfig(text="whole").render() == "whole"


def test_no_two_processes_get_the_same_address():
    code = "print(*[addresses.new_address() for _ in range(300)]); input()"
    command = [sys.executable, "-c", f"from lab.support import addresses; {code}"]
    root = TESTS.parents[1]
    pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "cwd": root, "text": True}
    children = [subprocess.Popen(command, **pipes) for _ in range(3)]
    try:
        lines = [child.stdout.readline().split() for child in children]
    finally:
        for child in children:
            child.communicate("\n", timeout=20)
    handed_out = [address for line in lines for address in line]
    handed_out += [addresses.new_address() for _ in range(300)]
    assert len(handed_out) == len(set(handed_out)) == 1200


def test_video_pages_make_up_the_frame():
    class Pages(Monitor):
        def __init__(self, pages):
            self.name = "monitor"
            self.pages = pages

        def receive(self, within_secs=5.0):
            return self.pages.pop(0)

    frame = bytes(range(1, 90)) * 10
    pages = video_pages(frame, 7)
    assert [page.page for page in pages] == [1, 2, 3] and pages[0].total_pages == 3
    assert Pages(list(pages)).receive_video() == (7, frame)
    with pytest.raises(AssertionError):
        Pages(list(pages[1:])).receive_video()
