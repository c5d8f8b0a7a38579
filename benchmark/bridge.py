"""What kesto-mqtt takes for a rack of devices, and how long a change is on its way from the device to a subscriber. Beside it
mosquitto_pub, which does nothing but publish as many values on the same broker."""
import os
import statistics
import subprocess
import time
from pathlib import Path

import peer
import racks
from testbed.gateway import CONTROL, check, wait_until

COUNTS, SMOKE_COUNTS = (10, 100), (3,)
PROBES_PER_S = 50  # changes whose value is their time, to one device after the other
WARM_UP_S, OBSERVED_S, SMOKE_OBSERVED_S = 1, 40, 1
PROBE_KEY, PROBE_TOPIC = "/Device/Config/Name", "/state/Device/Config/Name"
PUBLISHED_ALONE = "alone"


class Devices:
    """Connections to the devices' buses, to let them report a change."""

    def __init__(self, rack):
        from gi.repository import Gio
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.connections = [Gio.DBusConnection.new_for_address_sync(f"unix:path={path}", flags, None, None)
                            for path in sorted(Path(rack.folder.name).glob("kesto-rack-*/*/bus"))]
        check(len(self.connections) == rack.count, f"{len(self.connections)} of {rack.count} devices have a bus")

    def report_time(self, number):
        from gi.repository import Gio, GLib
        connection = self.connections[number % len(self.connections)]
        change = GLib.Variant("(sss)", (PROBE_KEY, str(time.time_ns()), "string"))
        connection.call(*CONTROL, "Change", change, None, Gio.DBusCallFlags.NO_AUTO_START, -1, None, None)


def _at_rate(per_s, duration_s, act):
    """Calls act(0), act(1), ... evenly spread."""
    begin = time.monotonic()
    for number in range(int(per_s * duration_s)):
        time.sleep(max(0, begin + number / per_s - time.monotonic()))
        act(number)


def _heard(path):
    """(nanoseconds, topic, payload) of each message that the subscriber has written down."""
    for line in path.read_text(errors="replace").splitlines():
        received, topic, payload = line.split(" ", 2)
        seconds, fraction = received.split(".")
        yield int(seconds) * 10**9 + int(fraction.ljust(9, "0")), topic, payload


class Hall:
    """A broker and a subscriber in the rack's network."""

    def __init__(self, rack):
        self.rack, self.folder, self.processes = rack, Path(rack.folder.name), []
        (self.folder / "mosquitto.conf").write_text(peer.CONFIGURATION)
        self.broker = self.start("broker", "/usr/sbin/mosquitto", "-c", self.folder / "mosquitto.conf", "-v")
        wait_until(lambda: "running" in self.output("broker").read_text(), "the broker runs")

    def output(self, name):
        return self.folder / f"{name}.out"

    def start(self, name, *command, **options):
        self.processes.append(self.rack.enter(self.output(name), *command, **options))
        return self.processes[-1]

    def subscribe(self, name, *topics):
        words = [word for topic in topics for word in ("-t", topic)]
        return self.start(name, "mosquitto_sub", "-q", "1", *words, "-F", "%U %t %p")

    def close(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait()

    def figures(self, publisher, topic, per_s, observed_s, report):
        """What the publisher takes while `report` is called, and how long those values were on their way that are the time."""
        subscriber = self.subscribe("heard", topic)
        wait_until(lambda: _at_rate(per_s, WARM_UP_S, report) or self.output("heard").stat().st_size > 0, "a value comes")
        before = {process: racks.cpu_s(process.pid) for process in (publisher, self.broker)}
        begin, begin_ns = time.monotonic(), time.time_ns()
        _at_rate(per_s, observed_s, report)
        duration_s, end_ns = time.monotonic() - begin, time.time_ns()
        cpu = {process: 1000 * (racks.cpu_s(process.pid) - value) / duration_s for process, value in before.items()}
        memory = racks.pss_mib(publisher.pid)
        subscriber.terminate()
        subscriber.wait()
        heard = [one for one in _heard(self.output("heard")) if begin_ns < one[0] < end_ns]
        delays = [(received - int(value)) / 1e6 for received, topic, value in heard
                  if value.isdigit() and len(value) == len(str(begin_ns))]
        check(delays, "no value was heard that tells its time")
        return {"values": len(heard) / duration_s, "memory": memory, "cpu": cpu[publisher], "broker": cpu[self.broker],
                "median": statistics.median(delays), "99th": statistics.quantiles(delays, n=100)[98]}


def _bridged(hall, observed_s):
    rack, devices = hall.rack, Devices(hall.rack)
    hall.subscribe("availability", "kesto/+/availability")
    bridge = hall.start("bridge", rack.programs / "kesto-mqtt", "--password=tandrivel", "--id=bench")
    wait_until(lambda: hall.output("availability").read_text().count(" online\n") >= rack.count, "all devices are online")
    figures = hall.figures(bridge, "kesto/+/state/#", PROBES_PER_S, observed_s, devices.report_time)
    bridge.terminate()
    check(bridge.wait() == 0, f"the bridge ended with {bridge.returncode}: {hall.output('bridge').read_text()[-500:]}")
    return figures


def _published_alone(hall, observed_s, per_s):
    publisher = hall.start("alone", "mosquitto_pub", "-q", "1", "-t", PUBLISHED_ALONE, "-l", stdin=subprocess.PIPE)

    def publish(_):
        publisher.stdin.write(b"%d\n" % time.time_ns())
        publisher.stdin.flush()

    figures = hall.figures(publisher, PUBLISHED_ALONE, per_s, observed_s, publish)
    publisher.stdin.close()
    return figures


def _measure_one(programs, count, observed_s):
    with racks.RunningRack(programs, count, racks.EVENTS_PER_S) as rack:
        hall = Hall(rack)
        try:
            bridged = _bridged(hall, observed_s)
            return {"bridge": bridged, "alone": _published_alone(hall, observed_s, bridged["values"])}
        finally:
            hall.close()


def measure(programs, is_smoke):
    """The figures by the number of devices, as text for the sake of JSON."""
    counts, observed_s = (SMOKE_COUNTS, SMOKE_OBSERVED_S) if is_smoke else (COUNTS, OBSERVED_S)
    load = os.getloadavg()[0]
    return {str(count): {**_measure_one(programs, count, observed_s), "load": load} for count in counts}


ROWS = (("values heard per second", "values", ""), ("memory (PSS)", "memory", "MiB"),
        ("processor time per second", "cpu", "ms"), ("the broker's processor time per second", "broker", "ms"),
        ("from the report to the subscriber, median", "median", "ms"),
        ("from the report to the subscriber, 99th of 100", "99th", "ms"))


def table(found):
    """Headings and lines, ready to be printed."""
    columns = [(count, side) for count in found for side in ("bridge", "alone")]
    headings = [f"kesto-mqtt, {count} devices" if side == "bridge" else "mosquitto_pub" for count, side in columns]
    lines = [["", what, *(f"{found[count][side][key]:.2f} {unit}".strip() for count, side in columns)]
             for what, key, unit in ROWS]
    loads = [f"{found[count]['load']:.2f}" for count, _ in columns]
    return ["", "figure", *headings], [*lines, ["", "this machine's load average before", *loads]]
