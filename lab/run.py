"""The demonstration: a caption file crosses the real relay to two encoders, before your eyes.

    python3 -m lab.run [--seconds N] [--tls] [--binary PATH]

Starts a private database, a connection server, the relay, one captioner that plays a caption
file at its real pace, and two encoders that print what they read. Ends with status 0 only if
every caption arrived unchanged and in order at both. Leaves nothing running.
"""

from __future__ import annotations

import argparse
import signal
import sys
import threading
import time
from pathlib import Path

if __package__ in (None, ""):
    sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from lab import cea608, messages, scc
from lab.channel import PeerClosed
from lab.cluster import Cluster
from lab.network import Network
from lab.relay import binary_path
from lab.stations import Captioner, Encoder
from lab.waiting import Deadline, LabTimeout

CLIP = Path(__file__).resolve().parent / "clips" / "welcome.scc"
#: Silence between the last caption of the clip and its next round.
_PAUSE_SECS = 1.5
#: How long captions may still be on their way after the last one was sent.
_ARRIVAL_SECS = 5.0

_screen = threading.Lock()


def say(who: str, text: str) -> None:
    """One line on the screen: the time, who speaks, what."""
    now = time.time()
    clock = time.strftime("%H:%M:%S", time.localtime(now)) + f".{int(now * 1000) % 1000:03d}"
    with _screen:
        print(f"{clock}  {who:<11} {text}", flush=True)


def schedule(cues: list[scc.Cue], seconds: float) -> list[scc.Cue]:
    """The cues to play within `seconds`: the clip, repeated or cut short."""
    round_secs = cues[-1].seconds + _PAUSE_SECS
    played: list[scc.Cue] = []
    start = 0.0
    while True:
        for cue in cues:
            if start + cue.seconds > seconds:
                return played
            played.append(scc.Cue(start + cue.seconds, cue.data))
        start += round_secs


class Viewer:
    """Reads an encoder in a thread of its own and prints its captions as they arrive."""

    def __init__(self, encoder: Encoder) -> None:
        self.encoder = encoder
        self.error = ""
        self._arrived = threading.Condition()
        self._stop = False
        self._ending = False
        self._thread = threading.Thread(target=self._run, name=encoder.name, daemon=True)
        self._thread.start()

    def _run(self) -> None:
        while not self._stop:
            try:
                _, texts = self.encoder.receive_caption(within_secs=0.2)
            except LabTimeout:
                continue
            except (PeerClosed, AssertionError) as error:
                self._end(error)
                return
            for text in texts:
                say(self.encoder.name, f"reads  {text}")
            with self._arrived:
                self._arrived.notify_all()

    def _end(self, error: Exception) -> None:
        with self._arrived:
            if not (self._ending and isinstance(error, PeerClosed)):
                self.error = str(error)
            self._arrived.notify_all()

    def wait_for(self, count: int, deadline: Deadline) -> bool:
        """Waits for so many captions; false when they do not all come."""
        with self._arrived:
            while len(self.encoder.captions) < count and not self.error:
                if not self._arrived.wait(deadline.left()) and deadline.passed():
                    break
        return len(self.encoder.captions) >= count

    def expect_end(self) -> None:
        """From now on the relay may close the connection."""
        self._ending = True

    def read_to_end(self) -> None:
        """Reads what is still there when the relay has ended, so that nothing escapes the
        count."""
        self._thread.join(5)

    def close(self) -> None:
        self._stop = True
        self._thread.join(5)


def play(captioner: Captioner, cues: list[scc.Cue], seconds: float) -> list[bytes]:
    """Sends the cues at their times, until `seconds` are over; what was sent."""
    decoder = cea608.Decoder()
    sent = []
    start = time.monotonic()
    for cue in cues:
        time.sleep(max(0.0, start + cue.seconds - time.monotonic()))
        # In a file bit 7 is parity; in the network it tells the field.
        data = cea608.strip_parity(cue.data)
        for text in decoder.feed(data):
            say(captioner.name, f"writes {text}")
        captioner.caption(data)
        sent.append(data)
    time.sleep(max(0.0, start + seconds - time.monotonic()))
    return sent


def judge(sent: list[bytes], viewers: list[Viewer]) -> bool:
    """Prints the summary; true when nothing was lost or changed."""
    print(f"\n{len(sent)} captions sent.")
    good = True
    for viewer in viewers:
        got = viewer.encoder.captions
        same = sum(one == other for one, other in zip(sent, got))
        print(f"{viewer.encoder.name}: {len(got)} received, {same} of them unchanged, in order.")
        if viewer.error:
            print(f"{viewer.encoder.name}: {viewer.error}")
        good = good and got == sent and not viewer.error
    if not sent:
        print("No caption fits into so short a time.")
        return False
    print("Nothing was lost or changed." if good else "Captions were LOST OR CHANGED.")
    return good


def perform(network: Network, seconds: float) -> bool:
    """The play itself, on a network that is up."""
    captioner = network.station(Captioner, name="captioner", heartbeats=True)
    encoders = [
        network.station(Encoder, name=f"encoder {number}", heartbeats=True) for number in (1, 2)
    ]
    for station in (captioner, *encoders):
        say(station.name, f"logged in to the relay as client {station.client_id}")
    for encoder in encoders:
        network.route(captioner, encoder, messages.PIPE_CAPTION)
        say("connserver", f"ordered the captions of {captioner.name} to {encoder.name}")
    viewers = [Viewer(encoder) for encoder in encoders]
    try:
        sent = play(captioner, schedule(scc.read(CLIP), seconds), seconds)
        deadline = Deadline(_ARRIVAL_SECS)
        for viewer in viewers:
            viewer.wait_for(len(sent), deadline)
            viewer.expect_end()
        status = network.relay.stop()
        say("relay", f"ended with status {status}")
        for viewer in viewers:
            viewer.read_to_end()
    finally:
        for viewer in viewers:
            viewer.close()
    return judge(sent, viewers) and status == 0


def run(seconds: float, tls: bool, binary: Path) -> bool:
    """Builds the network, performs, takes it down again."""
    with Cluster() as cluster:
        say("database", f"PostgreSQL runs at 127.0.0.1:{cluster.port}")
        network = Network(cluster, tls=tls, binary=binary)
        with network:
            how = "TLS" if tls else "plain TCP"
            server, relay = network.server, network.relay
            say("connserver", f"stands at {server.address}:{server.port} ({how})")
            port = relay.tls_port if tls else relay.tcp_port
            say("relay", f"is logged in and serves clients at {relay.address}:{port} ({how})")
            try:
                good = perform(network, seconds)
            except (AssertionError, OSError) as error:
                print(f"\nThe demonstration failed: {error}")
                good = False
            if not good:
                print("The end of the relay's log:", *relay.log.lines[-20:], sep="\n  ")
            return good


def main() -> int:
    """Reads the command line; the exit status."""
    parser = argparse.ArgumentParser(prog="lab.run", description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=20, help="how long to play (20)")
    parser.add_argument("--tls", action="store_true", help="encrypt every connection")
    parser.add_argument("--binary", help="the relay (build/release/bin/relayserver)")
    options = parser.parse_args()
    binary = binary_path(options.binary)
    if not binary.is_file():
        print(f"There is no relay at {binary}; build it first.", file=sys.stderr)
        return 1
    # A terminal without these letters is to see question marks, not our end.
    sys.stdout.reconfigure(errors="replace")
    # Asked to end in whichever way, everything is taken down first.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    try:
        return 0 if run(options.seconds, options.tls, binary) else 1
    except KeyboardInterrupt:
        print("\nInterrupted; everything is taken down.")
        return 130
    except (AssertionError, OSError, RuntimeError) as error:
        print(f"The demonstration failed: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
