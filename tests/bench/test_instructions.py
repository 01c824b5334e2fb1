"""How the benchmark reads what callgrind has counted."""

from __future__ import annotations

from bench.instructions import Count, Profile, Way

PROFILE = """\
version: 1
events: Ir sysCount sysTime
ob=/relay
fl=/engine.cpp
fn=deliver
10 300
11 20
cob=/libc.so
cfn=send
calls=10 0
11 500 10 7
cfn=operator new(unsigned long)
calls=4 0
12 90
fn=operator==(Key const&)
7 5

ob=/libc.so
fn=send
0 500 10 7
cfn=malloc
calls=2 0
0 60
fn=__epoll_wait
0 40 1 3
fn=operator new(unsigned long)
3 30
cfn=malloc
calls=4 0
4 60
fn=malloc
0 60
totals: 955 11 10
"""


def test_the_costs_of_every_function_count_once():
    assert Profile(PROFILE).instructions == 955


def test_system_calls_are_named_after_the_calling_function():
    assert Profile(PROFILE).system_calls == {"send": 10, "epoll_wait": 1}


def test_calls_are_added_up_over_all_callers():
    assert Profile(PROFILE).calls_of(("malloc", "calloc")) == 6


def test_whole_numbers_are_printed_whole_and_others_exactly_enough():
    count = Count(Way("caption", 10, 20), 1234.5, {"read": 0.05, "send": 10.0}, 2.0, 0.0)
    assert count.text() == [
        "instructions per caption switched to 10 in bursts of 20: 1234.5",
        "    system calls 10.05 (read 0.05, send 10), time look-ups 2, allocations 0",
    ]
