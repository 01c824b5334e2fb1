"""How the stand-in connection server judges log-ins, and the faults that a test scripts."""

from __future__ import annotations

import dataclasses
import threading
from collections import deque

from lab.protocol import messages

STAGES = ("accept", "challenge", "login", "port")


@dataclasses.dataclass(frozen=True)
class Fault:
    """What to do in place of the normal step of a stage: send `data`, if any, and then stay
    silent ("silence"), "close", "reset", or do the normal step after all ("go on")."""

    then: str = "silence"
    data: bytes = b""


class ServerScript:
    """Sessions, scripted answers, scripted faults. Safe from any thread."""

    def __init__(self, continue_any: bool = False) -> None:
        self._lock = threading.Lock()
        #: Log-ins are checked against this (agency, name, password), or a set of them, if given.
        self.credentials: tuple[str, str, str] | set[tuple[str, str, str]] | None = None
        #: Lets a relay continue a session that it began at another server.
        self.continue_any = continue_any
        self._sessions: set[tuple[str, bytes]] = set()
        self._answers: deque[str] = deque()
        self._faults: dict[str, deque[Fault]] = {stage: deque() for stage in STAGES}
        self._permanent: dict[str, Fault] = {}

    def fault(self, stage: str, fault: Fault, times: int | None = 1) -> None:
        """Applies `fault` the next `times` times that `stage` is reached; None: until cleared.

        Stages: "accept" (before the TLS handshake), "challenge" (instead of sending it),
        "login" (instead of an answer), "port" (when the relay port arrives).
        """
        with self._lock:
            if times is None:
                self._permanent[stage] = fault
            else:
                self._faults[stage].extend([fault] * times)

    def clear_faults(self) -> None:
        """Normal service again; also discards answers not given yet."""
        with self._lock:
            self._permanent.clear()
            self._answers.clear()
            for queue in self._faults.values():
                queue.clear()

    def answer_next_login(self, *codes: str) -> None:
        """The next log-ins get these return codes, whatever they say."""
        with self._lock:
            self._answers.extend(codes)

    def forget(self) -> None:
        """Loses all sessions: a relay that asks to continue gets "NO CONTINUE" and a fresh
        challenge."""
        with self._lock:
            self._sessions.clear()

    def take_fault(self, stage: str) -> Fault | None:
        """The fault to apply at `stage` now, if any; a temporary one is used up."""
        with self._lock:
            queue = self._faults[stage]
            return queue.popleft() if queue else self._permanent.get(stage)

    def judge_login(self, login: messages.LogIn, challenge: int) -> str:
        """The return code for a log-in; an accepted one becomes a known session."""
        with self._lock:
            session = (login.name, login.des_key)
            if self._answers:
                code = self._answers.popleft()
                if code == "OK":
                    self._sessions.add(session)
                return code
            who = (login.agency, login.name, login.password)
            if self.credentials is not None and not self._is_allowed(who):
                return "UNAUTHORIZED"
            if login.login_number != challenge:
                return "UNAUTHORIZED"
            known = session in self._sessions or self.continue_any
            if login.function == "CONTINUE" and not known:
                return "NO CONTINUE"
            self._sessions.add(session)
            return "OK"

    def _is_allowed(self, who: tuple[str, str, str]) -> bool:
        allowed = self.credentials
        return who in allowed if isinstance(allowed, set) else who == allowed
