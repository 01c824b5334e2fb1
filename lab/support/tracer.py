"""Holds a process at a known point of its event loop and counts what it does from there on.

    with LoopTracer(relay.pid) as tracer:
        source.send_audio(b"sound")                     # waits in the kernel; the process is held
        calls = tracer.system_calls()            # names of the calls of one pass of its loop
        source.send_audio(b"sound")
        steps = tracer.instructions()            # machine instructions of one pass

Counts do not depend on how fast or busy the machine is. The processor's own counters would be
quicker, but virtual machines seldom have them; ptrace is everywhere. Meant for child processes of
this one, from one thread; a pass is what happens between two waits for events.
"""

from __future__ import annotations

import ctypes
import os
import platform
import signal
from pathlib import Path

from lab.support.waiting import wait_until

_SYSCALL, _SINGLESTEP, _ATTACH, _DETACH, _SETOPTIONS = 24, 9, 16, 17, 0x4200
_GET_SYSCALL_INFO = 0x420E
_TRACE_SYSGOOD = 1
_SYSGOOD_STOP = signal.SIGTRAP | 0x80
_ENTRY = 1
_WALL = 0x40000000

#: The numbers of the calls that matter here; any other is named by its number.
_NAMES = {
    "x86_64": {
        0: "read", 1: "write", 3: "close", 7: "poll", 46: "sendmsg", 44: "sendto", 45: "recvfrom",
        47: "recvmsg", 232: "epoll_wait", 281: "epoll_wait", 299: "recvmmsg", 307: "sendmmsg",
    },
    "aarch64": {
        57: "close", 63: "read", 64: "write", 73: "poll", 211: "sendmsg", 206: "sendto",
        207: "recvfrom", 212: "recvmsg", 22: "epoll_wait", 243: "recvmmsg", 269: "sendmmsg",
    },
}.get(platform.machine(), {})  # fmt: skip
#: The length of the instruction that makes a system call.
_CALL_LEN = {"x86_64": 2, "aarch64": 4}.get(platform.machine(), 0)


class _SyscallInfo(ctypes.Structure):
    """struct ptrace_syscall_info, the part common to every kind of stop."""

    _fields_ = [
        ("op", ctypes.c_uint8),
        ("pad", ctypes.c_uint8 * 3),
        ("arch", ctypes.c_uint32),
        ("instruction_pointer", ctypes.c_uint64),
        ("stack_pointer", ctypes.c_uint64),
        ("number", ctypes.c_uint64),
        ("rest", ctypes.c_uint64 * 8),
    ]


_libc = ctypes.CDLL(None, use_errno=True)
_libc.ptrace.restype = ctypes.c_long
_libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]


#: A longer pass is not worth counting: a timer that handles thousands of clients would take minutes
#: step by step.
_MAX_STEPS = 100_000


class TooManySteps(Exception):
    """A pass is too long to count; the process runs freely again."""


class LoopTracer:
    """Use as a context manager; the process runs freely again afterwards. Only its main thread is
    traced and held, always where its next wait for events begins. Signals that arrive
    meanwhile are passed on. On a busy machine thousands of instructions take seconds, calls do
    not."""

    def __init__(self, pid: int) -> None:
        """The process has to be waiting for events, as it nearly always is."""
        self.pid = pid
        self._info = _SyscallInfo()
        self._wait_ends_at = wait_until(self._blocked_in_wait, 20, f"{pid} waiting for events")
        #: Whether the process is held inside the wait rather than before it.
        self._in_wait = False

    @staticmethod
    def supported() -> bool:
        """Whether this processor architecture is supported."""
        return bool(_NAMES)

    def _blocked_in_wait(self) -> int:
        """The address at which the program continues after its wait for events; 0 outside of it."""
        words = Path(f"/proc/{self.pid}/syscall").read_text().split()
        waiting = len(words) == 9 and _NAMES.get(int(words[0])) == "epoll_wait"
        return int(words[-1], 16) if waiting else 0

    def __enter__(self) -> LoopTracer:
        self._ptrace(_ATTACH)
        try:
            self._wait_for_stop()
            self._ptrace(_SETOPTIONS, _TRACE_SYSGOOD)
            # Past the present wait, to the next. Stepping there takes seconds on a busy machine.
            self._run_to_wait()
        except BaseException:
            self._ptrace(_DETACH)
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self._ptrace(_DETACH)

    def _ptrace(self, request: int, data: int = 0) -> None:
        if _libc.ptrace(request, self.pid, 0, data) == -1:
            number = ctypes.get_errno()
            raise OSError(number, f"ptrace {request}: {os.strerror(number)}")

    def _wait_for_stop(self) -> int:
        _, status = os.waitpid(self.pid, _WALL)
        if not os.WIFSTOPPED(status):
            raise RuntimeError(f"process {self.pid} ended while it was traced")
        return os.WSTOPSIG(status)

    def _resume(self, request: int) -> None:
        """Continues to the next stop that we asked for; signals are delivered."""
        deliver = 0
        while True:
            self._ptrace(request, deliver)
            stop = self._wait_for_stop()
            if stop in (signal.SIGTRAP, _SYSGOOD_STOP):
                return
            deliver = 0 if stop == signal.SIGSTOP else stop

    def _look(self) -> _SyscallInfo:
        size = ctypes.sizeof(self._info)
        if _libc.ptrace(_GET_SYSCALL_INFO, self.pid, size, ctypes.addressof(self._info)) == -1:
            raise OSError(ctypes.get_errno(), "the kernel does not report system calls")
        return self._info

    def system_calls(self) -> list[str]:
        """Lets the process wait for events, half a second if there are none, and handle them;
        returns the calls that it made for that."""
        self.end_wait()
        return self.finish_pass()

    def end_wait(self) -> None:
        """Lets the wait for events end, and holds the process before it handles what has come;
        `finish_pass` is to follow."""
        if not self._in_wait:
            self._resume(_SYSCALL)  # to its entry
        self._resume(_SYSCALL)  # to its return
        self._in_wait = False

    def finish_pass(self) -> list[str]:
        """After `end_wait`: lets the process handle what has come and run its timers; returns the
        calls that it made for that."""
        return self._run_to_wait()

    def _run_to_wait(self) -> list[str]:
        """Lets the process run into its next wait; returns the calls before it."""
        calls: list[str] = []
        while not calls or calls[-1] != "epoll_wait":
            self._resume(_SYSCALL)
            info = self._look()
            if info.op == _ENTRY:
                calls.append(_NAMES.get(info.number, str(info.number)))
        self._in_wait = True
        return calls[:-1]

    def instructions(self) -> int:
        """The same, but returns how many instructions the program took; TooManySteps."""
        # The whole wait, or the rest of it.
        self._resume(_SYSCALL if self._in_wait else _SINGLESTEP)
        self._in_wait = False
        return self._step_to_wait()

    def _step_to_wait(self) -> int:
        wait = self._wait_ends_at - _CALL_LEN
        steps = 0
        while self._look().instruction_pointer != wait:
            if steps == _MAX_STEPS:
                raise TooManySteps
            self._resume(_SINGLESTEP)
            steps += 1
        return steps
