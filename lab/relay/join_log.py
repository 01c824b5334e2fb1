"""What the logs of two relays say about their connection."""

from __future__ import annotations

from collections.abc import Iterable

from lab.protocol.message import signed32
from lab.support.process_log import ProcessLog
from lab.support.waiting import Deadline, wait_until

PROGRAMS = range(6)

_REFUSED = "udp registration ticket not accepted"
#: Logged for an accepted registration that asks for one in return.
_CALLED_BACK = "performing udp registration callback"
#: The refusal of a registration follows its announcement within this many lines.
_REFUSAL_LINES = 4


def wait_admitted(
    opener_log: ProcessLog,
    opener_id: int,
    opener_since: int,
    peer_log: ProcessLog,
    peer_id: int,
    peer_since: int,
    within_secs: float,
) -> None:
    """Waits until the peer has admitted the opener and the opener has been told."""
    deadline = Deadline(within_secs)
    admitted = f"authenticated ticket for client {signed32(opener_id)}"
    peer_log.expect(admitted, deadline.left(), since=peer_since)
    accepted = f"received OK message from relay {signed32(peer_id)}"
    opener_log.expect(accepted, deadline.left(), since=opener_since)


def wait_registered(
    log: ProcessLog,
    peer_id: int,
    since: int,
    within_secs: float,
    programs: Iterable[int] = PROGRAMS,
) -> None:
    """Waits until the relay with this log has accepted a peer's registrations for `programs`."""
    deadline = Deadline(within_secs)
    for program in programs:
        if program == 0:
            continue
        for how in ("rx", "send"):
            text = f"Client {peer_id} registered to {how} audio program {program} at"
            log.expect(text, deadline.left(), since=since)
    if 0 in programs:
        # A peer is on program 0 from the start: its registration changes only the address, and
        # only a refusal would be logged.
        what = f"program 0 of {peer_id} is registered"
        wait_until(lambda: program_0_accepted(log.lines[since:], peer_id), deadline.left(), what)


def program_0_accepted(lines: list[str], peer_id: int) -> bool:
    """Whether a peer's registration for program 0 came and was not refused."""
    came = f"UDP registration messages from source {peer_id}, program_idx 0,"
    for index, line in enumerate(lines):
        if came not in line:
            continue
        behind = lines[index + 1 : index + 1 + _REFUSAL_LINES]
        own = [one for one in behind if "UDP registration messages" in one]
        end = behind.index(own[0]) if own else len(behind)
        called_back = any(_CALLED_BACK in one for one in behind[:end])
        settled = bool(own) or called_back or end == _REFUSAL_LINES
        if settled and not any(_REFUSED in one for one in behind[:end]):
            return True
    return False
