"""A private PostgreSQL cluster on 127.0.0.1, with a separate schema for every relay.

Relays always connect to host 127.0.0.1, database "tessel", user "postgres". PGPORT directs them to
our cluster, and PGOPTIONS with a search_path gives each relay its own table `iopatch`, so that
one cluster serves many relays at once.
"""

from __future__ import annotations

import dataclasses
import itertools
import os
import shutil
import signal
import socket
import subprocess
import tempfile
from pathlib import Path

from lab.database.pgwire import PgConnection, Row, SqlError
from lab.support.waiting import LabTimeout, patient, wait_until

BIN = Path("/usr/lib/postgresql/15/bin")
SCHEMA_FILE = Path(__file__).resolve().parents[2] / "packaging" / "iopatch.sql"
HOST = "127.0.0.1"
DATABASE = "tessel"
USER = "postgres"

_STOP_SIGNALS = {
    "smart": signal.SIGTERM, "fast": signal.SIGINT, "immediate": signal.SIGQUIT,
}
# Nothing here has to survive a power cut; and a relay keeps its connection while it runs.
_SETTINGS = {
    "listen_addresses": HOST, "unix_socket_directories": "", "max_connections": "200",
    "fsync": "off", "synchronous_commit": "off", "full_page_writes": "off",
    "shared_buffers": "32MB", "max_wal_size": "64MB", "min_wal_size": "32MB",
    "autovacuum": "off", "log_min_messages": "warning", "timezone": "UTC",
}


def _as_postgres() -> list[str]:
    """What to put before a command of PostgreSQL: its programs refuse to run as root, and the
    server has to end with this process even when that is killed."""
    prefix = ["setpriv", "--pdeathsig", "INT"]
    if os.geteuid() == 0:
        prefix += ["--reuid", USER, "--regid", USER, "--init-groups"]
    return prefix


def _wait_for_exit(process: subprocess.Popen[bytes]) -> None:
    """Waits for a process that is no longer wanted: killed at once, it would leave child processes
    that keep writing to the folder we remove."""
    try:
        process.communicate(timeout=patient(10))
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()


def _free_port() -> int:
    with socket.socket() as probe:
        probe.bind((HOST, 0))
        return probe.getsockname()[1]


@dataclasses.dataclass
class Schema:
    """One relay's schema in the cluster: `env` is for the relay's environment."""

    cluster: Cluster
    name: str
    env: dict[str, str]

    def query(self, sql: str) -> list[Row]:
        """Runs statements with this schema in front of the search path."""
        return self.cluster.query(f"SET search_path = {self.name}; {sql}")

    def routes(self) -> set[tuple[int, int, int]]:
        """The rows of the route table as (from, to, message class)."""
        rows = self.query("SELECT clientfrom, clientto, msgclass FROM iopatch")
        return {(int(row[0]), int(row[1]), int(row[2])) for row in rows}

    def wait_for_route(self, route: tuple[int, int, int], within_secs: float = 5.0) -> None:
        """Waits until (from, to, message class) is in the table."""
        wait_until(lambda: route in self.routes(), within_secs, f"route {route} in {self.name}")

    def wait_for_routes(
        self, routes: set[tuple[int, int, int]], within_secs: float = 5.0
    ) -> None:
        """Waits until the table holds exactly these routes."""
        wait_until(lambda: self.routes() == routes, within_secs, f"{routes} in {self.name}")


class Cluster:
    """A private cluster in a temporary folder, removed by `close`.

    Start it from the main thread: the kernel ends the server when the thread that started it
    ends, so that it ends even when this process is killed.
    """

    def __init__(self) -> None:
        self.port = 0
        self._folder: Path | None = None
        self._process: subprocess.Popen[bytes] | None = None
        self._numbers = itertools.count(1)

    def __enter__(self) -> Cluster:
        return self.start()

    def __exit__(self, *_: object) -> None:
        self.close()

    # -- life ------------------------------------------------------------------------------

    def start(self) -> Cluster:
        """Creates the cluster the first time, then starts the server and waits for it."""
        try:
            if self._folder is None:
                self._create()
            self._launch()
            if not self.query_in("postgres", _HAS_DATABASE):
                self.query_in("postgres", f"CREATE DATABASE {DATABASE}")
                self.query(SCHEMA_FILE.read_text())
        except BaseException:
            self.close()
            raise
        return self

    def stop(self, mode: str = "fast") -> None:
        """Stops the server: "fast" (orderly, ends connections), "smart" (waits for them) or
        "immediate" (like a crash: the next start recovers and empties unlogged tables)."""
        if self._process is None:
            return
        if self._process.poll() is None:
            self._process.send_signal(_STOP_SIGNALS[mode])
            try:
                self._process.wait(patient(20))
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        self._process = None

    def restart(self, mode: str = "fast") -> None:
        """Stops and starts again at the same port."""
        self.stop(mode)
        self.start()

    def close(self) -> None:
        """Stops the server and removes everything."""
        self.stop("immediate")
        if self._folder is not None:
            shutil.rmtree(self._folder, ignore_errors=True)
            self._folder = None

    @property
    def running(self) -> bool:
        """Whether the server's process runs."""
        return self._process is not None and self._process.poll() is None

    def _create(self) -> None:
        self._folder = Path(tempfile.mkdtemp(prefix="tessel-pg-"))
        if os.geteuid() == 0:
            shutil.chown(self._folder, USER, USER)
        command = [
            *_as_postgres(), str(BIN / "initdb"), "-D", str(self._folder / "data"), "-U", USER,
            "--auth=trust", "--no-sync", "--encoding=UTF8", "--locale=C.UTF-8",
        ]  # fmt: skip
        # A session of its own: Ctrl-C at our terminal would leave its child processes running.
        process = subprocess.Popen(
            command,
            cwd=self._folder,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            start_new_session=True,
        )
        try:
            output = process.communicate(timeout=patient(60))[0]
        except BaseException:
            _wait_for_exit(process)
            raise
        if process.returncode != 0:
            raise RuntimeError(f"initdb failed: {output.decode(errors='replace')}")

    def _launch(self) -> None:
        """Starts the server; the first time, another port is tried when one was taken."""
        first_time = self.port == 0
        for attempt in range(3):
            if first_time:
                self.port = _free_port()
            self._spawn()
            try:
                wait_until(self._answers, 30, "the database server answers")
                return
            except (ChildProcessError, LabTimeout):
                if attempt == 2 or not first_time:
                    raise

    def _spawn(self) -> None:
        settings = {**_SETTINGS, "port": str(self.port)}
        command = [*_as_postgres(), str(BIN / "postgres"), "-D", str(self._folder / "data")]
        for name, value in settings.items():
            command += ["-c", f"{name}={value}"]
        with open(self._log_file(), "ab") as log:
            # A session of its own: Ctrl-C at our terminal must not reach it, we stop the server.
            self._process = subprocess.Popen(
                command,
                cwd=self._folder,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
            )

    def _answers(self) -> bool:
        if self._process.poll() is not None:
            raise ChildProcessError(f"the database server ended: {self.log_text()[-2000:]}")
        try:
            self.query_in("postgres", "SELECT 1")
            return True
        except (OSError, SqlError):
            return False

    def _log_file(self) -> Path:
        return self._folder / "server.log"

    def log_text(self) -> str:
        """What the server logged."""
        return self._log_file().read_text(errors="replace")

    # -- use -------------------------------------------------------------------------------

    def query_in(self, database: str, sql: str) -> list[Row]:
        """Runs statements in any database of the cluster; rows as texts, None for null."""
        with PgConnection(HOST, self.port, database=database, user=USER) as connection:
            return connection.query(sql)

    def query(self, sql: str) -> list[Row]:
        """Runs statements in the database of the relays; rows as texts, None for null."""
        return self.query_in(DATABASE, sql)

    @property
    def env(self) -> dict[str, str]:
        """The environment of a relay that uses the schema "public"."""
        return {"PGPORT": str(self.port)}

    def new_schema(self) -> Schema:
        """A new schema with a route table, for one more relay."""
        name = f"relay_{next(self._numbers)}"
        self.query(f"CREATE SCHEMA {name}")
        schema = Schema(self, name, {**self.env, "PGOPTIONS": f"-c search_path={name}"})
        schema.query(SCHEMA_FILE.read_text())
        return schema


_HAS_DATABASE = f"SELECT 1 FROM pg_database WHERE datname = '{DATABASE}'"
