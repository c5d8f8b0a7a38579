"""Ten devices, the bridge and a broker: whatever happens to them, the broker then holds what the devices hold.
$KESTO_HALL_STEPS: how many steps the random walk has; $KESTO_HALL_SEED: which walk it is."""
import itertools
import json
import os
import random
import re
import statistics
import subprocess
import sys
import threading
import time
from collections import ChainMap, Counter
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack, contextmanager, suppress
from functools import partial
from pathlib import Path
from signal import SIGCONT, SIGKILL, SIGSTOP, SIGTERM

from cases import case
from testbed import rack as racks
from testbed.broker import KEYS, PASSWORD, PORT, Broker, topics_of
from testbed.gateway import Failure, check

STEPS, SEED = int(os.environ.get("KESTO_HALL_STEPS", "300")), int(os.environ.get("KESTO_HALL_SEED", "1"))
DEVICES, WORKERS = 10, 3
PATIENCE_S = 240  # the slowest: calls of a silent device, each of which is given up after 25 s
READ_EVERY_S = 60  # a data service that is killed may have done what nobody was told
FLOOR = "/Device/Status/Temperature/HeatSink"  # only set while the device is pulled
STRIKES = {"killed": (SIGKILL, 2), "emptied": (SIGKILL, 2), "away": (SIGKILL, 20), "terminated": (SIGTERM, 2),
           "stopped": (SIGSTOP, 3), "deaf": (SIGSTOP, 30)}  # of a program, and for how many seconds at most
TROUBLES = ["pulled", "moved", "slow", "silent"]  # of a device


class Hall:
    def __init__(self, bed):
        self.bed, self.chance, self.numbers, self.pool = bed, random.Random(SEED), itertools.count(1), ThreadPoolExecutor(DEVICES)
        self.devices = [racks.Device(number, bed.folder / str(number), racks.FIRST_ADDRESS + number)
                        for number in range(1, DEVICES + 1)]
        self.rack = racks.Rack(bed.bin, ("--alarm-every=5",), self.devices, False)
        racks.start_all(self.rack)
        self.broker = Broker(bed, keeps=True)
        self.broker.start()
        # All that is published, in its order: whether it is from earlier, topic and value.
        bed.start("recording", ["mosquitto_sub", "-p", PORT, "-t", "kesto/#", "-t", "floor/#", "-F", "%r\t%t\t%p"])
        self.start_bridge()

    def start_bridge(self):
        command = [self.bed.bin / "kesto-mqtt", f"--port={PORT}", "--longest-pause=1", f"--read-every={READ_EVERY_S}", "--id=b1"]
        self.bridge = self.bed.start("bridge", command, {"KESTO_PASSWORD": PASSWORD})

    def run(self, *command):
        done = subprocess.run(command, env=self.bed.environment, capture_output=True)
        check(done.returncode == 0, f"{command}: {done.stderr}")
        return done.stdout

    def kesto(self, device, *words):
        return self.run(self.bed.bin / "kesto-client", f"--host={device.address}", f"--password={PASSWORD}", *words)

    def held(self, device):
        read = json.loads(self.kesto(device, "--json", "--timeout=60", "read", "-r", "/Device"))
        return topics_of(device.serial, read["entries"]) | {f"kesto/{device.serial}/availability": "online"}

    def differences(self):
        """Of a device that is pulled nothing is compared but that it is not online."""
        try:
            held = ChainMap(*self.pool.map(self.held, [device for device in self.devices if device.plugged]))
            kept = self.broker.retained()
        except Failure as failure:
            return [str(failure)]
        away = tuple(f"kesto/{device.serial}/" for device in self.devices if not device.plugged)
        shown = {topic: value for topic, value in kept.items() if re.match("kesto/[^/]+/(state/|availability)", topic)
                 and (not topic.startswith(away) or value == "online")}
        return sorted(set(held.items()) ^ set(shown.items()))[:4]

    def expect_equal(self, after):
        """How long it took, in seconds."""
        begin = time.monotonic()
        while differences := self.differences():
            check(time.monotonic() < begin + PATIENCE_S and self.bridge.poll() is None,
                  f"{after}: {differences}, the bridge ({self.bridge.poll()}): {self.bed.role_log('bridge')[-2000:]}")
            time.sleep(0.1)
        return time.monotonic() - begin

    def change(self, over, seed):
        """By the device itself, by another client, by a set. Whoever is away does nothing."""
        chance = random.Random(seed)
        while not over.is_set():
            device, key, value = chance.choice(self.devices), chance.choice(KEYS), str(next(self.numbers))
            act, *words = chance.choice([
                (racks.control, device, "Change", key, value, "s"), (racks.control, device, "LoadSnapshot", "1"),
                (self.kesto, device, "write", key, value), (self.kesto, device, "multi-write", *(f"{one}={value}" for one in KEYS)),
                (self.run, "mosquitto_pub", "-p", PORT, "-q", "1", "-t", f"kesto/{device.serial}/set{key}", "-m", value)])
            with suppress(Failure):
                act(*words)

    def wait(self, most_s):
        time.sleep(self.chance.choice([0.1, 0.1, 1]) * self.chance.random() * most_s)

    @contextmanager
    def strike(self, name, process, start):
        number, most_s = STRIKES[name]
        process.send_signal(number)
        if number != SIGSTOP:
            check(process.wait() in (0, -SIGKILL), f"{name}: it ended with {process.returncode}")
        if name == "emptied":
            self.broker.store.unlink(missing_ok=True)
        yield
        self.wait(most_s)
        process.send_signal(SIGCONT) if number == SIGSTOP else start()

    @contextmanager
    def trouble(self, name, device):
        act, *words = {"pulled": (racks.unplug,), "slow": (racks.fault, "read=late:1000"), "silent": (racks.fault, "read=never"),
                       "moved": (racks.change_address, f"10.77.{2 + next(self.numbers) % 200}.{device.number}")}[name]
        act(self.rack, device, *words)
        yield
        self.wait(30)
        racks.fault(self.rack, device, "read=none")

    def plug(self, device):
        """What it got meanwhile is the least that may be seen of it when it is online again."""
        floor = str(next(self.numbers))
        racks.control(device, "Change", FLOOR, floor, "s")
        self.broker.publish(f"floor/{device.serial}", floor)
        racks.plug(self.rack, device)

    def choose(self):
        """One to three faults at once, no two of the same: what each is called, and the fault."""
        chosen, chance = {}, self.chance
        for _ in range(chance.choice([1, 1, 2, 3])):
            device = chance.choice(self.devices)
            role, *program = chance.choice([
                ("broker", self.broker.process, self.broker.start), ("bridge", self.bridge, self.start_bridge),
                ("service", device.programs["access"], partial(racks.start_service, self.rack, device)),
                ("data service", device.programs["device"], partial(racks.start_data_service, self.rack, device)),
                ("device",)])
            name = chance.choice(list(STRIKES) if program else TROUBLES)
            whom = role if role in ("broker", "bridge") else (role == "service", device.number)
            chosen[whom] = (f"{role} {name}", self.strike(name, *program) if program else self.trouble(name, device))
        return list(chosen.values())


def check_recording(bed):
    """Who says that a device is online says so after its values, and not of earlier ones."""
    seen, count = {}, 0
    for line in bed.role_log("recording").splitlines():
        retained, topic, value = (*line.split("\t", 2), "", "")[:3]  # less is what mosquitto_sub says of its connection
        seen[topic] = value
        serial = topic.removeprefix("kesto/").removesuffix("/availability")
        if retained == "0" and value == "online" and (floor := seen.get(f"floor/{serial}")):
            count += 1
            value = seen.get(f"kesto/{serial}/state{FLOOR}", "0")
            check(float(value) >= int(floor), f"{serial} is online with {value}, and had {floor} before")
    bed.note("online after the values", count, "times")


@case("hall", "ten devices, a bridge and a broker after random faults: the broker holds what the devices hold", alone=True,
      device=None, start=False, limit_s=PATIENCE_S + 30 * STEPS)
def walk(bed):
    hall, counted, seconds = Hall(bed), Counter(), []
    print(f"seed {SEED}: equal {hall.expect_equal('the start'):.1f} s after the start", file=sys.stderr)
    for step in range(STEPS):
        for device in hall.devices:
            if not device.plugged and hall.chance.random() < 0.5:
                hall.plug(device)
        faults, over = hall.choose(), threading.Event()
        with ThreadPoolExecutor(WORKERS) as workers, ExitStack() as stack:
            stack.callback(over.set)  # the last, when all faults are over
            for _ in range(WORKERS):
                workers.submit(hall.change, over, hall.chance.random())
            for _, fault in faults:
                stack.enter_context(fault)
            hall.wait(1)
        names = [name for name, _ in faults]
        counted.update(names)
        seconds.append(hall.expect_equal(f"step {step} of seed {SEED}, {', '.join(names)}"))
        print(f"{step}: {', '.join(names)}: {seconds[-1]:.1f} s", file=sys.stderr)
    check_recording(bed)
    counts = json.loads(hall.broker.retained().get("kesto/bridge/b1/counts", "{}"))
    memory = re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{hall.bridge.pid}/status").read_text())[1]
    for name, count in [*sorted((counted | counts).items()), ("steps", STEPS), ("changes", next(hall.numbers))]:
        bed.note(name, count)
    bed.note("equal after, median", statistics.median(seconds), "s")
    bed.note("equal after, longest", max(seconds), "s")
    bed.note("the bridge's memory", int(memory), "KiB")
