"""What racks of simulated devices take: until all are found, for each device's service, and for one client that hears all."""
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from testbed.gateway import Failure, check, wait_until

RACK = Path(__file__).resolve().parent.parent / "scripts/rack.py"
COUNTS, SMOKE_COUNTS = (10, 50, 100), (3,)
EVENTS_PER_S = 10  # of each device
OBSERVED_S, SMOKE_OBSERVED_S = 10, 1  # a watch has heard ten events of each device before
KIB, NS = 1024, 1e9
SERVICE = "kesto-access"


class RunningRack:
    """with RunningRack(programs, 10, events_per_s=10) as rack: ... ; in a folder of its own, beside a user's rack."""

    def __init__(self, programs, count, events_per_s):
        self.count, self.programs = count, Path(programs).resolve()
        self.folder = tempfile.TemporaryDirectory(prefix="bench-rack-")
        self.environment = {**os.environ, "TMPDIR": self.folder.name}
        command = [RACK, "start", str(count), "--programs", self.programs, "--quiet", "--alarm-every=0",
                   f"--change-every={1 / events_per_s if events_per_s else 0}"]
        begin = time.monotonic()
        self.process = subprocess.Popen(command, env=self.environment, stdout=subprocess.PIPE, text=True)
        self._read_until(f"found {count} of {count}")
        self.found_s = time.monotonic() - begin
        self._read_until("Serving")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.communicate()
        self.folder.cleanup()

    def _read_until(self, beginning):
        for line in self.process.stdout:
            if line.startswith(beginning):
                return
        self.__exit__()
        raise Failure(f"the rack of {self.count} ended before it said: {beginning}")

    def enter(self, output, *command, stdin=subprocess.DEVNULL):
        """What it says is in that file."""
        with output.open("wb") as log:
            return subprocess.Popen([RACK, "enter", *command], env=self.environment, stdin=stdin, stdout=log, stderr=log)

    def services(self):
        """The process ids of its services."""
        children = {}
        for path in Path("/proc").glob("[0-9]*"):
            try:
                name, fields = (path / "stat").read_text().split("(", 1)[1].rsplit(")", 1)
            except OSError:
                continue  # it has just ended
            children.setdefault(int(fields.split()[1]), []).append((int(path.name), name))
        found, rest = [], [self.process.pid]
        while rest:
            for pid, name in children.get(rest.pop(), []):
                rest.append(pid)
                found += [pid] if name == SERVICE else []
        check(len(found) == self.count, f"{len(found)} of {self.count} services run")
        return found


def pss_mib(pid):
    lines = Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith("Pss:")) / KIB


def cpu_s(pid):
    return sum(int(path.read_text().split()[0]) for path in Path(f"/proc/{pid}/task").glob("*/schedstat")) / NS


def cpu_ms_per_s(pids, observed_s):
    """Of each process, by process id, over the next seconds."""
    before, begin = {pid: cpu_s(pid) for pid in pids}, time.monotonic()
    time.sleep(observed_s)
    return {pid: 1000 * (cpu_s(pid) - before[pid]) / (time.monotonic() - begin) for pid in pids}


def _of_services(prefix, rack, cpu):
    services = rack.services()
    return {f"{prefix}.memory": statistics.mean(map(pss_mib, services)),
            f"{prefix}.cpu": statistics.mean(cpu[pid] for pid in services)}


def _lines(path):
    return path.read_bytes().count(b"\n")


def _watched(rack, observed_s):
    """Nothing of the client when it cannot watch all devices."""
    output = Path(rack.folder.name) / "watch"
    watch = rack.enter(output, rack.programs / "kesto-client", "--password", "tandrivel", "watch", "--all")
    wait_until(lambda: _lines(output) > 10 * rack.count or watch.poll() is not None, "the client hears all")
    if watch.poll() is not None:
        print(f"no figures of a client that hears all: {output.read_text().strip()}", file=sys.stderr)
        return _of_services("events", rack, cpu_ms_per_s(rack.services(), observed_s))
    before = _lines(output)
    cpu = cpu_ms_per_s([watch.pid, *rack.services()], observed_s)
    figures = {**_of_services("events", rack, cpu), "client.events": (_lines(output) - before) / observed_s,
               "client.memory": pss_mib(watch.pid), "client.cpu": cpu[watch.pid]}
    watch.send_signal(signal.SIGINT)
    watch.wait()
    return figures


def _measure_one(programs, count, observed_s):
    with RunningRack(programs, count, events_per_s=0) as rack:
        figures = {"found": rack.found_s, **_of_services("idle", rack, cpu_ms_per_s(rack.services(), observed_s))}
    with RunningRack(programs, count, EVENTS_PER_S) as rack:
        return {**figures, **_watched(rack, observed_s)}


def measure(programs, is_smoke):
    """The figures by the number of devices, as text for the sake of JSON."""
    counts, observed_s = (SMOKE_COUNTS, SMOKE_OBSERVED_S) if is_smoke else (COUNTS, OBSERVED_S)
    load = os.getloadavg()[0]
    return {str(count): {**_measure_one(programs, count, observed_s), "load": load} for count in counts}


ROWS = (("all devices", "started and found by broadcast", "found", "s"),
        ("service, no client", "memory (PSS)", "idle.memory", "MiB"),
        ("service, no client", "processor time per second", "idle.cpu", "ms"),
        (f"service, {EVENTS_PER_S} events/s", "memory (PSS)", "events.memory", "MiB"),
        (f"service, {EVENTS_PER_S} events/s", "processor time per second", "events.cpu", "ms"),
        ("client, hears all", "events per second", "client.events", ""),
        ("client, hears all", "memory (PSS)", "client.memory", "MiB"),
        ("client, hears all", "processor time per second", "client.cpu", "ms"),
        ("this machine", "load average before", "load", ""))


def table(found):
    """Headings and lines, ready to be printed."""
    lines = [[name, what, *(f"{figures[key]:.2f} {unit}".strip() if key in figures else "-" for figures in found.values())]
             for name, what, key, unit in ROWS]
    return ["", "figure", *(f"{count} devices" for count in found)], lines
