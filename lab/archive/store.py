#!/usr/bin/python3 -IS
"""Stores one posted body: the program that lab.archive.endpoint has its web server run.

The folder is named by the environment. A file appears there under its final name only when it is
complete; names are in order of arrival. First line: what is known of the request, as JSON; the
body follows as it came.
"""

import json
import os
import sys
import time

ABOUT = {"uri": "REQUEST_URI", "content_type": "CONTENT_TYPE", "user": "REMOTE_USER"}


def store(folder: str, body: bytes) -> None:
    about = {name: os.environ.get(variable, "") for name, variable in ABOUT.items()}
    # The order by a clock that nobody sets.
    name = f"{time.monotonic_ns():020d}-{os.getpid()}"
    unready, ready = (os.path.join(folder, name + end) for end in (".part", ".post"))
    with open(unready, "xb") as file:
        file.write(json.dumps({"arrived": time.time(), **about}).encode() + b"\n" + body)
    os.rename(unready, ready)


def main() -> None:
    body = sys.stdin.buffer.read(int(os.environ.get("CONTENT_LENGTH") or 0))
    if os.environ["REQUEST_METHOD"] != "POST":
        print("Status: 405 Method Not Allowed\nContent-Type: text/plain\n\nOnly POST.")
        return
    store(os.environ["ARCHIVE_FOLDER"], body)
    print("Content-Type: text/plain\n\nStored.")


if __name__ == "__main__":
    main()
