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

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
FIGURES = ROOT / "build" / "endure.json"
CASE_LIMIT_S = 600
SIDE_BY_SIDE = 2
NO_RESULT = {"failed": "it ended without a result", "figures": {}}


def generate_contract(bin_dir):
    folder = bin_dir.parent / "endure"
    folder.mkdir(exist_ok=True)
    subprocess.run(["protoc", f"--python_out={folder}", f"--proto_path={ROOT}/proto", "access.proto"], check=True)
    return folder


def load_cases(contract_folder):
    """Every other module of the folder may register cases."""
    sys.path[:0] = [str(HERE), str(contract_folder)]
    for module in sorted(HERE.glob("*.py")):
        if module.stem != "run":
            __import__(module.stem)
    return sys.modules["cases"].CASES


def run_inside(name, row, bin_dir):
    """In the sandbox: runs the case and prints its result as the last line."""
    cases = sys.modules["cases"]
    run, failed = cases.Case(bin_dir), None
    try:
        row["function"](run)
    except cases.Failed as finding:
        failed = str(finding)
    except Exception:
        failed = traceback.format_exc()
    print(json.dumps({"failed": failed, "figures": run.figures}), flush=True)
    os._exit(0)  # the case's clients need no orderly end


def run_case(name, bin_dir):
    command = [ROOT / "tests" / "sandbox", sys.executable, "-B", __file__, "--bin", bin_dir, "--inside", name]
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, timeout=CASE_LIMIT_S, check=False)
        lines = done.stdout.decode().splitlines()
        result = json.loads(lines[-1]) if lines else NO_RESULT
    except (subprocess.TimeoutExpired, ValueError) as error:
        result = {"failed": str(error), "figures": {}}
    words = ", ".join(f"{what} {value} {unit}".rstrip() for what, (value, unit) in result["figures"].items())
    print(f"{name:<32} {'FAILED' if result['failed'] else 'OK':<7} {words}", flush=True)
    if result["failed"]:
        print("    " + result["failed"].strip().replace("\n", "\n    "), flush=True)
    return result


def run_all(names, cases, bin_dir):
    """Those that may run side by side first, then the others alone."""
    side_by_side = 1 if os.environ.get("ACCESS_SANDBOX") == "off" else SIDE_BY_SIDE
    results = {}
    for workers, alone in ((side_by_side, False), (1, True)):
        group = [name for name in names if cases[name]["alone"] == alone]
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
    bin_dir = options.bin.resolve()
    contract_folder = bin_dir.parent / "endure"
    if not options.inside:
        generate_contract(bin_dir)
    cases = load_cases(contract_folder)
    if options.inside:
        run_inside(options.inside, cases[options.inside], bin_dir)
    names = [name for name in cases if re.search(options.name, name)]
    if options.list:
        print("\n".join(f"{name:<32} {cases[name]['shows']}" for name in names))
        return 0
    if not names:
        parser.error(f"no case matches {options.name!r}")
    results = run_all(names, cases, bin_dir)
    FIGURES.write_text(json.dumps(results, indent=1) + "\n")
    failed = [name for name in names if results[name]["failed"]]
    print(f"{len(names)} cases, {len(failed)} failed; figures in {FIGURES.relative_to(ROOT)}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
