"""Counts instead of seconds: what one piece of work costs in instructions, allocations and system calls.

Each counter observes a running program from outside and is read before and after a known number of pieces of work, so
that neither the start nor the warm-up is in the figure. One run per program and counter.

What threads do until they meet depends on the machine's load: how often one of them finds another asleep and wakes it,
how often it looks in vain, how many ticks pass meanwhile. The handlers' own instructions leave that out.
"""
import collections
import re
import subprocess

import bounds
import rows
from testbed.gateway import Failure, TestBed, check

# An event that reaches more clients costs this much more for each of them.
FEW_CLIENTS, MORE_CLIENTS = 1, 21
WORK = {"read": "read, one bus call", "write": "write, one bus call",
        "multi-write": "multi-write of 8 keys, one bus call", "authorize": "authorize, no bus call",
        "discovery": "discovery of a known id, 2048-bit key", "discovery-plain": "discovery of a known id, no key",
        "login": "login and log-out, two bus calls",
        "event-1": "event, reported and sent to 1 client", "event-client": "event, each further client"}

# The functions that a library calls in each program: when a request arrives; for an event, when it is reported and at the
# tick that sends it.
HANDLERS = {"baseline": {"command": ("on_command",), "discovery": ("on_discovery",), "login": ("on_login",),
                         "event": ("on_method", "on_tick")},
            "service": {"command": ("client_read",), "discovery": ("server_discovery",), "login": ("server_auth",),
                        "event": ("dbus_mtod_general_dispatch", "server_mq_timer")}}
# What hands something to a library's thread and may wake it or wait for it; both programs call it equally often.
HANDED_ON = ("g_dbus_connection_call_sync", "g_dbus_connection_call", "g_dbus_method_invocation_return_value", "zmq_send",
             "zmq_msg_send")

HANDLER_INSTRUCTIONS, INSTRUCTIONS = "handlers' instructions", "instructions"
ALLOCATIONS, SYSTEM_CALLS = "allocations", "system calls"
COUNTED = (HANDLER_INSTRUCTIONS, ALLOCATIONS, INSTRUCTIONS, SYSTEM_CALLS)


def _profile(path):
    """Of one of callgrind's files: all instructions, and those between call and return of each function."""
    names, inclusive, total, callee, is_cost_of_a_call = {}, collections.Counter(), 0, None, False
    for line in path.read_text(errors="replace").splitlines():
        if is_cost_of_a_call:
            inclusive[names[callee]] += int(line.split()[-1])
            is_cost_of_a_call = False
        elif line.startswith(("fn=", "cfn=")):
            key, _, function = line.partition("=")
            number, _, name = function.partition(" ")  # "(12) name" at first, "(12)" from then on
            if name:
                names[number] = name if "[clone" in name else name.partition("(")[0]  # a clone is called by its function
            callee = number if key == "cfn" else callee
        elif line.startswith("calls="):
            is_cost_of_a_call = True
        elif line.startswith("totals:"):
            total = int(line.split()[1])
    return total, inclusive


class Instructions:
    """Callgrind's, outside the kernel: those of all threads, and those of the handlers without what they hand on."""

    def __init__(self, bed, side):
        self.bed, self.side = bed, side
        self.dumps = bed.folder / "callgrind"

    def command(self, program):
        return ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={self.dumps}", program]

    def since_last(self, work):
        subprocess.run(["vgdb", f"--pid={self.bed.pid}", "dump"], env=self.bed.environment,  # its pipe is named after
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)     # the user in it
        dump, = self.bed.folder.glob("callgrind.*")
        total, inclusive = _profile(dump)
        dump.unlink()
        return {INSTRUCTIONS: total, HANDLER_INSTRUCTIONS: self._of_handlers(work, inclusive)}

    def _of_handlers(self, work, inclusive):
        handlers = HANDLERS[self.side].get(work.split("-")[0], HANDLERS[self.side]["command"])
        for name in handlers:
            check(inclusive[name] > 0, f"{work}: the {self.side} has not called {name}; HANDLERS must name what it calls")
        return sum(inclusive[name] for name in handlers) - sum(inclusive[name] for name in HANDED_ON)


class Allocations:
    """Calls of malloc and its like, by a library in front of the C library's."""

    def __init__(self, bed, _):
        self.file, self.before = bed.folder / "allocations", 0
        bed.env = {"LD_PRELOAD": str(bed.bin.parent / "lib/libbench-allocations.so"), "BENCH_ALLOCATIONS": str(self.file)}

    def command(self, program):
        return [program]

    def since_last(self, _):
        before, self.before = self.before, int.from_bytes(self.file.read_bytes(), "little")
        return {ALLOCATIONS: self.before - before}


class SystemCalls:
    """strace's, of all threads."""

    def __init__(self, bed, _):
        self.file, self.before = bed.folder / "strace", 0

    def command(self, program):
        # With -D the program keeps the process id that its starter knows.
        return ["strace", "-D", "-f", "-qq", "-e", "signal=none", "-o", self.file, program]

    def since_last(self, _):
        lines = self.file.read_text(errors="replace").splitlines()
        before, self.before = self.before, sum(" resumed>" not in line for line in lines)
        return {SYSTEM_CALLS: self.before - before}


COUNTERS = (Instructions, Allocations, SystemCalls)


def observe(bed, counter):
    """{what is counted: {kind of work: count per piece}}"""
    load = bed.start("load", [bed.bin / "bench-load", "count"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    figures = collections.defaultdict(dict)
    with load:
        for line in load.stdout:
            step, work, pieces = line.split()
            for counted, count in counter.since_last(work).items():
                if step == "end":
                    figures[counted][work] = count / int(pieces)
            load.stdin.write("\n")
            load.stdin.flush()
    if load.returncode != 0:
        raise Failure(f"counting failed: {bed.role_log('load')}; the program: {bed.last_words()}")
    for by_work in figures.values():
        more = by_work.pop(f"event-{MORE_CLIENTS}")
        by_work["event-client"] = (more - by_work[f"event-{FEW_CLIENTS}"]) / (MORE_CLIENTS - FEW_CLIENTS)
    return figures


def count(programs):
    """{what is counted: {side: {kind of work: count}}}"""
    found = {counted: {} for counted in COUNTED}
    for side, program in rows.PROGRAM.items():
        for make_counter in COUNTERS:
            with TestBed(programs, pinned=True, start=False) as bed:
                counter = make_counter(bed, side)
                bed.start_program(counter.command(bed.bin / program))
                for counted, by_work in observe(bed, counter).items():
                    found[counted][side] = by_work
                bed.stop()
    return found


def _lines(found):
    """(what is counted, kind of work, baseline's count, service's count, their ratio or None, its bound or None) each"""
    for counted in COUNTED:
        for work in WORK:
            baseline, service = (found[counted][side][work] for side in rows.PROGRAM)
            ratio = service / baseline if baseline >= 0.05 else None  # nothing of the kind is done at all
            measured = bounds.RATIOS.get(counted, {}).get(work)
            yield counted, work, baseline, service, ratio, measured and measured * (1 + bounds.TOLERANCE)


def table(found):
    """Headings and lines, ready to be printed."""
    lines = []
    for counted, work, *counts, ratio, bound in _lines(found):
        digits = 0 if "instructions" in counted else 1
        lines.append([WORK[work], counted, *(f"{value:.{digits}f}" for value in counts),
                      *("-" if value is None else f"{value:.2f}" for value in (ratio, bound))])
    return ["one piece of work", "counted", *rows.PROGRAM, "ratio", "bound"], lines


def excesses(found):
    """A sentence for each ratio over its bound."""
    return [f"{WORK[work]}: {service:.1f} {counted}, the baseline {baseline:.1f}: ratio {ratio:.3f}, bound {bound:.3f}"
            for counted, work, baseline, service, ratio, bound in _lines(found)
            if ratio is not None and bound is not None and ratio > bound]
