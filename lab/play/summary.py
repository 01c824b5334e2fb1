"""Judges a performance and describes the result."""

from __future__ import annotations

import dataclasses
from collections.abc import Iterable, Iterator

from lab.play.account import Account, Gap

#: What arrives later than this in a run with a fault was interrupted, though it was not lost.
DELAY_SECS = 3.0
#: What was sent this long before or after a fault may still arrive or be lost by it.
_STRIKING_SECS = 2.0


@dataclasses.dataclass(frozen=True)
class Flow:
    """One series of items at one listener."""

    listener: str
    name: str
    account: Account
    #: Whether the fault may interrupt it.
    touched: bool = False
    #: How long after sending its items may be dated; None: they only have to arrive.
    within_secs: float | None = None

    def __str__(self) -> str:
        return f"{self.listener}, {self.name}"


@dataclasses.dataclass(frozen=True)
class Interruption:
    """A part of the network that a fault took down, and for how long; None: for good."""

    what: str
    secs: float | None

    def __str__(self) -> str:
        away = "did not come back" if self.secs is None else f"restored after {self.secs:.1f} s"
        return f"{self.what}: {away}"


@dataclasses.dataclass
class Outcome:
    """All that is known of a performance."""

    #: The name of the fault, "" if there was none.
    fault: str = ""
    #: When the play began (monotonic seconds).
    start: float = 0.0
    #: When the fault struck the part that it affects.
    struck: float = 0.0
    #: How much of each flow was sent.
    sent: dict[str, int] = dataclasses.field(default_factory=dict)
    flows: list[Flow] = dataclasses.field(default_factory=list)
    interruptions: list[Interruption] = dataclasses.field(default_factory=list)
    #: Problems outside the flows.
    problems: list[str] = dataclasses.field(default_factory=list)
    #: The exit status of each relay.
    statuses: dict[str, int] = dataclasses.field(default_factory=dict)

    def note_problem(self, what: str, error: Exception) -> None:
        """Notes what failed, once, without the logs that the lab's errors include."""
        words = str(error).splitlines() or [type(error).__name__]
        problem = f"{what}: {words[0]}"
        if problem not in self.problems:
            self.problems.append(problem)


# -- judgement -----------------------------------------------------------------------------


def complaints(outcome: Outcome, delay_secs: float = DELAY_SECS) -> list[str]:
    """Why a performance failed; empty for a good one."""
    found = [] if outcome.flows else ["there was no listener"]
    limit = delay_secs if outcome.fault else float("inf")
    for flow in outcome.flows:
        wrong = [*_wrong_with_any(flow.account)]
        if flow.within_secs is not None:
            wrong += _wrong_with_times(flow.account, flow.within_secs)
        elif flow.touched:
            wrong += _wrong_when_touched(flow.account, outcome.struck)
        else:
            wrong += _wrong_when_untouched(flow.account, limit)
        found += [f"{flow}: {words}" for words in wrong]
    found += outcome.problems
    for name, status in outcome.statuses.items():
        if status != 0:
            found.append(f"relay {name} ended with status {status}")
    return found


def _wrong_with_any(account: Account) -> Iterator[str]:
    if account.sent == 0:
        yield "nothing was sent in such a short time"
    if account.changed:
        yield f"{account.changed} CHANGED"
    if account.repeated:
        yield f"{account.repeated} DUPLICATED"
    if account.out_of_order:
        yield f"{account.out_of_order} OUT OF ORDER"


def _wrong_when_touched(account: Account, struck: float) -> Iterator[str]:
    """One interruption is expected, if it begins when the fault strikes."""
    if not account.gaps:
        return
    first, last = account.gaps[0], account.gaps[-1]
    if last.ended is None:
        yield "did NOT RESUME"
    elif len(account.gaps) > 1:
        yield f"was interrupted {len(account.gaps)} TIMES"
    if first.sent_from < struck - _STRIKING_SECS:
        yield "was interrupted BEFORE THE FAULT"
    elif first.sent_before > struck + _STRIKING_SECS:
        yield "was interrupted LONG AFTER THE FAULT"


def _wrong_when_untouched(account: Account, delay_secs: float) -> Iterator[str]:
    if account.lost:
        yield f"{account.lost} LOST OR CHANGED"
    if account.slowest_secs > delay_secs:
        yield f"DELAYED by {account.slowest_secs:.1f} s"


def _wrong_with_times(account: Account, within_secs: float) -> Iterator[str]:
    if account.lost:
        yield f"{account.lost} LOST OR CHANGED"
    if account.slowest_secs > within_secs:
        yield f"dated up to {account.slowest_secs:.1f} s TOO LATE"


# -- words ---------------------------------------------------------------------------------


def lines(outcome: Outcome, delay_secs: float = DELAY_SECS) -> Iterator[str]:
    """The summary. The last line of a good one says so."""
    yield "Sent: " + ", ".join(f"{count} {_noun(name)}" for name, count in outcome.sent.items())
    yield from _table(outcome.flows)
    if outcome.fault:
        yield from _interrupted(outcome)
    wrong = complaints(outcome, delay_secs)
    if wrong:
        yield "The demonstration FAILED:"
        yield from (f"  {words}" for words in wrong)
    elif any(flow.account.gaps for flow in outcome.flows):
        yield "All traffic resumed by itself; nothing was lost beyond what the fault affects."
    else:
        yield "Nothing was lost or changed."


def _noun(flow: str) -> str:
    return flow if flow == "captions" else f"datagrams of {flow}"


def _table(flows: Iterable[Flow]) -> Iterator[str]:
    heads = ("expected", "unchanged", "lost", "changed", "duplicate", "reordered", "slowest")
    yield f"{'':<20}" + "".join(f"{head:>11}" for head in heads)
    for flow in flows:
        one = flow.account
        # What arrived changed counts as lost too: what was sent in its place did not arrive.
        counts = (one.sent, one.good, one.lost, one.changed, one.repeated, one.out_of_order)
        slowest = f"{one.slowest_secs * 1000:.0f} ms"
        yield f"{str(flow):<20}" + "".join(f"{cell:>11}" for cell in (*counts, slowest))


def _interrupted(outcome: Outcome) -> Iterator[str]:
    yield "Interruptions:"
    for interruption in outcome.interruptions:
        yield f"  {interruption}"
    gaps = [(flow, gap) for flow in outcome.flows for gap in flow.account.gaps]
    for flow, gap in gaps:
        yield f"  {flow}: {_gap_words(gap, outcome.start)}"
    if not gaps:
        yield "  no captions, no datagrams"


def _gap_words(gap: Gap, start: float) -> str:
    if gap.ended is None:
        return f"{gap.lost} lost from second {gap.began - start:.1f} on, to the end"
    return (
        f"{gap.lost} lost, nothing arrived for {gap.ended - gap.began:.1f} s, "
        f"resumed at second {gap.ended - start:.1f}"
    )
