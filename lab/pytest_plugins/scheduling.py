"""Distributes the tests of a run over its processes (pytest-xdist).

By default xdist hands out a dozen neighbouring tests at a time, and neighbours wait for similar
things: a dozen tests of half a minute each end up in sequence in one process, while the others are
idle. A conftest.py installs the hooks with:

    from lab.pytest_plugins.scheduling import (
        pytest_collection_modifyitems,
        pytest_xdist_make_scheduler,
    )

Tests marked "long" start first, so that the run does not end with them.
"""

from __future__ import annotations

from typing import Any

import pytest
from xdist.scheduler import LoadScheduling

#: A process starts a test only when it has the next one queued.
_TESTS_AT_A_PROCESS = 2


class _FewAtATime(LoadScheduling):
    """Gives a process another test when it has finished one."""

    def _send_tests(self, node: Any, num: int) -> None:
        room = _TESTS_AT_A_PROCESS - len(self.node2pending[node])
        super()._send_tests(node, max(0, min(num, room)))


@pytest.hookimpl(optionalhook=True)
def pytest_xdist_make_scheduler(config: pytest.Config, log: Any) -> LoadScheduling:
    """Replaces the scheduler of xdist."""
    return _FewAtATime(config, log)


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Moves "long" tests to the front; all others keep their order."""
    items.sort(key=lambda item: item.get_closest_marker("long") is None)
