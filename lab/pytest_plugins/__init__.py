"""Hooks for pytest: relay logs in the report of a failed test, the dealing out of tests."""
