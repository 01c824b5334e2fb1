"""Compares what was sent with what arrived, and finds where items are missing and for how long.

    account = compare(sent, arrived)
    account.good, account.lost, account.gaps
"""

from __future__ import annotations

import bisect
import dataclasses
from collections import defaultdict
from collections.abc import Iterable
from typing import NamedTuple


class Item(NamedTuple):
    """Bytes, and when they were about to be sent or had arrived (monotonic seconds)."""

    at: float
    data: bytes


@dataclasses.dataclass(frozen=True)
class Gap:
    """Consecutive items that did not arrive. Times are monotonic seconds."""

    lost: int
    #: When the one before them was sent (minus infinity if there is none), and the first of them.
    sent_before: float
    sent_from: float
    #: The arrival of the one before them, or `sent_from` if there is none.
    began: float
    #: The arrival of the one after them; None if nothing else arrived.
    ended: float | None


@dataclasses.dataclass(frozen=True)
class Account:
    """What became of a series of items."""

    sent: int
    #: Sent and arrived unchanged.
    good: int
    #: Arrived, but equal to nothing that had been sent by then.
    changed: int
    #: Arrived again.
    repeated: int
    #: Arrived after one that was sent later.
    out_of_order: int
    #: In the order of sending.
    gaps: tuple[Gap, ...]
    #: The longest time from the sender to the receiver.
    slowest_secs: float

    @property
    def lost(self) -> int:
        """How many of the sent ones did not arrive unchanged."""
        return sum(gap.lost for gap in self.gaps)


class _Matcher:
    """Identifies an arrival. Captions repeat with every round of the clip: an arrival is the
    latest equal one that had been sent by then."""

    def __init__(self, sent: list[Item]) -> None:
        self._sent = sent
        self._indexes: defaultdict[bytes, list[int]] = defaultdict(list)
        for index, item in enumerate(sent):
            self._indexes[item.data].append(index)

    def index_of(self, arrival: Item) -> int | None:
        """Its index among the sent ones, which are in order of time."""
        equal = self._indexes.get(arrival.data, [])
        place = bisect.bisect_right(equal, arrival.at, key=lambda index: self._sent[index].at)
        return equal[place - 1] if place else None


def compare(sent: list[Item], arrived: Iterable[Item], awaited_from: float = 0.0) -> Account:
    """Both in order of time. What was sent before `awaited_from` may or may not arrive."""
    matcher = _Matcher(sent)
    came_at: dict[int, float] = {}
    changed = repeated = out_of_order = 0
    newest = -1
    for arrival in arrived:
        index = matcher.index_of(arrival)
        if index is None:
            changed += 1
        elif index in came_at:
            repeated += 1
        else:
            came_at[index] = arrival.at
            out_of_order += index < newest
            newest = max(newest, index)
    first = bisect.bisect_left(sent, awaited_from, key=lambda item: item.at)
    ways = [at - sent[index].at for index, at in came_at.items()]
    return Account(
        sent=len(sent) - first,
        good=sum(index >= first for index in came_at),
        changed=changed,
        repeated=repeated,
        out_of_order=out_of_order,
        gaps=tuple(_gaps(sent, came_at, first)),
        slowest_secs=max(ways, default=0.0),
    )


def _gaps(sent: list[Item], came_at: dict[int, float], first: int) -> list[Gap]:
    gaps = []
    start: int | None = None
    for index in range(first, len(sent) + 1):
        missing = index < len(sent) and index not in came_at
        if missing and start is None:
            start = index
        elif not missing and start is not None:
            sent_from = sent[start].at
            sent_before = sent[start - 1].at if start else float("-inf")
            began = came_at.get(start - 1, sent_from)
            gaps.append(Gap(index - start, sent_before, sent_from, began, came_at.get(index)))
            start = None
    return gaps
