"""Archive settings that cannot work: the log says what is wrong, and everything else works."""

from __future__ import annotations

import pytest
from archive_tools import assert_archived, make_lines
from scripted_endpoint import PASS_SECS

ISSUE = "WARNING: Archive posting issue - "
#: A name for which no name server is asked.
UNRESOLVABLE = f"http://{'x' * 64}.invalid/archive"
#: The longest address, and the longest name with password, that are accepted.
LONGEST_URL = 1023
LONGEST_CREDENTIALS = 255

CASES = {
    "unresolvable": (UNRESOLVABLE, "Can't resolve URL", "(code 6)", f"URL was {UNRESOLVABLE}"),
    "bad address": (
        "http://127.0.0.1:port/", "Can't resolve URL", "(code 3)", "URL was http://127.0.0.1:port/"
    ),
    "no address": ("", "Can't resolve URL", "(code 3)", "URL was "),
    "other scheme": ("file:///dev/null", "Send Error", "(code 1)", "Won't retry"),
    "too long": (
        "http://127.0.0.1/" + "x" * (LONGEST_URL - 16), "Can't resolve URL", "(code 3)",
        f"ERROR: archive URL of {LONGEST_URL + 1} characters is too long, not used",
    ),
}  # fmt: skip


def serves(relay, make_station, route, status):
    """Asserts that captions cross, and that the archive's error is logged and not retried."""
    lines = make_lines(relay, make_station, route, 2)
    for line in lines:
        line.send_all(10)
    relay.log.expect(ISSUE + status, 2 * PASS_SECS)
    for line in lines:
        line.send()
        line.assert_never_delayed()
    assert relay.log.count("Consecutive retry errors") == 0
    assert relay.log.count("Won't retry") == 2


@pytest.mark.parametrize("case", CASES.values(), ids=CASES)
def test_an_address_that_cannot_work_is_logged(make_relay, make_station, route, case):
    url, status, code, line = case
    relay = make_relay(archive_endpoint=url, archive_interval_secs=1)
    serves(relay, make_station, route, status)
    relay.log.expect(f"ERROR: error sending POST {code} for ")
    relay.log.expect(line)


@pytest.mark.parametrize("key", ["endpoint", "interval"])
def test_endpoint_or_interval_alone_is_not_enough(
    make_endpoint, make_relay, make_station, route, key
):
    """Then captions are not archived, even after the default interval of a minute."""
    endpoint = make_endpoint()
    value = {"endpoint": endpoint.url, "interval": 1}[key]
    keys = {("Archive", "enable"): "yes", ("Archive", key): value}
    relay = make_relay(keys=keys)
    relay.log.expect("WARNING: archive without endpoint and interval, nothing can be posted")
    (line,) = make_lines(relay, make_station, route, 1)
    line.send_all(10)
    relay.log.expect("Newly collecting caption feedback from source")
    assert relay.log.count("Attempting Caption archive to endpoint") == 0
    assert relay.log.count("CURL base destination set to") == 0
    assert endpoint.posts == []


def test_the_longest_address_and_password_are_used(
    make_endpoint, make_relay, make_station, route
):
    endpoint = make_endpoint()
    relay = make_relay(
        archive_endpoint=endpoint.url.ljust(LONGEST_URL, "x"),
        archive_interval_secs=1,
        archive_username="u" * 200,
        archive_password="p" * (LONGEST_CREDENTIALS - 201),
    )
    (line,) = make_lines(relay, make_station, route, 1)
    line.send()
    # Digest: the caption follows once the server has answered a post without it.
    post, *_ = endpoint.wait_for(1)
    assert len(f"http://{endpoint.address}:{endpoint.port}{post.target}") == LONGEST_URL
    relay.log.expect(f"CURL digest auth set up for {'u' * 200}:ppp")


def test_a_password_that_is_too_long_is_not_used(make_endpoint, make_relay, make_station, route):
    """Captions are posted without it; the server may refuse them."""
    endpoint = make_endpoint()
    relay = make_relay(
        archive_endpoint=endpoint.url,
        archive_interval_secs=1,
        archive_username="u" * 200,
        archive_password="p" * (LONGEST_CREDENTIALS - 200),
    )
    relay.log.expect("ERROR: archive user name and password are too long, not used")
    (line,) = make_lines(relay, make_station, route, 1)
    line.send_all(5)
    posts = endpoint.wait_for(1)
    assert assert_archived(posts, line) == 5
    assert "authorization" not in posts[0].headers


def test_an_address_without_room_for_its_number_is_logged(
    make_endpoint, make_relay, make_station, route
):
    endpoint = make_endpoint()
    relay = make_relay(
        archive_endpoint=endpoint.url.ljust(LONGEST_URL, "x"),
        archive_interval_secs=1,
        archive_append_seq=True,
    )
    serves(relay, make_station, route, "Can't resolve URL")
    assert endpoint.posts == []
