"""Hooks for pytest: relay logs in the report of a failed test, the distribution of tests."""
