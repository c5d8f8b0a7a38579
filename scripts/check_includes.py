#!/usr/bin/python3
"""Whether the includes of src/access run downwards.

A folder stands on a floor and includes files of its own folder and of lower floors; folders of one floor do not know
each other. A room is a source with its header; no rooms include each other in a ring."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent / "src" / "access"
FLOORS = [  # from the ground up
    ["common"],
    ["crypt", "net/records", "net/transport"],
    ["net/device", "net/notification"],
    ["net/sessions"],
    ["net/discovery", "net/requests"],
    ["net/start"],
    ["main"],
]
LEVEL = {folder: level for level, folders in enumerate(FLOORS) for folder in folders}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def folder_of(name):
    return name.rpartition("/")[0]


def included_files():
    """{file: the files of src/access that it includes}, as paths below it."""
    names = {str(path.relative_to(ROOT)) for path in ROOT.rglob("*") if path.suffix in (".cpp", ".h")}
    return {name: [other for other in INCLUDE.findall((ROOT / name).read_text()) if other in names] for name in names}


def is_allowed(name, other):
    here, there = folder_of(name), folder_of(other)
    return here == there or LEVEL[there] < LEVEL[here]


def first_ring(arrows):
    """Rooms, the last of which includes the first again; empty when there is no ring."""
    done, path = set(), []

    def visit(room):
        if room in path:
            return path[path.index(room):]
        if room in done:
            return []
        path.append(room)
        for other in sorted(arrows[room]):
            if ring := visit(other):
                return ring
        path.pop()
        done.add(room)
        return []

    return next((ring for room in sorted(arrows) if (ring := visit(room))), [])


def complaints(files):
    for folder in sorted({folder_of(name) for name in files} - LEVEL.keys()):
        yield f"{folder} stands on no floor; FLOORS in scripts/check_includes.py has them"
        return
    arrows = {name.rpartition(".")[0]: set() for name in files}
    for name, others in sorted(files.items()):
        for other in others:
            if not is_allowed(name, other):
                yield f"src/access/{name} includes {other}, which does not stand below it"
            arrows[name.rpartition(".")[0]].add(other.rpartition(".")[0])
    if ring := first_ring({room: others - {room} for room, others in arrows.items()}):
        yield "these include each other in a ring: " + " -> ".join(ring + ring[:1])


def main():
    found = list(complaints(included_files()))
    for complaint in found:
        print(complaint)
    return 1 if found else 0


sys.exit(main())
