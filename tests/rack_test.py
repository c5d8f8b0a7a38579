#!/usr/bin/python3
"""rack_test.py PROGRAMS: a rack of three devices in the hands of a user: what broadcast finds after each of its commands."""
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

RACK = Path(__file__).resolve().parent.parent / "scripts/rack.py"
PROGRAMS = Path(sys.argv[1])
NOT_ALLOWED, LIMIT_S = 77, 60
WRONG = (["start", "0"], ["start", "3x"], ["start", "1000"], ["start", "2"], ["unplug", "4"], ["log"],
         ["fault", "1", "odd"], ["address", "1", "10.77.1.2"], ["address", "1", "192.168.1.2"])


def call(*words):
    return subprocess.run([RACK, *words], text=True, capture_output=True)


def expect(expected, what, look):
    end = time.monotonic() + LIMIT_S
    while (seen := look()) != expected and time.monotonic() < end:
        pass
    assert seen == expected, f"{what}: {seen} instead of {expected}"


def found():
    output = call("enter", PROGRAMS / "kesto-client", "--json", "discover", "--wait", "0.2").stdout
    return {one["serial"][-1]: one["addresses"][0] for one in json.loads(output or "[]")}


def expect_wrong(words):
    done = call(*words)
    assert done.returncode == 2 and done.stderr.count("\n") == 1, f"{words}: {done.returncode}, {done.stderr!r}"


def visit():
    addresses = {str(number): f"10.77.1.{number}" for number in (1, 2, 3)}
    expect(addresses, "after the start", found)
    others = addresses.keys() - {"2"}
    for command, there in ((["unplug", "2"], others), (["restart", "2"], others), (["plug", "2"], addresses),
                           (["address", "3", "10.77.9.9"], addresses)):
        assert call(*command).returncode == 0, command
        if command[0] == "address":
            addresses[command[1]] = command[2]
        expect({number: addresses[number] for number in there}, command, found)
    for words in WRONG:
        expect_wrong(words)


with tempfile.TemporaryDirectory() as folder:
    os.environ["TMPDIR"] = folder
    if "this system allows neither" in call("start", "3", "--check").stderr:
        sys.exit(NOT_ALLOWED)
    with subprocess.Popen([RACK, "start", "3", "--programs", PROGRAMS], stdout=subprocess.PIPE, text=True) as rack:
        try:
            assert any(line.startswith("Serving") for line in rack.stdout), "the rack did not start"
            visit()
        finally:
            rack.terminate()
    assert rack.returncode == 128 + 15 and not os.listdir(folder), (rack.returncode, os.listdir(folder))
    expect_wrong(["list"])
