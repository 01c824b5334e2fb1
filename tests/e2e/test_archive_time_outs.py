"""Servers that never complete a post: it is abandoned after a while, and retried."""

from __future__ import annotations

import socket
import time

import pytest
from archive_tools import assert_archived, make_lines
from scripted_endpoint import PASS_SECS, Answer

from lab.support.waiting import patient

pytestmark = pytest.mark.long

FAILED = "ERROR: error sending POST (code 28) for "
RETRY = "Consecutive retry errors: "
ISSUE = "WARNING: Archive posting issue - Can't connect to server"
#: The most connections that a kernel queues for a program that accepts none.
ENOUGH = 8


@pytest.mark.timeout(400)
def test_an_archive_that_never_answers_times_out_after_a_minute(
    make_endpoint, make_relay, make_station, route
):
    """The same post is then sent again; captions are switched and kept all the time."""
    endpoint = make_endpoint(Answer("silence"))
    relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
    (line,) = make_lines(relay, make_station, route, 1)
    line.send_all(10)
    endpoint.wait_for(1)
    while not endpoint.has(2, 0.1):
        line.send()
    first, second = endpoint.posts[:2]
    assert first.body == second.body
    assert 61.5 < second.at - first.at < 62 + patient(5)
    relay.log.expect_in_order(FAILED, RETRY + "1")
    line.assert_never_delayed()
    posts = endpoint.wait_for(5)[1:]
    assert assert_archived(posts, line) > 100


class FullListener:
    """A listener with a full backlog: no further connection is ever completed."""

    def __init__(self, address: str, port: int) -> None:
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind((address, port))
        self._listener.listen(0)
        self._clients: list[socket.socket] = []
        while self._takes_one_more((address, port)):
            assert len(self._clients) < ENOUGH

    def _takes_one_more(self, place: tuple[str, int]) -> bool:
        client = socket.socket()
        client.settimeout(0.5)
        try:
            client.connect(place)
        except TimeoutError:
            client.close()
            return False
        self._clients.append(client)
        return True

    def close(self) -> None:
        for sock in (self._listener, *self._clients):
            sock.close()


@pytest.mark.timeout(300)
def test_a_connection_that_is_never_made_times_out_after_fifteen_seconds(
    make_endpoint, make_relay, make_station, route
):
    endpoint = make_endpoint(start=False)
    full = FullListener(endpoint.address, endpoint.port)
    try:
        relay = make_relay(archive_endpoint=endpoint.url, archive_interval_secs=1)
        (line,) = make_lines(relay, make_station, route, 1)
        line.send_all(10)
        relay.log.expect_in_order(FAILED, RETRY + "1", within_secs=PASS_SECS)
        begun = time.monotonic()
        relay.log.expect(RETRY + "2", PASS_SECS)
        assert 16 < time.monotonic() - begun < 17 + patient(3)
        assert relay.log.count(FAILED) == 2
    finally:
        full.close()
    endpoint.open()
    relay.log.expect(ISSUE)
    line.send_all(3)
    posts = endpoint.wait_for(2)
    assert assert_archived(posts, line) == 13
    line.assert_never_delayed()
