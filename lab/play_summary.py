"""Judges a performance and puts it into words."""

from __future__ import annotations

import dataclasses
from collections.abc import Iterable, Iterator

from lab.play_account import Account, Gap

#: What arrives later than this after a fault was held up, though it was not lost.
HELD_UP_SECS = 3.0


@dataclasses.dataclass(frozen=True)
class Flow:
    """One row of items as one listener had it."""

    listener: str
    at: str
    name: str
    account: Account
    #: Whether the fault may interrupt it.
    touched: bool = False

    def __str__(self) -> str:
        return f"{self.listener}, {self.name}"


@dataclasses.dataclass(frozen=True)
class Interruption:
    """Something else than a flow that a fault took away, and for how long; None: for good."""

    what: str
    secs: float | None

    def __str__(self) -> str:
        return f"{self.what}: " + ("for good" if self.secs is None else f"{self.secs:.1f} s")


@dataclasses.dataclass
class Outcome:
    """All that is known of a performance."""

    #: The name of the fault, "" if there was none.
    fault: str = ""
    #: What was sent, by name and count.
    sent: dict[str, int] = dataclasses.field(default_factory=dict)
    flows: list[Flow] = dataclasses.field(default_factory=list)
    interruptions: list[Interruption] = dataclasses.field(default_factory=list)
    #: What went wrong beside the flows.
    problems: list[str] = dataclasses.field(default_factory=list)
    #: The exit status of each relay.
    statuses: dict[str, int] = dataclasses.field(default_factory=dict)


def complaints(outcome: Outcome, held_up_secs: float = HELD_UP_SECS) -> list[str]:
    """Why a performance was no success; nothing for a good one."""
    found = [f"no {name} were sent, the time is too short" for name, n in outcome.sent.items() if not n]
    if not outcome.flows:
        found.append("nobody listened")
    for flow in outcome.flows:
        if flow.account.sent:
            limit = held_up_secs if outcome.fault else None
            found += [f"{flow}: {words}" for words in _wrong_with(flow, limit)]
        else:
            found.append(f"{flow}: nothing was to be heard")
    found += outcome.problems
    found += [
        f"relay {name} ended with status {status}"
        for name, status in outcome.statuses.items()
        if status != 0
    ]
    return found


def _wrong_with(flow: Flow, held_up_secs: float | None) -> Iterator[str]:
    account = flow.account
    if not account.sound:
        yield "something arrived CHANGED, TWICE OR IN ANOTHER ORDER"
    if flow.touched:
        if account.gaps and account.gaps[-1].ended is None:
            yield "did NOT FLOW AGAIN"
        elif len(account.gaps) > 1:
            yield "was interrupted MORE THAN ONCE"
        return
    if account.lost:
        yield f"{account.lost} LOST"
    if held_up_secs is not None and account.slowest_secs > held_up_secs:
        yield f"HELD UP for {account.slowest_secs:.1f} s"


def is_good(outcome: Outcome, held_up_secs: float = HELD_UP_SECS) -> bool:
    """Whether the performance was a success."""
    return not complaints(outcome, held_up_secs)


# -- words ---------------------------------------------------------------------------------


def lines(outcome: Outcome, held_up_secs: float = HELD_UP_SECS) -> Iterator[str]:
    """The summary."""
    yield ", ".join(f"{count} {name}" for name, count in outcome.sent.items()) + " sent."
    yield from _table(outcome.flows)
    if outcome.fault:
        yield from _interrupted(outcome)
    wrong = complaints(outcome, held_up_secs)
    if wrong:
        yield "This was NO SUCCESS:"
        yield from (f"  {words}" for words in wrong)
    elif outcome.fault:
        yield "All of it flowed again without anyone's help; what the fault does not touch lost nothing."
    else:
        yield "Nothing was lost or changed."


def _table(flows: Iterable[Flow]) -> Iterator[str]:
    yield f"{'':<22}{'awaited':>9}{'unchanged':>11}{'lost':>7}{'changed':>9}{'odd':>5}{'slowest':>10}"
    for flow in flows:
        one = flow.account
        odd = one.repeated + one.out_of_order
        # What is changed is not there as it was: it counts as lost too.
        yield (
            f"{str(flow):<22}{one.sent:>9}{one.good:>11}{one.lost:>7}{one.changed:>9}{odd:>5}"
            f"{one.slowest_secs * 1000:>7.0f} ms"
        )


def _interrupted(outcome: Outcome) -> Iterator[str]:
    yield "What was interrupted:"
    for interruption in outcome.interruptions:
        yield f"  {interruption}"
    none = True
    for flow in outcome.flows:
        for gap in flow.account.gaps:
            none = False
            yield f"  {flow}: {_gap_words(gap)}"
    if none:
        yield "  no caption and no datagram"


def _gap_words(gap: Gap) -> str:
    if gap.secs is None:
        return f"{gap.lost} lost, and it never flowed again"
    return f"{gap.lost} lost, nothing for {gap.secs:.1f} s"
