#!/usr/bin/python3
"""Whether the includes of src/access run downwards.

A folder stands in a layer and includes files of its own folder and of lower layers; folders of one layer do not know
each other. A module is a source with its header; no modules include each other in a cycle."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent / "src" / "access"
LAYERS = [  # from the bottom up
    ["common"],
    ["crypt", "net/records", "net/transport"],
    ["net/device", "net/notification"],
    ["net/sessions"],
    ["net/discovery", "net/requests"],
    ["net/start"],
    ["main"],
]
LEVEL = {folder: level for level, folders in enumerate(LAYERS) for folder in folders}
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


def first_cycle(arrows):
    """Modules, the last of which includes the first again; empty when there is no cycle."""
    done, path = set(), []

    def visit(module):
        if module in path:
            return path[path.index(module):]
        if module in done:
            return []
        path.append(module)
        for other in sorted(arrows[module]):
            if cycle := visit(other):
                return cycle
        path.pop()
        done.add(module)
        return []

    return next((cycle for module in sorted(arrows) if (cycle := visit(module))), [])


def complaints(files):
    for folder in sorted({folder_of(name) for name in files} - LEVEL.keys()):
        yield f"{folder} stands in no layer; LAYERS in scripts/check_includes.py has them"
        return
    arrows = {name.rpartition(".")[0]: set() for name in files}
    for name, others in sorted(files.items()):
        for other in others:
            if not is_allowed(name, other):
                yield f"src/access/{name} includes {other}, which does not stand below it"
            arrows[name.rpartition(".")[0]].add(other.rpartition(".")[0])
    if cycle := first_cycle({module: others - {module} for module, others in arrows.items()}):
        yield "these include each other in a cycle: " + " -> ".join(cycle + cycle[:1])


def main():
    found = list(complaints(included_files()))
    for complaint in found:
        print(complaint)
    return 1 if found else 0


sys.exit(main())
