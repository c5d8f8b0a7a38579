#!/usr/bin/python3
"""Runs the cases of this folder against the real programs, each in a process and a sandbox of its own, prints a line for
each, and keeps the figures in build/endure.json. The status is 1 when a case failed."""
import argparse
import json
import os
import re
import subprocess
import sys
import traceback
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.append(str(ROOT))
import exhaustion, faults, floods, hall, peers, strangers  # each registers its cases
from cases import CASES
from testbed.remote import raise_own_limits
from testbed.gateway import Failure

FIGURES = ROOT / "build" / "endure.json"
SIDE_BY_SIDE = 2


def run_inside(row, bin_dir):
    """In the sandbox: runs the case and prints its result as the last line."""
    notes, failed = {}, None
    raise_own_limits()
    try:
        with row["bed"](bin_dir, notes, **row["settings"]) as bed:
            row["function"](bed)
    except Failure as finding:
        failed = str(finding)
    except Exception:
        failed = traceback.format_exc()
    print(json.dumps({"failed": failed, "figures": notes}), flush=True)
    os._exit(0)  # the case's clients need no orderly end


def run_case(name, bin_dir):
    limit_s = CASES[name]["limit_s"]
    command = ["timeout", str(limit_s), ROOT / "tests" / "sandbox", sys.executable, "-B", __file__, "--bin", bin_dir,
               "--inside", name]
    lines = subprocess.run(command, stdout=subprocess.PIPE, check=False).stdout.splitlines()
    result = json.loads(lines[-1]) if lines else {"figures": {}}
    result.setdefault("failed", f"it ended without a result, or not within {limit_s} s")
    words = ", ".join(f"{what} {value} {unit}".rstrip() for what, (value, unit) in result["figures"].items())
    print(f"{name:<32} {'FAILED' if result['failed'] else 'OK':<7} {words}", flush=True)
    if result["failed"]:
        print("    " + result["failed"].strip().replace("\n", "\n    "), flush=True)
    return result


def run_all(names, bin_dir):
    """Those that may run side by side first, then the others alone."""
    side_by_side = 1 if os.environ.get("ACCESS_SANDBOX") == "off" else SIDE_BY_SIDE
    results = {}
    for workers, alone in ((side_by_side, False), (1, True)):
        group = [name for name in names if CASES[name]["alone"] == alone]
        with ThreadPoolExecutor(workers) as pool:
            results.update(zip(group, pool.map(lambda name: run_case(name, bin_dir), group)))
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--bin", type=Path, default=ROOT / "build" / "release" / "bin", help="where the programs are")
    parser.add_argument("--list", action="store_true", help="only say what the cases show")
    parser.add_argument("--inside", metavar="NAME", help=argparse.SUPPRESS)
    parser.add_argument("name", nargs="?", default="", help="only cases whose names match this regular expression")
    options = parser.parse_args()
    if options.inside:
        run_inside(CASES[options.inside], options.bin)
    names = [name for name in CASES if re.search(options.name, name)]
    if not names:
        parser.error(f"no case matches {options.name!r}")
    if options.list:
        print("\n".join(f"{name:<32} {CASES[name]['shows']}" for name in names))
        return 0
    results = run_all(names, options.bin.resolve())
    FIGURES.write_text(json.dumps(results, indent=1) + "\n")
    failed = [name for name in names if results[name]["failed"]]
    print(f"{len(names)} cases, {len(failed)} failed; figures in {FIGURES.relative_to(ROOT)}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
