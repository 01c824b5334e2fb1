"""What the demonstration counts as arrived, lost or changed, and how long a gap lasts."""

from __future__ import annotations

import pytest

from lab.play.account import Gap, Item, compare

NEVER = float("-inf")
SENT = [Item(float(second), b"%d" % second) for second in range(6)]


def later(*seconds, by=0.25):
    """What was sent in these seconds, arriving a little later."""
    return [Item(second + by, b"%d" % second) for second in seconds]


def test_all_that_arrives_unchanged_and_in_order_is_good():
    account = compare(SENT, later(0, 1, 2, 3, 4, 5))
    assert (account.sent, account.good, account.lost, account.gaps) == (6, 6, 0, ())
    assert (account.changed, account.repeated, account.out_of_order) == (0, 0, 0)
    assert account.slowest_secs == 0.25


@pytest.mark.parametrize(
    ("arrived", "gaps"),
    [
        ((0, 1, 4, 5), [Gap(2, 1.0, 2.0, 1.25, 4.25)]),
        ((0, 2, 4, 5), [Gap(1, 0.0, 1.0, 0.25, 2.25), Gap(1, 2.0, 3.0, 2.25, 4.25)]),
        ((2, 3, 4, 5), [Gap(2, NEVER, 0.0, 0.0, 2.25)]),
        ((0, 1, 2), [Gap(3, 2.0, 3.0, 2.25, None)]),
        ((0, 2), [Gap(1, 0.0, 1.0, 0.25, 2.25), Gap(3, 2.0, 3.0, 2.25, None)]),
        ((), [Gap(6, NEVER, 0.0, 0.0, None)]),
    ],
)
def test_a_gap_lasts_from_the_arrival_before_to_the_arrival_after(arrived, gaps):
    account = compare(SENT, later(*arrived))
    assert list(account.gaps) == gaps
    assert account.lost == 6 - len(arrived) == sum(gap.lost for gap in gaps)
    assert account.good == len(arrived)


def test_an_item_that_was_not_sent_is_changed_and_the_original_lost():
    account = compare(SENT, [*later(0, 1), Item(2.1, b"x"), *later(3, 4, 5)])
    assert (account.good, account.changed, account.lost) == (5, 1, 1)


def test_an_arrival_before_the_sending_does_not_match():
    account = compare(SENT, [Item(2.9, b"3")])
    assert (account.good, account.changed) == (0, 1)


def test_duplicates_count_once():
    account = compare(SENT, [*later(0, 1, 2, 3, 4, 5), Item(5.5, b"1")])
    assert (account.good, account.repeated, account.lost) == (6, 1, 0)


def test_an_item_that_overtakes_another_is_out_of_order():
    arrived = [Item(2.25, b"2"), Item(2.5, b"1"), *later(3, 4, 5)]
    account = compare(SENT, later(0) + arrived)
    assert (account.good, account.out_of_order, account.slowest_secs) == (6, 1, 1.5)


def test_an_arrival_belongs_to_the_latest_round_of_the_clip():
    sent = [Item(float(second), b"%d" % (second % 2)) for second in range(6)]
    account = compare(sent, [Item(0.1, b"0"), Item(4.1, b"0"), Item(5.1, b"1")])
    assert account.gaps == (Gap(3, 0.0, 1.0, 0.1, 4.1),)
    assert account.slowest_secs == pytest.approx(0.1)


def test_a_late_listener_may_or_may_not_have_earlier_items():
    account = compare(SENT, later(2, 3, 4, 5), awaited_from=2.5)
    assert (account.sent, account.good, account.changed, account.gaps) == (3, 3, 0, ())
    account = compare(SENT, later(5), awaited_from=2.5)
    assert (account.sent, account.good, account.gaps) == (3, 1, (Gap(2, 2.0, 3.0, 3.0, 5.25),))
    assert compare(SENT, [], awaited_from=float("inf")).sent == 0


def test_nothing_is_missing_when_nothing_was_sent():
    account = compare([], [])
    assert (account.sent, account.good, account.lost, account.slowest_secs) == (0, 0, 0, 0.0)
    assert compare([], [Item(1.0, b"x")]).changed == 1
