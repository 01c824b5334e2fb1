"""Deals the tests of a run out to its processes (pytest-xdist).

By itself xdist hands out a dozen neighbours at a time, and neighbours wait for the same things: a
dozen tests of half a minute each end up behind one another in one process, while the others have
nothing left to do. A conftest.py takes the hooks in with:

    from lab.pytest_plugins.scheduling import (
        pytest_collection_modifyitems,
        pytest_xdist_make_scheduler,
    )

Tests marked "long" begin first, so that nobody waits for their end.
"""

from __future__ import annotations

from typing import Any

import pytest
from xdist.scheduler import LoadScheduling

#: A process starts a test only when it knows the next one.
_TESTS_AT_A_PROCESS = 2


class _FewAtATime(LoadScheduling):
    """Gives a process its next test when it has ended one."""

    def _send_tests(self, node: Any, num: int) -> None:
        room = _TESTS_AT_A_PROCESS - len(self.node2pending[node])
        super()._send_tests(node, max(0, min(num, room)))


@pytest.hookimpl(optionalhook=True)
def pytest_xdist_make_scheduler(config: pytest.Config, log: Any) -> LoadScheduling:
    return _FewAtATime(config, log)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """All others keep their order."""
    items.sort(key=lambda item: item.get_closest_marker("long") is None)
