"""A termination signal ends the relay in order and at once, whatever its archive is doing."""

from __future__ import annotations

import socket
import subprocess

import pytest
from archive_tools import make_lines
from scripted_endpoint import PASS_SECS, Answer

from lab.protocol.messages import Caption
from lab.stations.caption_stations import Captioner
from lab.support.addresses import new_address
from lab.support.stopwatch import Stopwatch
from lab.support.waiting import patient, wait_until

pytestmark = pytest.mark.threads

AT_ONCE_SECS = 1.0
#: Sources and captions of each that wait when the first of them is posted.
SOURCES, CAPTIONS = 40, 1500


def ends_at_once(relay):
    watch = Stopwatch(relay.pid)
    relay.signal()
    wait_until(lambda: relay._stat_fields()[0] == "Z", 10, "the process ended")  # noqa: SLF001
    took_secs = watch.secs()
    assert relay.wait_exit() == 0
    assert took_secs < patient(AT_ONCE_SECS)
    assert relay.sanitizer_reports() == []
    assert relay.log.count("Cleaning up main method") == 1


def captioning(make_relay, make_station, route, endpoint, **options):
    """A relay that has something to archive."""
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1, **options)
    for line in make_lines(relay, make_station, route, 3):
        line.send_all(10)
    return relay


def test_with_captions_that_are_not_due(make_endpoint, make_relay, make_station, route):
    ends_at_once(captioning(make_relay, make_station, route, make_endpoint()))


def test_when_everything_is_posted(make_endpoint, make_relay, make_station, route):
    endpoint = make_endpoint()
    relay = captioning(make_relay, make_station, route, endpoint)
    endpoint.wait_for(3)
    ends_at_once(relay)


@pytest.mark.parametrize(
    "answer",
    [Answer("silence"), Answer("endless"), Answer(delay_secs=30)],
    ids=["silence", "endless", "slow"],
)
def test_in_the_middle_of_a_post(make_endpoint, make_relay, make_station, route, answer):
    endpoint = make_endpoint(answer)
    relay = captioning(make_relay, make_station, route, endpoint)
    endpoint.wait_for(1)
    ends_at_once(relay)


def test_between_attempts(make_endpoint, make_relay, make_station, route):
    endpoint = make_endpoint(start=False)
    relay = captioning(make_relay, make_station, route, endpoint)
    relay.log.expect("Consecutive retry errors: 2", PASS_SECS)
    ends_at_once(relay)


def test_with_a_large_backlog(make_endpoint, make_relay, make_station, route):
    """Some of it not even handed over: the first post arrives long before the last."""
    endpoint = make_endpoint(Answer("silence"))
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    captioners = [make_station(relay, Captioner) for _ in range(SOURCES)]
    for captioner in captioners:
        captioner.send_all(Caption(b"\x14\x20%06d" % number) for number in range(CAPTIONS))
    endpoint.wait_for(1)
    ends_at_once(relay)


@pytest.fixture
def silent_name_server():
    """A name server that never answers; options for a relay that uses it."""
    address = new_address()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asked:
        try:
            asked.bind((address, 53))
            subprocess.run(["unshare", "--mount", "true"], check=True, capture_output=True)
        except (PermissionError, subprocess.CalledProcessError):
            pytest.skip("only root can give a process a name server of its own")
        asked.setblocking(False)
        yield asked


def test_while_it_asks_for_the_address(
    make_endpoint, make_relay, make_station, route, silent_name_server, tmp_path
):
    settings = tmp_path / "resolv.conf"
    settings.write_text(f"nameserver {silent_name_server.getsockname()[0]}\n")
    mount = 'mount --bind "$0" /etc/resolv.conf && exec "$@"'
    endpoint = make_endpoint(start=False)
    endpoint.url = "http://archive.test/"
    relay = captioning(
        make_relay, make_station, route, endpoint,
        wrapper=["unshare", "--mount", "sh", "-c", mount, str(settings)],
    )  # fmt: skip

    def asks() -> bool:
        try:
            return b"\x07archive\x04test" in silent_name_server.recv(1024)
        except BlockingIOError:
            return False

    wait_until(asks, PASS_SECS, "the name server is asked")
    ends_at_once(relay)
