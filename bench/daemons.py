"""What is measured: our relay, the bare floors and the peers. Each has its own address and
temporary folder, runs in the foreground on the daemon's core and is ended by its process id."""

from __future__ import annotations

import contextlib
import subprocess
import tempfile
from collections.abc import Callable, Iterator
from pathlib import Path

from bench.cells import FLAT_OUT, RELAY_FEW, RELAY_OTHER, Cell
from bench.pinning import DAEMON_CORE, on_core
from lab.database.cluster import Cluster
from lab.protocol.keys import shared_server_key, write_certificate
from lab.relay.config import RelayConfig
from lab.relay.relay import Relay
from lab.support import addresses

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build" / "bench" / "bin"


class Surroundings:
    """What the daemons of a run share: the relay's database, keys, a certificate; and the path of
    another build of the relay, if that is measured too."""

    def __init__(self, other_build: Path | None = None) -> None:
        self.other_build = other_build
        self._folder = tempfile.TemporaryDirectory(prefix="tessel-bench-")
        self.folder = Path(self._folder.name)
        self._cluster = Cluster()

    def __enter__(self) -> Surroundings:
        cluster = self._cluster.start()
        self.database_env = cluster.new_schema().env
        self.server_key_file = self.folder / "server.key"
        self.server_key_file.write_bytes(shared_server_key().private_pem())
        self.certificate = write_certificate(self.folder, "daemon")
        return self

    def __exit__(self, *_: object) -> None:
        self._cluster.close()
        self._folder.cleanup()


class Daemon:
    """One daemon for one cell: its addresses are chosen first, then the process is started and
    ended."""

    #: What the load program calls the protocol.
    adapter = ""

    def __init__(self, around: Surroundings, cell: Cell) -> None:
        self.around = around
        self.cell = cell
        self.address = addresses.new_address()
        self.port = addresses.free_port(self.address)

    def load_options(self) -> list[str]:
        """Where the load program finds the daemon."""
        return ["--daemon", self.adapter, "--address", self.address, "--port", str(self.port)]

    @contextlib.contextmanager
    def running(self) -> Iterator[int]:
        """Yields the process id; the process has ended when this exits."""
        with tempfile.TemporaryDirectory(prefix="tessel-bench-") as name:
            folder = Path(name)
            with open(folder / "output", "wb") as output:
                process = subprocess.Popen(
                    ["setpriv", "--pdeathsig", "KILL", *on_core(DAEMON_CORE),
                     *self.command(folder)],
                    cwd=folder,
                    stdin=subprocess.DEVNULL,
                    stdout=output,
                    stderr=subprocess.STDOUT,
                    start_new_session=True,
                )  # fmt: skip
                try:
                    yield process.pid
                finally:
                    _end(process)

    def command(self, folder: Path) -> list[str]:
        """The command line; may write a configuration into the folder, which is the working
        directory."""
        raise NotImplementedError


def _end(process: subprocess.Popen[bytes]) -> None:
    process.terminate()
    try:
        process.wait(3)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


#: Put before a command to send its output to a file in its working directory. The lab would read
#: it from a pipe, which wakes a reader for each line.
_LOG_TO_FILE = ["sh", "-c", 'exec "$0" "$@" >output 2>&1']


class RelayDaemon(Daemon):
    adapter = "relay"

    def binary(self) -> Path:
        """The program to run."""
        return BUILD / "relayserver"

    def __init__(self, around: Surroundings, cell: Cell) -> None:
        super().__init__(around, cell)
        self.server_address = addresses.new_address()
        config = RelayConfig(servers=[self.server_address], fec=cell.fec or None)
        self.relay = Relay(
            config,
            env=around.database_env,
            binary=self.binary(),
            tls=cell.tls,
            wrapper=[*on_core(DAEMON_CORE), *_LOG_TO_FILE],
        )

    def load_options(self) -> list[str]:
        self.address = self.relay.address
        self.port = self.relay.tls_port if self.cell.tls else self.relay.tcp_port
        return [
            *super().load_options(),
            "--audio-port", str(self.relay.audio_port(0)),
            "--server-address", self.server_address,
            "--server-key", str(self.around.server_key_file),
        ]  # fmt: skip

    @contextlib.contextmanager
    def running(self) -> Iterator[int]:
        try:
            yield self.relay.start().pid
        finally:
            self.relay.close()


class OtherRelay(RelayDaemon):
    def binary(self) -> Path:
        return self.around.other_build


class FloorSend(Daemon):
    adapter = "floor"
    program = "floor_send"

    def command(self, folder: Path) -> list[str]:
        return [str(BUILD / self.program), self.address, str(self.port)]


class FloorGather(FloorSend):
    program = "floor_gather"


class FloorTls(FloorSend):
    """Gathers in cells in which floors gather."""

    program = "floor_tls"

    def command(self, folder: Path) -> list[str]:
        certificate = self.around.certificate
        files = [str(certificate.crt_file), str(certificate.key_file)]
        gather = ["gather"] if self.cell.pace == FLAT_OUT else []
        return [*super().command(folder), *files, *gather]


class FloorAdmission(FloorSend):
    program = "floor_admission"

    def command(self, folder: Path) -> list[str]:
        if not self.cell.tls:
            return super().command(folder)
        certificate = self.around.certificate
        return [*super().command(folder), str(certificate.crt_file), str(certificate.key_file)]


class FloorUdp(FloorSend):
    """Listens where the relay would, for every program and channel."""

    program = "floor_udp"

    def __init__(self, around: Surroundings, cell: Cell) -> None:
        super().__init__(around, cell)
        self.port = addresses.free_audio_base(self.address)


class FloorUdpGso(FloorUdp):
    program = "floor_udp_gso"


class Nats(Daemon):
    adapter = "nats"

    def command(self, folder: Path) -> list[str]:
        (folder / "nats.conf").write_text(
            f"listen: {self.address}:{self.port}\nlogtime: false\n"
        )
        return ["nats-server", "-c", "nats.conf"]


class Redis(Daemon):
    adapter = "redis"

    def command(self, folder: Path) -> list[str]:
        (folder / "redis.conf").write_text(
            f"bind {self.address}\nport {self.port}\nprotected-mode no\nmaxclients 20000\n"
            'save ""\nappendonly no\ndaemonize no\nloglevel warning\n'
        )
        return ["redis-server", "redis.conf"]


class Mosquitto(Daemon):
    adapter = "mqtt"

    def command(self, folder: Path) -> list[str]:
        # It would drop root privileges and become a user that cannot read our folder.
        (folder / "mosquitto.conf").write_text(
            f"listener {self.port} {self.address}\nallow_anonymous true\nuser root\n"
            "persistence false\nlog_dest none\nconnection_messages false\nsys_interval 0\n"
            "max_queued_messages 0\nmax_queued_bytes 0\nset_tcp_nodelay true\n"
        )
        return ["mosquitto", "-c", "mosquitto.conf"]


class Coturn(Daemon):
    """A TURN server with one relay thread and no authentication."""

    adapter = "turn"

    def command(self, folder: Path) -> list[str]:
        return [
            "turnserver", "-n", f"--listening-ip={self.address}", f"--relay-ip={self.address}",
            f"--listening-port={self.port}", "--relay-threads=1", "--allow-loopback-peers",
            "--no-auth", "--no-tls", "--no-dtls", "--no-tcp", "--no-tcp-relay", "--no-cli",
            "--no-rfc5780", f"--userdb={folder / 'turndb'}", f"--pidfile={folder / 'pid'}",
            "--log-file=stdout", "--simple-log",
        ]  # fmt: skip


#: By the names that cells use.
DAEMONS: dict[str, Callable[[Surroundings, Cell], Daemon]] = {
    "relay": RelayDaemon,
    RELAY_FEW: RelayDaemon,
    RELAY_OTHER: OtherRelay,
    "floor_send": FloorSend,
    "floor_gather": FloorGather,
    "floor_tls": FloorTls,
    "floor_admission": FloorAdmission,
    "nats": Nats,
    "redis": Redis,
    "mosquitto": Mosquitto,
    "floor_udp": FloorUdp,
    "floor_udp_gso": FloorUdpGso,
    "coturn": Coturn,
}
