#!/usr/bin/python3
"""Shows the order of the project's rooms and checks that every include points down.

A module is a header with its source; a room is a folder. Includes of sources count like those of
headers, and imports of the Python tools like includes.

room_order.py                  prints the rooms, the upper ones first, and exits 1 if there is a circle
                               between modules or an include that points up
room_order.py --doc FILE       also fails unless FILE shows the order of the engine as it is printed
room_order.py --count          prints the numbers only, for a tree of any state
"""

import argparse
import ast
import re
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

#: Each room with its one sentence. The upper ones know the lower ones.
ENGINE = {
    "relayserver": "the life of the process, top to bottom",
    "relayserver/process": "how the process ends",
    "relayserver/loop": "one pass of the event loop, and what is done by the clock",
    "relayserver/orders": "what the connection server says, from the attempt to reach it to its last order",
    "relayserver/audio": "datagrams: whose they are, where they go, who registers for them",
    "relayserver/switching": "what admitted clients send, and where it goes",
    "relayserver/admission": "from accept to a client that has shown a valid ticket",
    "relayserver/peers": "other relays: connecting to them, marking them, registering audio with them",
    "relayserver/cslink": "the state of the link to the connection server, and what is sent on it",
    "relayserver/routes": "the route table in the database and the cache in front of it",
    "relayserver/clients": "who is connected, what each is allowed, and the only door out",
    "relayserver/archive": "copies of captions, collected and rendered for the poster",
    "relayserver/sockets": "descriptors: listening, watching, options, TLS contexts",
    "relayserver/settings": "what the operator decided, the keys of this run, limits and times",
}
BELOW_ENGINE = {
    "poster": "the thread that posts archived captions",
    "connserver": "process services: the log and its thread, signals and their thread",
    "genner/output": "one class per message, and what the relay knows of each type",
    "orvex": "the message library: framing, tickets, sockets, client records, SQL wrapper",
    "base": "plain tools that know nothing of the relay",
}
BESIDE = {
    "bench/instructions": "one message through the loop, counted",
    "bench/micro": "single functions, timed",
    "bench/load": "the load program of the benchmark",
    "bench/floors": "bare loops to compare with",
}
ROOMS = {**BESIDE, **ENGINE, **BELOW_ENGINE}

_INCLUDE = re.compile(r'\s*#\s*include\s+"([^"]+)"')


def tracked_files(root: Path, *patterns: str) -> list[str]:
    command = ["git", "-C", str(root), "ls-files", "--cached", "--others", "--exclude-standard", *patterns]
    names = subprocess.run(command, capture_output=True, text=True, check=True).stdout.split()
    return sorted(name for name in names if (root / name).is_file() and not name.startswith("tests/"))


def included_files(root: Path, name: str, known: set[str]) -> set[str]:
    """Paths count from the root; a bare name is a file of the same folder."""
    text = (root / name).read_text(encoding="utf-8")
    paths = [match[1] for match in map(_INCLUDE.match, text.splitlines()) if match]
    beside = [str(Path(name).parent / path) for path in paths]
    return {path for path in [*paths, *beside] if path in known}


def module_of(name: str) -> str:
    return str(Path(name).with_suffix(""))


def room_of(module: str) -> str:
    return str(Path(module).parent)


def cpp_arrows(root: Path) -> dict[str, set[str]]:
    """Each module with the modules that it includes."""
    names = tracked_files(root, "*.cpp", "*.h")
    arrows: dict[str, set[str]] = {module_of(name): set() for name in names}
    for name in names:
        arrows[module_of(name)] |= {module_of(path) for path in included_files(root, name, set(names))}
    return without_loops(arrows)


def imported_modules(root: Path, name: str) -> set[str]:
    found: set[str] = set()
    for node in ast.walk(ast.parse((root / name).read_text(encoding="utf-8"))):
        if isinstance(node, ast.Import):
            found |= {alias.name for alias in node.names}
        elif isinstance(node, ast.ImportFrom) and node.module and not node.level:
            found.add(node.module)
            found |= {f"{node.module}.{alias.name}" for alias in node.names}
    return {path.replace(".", "/") for path in found}


def python_arrows(root: Path) -> dict[str, set[str]]:
    names = [name for name in tracked_files(root, "*.py") if not name.endswith("__init__.py")]
    modules = {module_of(name) for name in names}
    return without_loops({module_of(name): imported_modules(root, name) & modules for name in names})


def without_loops(arrows: dict[str, set[str]]) -> dict[str, set[str]]:
    return {source: targets - {source} for source, targets in arrows.items()}


def circles(arrows: dict[str, set[str]]) -> list[list[str]]:
    """Groups of nodes that reach each other, each sorted."""
    reach = {node: reachable(arrows, node) for node in arrows}
    groups = {tuple(sorted({node} | {other for other in reach[node] if node in reach.get(other, ())})) for node in arrows}
    return sorted([list(group) for group in groups if len(group) > 1])


def reachable(arrows: dict[str, set[str]], start: str) -> set[str]:
    found: set[str] = set()
    waiting = list(arrows.get(start, ()))
    while waiting:
        node = waiting.pop()
        if node not in found:
            found.add(node)
            waiting += arrows.get(node, ())
    return found


def between_rooms(arrows: dict[str, set[str]]) -> dict[str, set[str]]:
    rooms: dict[str, set[str]] = defaultdict(set)
    for source, targets in arrows.items():
        rooms[room_of(source)] |= {room_of(target) for target in targets}
    return without_loops(rooms)


def upward(arrows: dict[str, set[str]]) -> list[str]:
    """Includes of a room above the includer's own, and rooms that have no place in the order."""
    place = {room: index for index, room in enumerate(ROOMS)}
    found = [f"{room}: a room without a place in the order" for room in sorted({room_of(m) for m in arrows} - set(place))]
    for source, targets in sorted(arrows.items()):
        above = [target for target in sorted(targets) if place.get(room_of(target), 0) < place.get(room_of(source), 0)]
        found += [f"{source} includes {target}, which is above it" for target in above]
    return found


def order_text(rooms: dict[str, str], arrows: dict[str, set[str]]) -> str:
    """A line per room: its modules, and its sentence."""
    lines = []
    for room, sentence in rooms.items():
        modules = " ".join(sorted((Path(m).name for m in arrows if room_of(m) == room), key=str.lower))
        lines += [f"{room + '/':24}{sentence}", f"{'':24}  {modules}"]
    return "\n".join(lines)


def print_counts(arrows: dict[str, set[str]]) -> None:
    in_circles = [set(group) for group in circles(arrows)]
    inside = sum(1 for source in arrows for target in arrows[source] for group in in_circles if {source, target} <= group)
    rooms = circles(between_rooms(arrows))
    print(f"module circles: {len(in_circles)}, of {sum(map(len, in_circles))} modules and {inside} arrows")
    print(f"room circles: {len(rooms)}, of {sum(map(len, rooms))} rooms")
    print(f"upward arrows: {len(upward(arrows))}")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--root", type=Path, default=Path(__file__).resolve().parents[1])
    parser.add_argument("--doc", type=Path, help="a document that shows the order of the engine")
    parser.add_argument("--count", action="store_true", help="print the numbers only")
    options = parser.parse_args()
    cpp, python = cpp_arrows(options.root), python_arrows(options.root)
    if options.count:
        print_counts(cpp)
        return 0
    engine_text = order_text({**ENGINE, **BELOW_ENGINE}, cpp)
    print(engine_text, order_text(BESIDE, cpp), sep="\n\n")
    faults = [f"a circle: {' '.join(group)}" for arrows in (cpp, python) for group in circles(arrows)]
    faults += [f"a circle of folders: {' '.join(group)}" for group in circles(between_rooms(python))]
    faults += upward(cpp)
    if options.doc and engine_text not in options.doc.read_text(encoding="utf-8"):
        faults.append(f"{options.doc} does not show the order as it is printed above")
    print("\n" + "\n".join(faults or ["no circle, no include that points up"]))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
