#!/bin/bash
# Runs commands in sequence, says which one runs and how long each took, and stops at the first that
# fails, with its status.
#   scripts/timed-steps.sh 'command with arguments'...
set -uo pipefail

summary=()
for step in "$@"; do
    echo "=== $step"
    started=$SECONDS
    # Words, not a shell line: no step needs quoting.
    read -ra words <<<"$step"
    "${words[@]}"
    status=$?
    ((status)) && outcome="failed with status $status" || outcome=passed
    summary+=("$(printf '%5d s  %s: %s' "$((SECONDS - started))" "$step" "$outcome")")
    ((status)) && break
done
echo "==="
printf '%s\n' "${summary[@]}"
exit "$status"
