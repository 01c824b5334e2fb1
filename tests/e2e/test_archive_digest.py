"""A real web server that requires a password, and the headers of the posts to it."""

from __future__ import annotations

import pytest
from archive_tools import assert_archived, make_lines
from scripted_endpoint import PASS_SECS

from lab.archive.endpoint import ArchiveEndpoint


@pytest.fixture
def apache():
    """A web server with digest authentication."""
    with ArchiveEndpoint() as endpoint:
        yield endpoint


def test_posts_with_the_right_password_are_stored(apache, make_relay, make_station, route):
    """And each post has the configured content type, and a number."""
    relay = make_relay(
        archive_endpoint=f"{apache.url}?from=relay",
        archive_interval_secs=1,
        archive_username=apache.user,
        archive_password=apache.password,
        archive_content_type="application/x-captions",
        archive_append_seq=True,
    )
    lines = make_lines(relay, make_station, route, 3)
    for line in lines:
        line.send_all(30)
    posts = apache.wait_posts(len(lines), PASS_SECS)
    assert {post.user for post in posts} == {apache.user}
    assert {post.content_type for post in posts} == {"application/x-captions; charset=utf-8"}
    assert [post.uri for post in posts] == [
        f"/captions?from=relay&seq={number}" for number in (2, 3, 4)
    ]
    for line in lines:
        assert assert_archived(posts, line) == 30
    for line in lines:
        line.send()
    posts = apache.wait_posts(2 * len(lines), PASS_SECS)
    assert [post.uri[-5:] for post in posts[3:]] == ["seq=5", "seq=6", "seq=7"]
    for line in lines:
        assert assert_archived(posts, line) == 31
    assert relay.log.count("WARNING: Archive posting issue") == 0


@pytest.mark.parametrize("password", ["wrong", None])
def test_without_the_password_nothing_is_stored_and_the_log_says_so(
    apache, make_relay, make_station, route, password
):
    """What the server refuses is not retried."""
    user = apache.user if password else None
    relay = make_relay(
        archive_endpoint=apache.url,
        archive_interval_secs=1,
        archive_username=user,
        archive_password=password,
    )
    lines = make_lines(relay, make_station, route, 2)
    for line in lines:
        line.send_all(5)
    warning = relay.log.expect("WARNING: Archive posting issue", 2 * PASS_SECS)
    assert warning.endswith("WARNING: Archive posting issue - HTTP 401")
    assert relay.log.count("Won't retry") == 2
    assert relay.log.count("Consecutive retry errors") == 0
    assert apache.posts() == []
