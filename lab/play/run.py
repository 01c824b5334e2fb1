"""The demonstration: captions and speech cross two joined relays, shown live.

    python3 -m lab.play.run [--seconds N] [--tls] [--fault cs|peer|db|archive] [--binary PATH]

Starts a private database, a connection server and two relays, which the server has joined. At the
first relay a captioner plays a caption file in real time and a source plays a clip of speech, with
error correction; at both an encoder prints the captions that it reads, and an audio receiver
prints how much it receives. Both relays archive the captions of their stations at a web server.
Exits with status 0 only if every caption and every datagram arrived unchanged and in order at all
of them, and every caption in the archive, with its time. Leaves nothing running.

With --fault something breaks halfway through: the connection server stops, comes back and is
replaced (cs), the second relay is killed and started again (peer), PostgreSQL is restarted (db),
the archive's web server is down until posting to it has failed twice (archive). Status 0 then means
that all traffic resumed by itself, and that nothing was lost except by listeners at a killed relay.
Such a run continues beyond its time until all traffic flows.
"""

from __future__ import annotations

import argparse
import signal
import sys
from pathlib import Path

if __package__ in (None, ""):
    sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab.database.cluster import Cluster
from lab.play import summary
from lab.play.faults import FAULTS, LEAST_SECS
from lab.play.play import Play
from lab.play.screen import say
from lab.relay.relay import binary_path
from lab.support.waiting import patient

_LOG_LINES = 15


def run(seconds: float, tls: bool, fault: str, binary: Path) -> bool:
    """Runs the demonstration and prints the summary; true when it succeeded."""
    with Cluster() as cluster:
        say("database", f"PostgreSQL runs at 127.0.0.1:{cluster.port}")
        play = Play(cluster, binary, seconds=seconds, tls=tls, fault=FAULTS.get(fault))
        good = False
        try:
            outcome = play.perform()
            delay_secs = patient(summary.DELAY_SECS)
            print("", *summary.lines(outcome, delay_secs), sep="\n")
            good = not summary.complaints(outcome, delay_secs)
        except (AssertionError, OSError) as error:
            print(f"\nThe demonstration failed: {error}")
        if not good:
            for name, node in play.network.nodes.items():
                print(f"The end of the log of {name}:", *node.log.lines[-_LOG_LINES:], sep="\n  ")
        return good


def _parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="lab.play.run", description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=20, help="how long to play (20)")
    parser.add_argument(
        "--tls", action="store_true", help="encrypt all but the connection between the relays"
    )
    parser.add_argument(
        "--fault", choices=sorted(FAULTS), default="", help="what breaks halfway through"
    )
    parser.add_argument("--binary", help="the relay (build/release/bin/relayserver)")
    options = parser.parse_args()
    if options.fault and options.seconds < LEAST_SECS:
        parser.error(f"a fault needs at least {LEAST_SECS:.0f} seconds")
    return options


def _interrupt(*_: object) -> None:
    """Shuts everything down first, ignoring further signals."""
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    raise KeyboardInterrupt


def main() -> int:
    """Reads the command line; the exit status."""
    options = _parse()
    binary = binary_path(options.binary)
    if not binary.is_file():
        print(f"There is no relay at {binary}; build it first.", file=sys.stderr)
        return 1
    # A terminal without these letters shows question marks instead of ending the run.
    sys.stdout.reconfigure(errors="replace")
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, _interrupt)
    try:
        return 0 if run(options.seconds, options.tls, options.fault, binary) else 1
    except KeyboardInterrupt:
        print("\nInterrupted; everything has been shut down.")
        return 130
    except (AssertionError, OSError, RuntimeError) as error:
        print(f"The demonstration failed: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
