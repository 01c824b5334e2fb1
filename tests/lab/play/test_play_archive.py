"""What the demonstration checks in its archive: contents, origin, and how it is reported."""

from __future__ import annotations

from types import SimpleNamespace

import pytest

from lab.archive import posted_json
from lab.archive.endpoint import Post
from lab.archive.posted_json import Payload, Record
from lab.play.account import Item
from lab.play.archive import Archive, awaited, words

SENT = [Item(1700000000.1239, b"AB"), Item(1700000001.5, b"C")]
SENT += [Item(1700000002.0, b"\x14\x2c"), Item(1700000002.5, b"\x14\x2c"), Item(1700000003, b"DE")]
STORED = [
    Record(1, 1700000000.123, b"\xc1\xc2"),
    Record(1, 1700000002.001, b"\x94\x2c"),
    Record(1, 1700000003.75, b"\xc4\x45"),
]


def post(*records, feed_id=2001, uri="/captions/east"):
    body = posted_json.write(Payload(1700000010, 10, feed_id, list(records)))
    return Post(1700000010.5, uri, "text/json; charset=utf-8", "archivist", body)


def archive_with(*posts):
    return Archive(SimpleNamespace(posts=lambda: list(posts)))


def account(*posts):
    return archive_with(*posts).account(SENT, 1700000000)


def test_the_archive_has_to_hold_what_a_relay_keeps():
    assert awaited(SENT) == [
        Item(1700000000.123, b"\xc1\xc2"),
        Item(1700000002.0, b"\x94\x2c"),
        Item(1700000003.0, b"\xc4\x45"),
    ]


def test_captions_are_good_in_one_post_or_several():
    for posts in ([post(*STORED)], [post(STORED[0]), post(*STORED[1:])]):
        found = account(*posts)
        assert (found.sent, found.good, found.lost, found.changed) == (3, 3, 0, 0)
        assert found.slowest_secs == pytest.approx(0.75)
        assert archive_with(*posts).holds(3) and not archive_with(*posts).holds(4)


def test_missing_changed_and_reordered_captions_are_found():
    (gap,) = account(post(STORED[0], STORED[2])).gaps
    assert gap.lost == 1 and gap.sent_from == pytest.approx(2.0)
    found = account(post(STORED[0], STORED[1]._replace(data=b"\x94\xad"), STORED[2]))
    assert (found.good, found.lost, found.changed) == (2, 1, 1)
    found = account(post(*STORED[1:]), post(STORED[0]))
    assert (found.good, found.out_of_order) == (3, 1)
    found = account(post(*STORED), post(STORED[0]))
    assert (found.good, found.repeated) == (3, 1)
    assert account().gaps[0].ended is None


def test_a_caption_dated_before_its_sending_does_not_match():
    found = account(post(STORED[0]._replace(time=1700000000.122), *STORED[1:]))
    assert (found.good, found.changed) == (2, 1)


def test_captions_of_the_other_field_do_not_match():
    found = account(post(*STORED, STORED[0]._replace(field=2, data=b"\xc1\xc2")))
    assert found.good == 3 and found.changed + found.repeated == 1


def test_unexpected_posts_are_described():
    archive = archive_with(
        post(*STORED), post(STORED[0], uri="/captions/west"), post(STORED[1], feed_id=7)
    )
    assert archive.unexpected_posts("east", 2001) == [
        "archive: west posted captions of client 2001",
        "archive: east posted captions of client 7",
    ]


def test_a_post_is_described_in_one_line():
    assert words(post(STORED[0])) == "stores 1 caption of client 2001 from east, 137 bytes"
    assert words(post(*STORED)).startswith("stores 3 captions of client 2001 from east, ")
    assert "Expecting value" in words(post()._replace(body=b"?"))


def test_each_relay_has_its_own_path_and_the_same_account():
    archive = Archive()
    try:
        text = archive.config("east").render()
        assert f"endpoint = {archive.endpoint.url}/east\n" in text
        assert f"username = {archive.endpoint.user}\n" in text
        assert f"password = {archive.endpoint.password}\n" in text
        assert "enable = yes\n" in text and "interval = 1\n" in text
    finally:
        archive.endpoint.close()
