"""The real relay in a temporary folder of its own, with generated configuration and keys."""

from __future__ import annotations

import contextlib
import os
import signal
import subprocess
import tempfile
from collections import deque
from collections.abc import Iterator
from pathlib import Path

from lab.protocol.keys import shared_server_key, write_certificate
from lab.relay.config import RelayConfig
from lab.support import addresses
from lab.support.process_log import ProcessLog
from lab.support.waiting import Deadline, LabTimeout, patient, wait_until

ROOT = Path(__file__).resolve().parents[2]
DEFAULT_BINARY = ROOT / "build" / "release" / "bin" / "relayserver"
CONFIG_NAME = "tessel_rs.conf"

_SANITIZER_WORDS = (
    "ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
    "WARNING: ThreadSanitizer", "SUMMARY: UndefinedBehaviorSanitizer",
)  # fmt: skip

#: The latest relays, including closed ones, whose logs are shown when a test fails.
recent_relays: deque["Relay"] = deque(maxlen=32)


def binary_path(path: str | os.PathLike[str] | None = None) -> Path:
    """The binary to run: the argument, else RELAYSERVER_BIN, else the release build."""
    return Path(path or os.environ.get("RELAYSERVER_BIN") or DEFAULT_BINARY).resolve()


class Relay:
    """A relay process. Use as a context manager, or call `start` and `close`.

    By default it binds to a loopback address of its own, with free ports, logs to its standard
    output (-d), which `log` holds line by line together with its standard error, and finds the
    public key that lab.server.connection_server uses by default. Start it from the main thread: the
    kernel kills it when the thread that started it ends, so that no relay outlives this process.
    """

    def __init__(
        self,
        config: RelayConfig | None = None,
        *,
        env: dict[str, str] | None = None,
        binary: str | os.PathLike[str] | None = None,
        arguments: list[str] | None = None,
        own_address: bool = True,
        own_ports: bool = True,
        tls: bool = False,
        public_key: bytes | None = b"",
        stdin: str = "null",
        wrapper: list[str] | None = None,
    ) -> None:
        """`env` is added to ours (Schema.env). `arguments` replace "-d -f tessel_rs.conf".
        `tls` adds a certificate and a TLS port. `public_key`: PEM, b"" for the default one,
        None for no file. `stdin`: "null", "closed" or "pipe" (never written to).
        `wrapper` goes before the command, like ["prlimit", "--nofile=64"]."""
        self.config = config or RelayConfig()
        self.binary = binary_path(binary)
        self.arguments = ["-d", "-f", CONFIG_NAME] if arguments is None else arguments
        self._folder = tempfile.TemporaryDirectory(
            prefix="tessel-relay-", ignore_cleanup_errors=True
        )
        self.folder = Path(self._folder.name)
        self.log = ProcessLog()
        self._env = env or {}
        self._stdin = stdin
        self._wrapper = wrapper or []
        self._public_key = shared_server_key().public_pem() if public_key == b"" else public_key
        self._process: subprocess.Popen[bytes] | None = None
        self._choose_addresses(own_address, own_ports, tls)
        self.closed = False
        recent_relays.append(self)

    def _choose_addresses(self, own_address: bool, own_ports: bool, tls: bool) -> None:
        config = self.config
        if own_address and config.bind_address is None:
            config.bind_address = addresses.new_address()
        where = self.address if config.bind_address else "0.0.0.0"
        if own_ports:
            config.tcp_port = config.tcp_port or addresses.free_port(where)
            config.rtp_port = config.rtp_port or addresses.free_audio_base(where)
        if tls:
            config.tls_port = config.tls_port or addresses.free_port(where)
            config.certificate = config.certificate or write_certificate(self.folder, "relay")

    # -- where it is -----------------------------------------------------------------------

    @property
    def address(self) -> str:
        """The address to connect to."""
        return self.config.bind_address or "127.0.0.1"

    @property
    def tcp_port(self) -> int:
        """The TCP port for clients."""
        return self.config.tcp_port or 9736

    @property
    def tls_port(self) -> int:
        """The TLS port for clients, 0 without TLS."""
        return self.config.tls_port or 0

    def audio_port(self, program: int) -> int:
        """The UDP port of an audio program 0..5."""
        return (self.config.rtp_port or 6900) + 2 * program

    @property
    def pid(self) -> int:
        """The process id; RuntimeError before the first start."""
        return self._running().pid

    # -- life ------------------------------------------------------------------------------

    def __enter__(self) -> Relay:
        return self.start()

    def __exit__(self, *_: object) -> None:
        self.close()

    def start(self) -> Relay:
        """Writes the files and starts the process; also after it has ended."""
        if self.running:
            raise RuntimeError("the relay is running already")
        if not self.binary.is_file():
            raise FileNotFoundError(f"no relay at {self.binary}; build it first")
        (self.folder / CONFIG_NAME).write_text(self.config.render())
        if self._public_key is not None:
            (self.folder / "pub.key").write_bytes(self._public_key)
        command = ["setpriv", "--pdeathsig", "KILL", *self._wrapper]
        if self._stdin == "closed":
            command += ["sh", "-c", 'exec "$0" "$@" <&-']
        # A session of its own: Ctrl-C at our terminal must not reach it, we end the relay.
        self._process = subprocess.Popen(
            [*command, str(self.binary), *self.arguments],
            cwd=self.folder,
            env=self._environment(),
            stdin=subprocess.PIPE if self._stdin == "pipe" else subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            start_new_session=True,
        )
        self.log.attach(self._process.stdout)
        return self

    def _environment(self) -> dict[str, str]:
        # The caller's environment must not direct the relay to another database, or its posts to
        # a proxy.
        kept = {
            name: value
            for name, value in os.environ.items()
            if not name.startswith("PG") and not name.lower().endswith("_proxy")
        }
        return {"UBSAN_OPTIONS": "print_stacktrace=1", **kept, **self._env}

    def _running(self) -> subprocess.Popen[bytes]:
        if self._process is None:
            raise RuntimeError("the relay was not started")
        return self._process

    @property
    def running(self) -> bool:
        """Whether the process runs."""
        return self._process is not None and self._process.poll() is None

    def wait_ready(self, within_secs: float = 20.0, *, since: int = 0) -> Relay:
        """Waits for the log-in to the connection server, after which clients are served."""
        self.log.expect("sending relay port message", within_secs, since=since)
        return self

    def signal(self, number: int = signal.SIGTERM) -> None:
        """Sends a signal, by process id."""
        self._running().send_signal(number)

    @contextlib.contextmanager
    def stopped(self) -> Iterator[None]:
        """Stops the process, so that it finds everything that happens meanwhile at once."""
        self.signal(signal.SIGSTOP)
        try:
            wait_until(lambda: self._stat_fields()[0] == "T", 5, "the process stopped")
            yield
        finally:
            self.signal(signal.SIGCONT)

    def wait_exit(self, within_secs: float = 10.0) -> int:
        """The exit status; negative when a signal ended the process. All output is in `log`."""
        process = self._running()
        deadline = Deadline(within_secs)
        try:
            status = process.wait(deadline.left())
        except subprocess.TimeoutExpired:
            raise LabTimeout(f"the relay still runs after {within_secs} s") from None
        self.log.join()
        return status

    def stop(self, within_secs: float = 10.0) -> int:
        """Asks the relay to end and returns its exit status."""
        self.signal(signal.SIGTERM)
        return self.wait_exit(within_secs)

    def kill(self, within_secs: float = 10.0) -> int:
        """Kills the process; `start` brings the relay back under the same name, address and
        ports."""
        self.signal(signal.SIGKILL)
        return self.wait_exit(within_secs)

    def close(self) -> None:
        """Ends the process if it still runs, by force when asking takes too long, and removes
        its folder."""
        try:
            if self.running:
                self.signal(signal.SIGTERM)
                try:
                    self._process.wait(patient(5))
                except subprocess.TimeoutExpired:
                    self._process.kill()
                    self._process.wait()
        finally:
            if self._process is not None and self._process.stdin is not None:
                self._process.stdin.close()
            self.log.join()
            self._folder.cleanup()
            self.closed = True

    # -- findings --------------------------------------------------------------------------

    def sanitizer_reports(self) -> list[str]:
        """Lines in which a sanitizer reports an error; none in a good run."""
        return [line for line in self.log.lines if any(w in line for w in _SANITIZER_WORDS)]

    def cpu_secs(self) -> float:
        """The processor time that the process has used so far."""
        user_ticks, system_ticks = self._stat_fields()[11:13]
        return (int(user_ticks) + int(system_ticks)) / os.sysconf("SC_CLK_TCK")

    def _stat_fields(self) -> list[str]:
        """The fields of the process's stat file that follow its name, which may contain
        spaces."""
        return Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()

    def open_descriptors(self) -> int:
        """How many descriptors the process has open."""
        return len(os.listdir(f"/proc/{self.pid}/fd"))
