"""When a performance is a success, and what its summary says."""

from __future__ import annotations

import dataclasses

import pytest

from lab.play.account import Account, Gap
from lab.play.summary import Flow, Interruption, Outcome, complaints, lines
from lab.support.waiting import LabTimeout

GOOD = Account(
    sent=10, good=10, changed=0, repeated=0, out_of_order=0, gaps=(), slowest_secs=0.002
)
ONCE = dataclasses.replace(GOOD, good=8, gaps=(Gap(2, 100.9, 102.0, 101.0, 104.5),))
TWICE = dataclasses.replace(ONCE, good=7, gaps=(*ONCE.gaps, Gap(1, 104.4, 105.2, 105.0, 106.0)))
FOR_GOOD = dataclasses.replace(GOOD, good=8, gaps=(Gap(2, 100.9, 102.0, 101.0, None),))


def outcome(account=GOOD, *, fault="", touched=False, **values):
    flows = [Flow("encoder 1", "captions", GOOD), Flow("encoder 2", "captions", account, touched)]
    sent, statuses = {"captions": 10, "sound": 9}, {"east": 0, "west": 0}
    values = {"start": 100.0, "struck": 101.5, "statuses": statuses, **values}
    return Outcome(fault, sent=sent, flows=flows, **values)


def test_nothing_lost_and_nothing_changed_is_a_success_and_is_said():
    assert complaints(outcome()) == []
    said = list(lines(outcome()))
    assert said[0] == "Sent: 10 captions, 9 datagrams of sound"
    assert said[2].split() == ["encoder", "1,", "captions", "10", "10", *"0000", "2", "ms"]
    assert said[-1] == "Nothing was lost or changed."


@pytest.mark.parametrize("fault", ["", "cs", "db", "peer", "archive"])
@pytest.mark.parametrize(
    ("account", "words"),
    [
        (ONCE, "2 LOST OR CHANGED"),
        (FOR_GOOD, "2 LOST OR CHANGED"),
        (dataclasses.replace(GOOD, changed=1), "1 CHANGED"),
        (dataclasses.replace(GOOD, repeated=2), "2 came TWICE"),
        (dataclasses.replace(GOOD, out_of_order=3), "3 OUT OF ORDER"),
        (dataclasses.replace(GOOD, sent=0, good=0), "nothing was sent in so short a time"),
    ],
)
def test_who_is_not_touched_by_a_fault_has_everything(account, words, fault):
    assert complaints(outcome(account, fault=fault)) == [f"encoder 2, captions: {words}"]
    *_, head, last = lines(outcome(account, fault=fault))
    assert head == "This was NO SUCCESS:" and last == f"  encoder 2, captions: {words}"


def test_who_is_touched_may_be_interrupted_once():
    touched = outcome(
        ONCE, fault="peer", touched=True, interruptions=[Interruption("relay west", 3.25)]
    )
    assert complaints(touched) == []
    assert list(lines(touched))[-4:] == [
        "What was interrupted:",
        "  relay west: whole again after 3.2 s",
        "  encoder 2, captions: 2 lost, nothing came for 3.5 s, again from second 4.5 on",
        "All of it flowed again by itself; what the fault does not touch lost nothing.",
    ]


@pytest.mark.parametrize(
    ("account", "words"),
    [
        (FOR_GOOD, "did NOT FLOW AGAIN"),
        (dataclasses.replace(TWICE, gaps=(*ONCE.gaps, *FOR_GOOD.gaps)), "did NOT FLOW AGAIN"),
        (TWICE, "was interrupted 2 TIMES"),
        (dataclasses.replace(ONCE, changed=1), "1 CHANGED"),
        (dataclasses.replace(ONCE, repeated=1), "1 came TWICE"),
    ],
)
def test_who_is_touched_has_everything_before_and_after(account, words):
    touched = outcome(account, fault="peer", touched=True)
    assert complaints(touched) == [f"encoder 2, captions: {words}"]


@pytest.mark.parametrize(
    ("struck", "words"),
    [
        (100.0, []),
        (98.5, ["LONG AFTER THE FAULT"]),
        (104.0, []),
        (104.5, ["BEFORE THE FAULT"]),
    ],
)
def test_the_interruption_has_to_be_the_fault_s(struck, words):
    touched = outcome(ONCE, fault="peer", touched=True, struck=struck)
    said = [f"encoder 2, captions: was interrupted {one}" for one in words]
    assert complaints(touched) == said


def test_what_never_comes_again_is_said_to_be_missing_to_the_end():
    said = list(lines(outcome(FOR_GOOD, fault="peer", touched=True)))
    assert "  encoder 2, captions: 2 lost from second 1.0 on, to the end" in said


@pytest.mark.parametrize("fault", ["", "archive"])
@pytest.mark.parametrize(
    ("account", "words"),
    [
        (GOOD, []),
        (dataclasses.replace(GOOD, slowest_secs=1.0), []),
        (dataclasses.replace(GOOD, slowest_secs=1.25), ["noted up to 1.2 s TOO LATE"]),
        (ONCE, ["2 LOST OR CHANGED"]),
        (dataclasses.replace(GOOD, repeated=1), ["1 came TWICE"]),
        (dataclasses.replace(GOOD, out_of_order=1), ["1 OUT OF ORDER"]),
    ],
)
def test_where_times_are_noted_they_have_to_be_right(account, words, fault):
    one = Outcome(fault, flows=[Flow("archive", "captions", account, within_secs=1.0)])
    assert complaints(one) == [f"archive, captions: {word}" for word in words]


def test_in_a_run_with_a_fault_what_comes_late_was_interrupted():
    slow = dataclasses.replace(GOOD, slowest_secs=3.5)
    assert complaints(outcome(slow)) == []
    assert complaints(outcome(slow, fault="db")) == ["encoder 2, captions: HELD UP for 3.5 s"]
    assert complaints(outcome(slow, fault="db"), held_up_secs=4) == []
    assert complaints(outcome(slow, fault="peer", touched=True)) == []


@pytest.mark.parametrize("status", [1, -9])
def test_a_relay_that_ends_badly_spoils_everything(status):
    one = outcome()
    one.statuses["west"] = status
    assert complaints(one) == [f"relay west ended with status {status}"]


def test_what_went_wrong_elsewhere_is_told_once_in_one_line():
    one = outcome()
    one.note_problem("relay west", LabTimeout("still runs; last lines:\n  log\n  log"))
    for _ in range(2):
        one.note_problem("source", AssertionError())
    assert complaints(one) == ["relay west: still runs; last lines:", "source: AssertionError"]


def test_a_fault_that_interrupts_nobody_says_so():
    said = list(lines(outcome(fault="cs")))
    assert said[-3:] == [
        "What was interrupted:", "  no caption and no datagram", "Nothing was lost or changed.",
    ]  # fmt: skip
    assert str(Interruption("the server", None)) == "the server: did not come back"


def test_without_listeners_there_is_no_success():
    assert complaints(Outcome()) == ["nobody listened"]
