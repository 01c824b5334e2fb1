"""The demonstration that ./dev run shows."""
