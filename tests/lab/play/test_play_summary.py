"""When a performance succeeds, and what its summary says."""

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
    sent, statuses = {"captions": 10, "audio": 9}, {"east": 0, "west": 0}
    values = {"start": 100.0, "struck": 101.5, "statuses": statuses, **values}
    return Outcome(fault, sent=sent, flows=flows, **values)


def test_a_run_without_loss_or_change_succeeds_and_says_so():
    assert complaints(outcome()) == []
    said = list(lines(outcome()))
    assert said[0] == "Sent: 10 captions, 9 datagrams of audio"
    assert said[2].split() == ["encoder", "1,", "captions", "10", "10", *"0000", "2", "ms"]
    assert said[-1] == "Nothing was lost or changed."


@pytest.mark.parametrize("fault", ["", "cs", "db", "peer", "archive"])
@pytest.mark.parametrize(
    ("account", "words"),
    [
        (ONCE, "2 LOST OR CHANGED"),
        (FOR_GOOD, "2 LOST OR CHANGED"),
        (dataclasses.replace(GOOD, changed=1), "1 CHANGED"),
        (dataclasses.replace(GOOD, repeated=2), "2 DUPLICATED"),
        (dataclasses.replace(GOOD, out_of_order=3), "3 OUT OF ORDER"),
        (dataclasses.replace(GOOD, sent=0, good=0), "nothing was sent in such a short time"),
    ],
)
def test_a_listener_unaffected_by_a_fault_has_to_have_everything(account, words, fault):
    assert complaints(outcome(account, fault=fault)) == [f"encoder 2, captions: {words}"]
    *_, head, last = lines(outcome(account, fault=fault))
    assert head == "The demonstration FAILED:" and last == f"  encoder 2, captions: {words}"


def test_an_affected_listener_may_be_interrupted_once():
    touched = outcome(
        ONCE, fault="peer", touched=True, interruptions=[Interruption("relay west", 3.25)]
    )
    assert complaints(touched) == []
    assert list(lines(touched))[-4:] == [
        "Interruptions:",
        "  relay west: restored after 3.2 s",
        "  encoder 2, captions: 2 lost, nothing arrived for 3.5 s, resumed at second 4.5",
        "All traffic resumed by itself; nothing was lost beyond what the fault affects.",
    ]


@pytest.mark.parametrize(
    ("account", "words"),
    [
        (FOR_GOOD, "did NOT RESUME"),
        (dataclasses.replace(TWICE, gaps=(*ONCE.gaps, *FOR_GOOD.gaps)), "did NOT RESUME"),
        (TWICE, "was interrupted 2 TIMES"),
        (dataclasses.replace(ONCE, changed=1), "1 CHANGED"),
        (dataclasses.replace(ONCE, repeated=1), "1 DUPLICATED"),
    ],
)
def test_an_affected_listener_has_to_have_everything_before_and_after(account, words):
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
def test_the_interruption_has_to_be_at_the_fault(struck, words):
    touched = outcome(ONCE, fault="peer", touched=True, struck=struck)
    said = [f"encoder 2, captions: was interrupted {one}" for one in words]
    assert complaints(touched) == said


def test_a_flow_that_never_resumes_is_reported_lost_to_the_end():
    said = list(lines(outcome(FOR_GOOD, fault="peer", touched=True)))
    assert "  encoder 2, captions: 2 lost from second 1.0 on, to the end" in said


@pytest.mark.parametrize("fault", ["", "archive"])
@pytest.mark.parametrize(
    ("account", "words"),
    [
        (GOOD, []),
        (dataclasses.replace(GOOD, slowest_secs=1.0), []),
        (dataclasses.replace(GOOD, slowest_secs=1.25), ["dated up to 1.2 s TOO LATE"]),
        (ONCE, ["2 LOST OR CHANGED"]),
        (dataclasses.replace(GOOD, repeated=1), ["1 DUPLICATED"]),
        (dataclasses.replace(GOOD, out_of_order=1), ["1 OUT OF ORDER"]),
    ],
)
def test_recorded_times_have_to_be_right(account, words, fault):
    one = Outcome(fault, flows=[Flow("archive", "captions", account, within_secs=1.0)])
    assert complaints(one) == [f"archive, captions: {word}" for word in words]


def test_in_a_run_with_a_fault_late_items_were_interrupted():
    slow = dataclasses.replace(GOOD, slowest_secs=3.5)
    assert complaints(outcome(slow)) == []
    assert complaints(outcome(slow, fault="db")) == ["encoder 2, captions: DELAYED by 3.5 s"]
    assert complaints(outcome(slow, fault="db"), delay_secs=4) == []
    assert complaints(outcome(slow, fault="peer", touched=True)) == []


@pytest.mark.parametrize("status", [1, -9])
def test_a_relay_with_a_bad_exit_status_fails_the_run(status):
    one = outcome()
    one.statuses["west"] = status
    assert complaints(one) == [f"relay west ended with status {status}"]


def test_other_problems_are_reported_once_in_one_line():
    one = outcome()
    one.note_problem("relay west", LabTimeout("still runs; last lines:\n  log\n  log"))
    for _ in range(2):
        one.note_problem("source", AssertionError())
    assert complaints(one) == ["relay west: still runs; last lines:", "source: AssertionError"]


def test_a_fault_that_interrupts_nothing_says_so():
    said = list(lines(outcome(fault="cs")))
    assert said[-3:] == [
        "Interruptions:", "  no captions, no datagrams", "Nothing was lost or changed.",
    ]  # fmt: skip
    assert str(Interruption("the server", None)) == "the server: did not come back"


def test_without_listeners_there_is_no_success():
    assert complaints(Outcome()) == ["there was no listener"]
