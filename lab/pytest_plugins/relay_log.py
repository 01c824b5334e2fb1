"""Shows the logs of the relays under test in the report of a failed test.

A conftest.py installs the hook with:

    from lab.pytest_plugins.relay_log import pytest_runtest_makereport
"""

from __future__ import annotations

from collections.abc import Generator
from typing import Any

import pytest

from lab.relay.relay import recent_relays


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: Any) -> Generator[None, Any, None]:
    """Relays that the test has closed are shown too; they are forgotten after it."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for relay in recent_relays:
            report.sections.append((f"log of the relay at {relay.address}", relay.log.text()))
    if call.when == "teardown":
        for relay in [relay for relay in recent_relays if relay.closed]:
            recent_relays.remove(relay)
