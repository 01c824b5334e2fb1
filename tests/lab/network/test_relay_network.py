"""Several minimal relays with one connection server, or two: joined, killed, moved over."""

from __future__ import annotations

from pathlib import Path

import pytest

from lab.database.cluster import Cluster
from lab.network.relay_network import RelayNetwork
from lab.protocol import messages
from lab.relay.config import RelayConfig
from lab.relay.join_log import program_0_accepted
from lab.stations.caption_stations import Captioner, Encoder
from lab.support.waiting import LabTimeout

FAKE = Path(__file__).resolve().parents[1] / "fake_relayserver.py"


@pytest.fixture(name="cluster", scope="module")
def fixture_cluster():
    with Cluster() as cluster:
        yield cluster


def _passes(captioner, encoder, text):
    captioner.caption(text)
    assert encoder.receive_caption()[0] == text


@pytest.mark.parametrize("tls", [False, True])
def test_a_caption_crosses_two_relays_and_stays_at_one(cluster, tls):
    with RelayNetwork(cluster, tls=tls, binary=FAKE) as network:
        network.join("east", "west")
        captioner = network.station(Captioner, at="east")
        near, far = (network.station(Encoder, at=name) for name in ("east", "west"))
        for encoder in (near, far):
            network.route(captioner, encoder, messages.PIPE_CAPTION)
            _passes(captioner, encoder, b"\x14\x20AB")
        assert network["east"].schema.routes() == {
            (captioner.client_id, near.client_id, 192), (captioner.client_id, 1001, 192)
        }  # fmt: skip
        assert network["west"].schema.routes() == {(captioner.client_id, far.client_id, 192)}
        assert network.home_of(far) == "west"
        network.known("west").wait_for_type(messages.ConnectConfirm, client_id=far.client_id)
        assert network.known("west").clients == {1000, far.client_id}
        pids = [network[name].relay.pid for name in ("east", "west")]
        assert network.server.record.problems == []
    for pid in pids:
        assert not Path(f"/proc/{pid}").exists()


def test_relays_differ_in_name_address_schema_and_given_settings(cluster):
    configs = {"west": RelayConfig(fec=False, password="other")}
    names = ("east", "west", "north")
    with RelayNetwork(cluster, names, fec=True, configs=configs, binary=FAKE) as network:
        settings = [network[name].relay.config for name in names]
        assert [one.username for one in settings] == list(names)
        assert [one.fec for one in settings] == [True, False, True]
        assert len({one.bind_address for one in settings}) == 3
        assert len({network[name].schema.name for name in names}) == 3
        assert [network.known(name).id for name in names] == [1000, 1001, 1002]
        assert network.known("west").login.password == "other"
        assert configs["west"].username == "relay"
        network.join("north", "east")
        network.join("north", "west")
        assert network.known("west").clients == {1002}


def test_a_killed_relay_comes_back_at_its_address_and_rejoins(cluster):
    with RelayNetwork(cluster, binary=FAKE) as network:
        network.join("east", "west", keep=True)
        captioner = network.station(Captioner, at="east")
        encoder = network.station(Encoder, at="west")
        network.route(captioner, encoder, messages.PIPE_CAPTION, keep=True)
        before, since = network.known("west"), network.mark()
        key, port = before.des_key, before.tcp_port
        network.kill("west")
        assert not network["west"].relay.running and encoder.closed_by_peer()
        after = network.restart("west")
        assert (after.id, after.tcp_port) == (1001, port) and after.des_key != key
        network.wait_joined("east", "west", since=since)
        again = network.station(Encoder, at="west", client_id=encoder.client_id)
        network.wait_routed(captioner, again, messages.PIPE_CAPTION)
        _passes(captioner, again, b"again")


def test_a_server_stops_and_comes_back_and_is_replaced(cluster):
    with RelayNetwork(cluster, binary=FAKE, backup=True) as network:
        network.join("east", "west", keep=True)
        captioner = network.station(Captioner, at="east")
        encoder = network.station(Encoder, at="west")
        network.route(captioner, encoder, messages.PIPE_CAPTION, keep=True)
        network.stop_server("reset")
        _passes(captioner, encoder, b"away")
        with pytest.raises(LabTimeout, match="east is not logged in"):
            network.wait_logged_in("east", 0.2)
        network.start_server()
        _passes(captioner, encoder, b"back")
        network.replace_server()
        assert network.server_of("east") is network.server_of("west") is network.backup
        assert network.known("west").login.function == "CONTINUE"
        _passes(captioner, encoder, b"other")
        late = network.station(Encoder, at="west")
        network.route(captioner, late, messages.PIPE_CAPTION)
        _passes(captioner, late, b"late")
        assert network.backup.orders.sent_orders == []


def test_without_a_backup_the_server_cannot_be_replaced(cluster):
    with RelayNetwork(cluster, binary=FAKE) as network, pytest.raises(RuntimeError):
        network.replace_server()


@pytest.mark.parametrize(
    ("lines", "taken"),
    [
        (["{} 0, addr", "a", "b", "c", "d"], True),
        (["{} 0, addr", "a", "{} 1, addr"], True),
        (["{} 0, addr", "a"], False),
        (["{} 0, addr", "debug: performing udp registration callback to client 1001"], True),
        (["{} 0, addr", "a", "udp registration ticket not accepted", "b", "c", "d"], False),
        (["{} 0, addr", "a", "{} 1, addr", "udp registration ticket not accepted"], True),
        (["{} 1, addr", "a", "b", "c", "d"], False),
        ([], False),
    ],
)
def test_a_registration_for_program_0_is_accepted_unless_refused(lines, taken):
    came = "UDP registration messages from source 1001, program_idx"
    assert program_0_accepted([line.format(came) for line in lines], 1001) is taken
    assert not program_0_accepted([line.format(came) for line in lines], 100)
