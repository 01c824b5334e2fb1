"""The benchmark: every cell with every daemon, one table, and whether the goals are met. Also
written to build/bench-results.csv and build/bench-results.png.

    python3 -m bench.run [--quick] [--only PATTERN | --micro] [--beside PROGRAM]
"""

from __future__ import annotations

import argparse
import resource
import signal
import sys
import time
from pathlib import Path

if __package__ in (None, ""):
    sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from bench import goals, micro, plot, report
from bench.cells import Cell, all_cells, batches, quick_cells
from bench.daemons import DAEMONS, ROOT, Surroundings
from bench.measure import measure
from bench.pinning import stay_on_load_core


_CSV = ROOT / "build" / "bench-results.csv"
_PNG = ROOT / "build" / "bench-results.png"


def _parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="few cells, short runs")
    parser.add_argument("--only", default="", metavar="PATTERN",
                        help="only cells whose name contains this text")  # fmt: skip
    parser.add_argument("--micro", action="store_true",
                        help="only single functions and instruction counts")  # fmt: skip
    parser.add_argument("--beside", type=Path, metavar="PROGRAM",
                        help="another build of the relay, which takes its turn in every cell")  # fmt: skip
    return parser.parse_args()


def run(cells: list[Cell], other_build: Path | None) -> tuple[report.Results, list[str]]:
    """Measures; prints the table as it grows. Returns the results and what failed."""
    results: report.Results = {}
    failures = []
    print(report.head(), flush=True)
    with Surroundings(other_build) as around:
        for batch in batches(cells):
            daemons = {name: DAEMONS[name](around, batch[0]) for name in batch[0].daemons}
            outcomes, failed = measure(batch, daemons)
            results.update(outcomes)
            failures += failed
            for cell in batch:
                print(*report.rows(results, cell), sep="\n", flush=True)
    return results, failures


def _raise_descriptor_limit() -> None:
    """For daemons that do not raise it themselves: thousands of clients are connected."""
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


def _conclude(results: report.Results) -> None:
    """The goals, and the files."""
    found = goals.checks(results)
    print("", *goals.summary(found), "", sep="\n")
    for path, write in ((_CSV, report.write_csv), (_PNG, plot.write_png)):
        write(results, path)
        print(f"written: {path.relative_to(ROOT)}")


def main() -> int:
    options = _parse()
    if options.micro:
        micro.run()
        return 0
    # As after Ctrl-C, everything that was started is ended on the way out.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    _raise_descriptor_limit()
    stay_on_load_core()
    started = time.monotonic()
    cells = quick_cells() if options.quick else all_cells()
    chosen = [cell for cell in cells if options.only in cell.name]
    other_build = options.beside and options.beside.resolve()
    if other_build:
        chosen = [cell.with_other_build() for cell in chosen]
    results, failures = run(chosen, other_build)
    _conclude(results)
    if failures:
        print("\nNo figures:", *failures, sep="\n  ")
    if not options.only:
        micro.run()
    print(f"{time.monotonic() - started:.0f} s")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
