"""The environment that a relay gets: checked with `env` in its place, which prints it."""

from __future__ import annotations

import pytest

from lab.relay.relay import Relay


@pytest.mark.parametrize("name", ["PGHOST", "http_proxy", "HTTPS_PROXY", "all_proxy"])
def test_only_given_settings_direct_a_relay(monkeypatch, name):
    monkeypatch.setenv(name, "elsewhere")
    monkeypatch.setenv("KEPT", "kept")
    relay = Relay(env={"PGPORT": "5"}, binary="/usr/bin/env", arguments=[])
    try:
        assert relay.start().wait_exit() == 0
        assert {"KEPT=kept", "PGPORT=5"} <= set(relay.log.lines)
        assert not [line for line in relay.log.lines if line.endswith("=elsewhere")]
    finally:
        relay.close()
