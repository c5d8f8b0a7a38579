#!/usr/bin/python3
"""Which planted faults the tests notice. Each row of the tables in this folder is a change that somebody could make by
mistake. It is planted into a copy of the sources and built, and the tests run until one of them fails.

    [[fault]]
    file = "src/access/net/requests/rights.cpp"
    line = '''    if (is_root(client)) return true;'''    must stand in the file exactly once; may be several lines
    planted = '''    if (true) return true;'''            what takes its place
    means = "every user may write every key"              what a user, peer or operator would have of it
    test = "rights_scenario"    optional: the tests that are to notice it, a regular expression; they run first
    preset = "asan"             optional: the build that is needed to notice it, if not dev
    endure = "sockets-16"       optional, in the place of these two: the case of tests/endure that is to notice it
    unnoticed = "why"           optional: nothing notices it, and why that is accepted

The copies and their builds stay in build/planted, so that a later run builds little; build/planted/N.log has what was built
and run. Rows with "endure" come last and one after the other, because those cases measure times. The status is 1 when a row
does not fit the sources or does not compile, or when nothing noticed it although it has no "unnoticed"."""
import argparse
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import time
import tomllib
from collections import deque
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
COPIES = ROOT / "build" / "planted"
NEEDED, OPTIONAL = {"file", "line", "planted", "means"}, {"test", "preset", "endure", "unnoticed"}
PRESETS = ["dev", "release", "asan", "tsan"]
ENDURE = "endure"  # where a row is tried, in the place of a preset
LOG_TEXTS = "log_texts"  # looks at what all the other tests have recorded
TEST_LIMIT_S = 600
BUSY_S, TIMES_AS_LONG = 60, 3  # a test that takes that much longer than without a fault does not end


def complaint(row):
    """What is wrong with a row, or None."""
    if not NEEDED <= row.keys() <= NEEDED | OPTIONAL or (ENDURE in row and ("test" in row or "preset" in row)):
        return f"these fields do not go together: {', '.join(row)}"
    if row.get("preset", "dev") not in PRESETS:
        return f"there is no preset {row['preset']}"
    path = ROOT / row["file"]
    count = path.read_text().count(row["line"]) if path.is_file() else 0
    if count != 1 or row["line"] == row["planted"]:
        return f"its line stands {count} times in {row['file']}, or is not changed:\n{row['line']}"
    return None


def read_tables():
    """The rows, and what is wrong with them. Each gets its `place` in the tables and `where` it is tried."""
    rows, complaints = [], []
    for table in sorted(HERE.glob("*.toml")):
        try:
            faults = tomllib.loads(table.read_text())["fault"]
        except (KeyError, tomllib.TOMLDecodeError) as error:
            complaints.append(f"{table.name}: {error}")
            continue
        for number, row in enumerate(faults, 1):
            place = f"{table.name}, row {number}"
            if wrong := complaint(row):
                complaints.append(f"{place}: {wrong}")
            rows.append(row | {"place": place, "where": row.get("preset", ENDURE if ENDURE in row else "dev")})
    return rows, complaints


def sources():
    """The project's files, also those that are not added yet."""
    command = ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    names = subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True).stdout.split("\0")
    return {name for name in names if name and (ROOT / name).is_file()}


class Copy:
    """A copy of the sources with builds of its own."""

    def __init__(self, number):
        self.root, self.log_path, self.built = COPIES / str(number), COPIES / f"{number}.log", set()
        self.root.mkdir(parents=True, exist_ok=True)
        self.log_path.write_bytes(b"")
        names = sources()
        for name in names:  # what is the same keeps its time; a line that an earlier run has left planted is not the same
            source, copy = ROOT / name, self.root / name
            if not copy.is_file() or copy.read_bytes() != source.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, copy)  # its time is now
        for path in self.root.rglob("*"):
            name = str(path.relative_to(self.root))
            if path.is_file() and not name.startswith("build/") and name not in names:
                path.unlink()

    def run(self, *command, limit_s=None):
        """The status with which it ends; None when it does not end in time."""
        settings = {"GTEST_FAIL_FAST": "1", "G_SLICE": "always-malloc",
                    "ASAN_OPTIONS": "detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1",
                    "TSAN_OPTIONS": f"suppressions={self.root}/tests/tsan.supp:halt_on_error=1:second_deadlock_stack=1"}
        with self.log_path.open("ab", buffering=0) as log:
            log.write(f"\n$ {shlex.join(command)}\n".encode())
            try:
                return subprocess.run(command, cwd=self.root, env=os.environ | settings, stdin=subprocess.DEVNULL,
                                      stdout=log, stderr=log, timeout=limit_s, check=False).returncode
            except subprocess.TimeoutExpired:
                return None

    def builds(self, where):
        what = ["release", "--target", "kesto-access", "kesto-device"] if where == ENDURE else [where]
        return self.run("cmake", "--build", "--preset", *what) == 0

    def prepare(self, where):
        """The first build, without a fault."""
        preset = "release" if where == ENDURE else where
        if where not in self.built and (self.run("cmake", "--preset", preset) != 0 or not self.builds(where)):
            raise SystemExit(f"the build fails without any fault; the whole output is in {self.log_path.relative_to(ROOT)}")
        self.built.add(where)

    def tests(self, preset):
        """Their names, log_texts last. Clears what earlier runs have recorded."""
        for recording in (self.root / "build" / preset / "recordings").glob("*"):
            recording.unlink()
        command = ["ctest", "--test-dir", self.root / "build" / preset, "--show-only=json-v1"]
        shown = json.loads(subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout)
        return sorted((test["name"] for test in shown["tests"]), key=lambda name: name == LOG_TEXTS)

    def passes(self, where, test, limit_s):
        if where != ENDURE:
            return self.run("ctest", "--test-dir", f"build/{where}", "--output-on-failure", "-R", f"^{re.escape(test)}$",
                            limit_s=limit_s) == 0
        status = self.run("tests/endure/run.py", "--bin", "build/release/bin", test)  # it has a limit of its own
        if status not in (0, 1):
            raise SystemExit(f"tests/endure/run.py {test} ends with status {status}, see {self.log_path.relative_to(ROOT)}")
        return status == 0


class Trial:
    """Tries rows; knows what fails without any fault, and how long the other tests take."""

    def __init__(self):
        self.failing, self.limits_s = set(), {}  # (where, test)

    def run_unplanted(self, copy, rows):
        for where in sorted({row["where"] for row in rows}):
            copy.prepare(where)
            for test in sorted({row[ENDURE] for row in rows if ENDURE in row}) if where == ENDURE else copy.tests(where):
                begin = time.monotonic()
                if not copy.passes(where, test, TEST_LIMIT_S):
                    self.failing.add((where, test))
                    print(f"{where}: {test} fails without any fault, so it does not count", flush=True)
                self.limits_s[where, test] = BUSY_S + TIMES_AS_LONG * (time.monotonic() - begin)

    def tests_for(self, row, copy):
        """In their order, those that the row names first; none when none of those counts."""
        where, failing = row["where"], {test for where, test in self.failing if where == row["where"]}
        if failing:
            failing = failing | {LOG_TEXTS}  # it would miss what those have to say
        tests = [test for test in ([row[ENDURE]] if where == ENDURE else copy.tests(where)) if test not in failing]
        named = [test for test in tests if re.search(row.get("test", ""), test)]
        return sorted(tests, key=lambda test: (test == LOG_TEXTS, test not in named)) if named else []

    def outcome(self, row, copy):
        """(What becomes of the row, whether it was noticed, whether that is as it should be.)"""
        if not copy.builds(row["where"]):
            return "does not compile", False, False
        tests, begin = self.tests_for(row, copy), time.monotonic()
        for test in tests:
            if not copy.passes(row["where"], test, self.limits_s.get((row["where"], test), TEST_LIMIT_S)):
                return f"noticed by {test} in {time.monotonic() - begin:.0f} s", True, True
        return "NOT NOTICED" if tests else "there is no such test that counts", False, bool(tests) and "unnoticed" in row

    def run(self, row, copy):
        """Says what becomes of the row; (row, and the outcome as above)."""
        copy.prepare(row["where"])
        path = copy.root / row["file"]
        text = path.read_text()
        try:
            path.write_text(text.replace(row["line"], row["planted"]))
            outcome, noticed, good = self.outcome(row, copy)
        finally:
            path.write_text(text)
        print(f"{row['place']}: {outcome}: {row['means']}", flush=True)
        return row, outcome, noticed, good

    def run_all(self, rows, copies):
        """Each copy takes the next row that is left, until none is; an interrupt leaves none."""
        left = iter(rows)
        with ThreadPoolExecutor(len(copies)) as pool:
            try:
                return sum(pool.map(lambda copy: [self.run(row, copy) for row in left], copies), [])
            finally:
                deque(left, maxlen=0)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", metavar="REGEX", default="", help="the rows whose file or meaning matches")
    parser.add_argument("--jobs", metavar="N", type=int, default=1, help="so many side by side, where namespaces are allowed")
    parser.add_argument("--trust", action="store_true", help="do not run the tests without a fault first")
    parser.add_argument("--list", action="store_true", help="only print the rows")
    parser.add_argument("--check", action="store_true", help="only look whether the rows fit the sources")
    options = parser.parse_args()
    rows, complaints = read_tables()
    for text in complaints:
        print(text)
    if options.check or complaints:
        return 1 if complaints else 0
    rows = [row for row in rows if re.search(options.only, row["file"]) or re.search(options.only, row["means"])]
    if not rows:
        parser.error(f"no row matches {options.only!r}")
    if options.list:
        print("\n".join(f"{row['place']}: {row['file']}: {row['means']}" for row in rows))
        return 0
    os.environ.setdefault("CMAKE_BUILD_PARALLEL_LEVEL", str(max(1, (os.cpu_count() or 1) // options.jobs)))
    copies, trial = [Copy(number) for number in range(1, options.jobs + 1)], Trial()
    if not options.trust:
        trial.run_unplanted(copies[0], rows)
    results = trial.run_all([row for row in rows if ENDURE not in row], copies)
    results += trial.run_all([row for row in rows if ENDURE in row], copies[:1])
    count = sum(noticed for _, _, noticed, _ in results)
    print(f"{count} of {len(results)} faults were noticed, {100 * count / len(results):.1f} %")
    for row, outcome, noticed, good in results:
        if not noticed:
            print(f"{row['place']}: {row['file']}: {row['means']}: {row['unnoticed'] if good else outcome}")
    return 0 if all(good for _, _, _, good in results) else 1


if __name__ == "__main__":
    sys.exit(main())
