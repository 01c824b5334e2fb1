"""The tracer, on a child process: it counts exactly what a pass of an event loop does."""

from __future__ import annotations

import socket
import subprocess
import sys

import pytest

from lab.support.addresses import new_address
from lab.support.tracer import LoopTracer

pytestmark = pytest.mark.skipif(not LoopTracer.supported(), reason="unknown kind of processor")

#: Answers every datagram as many times as its first byte says.
_LOOP = """
import select, socket, sys
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.bind((sys.argv[1], 0))
poll = select.epoll()
poll.register(sock, select.EPOLLIN)
print(sock.getsockname()[1], flush=True)
while True:
    for _ in poll.poll(0.5):
        data, sender = sock.recvfrom(100)
        for _ in range(data[0]):
            sock.sendto(data, sender)
"""


@pytest.fixture
def loop():
    """A process with an event loop, and a socket that is connected to it."""
    address = new_address()
    process = subprocess.Popen([sys.executable, "-c", _LOOP, address], stdout=subprocess.PIPE)
    try:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            sock.settimeout(5)
            sock.connect((address, int(process.stdout.readline())))
            yield process, sock
    finally:
        process.kill()
        process.wait()
        process.stdout.close()


def test_the_calls_of_a_pass(loop):
    process, sock = loop
    with LoopTracer(process.pid) as tracer:
        for count in (1, 3, 0):
            sock.send(bytes([count]))
            assert tracer.system_calls() == ["recvfrom", *["sendto"] * count]
        # Nothing to do: the wait ends by itself.
        assert tracer.system_calls() == []


def test_more_work_is_more_instructions(loop):
    process, sock = loop
    counts = {}
    with LoopTracer(process.pid) as tracer:
        for count in (2, 4):
            sock.send(bytes([count]))
            tracer.system_calls()  # the first time differs from all others
            sock.send(bytes([count]))
            counts[count] = tracer.instructions()
            sock.send(bytes([count]))
            # Calls and instructions may be counted alternately.
            assert len(tracer.system_calls()) == count + 1
    assert 100 < counts[2] < counts[4]


def test_afterwards_the_process_runs_freely(loop):
    process, sock = loop
    for _ in range(3):
        with LoopTracer(process.pid):
            pass
        sock.send(b"\x01again")
        assert sock.recv(100) == b"\x01again"
