"""Counts instead of seconds: what one piece of work costs in instructions, allocations and system calls.

Each counter observes a running program from outside and is read before and after a known number of pieces of work, so
that neither the start nor the warm-up is in the figure. One run per program and counter.
"""
import json
import pathlib
import platform
import re
import subprocess

import rows
from testbed.gateway import Failure, TestBed

# An event that reaches more clients costs this much more for each of them.
FEW_CLIENTS, MORE_CLIENTS = 1, 21
WORK = {"read": "read, one bus call", "write": "write, one bus call",
        "multi-write": "multi-write of 8 keys, one bus call", "authorize": "authorize, no bus call",
        "discovery": "discovery of a known id, 2048-bit key", "discovery-plain": "discovery of a known id, no key",
        "login": "login and log-out, two bus calls",
        "event-1": "event, reported and sent to 1 client", "event-client": "event, each further client"}
TOLERANCE = 0.10
# How often threads meet each other asleep is the machine's business: shown, and not judged.
UNJUDGED = {("system calls", "event-client"), ("system calls", "event-1")}
# What threads do in waiting for each other differs from run to run, most of all in system calls.
FREE = {"instructions": 100, "allocations": 0.5, "system calls": 2}


class Instructions:
    """Callgrind's, of all threads, outside the kernel."""

    def __init__(self, bed):
        self.dumps = bed.folder / "callgrind"
        self.total = 0

    def command(self, program):
        return ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={self.dumps}", program]

    def read(self, bed):
        subprocess.run(["vgdb", f"--pid={bed.pid}", "dump"], env=bed.environment,  # its pipe is named after the user in it
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        newest = max(self.dumps.parent.glob("callgrind.*"), key=lambda path: int(path.suffix[1:]))
        self.total += int(re.search(r"^totals: (\d+)", newest.read_text(), re.MULTILINE).group(1))
        return self.total


class Allocations:
    """Calls of malloc and its like, by a library in front of the C library's."""

    def __init__(self, bed):
        self.file = bed.folder / "allocations"
        bed.env = {"LD_PRELOAD": str(bed.bin.parent / "lib/libbench-allocations.so"), "BENCH_ALLOCATIONS": str(self.file)}

    def command(self, program):
        return [program]

    def read(self, _):
        return int.from_bytes(self.file.read_bytes(), "little")


class SystemCalls:
    """strace's, of all threads."""

    def __init__(self, bed):
        self.file = bed.folder / "strace"

    def command(self, program):
        # With -D the program keeps the process id that its starter knows.
        return ["strace", "-D", "-f", "-qq", "-e", "signal=none", "-o", self.file, program]

    def read(self, _):
        return sum(" resumed>" not in line for line in self.file.read_text(errors="replace").splitlines())


COUNTERS = {"instructions": Instructions, "allocations": Allocations, "system calls": SystemCalls}


def observe(bed, counter):
    """{name: count per piece of work}"""
    load = bed.start("load", [bed.bin / "bench-load", "count"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    figures, before = {}, 0
    with load:
        for line in load.stdout:
            step, name, pieces = line.split()
            now = counter.read(bed)
            if step == "begin":
                before = now
            else:
                figures[name] = (now - before) / int(pieces)
            load.stdin.write("\n")
            load.stdin.flush()
    if load.returncode != 0:
        raise Failure(f"counting failed: {bed.role_log('load')}; the program: {bed.last_words()}")
    more = figures.pop(f"event-{MORE_CLIENTS}")
    figures["event-client"] = (more - figures[f"event-{FEW_CLIENTS}"]) / (MORE_CLIENTS - FEW_CLIENTS)
    return figures


def count(programs, sides):
    """{counter: {side: {name: count}}}"""
    counted = {name: {} for name in COUNTERS}
    for side in sides:
        for name in COUNTERS:
            with TestBed(programs, pinned=True, start=False) as bed:
                counter = COUNTERS[name](bed)
                bed.start_program(counter.command(bed.bin / rows.PROGRAM[side]))
                counted[name][side] = observe(bed, counter)
                bed.stop()
    return counted


def _texts(name, figures):
    """The figure of each side, and their ratio when there are two."""
    digits = 0 if name == "instructions" else 1
    ratio = f"{figures['service'] / figures['baseline']:.2f}" if figures.get("baseline", 0) >= 0.05 else "-"
    return [*(f"{figures[side]:.{digits}f}" if side in figures else "-" for side in rows.PROGRAM), ratio]


def table(counted):
    """Headings and lines, ready to be printed."""
    lines = []
    for name in COUNTERS:
        for work, text in WORK.items():
            lines.append([text, name, *_texts(name, {side: by_work[work] for side, by_work in counted[name].items()})])
    return ["one piece of work", "counted", "baseline", "service", "ratio"], lines


def excesses(counted, expected):
    """A sentence for each count that passes its bound."""
    found = []
    for name in COUNTERS:
        for work, text in WORK.items():
            if (name, work) in UNJUDGED:
                continue
            now, bound = counted[name]["service"][work], expected[name][work] * (1 + TOLERANCE) + FREE[name]
            if now > bound:
                found.append(f"{text}: {now:.1f} {name}, expected {expected[name][work]:.1f}, bound {bound:.1f}")
    return found


# The file holds them by architecture: another one has other instructions and another C library.
def _keep(path, counted):
    own = {name: {work: round(value, 1) for work, value in sides["service"].items()} for name, sides in counted.items()}
    others = json.loads(path.read_text()) if path.exists() else {}
    path.write_text(json.dumps(others | {platform.machine(): own}, indent=1) + "\n")


def _check(path, counted):
    if not path.exists():
        raise Failure(f"there is no file {path}")
    expected = json.loads(path.read_text()).get(platform.machine())
    if expected is None:
        print(f"{path} has no counts of {platform.machine()} to compare these with; --keep writes them")
        return 0
    found = excesses(counted, expected)
    for sentence in found:
        print(f"costlier: {sentence}")
    return 1 if found else 0


def judge(counted, chosen):
    """The exit status; with what the options ask for done."""
    if chosen.keep:
        _keep(pathlib.Path(chosen.keep), counted)
    return _check(pathlib.Path(chosen.check), counted) if chosen.check else 0
