"""Below the table: single functions of the relay, and what one message costs on its way through
it. Also written to build/bench-micro.csv."""

from __future__ import annotations

import csv
import json
import subprocess
from collections.abc import Iterator

from bench import instructions
from bench.daemons import BUILD, ROOT
from bench.pinning import DAEMON_CORE, on_core
from bench.statistic import figure

_CSV = ROOT / "build" / "bench-micro.csv"
_RUNS = 5
#: The least duration of each run of a function.
_SECONDS = 0.05

#: A name, a number and its unit.
Line = tuple[str, float, str]


def run() -> None:
    """Measures and counts, prints, and writes the file."""
    print(f"\nSingle functions (medians of {_RUNS} runs), nanoseconds each:\n", flush=True)
    lines = list(_functions())
    print(f"\nOne message through the event loop, commit {_commit()}, counted by callgrind:\n")
    for way in instructions.WAYS:
        count = instructions.count(way)
        print(*count.text(), sep="\n", flush=True)
        lines += count.lines()
    _write_csv(lines)
    print(f"\nwritten: {_CSV.relative_to(ROOT)}; for callgrind_annotate:"
          f" {instructions.FOLDER.relative_to(ROOT)}/")  # fmt: skip


def _functions() -> Iterator[Line]:
    """Prints the table of functions."""
    nanoseconds: dict[str, list[float]] = {}
    for one in _measure():
        if "error_occurred" in one:
            raise RuntimeError(f"{one['name']}: {one['error_message']}")
        name = one["run_name"].removesuffix("/manual_time")
        nanoseconds.setdefault(name, []).append(1e9 / one["items_per_second"])
    for name, values in nanoseconds.items():
        found = figure(values)
        print(f"{name:38} {found.median:10.1f} ±{found.spread:7.1f}")
        yield name, found.median, "ns"


def _measure() -> list[dict]:
    """All runs of all functions, interleaved, so that a disturbance does not affect just one."""
    command = [
        *on_core(DAEMON_CORE), str(BUILD / "relay_micro"), "--benchmark_format=json",
        f"--benchmark_repetitions={_RUNS}", f"--benchmark_min_time={_SECONDS}",
        "--benchmark_enable_random_interleaving=true",
    ]  # fmt: skip
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    found = [one for one in json.loads(done.stdout)["benchmarks"] if one["run_type"] == "iteration"]
    return sorted(found, key=lambda one: (one["family_index"], one["per_family_instance_index"]))


def _commit() -> str:
    """The commit of the working tree, for comparing figures."""
    command = ["git", "-C", str(ROOT), "describe", "--always", "--dirty"]
    done = subprocess.run(command, capture_output=True, text=True)
    return done.stdout.strip() or "unknown"


def _write_csv(lines: list[Line]) -> None:
    with open(_CSV, "w", newline="", encoding="utf-8") as file:
        writer = csv.writer(file)
        writer.writerow(["what", "value", "unit"])
        writer.writerows(lines)
