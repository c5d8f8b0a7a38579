"""Runs the measurements that ./bench promises and keeps their figures in build/bench.json."""
import argparse
import datetime
import json
import os
import pathlib
import platform
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT))
import bridge
import counts
import peer
import racks
import report
import rows
from testbed.gateway import Failure, TestBed

PACKAGES = ("libczmq4", "libzmq5", "libglib2.0-0", "libssl3", "libprotobuf-lite32", "dbus-daemon", "libc6", "g++",
            "valgrind", "mosquitto")


def package_versions():
    listed = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *PACKAGES], stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, text=True, check=False).stdout
    return dict(line.split() for line in listed.splitlines() if len(line.split()) == 2)


def machine():
    models = [line.split(":")[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
              if line.startswith("model name")]
    commit = subprocess.run(["git", "-C", ROOT, "describe", "--always", "--dirty"], stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, text=True, check=False).stdout.strip()
    return {"processor": models[0] if models else platform.machine(), "processors": os.cpu_count(),
            "kernel": platform.release(), "packages": package_versions(), "commit": commit,
            "date": datetime.date.today().isoformat()}


def measure_once(bed, side, what, effort):
    bed.start_program([bed.bin / rows.PROGRAM[side]])
    output = bed.load([bed.bin / "bench-load", what, bed.pid, effort])
    bed.stop()
    return {"side": side, "figures": json.loads(output)}


def measure(programs, round_count, effort, what, pinned):
    """The baseline and the service by turns, beginning and ending with the baseline."""
    runs = []
    sides = ["baseline"] + ["service", "baseline"] * round_count
    with TestBed(programs, pinned=pinned, start=False) as bed:
        for i, side in enumerate(sides):
            print(f"\rrun {i + 1} of {len(sides)}: {side:<8}", end="", file=sys.stderr, flush=True)
            runs.append(measure_once(bed, side, what, effort))
    print(file=sys.stderr)
    return runs


def print_table(headings, lines):
    widths = [max(len(line[i]) for line in [headings, *lines]) for i in range(len(headings))]
    for line in [headings, *lines]:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


def print_comparisons(compared):
    for group, lines in compared.items():
        print(f"\n{group}")
        print_table(rows.HEADINGS, [rows.cells(line) for line in lines])
    over = [line for lines in compared.values() for line in lines if line.ratio > rows.EXPLAINED_ABOVE]
    print(f"\n{len(over)} of {sum(map(len, compared.values()))} rows are over {rows.EXPLAINED_ABOVE}")


def options():
    parser = argparse.ArgumentParser(prog="./bench", description="Measures the service and a baseline, a program that does "
                                     "the same work on the same libraries and nothing else; prints the ratio of the two.")
    parser.add_argument("--rounds", type=int, default=11, metavar="N", help="ratios per row; 11 unless told otherwise")
    parser.add_argument("--smoke", action="store_true", help="one short round, which shows only that everything runs")
    parser.add_argument("--unpinned", action="store_true", help="compare reads and logins, with wake-ups, where the "
                        "scheduler chooses the processors")
    parser.add_argument("--peer", action="store_true",
                        help="compare the service with an MQTT broker that passes the same events on")
    parser.add_argument("--rack", action="store_true",
                        help="measure racks of devices, and a client that hears all of one, instead")
    parser.add_argument("--bridge", action="store_true",
                        help="measure the bridge to an MQTT broker beside mosquitto_pub, with racks of devices, instead")
    parser.add_argument("--counts", action="store_true", help="count instructions, allocations and system calls instead")
    parser.add_argument("--check", action="store_true", help="with --counts: fail when the service costs more beside the "
                        "baseline than benchmark/bounds.py allows")
    parser.add_argument("--report", action="store_true",
                        help="write docs/performance.md and its pictures from what was measured last")
    parser.add_argument("--programs", default=ROOT / "build/release/bin", help=argparse.SUPPRESS)
    parser.add_argument("--figures", default=ROOT / "build/bench.json", type=pathlib.Path, help=argparse.SUPPRESS)
    return parser.parse_args()


def run(chosen):
    kept = json.loads(chosen.figures.read_text()) if chosen.figures.exists() else {}
    if chosen.report:
        report.write(ROOT, kept)
        return 0
    status = 0
    if chosen.counts:
        what, found = "counts", counts.count(chosen.programs)
        print_table(*counts.table(found))
        excesses = counts.excesses(found) if chosen.check else []
        for sentence in excesses:
            print(f"costlier: {sentence}")
        status = 1 if excesses else 0
    elif chosen.peer:
        what, found = "peer", peer.measure(chosen.programs, 1 if chosen.smoke else chosen.rounds)
        print_table(*peer.table(found))
    elif chosen.rack:
        what, found = "rack", racks.measure(chosen.programs, chosen.smoke)
        print_table(*racks.table(found))
    elif chosen.bridge:
        what, found = "bridge", bridge.measure(chosen.programs, chosen.smoke)
        print_table(*bridge.table(found))
    else:
        what, load, groups = (("unpinned", "commands", rows.UNPINNED_GROUPS) if chosen.unpinned else
                              ("runs", "measure", rows.GROUPS))
        rounds, effort = (1, 20) if chosen.smoke else (chosen.rounds, 1)
        found = measure(chosen.programs, rounds, effort, load, pinned=not chosen.unpinned)
        print_comparisons(rows.comparisons(found, groups))
    if not chosen.smoke:
        kept |= {what: found, f"{what} from": machine()}
        chosen.figures.parent.mkdir(exist_ok=True)
        chosen.figures.write_text(json.dumps(kept, indent=1) + "\n")
    return status


if __name__ == "__main__":
    try:
        sys.exit(run(options()))
    except Failure as failure:
        sys.exit(f"bench: {failure}")
