#!/usr/bin/python3
"""Whether the pages say what the sources say, where a change of the sources is easily made without them: the keys that a
restricted user may not write, the settings of the service, the files of each folder."""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCES = ROOT / "src" / "access"
CHANNELS = range(8)
SETTING_PAGES = ["README.md", "docs/man/kesto-access.8", "packaging/systemd/kesto-access.environment"]
OF_A_LIBRARY = {"ZSYS_MAX_SOCKETS"}


def text(path):
    return (ROOT / path).read_text()


def keys_of_source():
    """The write blacklist of rights.cpp, its macros expanded."""
    source = text("src/access/net/requests/rights.cpp")
    prefixes = dict(re.findall(r'#define (\w+)\s+"(/Device[^"]*)"', source))
    rows = re.search(r"write_blacklist\[\] = \{(.*?)\n\};", source, re.S).group(1)
    for prefix, suffix, key in re.findall(r'EIGHT_CHANNELS\((\w+), "([^"]*)"\)|"([^"]*)"', rows):
        yield from [key] if key else (f"{prefixes[prefix]}{channel}{suffix}" for channel in CHANNELS)


def keys_of_page():
    """Those of the tables under "Rights" in protocol.md."""
    rights = re.search(r"^## Rights\n(.*?)^## ", text("docs/protocol.md"), re.S | re.M).group(1)
    for head, rows in re.findall(r"^\| keys, under `([^`]*)` .*?\n\|[-|]*\|\n((?:\|.*\n)+)", rights, re.M):
        for branch, names in re.findall(r"^\| (.*?) \| (.*?) \|$", rows, re.M):
            below = re.search(r"`(.*)…`", branch)
            for name in re.findall(r"`([^`]*)`", names):
                key = head + (below.group(1) if below else "") + name
                yield from (key.replace("Channel-N", f"Channel-{n}") for n in CHANNELS) if "-N/" in key else [key]


def settings():
    read = re.compile(r'(?:getenv|copy_of_environment)\("(\w+)"\)')
    for folder in (SOURCES, ROOT / "platform" / "src"):
        for path in folder.rglob("*.cpp"):
            yield from set(read.findall(path.read_text())) - OF_A_LIBRARY


def complaints():
    source, page = set(keys_of_source()), set(keys_of_page())
    for key in sorted(source ^ page):
        yield f"docs/protocol.md: {key} is forbidden " + ("there alone" if key in page else "in rights.cpp alone")
    for path in SETTING_PAGES:
        for name in sorted(set(settings())):
            if not re.search(rf"\b{name}\b", text(path)):
                yield f"{path}: the setting {name} is missing"
    rows = dict(re.findall(r"^\| `([a-z/]+)` \| (.*) \|$", text("docs/architecture.md"), re.M))
    for path in sorted(SOURCES.rglob("*.cpp")):
        folder = str(path.parent.relative_to(SOURCES))
        if f"`{path.stem}`" not in rows.get(folder, ""):
            yield f"docs/architecture.md: {folder}/{path.stem} is missing"


found = list(complaints())
for complaint in found:
    print(complaint)
sys.exit(1 if found else 0)
