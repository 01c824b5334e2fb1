#!/usr/bin/python3
"""Writes genner/output/: one header and one source per message of genner/messages.toml, and the message types.

generate.py           writes what differs and removes files of classes that the table no longer has
generate.py --check   writes nothing; names what differs and exits 1 if anything does
"""

import argparse
import sys
from pathlib import Path

from class_code import ClassCode
from message_table import TableError, read_table
from type_code import NAME as TYPES_HEADER
from type_code import message_types_header

HERE = Path(__file__).resolve().parent


def generated_files(table: Path) -> dict[str, str]:
    """The text of each file, by name."""
    contents = read_table(table)
    files = {TYPES_HEADER: message_types_header(contents)}
    for message in contents.messages:
        code = ClassCode(message)
        files[f"{code.name}.h"] = code.header()
        files[f"{code.name}.cpp"] = code.source()
    return files


def differences(files: dict[str, str], output: Path) -> tuple[list[str], list[str]]:
    """The names of missing or changed files, and of files that belong to no message."""
    present = {path.name: path.read_text() for path in output.iterdir()} if output.is_dir() else {}
    changed = [name for name, text in files.items() if present.get(name) != text]
    return changed, sorted(set(present) - set(files))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="compare instead of writing")
    parser.add_argument("--table", type=Path, default=HERE / "messages.toml")
    parser.add_argument("--output", type=Path, default=HERE / "output")
    options = parser.parse_args()
    try:
        files = generated_files(options.table)
    except TableError as error:
        print(f"{options.table}: {error}", file=sys.stderr)
        return 2
    changed, surplus = differences(files, options.output)
    if options.check:
        for name in changed + surplus:
            print(f"{options.output / name} is not what the table says: run genner/generate.py", file=sys.stderr)
        return 1 if changed or surplus else 0
    options.output.mkdir(parents=True, exist_ok=True)
    for name in changed:
        (options.output / name).write_text(files[name])
    for name in surplus:
        (options.output / name).unlink()
    return 0


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.exit(main())
