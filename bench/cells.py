"""The cells of the table: what is sent to whom, how fast, and by which daemons."""

from __future__ import annotations

import dataclasses
import itertools

MODERATE, FLAT_OUT = "moderate", "flat-out"
PAYLOADS = (200, 64, 490)
FANOUTS = (1, 8, 64, 512)
IDLE = (10, 1000, 8000)

PEERS = ("nats", "redis", "mosquitto", "coturn")
TCP_PEERS = PEERS[:3]

TCP, UDP, ADMISSION, RECONNECT = "tcp", "udp", "admission", "reconnect"
UDP_FANOUTS = (1, 8, 64)

#: The relay with few idle clients, for comparison with the one that has thousands.
RELAY_FEW = "relay, 10 idle"

#: Another build of the relay.
RELAY_OTHER = "relay, other"

#: Bytes per second that a source stays below: the relay drops ordinary clients above 2,000,000.
SOURCE_LIMIT = 1_900_000


@dataclasses.dataclass(frozen=True)
class Cell:
    """One line of the table for each daemon."""

    #: Which part of the table it is in, and its name there.
    part: str
    label: str
    #: What the load program calls this kind of cell, one of the above.
    kind: str
    daemons: tuple[str, ...]
    #: The floor that the relay is compared with.
    floor: str
    pace: str = MODERATE
    sources: int = 1
    fanout: int = 1
    payload: int = 200
    idle: int = 10
    tls: bool = False
    #: The sources are relay peers, which the relay does not limit.
    relay_sources: bool = False
    #: UDP: two channels of error correction in addition to the sound.
    fec: bool = False
    #: Flat out: how many bytes a source is ahead of its slowest receiver.
    window: int = 65536
    #: How long a repetition lasts; for admissions and reconnects, at most.
    seconds: float = 0.15
    repeats: int = 7
    #: Admission: clients that connect in one repetition.
    logins: int = 0
    #: What processor time and rate are counted per.
    unit: str = "delivery"

    @property
    def name(self) -> str:
        return f"{self.part}, {self.label}"

    @property
    def peers(self) -> tuple[str, ...]:
        return tuple(daemon for daemon in self.daemons if daemon in PEERS)

    def batch_key(self) -> Cell:
        """Cells with equal keys differ only in their receivers. They are measured in sequence with
        the same clients, because thousands of clients have to be connected."""
        alone = self.idle < 1000
        return self if alone else dataclasses.replace(self, label="", fanout=0)

    def with_other_build(self) -> Cell:
        """The same cell, in which another build of the relay also takes its turn."""
        return dataclasses.replace(self, daemons=(*self.daemons, RELAY_OTHER))

    def idle_of(self, daemon: str) -> int:
        """How many idle clients a daemon has in this cell."""
        return IDLE[0] if daemon == RELAY_FEW else self.idle

    def load_options(self, daemon: str, fanouts: list[int]) -> list[str]:
        """The options that describe the cell, and the others of its batch, to a daemon's load
        program."""
        values = {
            "cell": self.kind, "pace": self.pace, "sources": self.sources,
            "fanout": ",".join(map(str, fanouts)), "payload": self.payload,
            "idle": self.idle_of(daemon),
            "tls": int(self.tls), "peer": int(self.relay_sources), "seconds": self.seconds,
            "repeats": self.repeats, "window": self.window, "fec": int(self.fec),
        }  # fmt: skip
        if self.kind == TCP and self.pace == FLAT_OUT and not self.relay_sources:
            values["source-limit"] = SOURCE_LIMIT
        if self.logins:
            values["logins"] = self.logins
        return [text for key, value in values.items() for text in (f"--{key}", str(value))]


_MANY = {"sources": 100, "fanout": 10}
#: Datagrams in flight have to fit in a socket buffer of Linux's default size: not every daemon
#: enlarges the buffers of all its sockets.
_UDP_WINDOW = 32768
#: A thousand receivers lag by this much: as much waits in the daemon when the sources stop.
_MANY_WINDOW = 16384
_MANY_LABEL = "100 to 10 each"


def _moderate() -> list[Cell]:
    common = {"kind": TCP, "daemons": ("relay", "floor_send", *TCP_PEERS), "floor": "floor_send"}
    part = "moderate"
    one_source = [
        Cell(part, f"1 to {fanout}, {payload} B", fanout=fanout, payload=payload, **common)
        for payload, fanout in itertools.product(PAYLOADS, FANOUTS)
    ]
    many = [
        Cell(part, f"{_MANY_LABEL}, {payload} B", payload=payload, **_MANY, **common)
        for payload in PAYLOADS
    ]
    idle = [
        Cell(part, f"1 to {fanout}, {idle} idle", fanout=fanout, idle=idle, **common)
        for idle, fanout in itertools.product(IDLE[1:], FANOUTS)
    ]
    return [*one_source, *many, *map(_with_few_idle, idle)]


def _with_few_idle(cell: Cell) -> Cell:
    """The same; with the most idle clients, the relay with few of them takes a turn too."""
    if cell.idle != IDLE[-1]:
        return cell
    return dataclasses.replace(cell, daemons=(*cell.daemons, RELAY_FEW))


def _flat_out() -> list[Cell]:
    common = {"kind": TCP, "floor": "floor_gather", "pace": FLAT_OUT}
    part = "flat out"
    many = [
        Cell(
            part, f"{_MANY_LABEL}, {payload} B", payload=payload, window=_MANY_WINDOW,
            daemons=("relay", "floor_gather", "floor_send", *TCP_PEERS), **_MANY, **common,
        )
        for payload in PAYLOADS
    ]  # fmt: skip
    one_source = [
        Cell(
            part, f"1 to {fanout}, {payload} B", fanout=fanout, payload=payload,
            daemons=("relay", "floor_gather", *TCP_PEERS), relay_sources=True, **common,
        )
        for payload, fanout in itertools.product(PAYLOADS, FANOUTS[1:])
    ]  # fmt: skip
    return [*many, *one_source]


def _tls() -> list[Cell]:
    """The same cells again, with one payload, compared with a floor that also uses TLS."""
    plain = [*_moderate(), *_flat_out()]
    return [
        dataclasses.replace(
            cell, part=f"TLS {cell.part}", daemons=("relay", "floor_tls"), floor="floor_tls",
            tls=True,
        )
        for cell in plain
        if cell.payload == 200 and cell.idle == IDLE[0]
    ]  # fmt: skip


def _udp() -> list[Cell]:
    """Datagrams: several receivers, several programs, error correction, idle clients."""
    shapes = [
        *({"label": f"1 to {fanout}", "fanout": fanout} for fanout in UDP_FANOUTS),
        {"label": "6 to 8 each", "fanout": 8, "sources": 6},
        {"label": "1 to 8 with FEC", "fanout": 8, "fec": True},
    ]
    common = {"kind": UDP, "window": _UDP_WINDOW}
    moderate = {"part": "UDP moderate", "floor": "floor_udp", **common}
    moderate["daemons"] = ("relay", "floor_udp", "coturn")
    flat_out = {"part": "UDP flat out", "floor": "floor_udp_gso", "pace": FLAT_OUT, **common}
    flat_out["daemons"] = ("relay", "floor_udp_gso", "floor_udp", "coturn")
    return [
        *(Cell(**shape, **moderate) for shape in shapes),
        _with_few_idle(Cell(label=f"1 to 8, {IDLE[-1]} idle", fanout=8, idle=IDLE[-1], **moderate)),
        *(Cell(**shape, **flat_out) for shape in shapes),
    ]


def _admission() -> list[Cell]:
    """Clients that log in, and clients that are connected when the relay loses its server."""
    logins = Cell(
        "admission", "log-ins, plain", kind=ADMISSION, daemons=("relay", "floor_admission"),
        floor="floor_admission", idle=0, seconds=1.0, repeats=5, logins=3000, unit="log-in",
    )  # fmt: skip
    over_tls = dataclasses.replace(logins, label="log-ins, TLS", tls=True, seconds=1.0, logins=400)
    reconnect = Cell(
        "admission", "5000 after a reconnect", kind=RECONNECT, daemons=("relay",),
        floor="", idle=5000, seconds=0.5, repeats=5, unit="client",
    )  # fmt: skip
    return [logins, over_tls, reconnect]


def all_cells() -> list[Cell]:
    """Every cell of the table, in its order."""
    return [*_moderate(), *_flat_out(), *_tls(), *_udp(), *_admission()]


def batches(cells: list[Cell]) -> list[list[Cell]]:
    """The cells in the same order; those that are measured together share a list."""
    found: dict[Cell, list[Cell]] = {}
    for cell in cells:
        found.setdefault(cell.batch_key(), []).append(cell)
    return list(found.values())


def quick_cells() -> list[Cell]:
    """One payload and few runs: they show whether everything works, not how fast it is."""
    few = [
        cell
        for cell in all_cells()
        if cell.payload == 200 and (cell.idle <= 1000 or cell.kind == RECONNECT)
    ]
    return [dataclasses.replace(cell, repeats=2, seconds=0.15) for cell in few]
