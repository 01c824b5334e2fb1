#!/usr/bin/python3 -IS
"""Stores one posted body: the CGI program of the web server in lab.archive.endpoint.

The environment names the folder. A file gets its final name there only when it is complete; names
sort in order of arrival. First line: what is known about the request, as JSON; the body follows
unchanged.
"""

import json
import os
import sys
import time

ABOUT = {"uri": "REQUEST_URI", "content_type": "CONTENT_TYPE", "user": "REMOTE_USER"}


def store(folder: str, body: bytes) -> None:
    """Writes `body` and what is known about its request to a new file in `folder`."""
    about = {name: os.environ.get(variable, "") for name, variable in ABOUT.items()}
    # Ordered by a clock that is never set back.
    name = f"{time.monotonic_ns():020d}-{os.getpid()}"
    unready, ready = (os.path.join(folder, name + end) for end in (".part", ".post"))
    with open(unready, "xb") as file:
        file.write(json.dumps({"arrived": time.time(), **about}).encode() + b"\n" + body)
    os.rename(unready, ready)


def main() -> None:
    """Answers one request: stores the body of a POST, refuses any other method."""
    body = sys.stdin.buffer.read(int(os.environ.get("CONTENT_LENGTH") or 0))
    if os.environ["REQUEST_METHOD"] != "POST":
        print("Status: 405 Method Not Allowed\nContent-Type: text/plain\n\nOnly POST.")
        return
    store(os.environ["ARCHIVE_FOLDER"], body)
    print("Content-Type: text/plain\n\nStored.")


if __name__ == "__main__":
    main()
