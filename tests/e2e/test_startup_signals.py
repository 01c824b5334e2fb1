"""Signals: an orderly end at any time, one request is enough, and broken pipes are harmless."""

from __future__ import annotations

import signal

import pytest

from lab.server.connection_server import Fault

pytestmark = pytest.mark.threads

SHUT_DOWN_LINES = ("0 Audio packets forwarded.", "Cleaning up main method")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_termination_signal_ends_the_process_in_order(relay, number):
    relay.signal(number)
    assert relay.wait_exit() == 0
    # The very last lines: the process ends at once, without the clean-ups of other ends.
    assert [line.partition(" - ")[2] for line in relay.log.lines[-2:]] == [*SHUT_DOWN_LINES]


def test_more_signals_while_the_process_ends_have_no_effect(relay):
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM, signal.SIGPIPE):
        relay.signal(number)
    assert relay.wait_exit() == 0
    assert relay.log.count("Cleaning up main method") == 1


def test_sigpipe_changes_nothing(relay, make_station):
    for _ in range(20):
        relay.signal(signal.SIGPIPE)
    make_station(relay)
    assert relay.running


def test_the_first_login_may_be_interrupted(make_relay, server):
    server.stop_listening()
    relay = make_relay(ready=False)
    relay.log.expect("connection to server failed with code -1...", 20)
    assert relay.stop() == 0
    relay.log.expect_in_order(*SHUT_DOWN_LINES)


def test_waiting_for_a_silent_server_may_be_interrupted(make_relay, server):
    server.script.fault("challenge", Fault("silence"), times=None)
    relay = make_relay(ready=False)
    relay.log.expect("Finished non-blocking connect to connserver", 20)
    assert relay.stop(4) == 0
    relay.log.expect_in_order(*SHUT_DOWN_LINES)
    assert relay.log.count("waiting for login response timed out") == 0


def test_a_stopped_and_continued_process_keeps_running(relay, make_station):
    relay.signal(signal.SIGSTOP)
    relay.signal(signal.SIGCONT)
    make_station(relay)


@pytest.mark.parametrize("stdin", ["null", "closed", "pipe"])
def test_standard_input_does_not_matter(make_relay, make_station, stdin):
    relay = make_relay(stdin=stdin)
    make_station(relay)


def test_clients_see_the_end_of_their_connection(relay, make_station):
    station = make_station(relay)
    relay.stop()
    assert station.closed_by_peer(within_secs=5)
