"""Makes the package `lab` importable wherever the tests are started; fixtures with relays."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from stand_in_relay import StandInRelay  # noqa: E402

from lab.protocol import messages  # noqa: E402
from lab.server.connection_server import ConnectionServer  # noqa: E402


@pytest.fixture
def two_relay_server():
    """A connection server that must have recorded no problems at the end."""
    with ConnectionServer() as server:
        yield server
    assert server.record.problems == []


@pytest.fixture
def log_in():
    """Logs a stand-in relay in: `log_in(server, "east", function="CONTINUE")`. Its ports identify
    each relay; options go to StandInRelay.at."""
    relays = []

    def make(server, name, function="RELAY", public_address=0, **options):
        relay = StandInRelay.at(server, relay_name=name, **options)
        relays.append(relay)
        number = {"east": 1, "west": 2}.get(name, 3)
        relay.port = messages.RelayPort(10000 + number, 20000 + number, public_address, 443)
        known = server.relays.find(name)
        logins = 1 + (len(known.logins) if known else 0)
        assert relay.log_in(server, function) == "OK"
        server.relays.wait_for(name, logins=logins)
        return relay

    yield make
    for relay in relays:
        relay.close()
