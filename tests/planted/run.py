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

The copy and its builds stay in build/planted, so that a later run builds little; build/planted.log has what was built and
run. The status is 1 when a row does not fit the sources or does not compile, or when nothing noticed it although it has no
"unnoticed"."""
import argparse
import os
import re
import shlex
import shutil
import subprocess
import sys
import time
import tomllib
from functools import cache
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
COPY, LOG = ROOT / "build" / "planted", ROOT / "build" / "planted.log"
NEEDED, OPTIONAL = {"file", "line", "planted", "means"}, {"test", "preset", "endure", "unnoticed"}
PRESETS = ["dev", "release", "asan", "tsan"]
ENDURE = "endure"
NONE = "^$"  # of the tests
SETTINGS = {"GTEST_FAIL_FAST": "1", "G_SLICE": "always-malloc",
            "ASAN_OPTIONS": "detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1",
            "TSAN_OPTIONS": f"suppressions={COPY}/tests/tsan.supp:halt_on_error=1:second_deadlock_stack=1"}


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
    """The rows, and what is wrong with them. Each gets its `place` in the tables and `where` it is tried, a preset."""
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
            rows.append(row | {"place": place, "where": "release" if ENDURE in row else row.get("preset", "dev")})
    return rows, complaints


def make_copy():
    """What is the same keeps its time, so that it is not built again; a line that an earlier run has left planted is not."""
    def copy_other(source, copy):
        if not Path(copy).is_file() or Path(copy).read_bytes() != Path(source).read_bytes():
            shutil.copy(source, copy)
    ignored = shutil.ignore_patterns("build", ".git", "__pycache__")
    shutil.copytree(ROOT, COPY, copy_function=copy_other, ignore=ignored, dirs_exist_ok=True)


def run(*command):
    """The status with which it ends."""
    with LOG.open("ab", buffering=0) as log:
        log.write(f"\n$ {shlex.join(command)}\n".encode())
        return subprocess.run(command, cwd=COPY, env=os.environ | SETTINGS, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                              check=False).returncode


def builds(row):
    programs = ["--target", "kesto-access", "kesto-device"] if ENDURE in row else []
    return run("cmake", "--preset", row["where"]) == 0 and run("cmake", "--build", "--preset", row["where"], *programs) == 0


def failing_tests(where, *selection):
    """Of the tests that ctest selects so; they run one after the other."""
    if run("ctest", "--test-dir", f"build/{where}", "--output-on-failure", *selection) == 0:
        return []
    failed = COPY / "build" / where / "Testing" / "Temporary" / "LastTestsFailed.log"
    return [line.split(":")[1] for line in failed.read_text().splitlines()]


@cache
def fails_anyway(where):
    """A regular expression of the tests that fail without any fault."""
    if run("cmake", "--preset", where) != 0 or run("cmake", "--build", "--preset", where) != 0:
        raise SystemExit(f"the build fails without any fault; the whole output is in {LOG.relative_to(ROOT)}")
    failing = failing_tests(where)
    if failing:
        print(f"{where}: without any fault these fail, so they do not count: {', '.join(failing)}", flush=True)
        failing.append("log_texts")  # it would miss what those have to say
    return "|".join([NONE, *(f"^{name}$" for name in failing)])


def noticing_test(row, not_counting):
    """The first that notices the row, or None. Those that the row names come first; then the others, log_texts the last."""
    if ENDURE in row:
        status = run("tests/endure/run.py", "--bin", "build/release/bin", row[ENDURE])
        if status not in (0, 1):
            raise SystemExit(f"tests/endure/run.py {row[ENDURE]} ends with status {status}, see {LOG.relative_to(ROOT)}")
        return row[ENDURE] if status else None
    for recording in (COPY / "build" / row["where"] / "recordings").glob("*"):
        recording.unlink()
    named = row.get("test", NONE)
    for selection in (("-R", named, "-E", not_counting), ("-E", f"{named}|{not_counting}")):
        if failing := failing_tests(row["where"], "--stop-on-failure", *selection):
            return failing[0]
    return None


def try_row(row, trust):
    """What becomes of the row, and whether that is as it should be."""
    not_counting = NONE if trust or ENDURE in row else fails_anyway(row["where"])
    path, begin = COPY / row["file"], time.monotonic()
    text = path.read_text()
    try:
        path.write_text(text.replace(row["line"], row["planted"]))
        if not builds(row):
            return "does not compile", False
        noticing = noticing_test(row, not_counting)
    finally:
        path.write_text(text)
    if noticing:
        return f"noticed by {noticing} in {time.monotonic() - begin:.0f} s", True
    return f"NOT NOTICED: {row.get('unnoticed', '')}", "unnoticed" in row


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", metavar="REGEX", default="", help="the rows whose file or meaning matches")
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
    make_copy()
    LOG.write_bytes(b"")
    results = []
    for row in rows:
        outcome, good = try_row(row, options.trust)
        line = f"{row['place']}: {row['file']}: {row['means']}: {outcome}"
        print(line, flush=True)
        results.append((line, outcome.startswith("noticed"), good))
    count = sum(noticed for _, noticed, _ in results)
    print(f"{count} of {len(results)} faults were noticed, {100 * count / len(results):.1f} %")
    print("\n".join(line for line, noticed, _ in results if not noticed))
    return 0 if all(good for _, _, good in results) else 1


if __name__ == "__main__":
    sys.exit(main())
