"""What everything else in the lab uses: addresses, waits, TCP channels, logs, time measurement."""
