"""A web server that stores what relays archive: Apache, with digest authentication.

    with ArchiveEndpoint() as endpoint:
        config.archive_endpoint = endpoint.url
        config.archive_username, config.archive_password = endpoint.user, endpoint.password
        ...
        bodies = [post.body for post in endpoint.posts()]

Each instance has a temporary folder, a loopback address and a port of its own. Root starts the
server as www-data: neither it nor the files that it stores need other rights.
"""

from __future__ import annotations

import hashlib
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
from pathlib import Path
from typing import NamedTuple

from lab.archive import store
from lab.support import addresses
from lab.support.waiting import LabTimeout, patient, wait_until

PROGRAM = Path("/usr/sbin/apache2")
MODULES = Path("/usr/lib/apache2/modules")
ACCOUNT = "www-data"
REALM = "caption archive"

_MODULES = (
    "mpm_event", "authn_core", "authn_file", "authz_core", "authz_user", "auth_digest", "alias",
    "cgi", "env",
)  # fmt: skip
#: Every path is served by the archive, whatever is appended to it.
_CONFIGURATION = """
ServerRoot "{folder}"
ServerName {address}
Listen {address}:{port}
PidFile "{folder}/pid"
DefaultRuntimeDir "{folder}"
Mutex posixsem
ErrorLog "{folder}/error.log"
LogLevel warn
KeepAliveTimeout 30
ScriptAliasMatch "^/" "{folder}/store"
SetEnv ARCHIVE_FOLDER "{folder}/posts"
<Location "/">
    AuthType Digest
    AuthName "{realm}"
    AuthUserFile "{folder}/users"
    Require valid-user
</Location>
"""


class Post(NamedTuple):
    """One posted body, with what is known about its request."""

    #: When it was stored, in seconds since 1970.
    arrived: float
    #: Path and query of the request.
    uri: str
    content_type: str
    user: str
    body: bytes


class ArchiveEndpoint:
    """Use as a context manager, or call `start` and `close`; between them `stop` and `start` at
    the same address. Start it from the main thread: the kernel kills the server when the thread
    that started it ends, so that it does not outlive this process."""

    def __init__(self, user: str = "archivist", password: str = "to keep captions") -> None:
        self.user, self.password = user, password
        self.address = addresses.new_address()
        self.port = addresses.free_port(self.address)
        self._process: subprocess.Popen[bytes] | None = None
        self._folder = tempfile.TemporaryDirectory(
            prefix="tessel-archive-", ignore_cleanup_errors=True
        )
        self.folder = Path(self._folder.name)
        self._write_files()

    @property
    def url(self) -> str:
        """Where to post."""
        return f"http://{self.address}:{self.port}/captions"

    # -- life ------------------------------------------------------------------------------

    def __enter__(self) -> ArchiveEndpoint:
        try:
            return self.start()
        except BaseException:
            self.close()
            raise

    def __exit__(self, *_: object) -> None:
        self.close()

    def start(self) -> ArchiveEndpoint:
        """Starts the server and waits until it answers."""
        if self.running:
            raise RuntimeError("the archive endpoint is running already")
        if not PROGRAM.is_file():
            raise FileNotFoundError(f"no {PROGRAM}: it is in the package apache2-bin")
        (self.folder / "pid").unlink(missing_ok=True)
        # -X: a single process, so that ending it leaves no children.
        command = [*_as_account(), str(PROGRAM), "-X", "-f", str(self.folder / "apache.conf")]
        with open(self._log_file(), "ab") as log:
            # A session of its own: Ctrl-C at our terminal must not reach it, we stop the server.
            self._process = subprocess.Popen(
                command,
                cwd=self.folder,
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,
            )
        try:
            wait_until(self._answers, 20, "the archive endpoint answers")
        except BaseException:
            self.stop()
            raise
        return self

    def stop(self, within_secs: float = 5.0) -> None:
        """Ends the server; connections to it break. What it stored is kept."""
        if self._process is None:
            return
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGTERM)
            try:
                self._process.wait(patient(within_secs))
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait()
        self._process = None

    def close(self) -> None:
        """Ends the server and removes everything."""
        self.stop()
        self._folder.cleanup()

    @property
    def pid(self) -> int | None:
        """The server's process, None when it is stopped."""
        return None if self._process is None else self._process.pid

    @property
    def running(self) -> bool:
        """Whether the server's process runs."""
        return self._process is not None and self._process.poll() is None

    def _write_files(self) -> None:
        """Writes the files that the server needs into its folder."""
        secret = f"{self.user}:{REALM}:{self.password}".encode()
        line = f"{self.user}:{REALM}:{hashlib.md5(secret).hexdigest()}\n"
        (self.folder / "users").write_text(line)
        configuration = "".join(
            f'LoadModule {name}_module "{MODULES}/mod_{name}.so"\n' for name in _MODULES
        )
        configuration += _CONFIGURATION.format(
            folder=self.folder, address=self.address, port=self.port, realm=REALM
        )
        (self.folder / "apache.conf").write_text(configuration)
        # A copy: the server's account may not be allowed to read our folder.
        shutil.copyfile(store.__file__, self.folder / "store")
        (self.folder / "store").chmod(0o755)
        self._posts_folder().mkdir()
        self._log_file().touch()
        if os.geteuid() == 0:
            for path in (self.folder, *self.folder.iterdir()):
                shutil.chown(path, ACCOUNT, ACCOUNT)

    def _answers(self) -> bool:
        if self._process.poll() is not None:
            raise LabTimeout(f"the archive endpoint ended: {self.log_text()[-2000:]}")
        try:
            socket.create_connection((self.address, self.port), 1).close()
            return True
        except OSError:
            return False

    # -- results ---------------------------------------------------------------------------

    def posts(self) -> list[Post]:
        """What was stored so far, in order of arrival."""
        return [_read_post(path) for path in sorted(self._posts_folder().glob("*.post"))]

    def wait_posts(self, count: int, within_secs: float = 30.0) -> list[Post]:
        """Waits until at least `count` bodies are stored; all that are."""
        wait_until(lambda: len(self.posts()) >= count, within_secs, f"{count} posts")
        return self.posts()

    def log_text(self) -> str:
        """The server's error log."""
        return self._log_file().read_text(errors="replace")

    def _posts_folder(self) -> Path:
        return self.folder / "posts"

    def _log_file(self) -> Path:
        return self.folder / "error.log"


def _as_account() -> list[str]:
    """What to put before the server's command. If the server itself changed its account, it would
    outlive this process."""
    prefix = ["setpriv", "--pdeathsig", "KILL"]
    if os.geteuid() == 0:
        prefix += ["--reuid", ACCOUNT, "--regid", ACCOUNT, "--clear-groups"]
    return prefix


def _read_post(path: Path) -> Post:
    about, _, body = path.read_bytes().partition(b"\n")
    return Post(body=body, **json.loads(about))
