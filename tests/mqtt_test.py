#!/usr/bin/python3
"""mqtt_test.py BIN: the bridge between a simulated device and a real broker, which after whatever happens to them holds what
the device holds.

$KESTO_MQTT_STEPS: how many steps the random walk has; $KESTO_MQTT_SEED: which walk it is."""
import contextlib
import json
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
from itertools import islice, takewhile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
sys.dont_write_bytecode = True
from testbed.broker import KEYS, LEFT_OUT, PASSWORD, PORT, Broker, topics_of  # noqa: E402
from testbed.gateway import CONTROL, Failure, TestBed, check, wait_until  # noqa: E402

SERIAL, NAME, PIN = "QM240817", KEYS[0], "/Device/Config/Security/FrontPanel/Pin"
TOPIC, AVAILABILITY = f"kesto/{SERIAL}", f"kesto/{SERIAL}/availability"
SETS = [  # key, value, outcome, part of the reason
    (NAME, "Hall 5", "done", ""),
    (NAME, "********", "done", ""),  # as a value that is hidden
    (NAME, "", "done", ""),
    ("/Device/Config/None", "1", "refused", "did not accept it"),
    ("/Device/Config/EASY_SWAP_ID", "1", "refused", "may not write this key"),
    ("/", "1", "refused", ""),
    (NAME, os.fsdecode(b"a\xff"), "refused", "not UTF-8"),
]


class Hall:
    def __init__(self, bin_dir, folder):
        self.folder = Path(folder)
        self.bed = TestBed(bin_dir, device=None)
        self.start_device(f"{LEFT_OUT[1]}=1", "/Device/Config/Gone=soon")
        self.broker = Broker(self.bed)
        self.publish, self.retained = self.broker.publish, self.broker.retained
        self.start_bridge()

    def start_device(self, *lines):
        """With these lines as its store, or with what it kept."""
        if lines:
            (self.folder / "store").write_text("\n".join(["[Values]", *lines]))
        self.bed.start_device("--store", self.folder / "store")

    def start_bridge(self, name="b1", *options):
        words = ["--address=127.0.0.1", f"--port={PORT}", "--longest-pause=1", f"--id={name}", *options]
        self.bridge = self.bed.start(name, [self.bed.bin / "kesto-mqtt", *words], {"KESTO_PASSWORD": PASSWORD})

    def kesto(self, *words):
        return self.bed.load([self.bed.bin / "kesto-client", f"--password={PASSWORD}", *words])

    def control(self, method, *arguments):
        name, path, interface = CONTROL
        self.bed.load(["gdbus", "call", "--session", "-d", name, "-o", path, "-m", f"{interface}.{method}", "--", *arguments])

    def held(self):
        return topics_of(SERIAL, json.loads(self.kesto("--json", "read", "-r", "/Device"))["entries"])

    def differences(self):
        held, kept = self.held(), self.retained()
        state = {topic: value for topic, value in kept.items() if topic.startswith((f"{TOPIC}/state/", AVAILABILITY))}
        return sorted(set(state.items()) ^ {*held.items(), (AVAILABILITY, "online")})[:4]

    def expect_equal(self, after):
        try:
            wait_until(lambda: not self.differences(), f"equal after {after}", pause_s=0.2)
        except Failure as failure:
            raise Failure(f"{failure}: {self.differences()}, {self.bed.role_log('b1')[-500:]!r}") from None

    def expect_kept(self, topic, value):
        wait_until(lambda: self.retained().get(topic) == value, f"{topic} is {value!r}")

    def expect_log(self, text, name="b1"):
        wait_until(lambda: text in self.bed.role_log(name), f"{name} says {text!r}")

    def expect_count(self, name, count):
        counts = "kesto/bridge/b1/counts"
        wait_until(lambda: json.loads(self.retained().get(counts, "{}")).get(name) == count, f"{count} {name}")

    def set(self, key, value):
        """The answer to a set, which comes with the correlation of its request."""
        command = ["mosquitto_rr", "-p", PORT, "-V", "5", "-t", f"{TOPIC}/set{key}", "-e", "answers/1", "-m", value,
                   "-D", "publish", "correlation-data", "one", "-F", "%D %p"]
        return json.loads(self.bed.load(command).split("one ", 1)[1])


def check_start(hall):
    """Before there is a broker; then with one that refuses a key, and another key that is no topic."""
    hall.expect_log("broker: Connection refused")
    hall.broker.start()
    hall.expect_equal("the start")
    hall.expect_log(f"{LEFT_OUT[1]} cannot be a topic")
    hall.expect_log("the broker refuses a message: Not authorized")
    hall.expect_count("not_publishable", 2)
    info = json.loads(hall.retained()[f"{TOPIC}/info"])
    check((info["model"], info["addresses"]) == ("KX8-3000", ["127.0.0.1"]), f"what the device says of itself: {info}")


def check_sets(hall):
    hall.control("Change", PIN, "4711", "s")
    hall.kesto("multi-write", f"{NAME}=another", f"{KEYS[2]}=client")
    hall.expect_equal("a multi-write of another client")
    for key, value, outcome, reason in SETS:
        answer = hall.set(key, value)
        check(answer["outcome"] == outcome and reason in answer.get("reason", ""), f"set {key} {value!r}: {answer}")
        hall.expect_equal(f"a set of {key}")


def check_remains(hall):
    """What the broker has from earlier: a key that is gone, a set, a device that this bridge had, and one that it had not."""
    hall.bed.kill(hall.bridge)
    hall.expect_kept(AVAILABILITY, "offline")
    for topic, payload in [("QM0/bridge", "b1"), ("QM0/availability", "online"), ("QM1/bridge", "b2"),
                           ("QM1/availability", "online"), (f"{SERIAL}/state/Device/Gone", "1"), (f"{SERIAL}/set{NAME}", "again")]:
        hall.publish(f"kesto/{topic}", payload, "-r")
    hall.control("Fault", "read=late:300")  # so that the remains are there before the values
    hall.start_bridge()
    hall.expect_equal("a start with remains")
    hall.control("Fault", "read=none")
    hall.expect_log("a retained set is not taken")
    check("again" not in hall.held().values(), "a retained set was carried out")
    hall.expect_kept("kesto/QM0/availability", "offline")
    hall.expect_kept("kesto/QM1/availability", "online")


def check_events(hall):
    hall.bed.kill(hall.bed.program)
    hall.expect_kept(AVAILABILITY, "offline")
    answer = hall.set(NAME, "nobody there")
    check(answer == {"outcome": "refused", "reason": "the device is away"}, f"a set on a device that is away: {answer}")
    hall.control("Change", NAME, "meanwhile", "s")
    listener, _ = hall.broker.listen(f"{TOPIC}/state{NAME}", AVAILABILITY, form="%p")
    hall.bed.start_program()
    came = list(takewhile(lambda line: line != "online\n", listener.stdout))
    check(came[-1:] == ["meanwhile\n"], f"before it was online again it was {came}")
    hall.bed.kill(listener)
    hall.expect_equal("a restart of the service")
    listener = hall.bed.start("alarm", ["mosquitto_sub", "-p", PORT, "-C", "1", "-t", f"{TOPIC}/alarm/3"], stdout=subprocess.PIPE)
    while listener.poll() is None:
        hall.control("Alarm", "40", "91.5", "3")
    alarm = json.loads(listener.stdout.read())
    check(alarm | {"time": ""} == {"code": 40, "active": 1, "value": 91.5, "time": ""}, f"an alarm: {alarm}")


def check_stopped_broker(hall):
    """What waits is bounded, what was under way is not lost, and what is dropped is counted."""
    hall.control("Alarm", "40", "0", "3")
    hall.control("Change", NAME, "behind an alarm", "s")
    hall.expect_equal("an alarm")
    hall.broker.process.send_signal(signal.SIGSTOP)
    for number in range(140):
        hall.control("Alarm", "40", str(number), "3")
    hall.control("LoadSnapshot", "7")
    hall.expect_log("snapshot 7 was loaded")  # behind the alarms
    hall.broker.kill()
    hall.bridge.send_signal(signal.SIGSTOP)
    hall.broker.start()
    listener, _ = hall.broker.listen(f"{TOPIC}/alarm/3", form="%p")
    hall.bridge.send_signal(signal.SIGCONT)
    came = [json.loads(line)["value"] for line in islice(listener.stdout, 100)]
    check(came == list(range(40, 140)), f"these alarms came: {came}")
    hall.bed.kill(listener)
    hall.expect_equal("a broker that stood still")
    hall.expect_count("alarms_dropped", 40)


def check_same_id(hall):
    first = hall.bridge
    hall.start_bridge("twin", "--id=b1")
    hall.expect_log("another program has used the id b1")
    hall.bed.kill(hall.bridge)
    hall.bridge = first
    hall.expect_equal("the end of a bridge with the same id")


def check_other_store(hall):
    """Neither the service nor any client is told of it."""
    def change_store(name):
        hall.bed.kill(hall.bed.device)
        hall.start_device(f"{NAME}={name}")
    change_store("seen when a snapshot is loaded")
    hall.control("LoadSnapshot", "1")
    hall.expect_equal("a snapshot")
    hall.bed.kill(hall.bridge)
    hall.start_bridge("b1", "--read-every=1")
    hall.expect_equal("a start")
    change_store("seen by itself")
    hall.expect_equal("a data service with another store")
    hall.bed.kill(hall.bridge)
    hall.start_bridge()


def check_second_bridge(hall):
    """Each of the two says so; the one that goes does not take the device offline for long."""
    (hall.folder / "b2.conf").write_text("read-only = yes\nbrokr = 10.0.0.1\nid = a/b\nbranch = /Device/Config\n")
    first = hall.bridge
    hall.start_bridge("b2", "--config", hall.folder / "b2.conf")
    hall.expect_log("there is no setting 'brokr'", "b2")
    hall.expect_log("'a/b' cannot be the bridge's id; the line is left out", "b2")
    hall.expect_log("bridge b2 publishes this device, too")
    hall.expect_log("bridge b1 publishes this device, too", "b2")
    check(hall.set(NAME, "only b1 takes it") == {"outcome": "done"}, "a set with a second bridge that takes none")
    hall.bed.kill(hall.bridge)
    hall.bridge = first
    hall.expect_equal("the end of the second bridge")


def check_short_rival(hall):
    """Another bridge that comes and goes while this one is still reading may have removed values."""
    hall.bed.kill(hall.bridge)
    hall.control("Fault", "read=late:1000")
    hall.start_bridge()
    hall.expect_log("QM240817: connected")
    hall.publish(f"{TOPIC}/bridge", "b9")
    hall.expect_log("bridge b9 publishes this device, too")
    hall.control("Fault", "read=none")
    hall.expect_kept(AVAILABILITY, "online")
    hall.publish(f"{TOPIC}/state{KEYS[1]}", "", "-r")
    hall.expect_equal("a rival that was there before the first read")


def check_strangers(hall):
    """What somebody publishes who wants the bridge to say something in its own name, or to run out of memory."""
    hall.publish(f"{TOPIC}/set{NAME}", "x", "-V", "5", "-D", "publish", "response-topic", AVAILABILITY)
    hall.expect_log("below kesto/ is not taken")
    hall.publish("kesto/QM2/bridge", "b1")
    (hall.folder / "large").write_bytes(bytes(2 << 20))
    hall.bed.load(["mosquitto_pub", "-p", PORT, "-q", "1", "-t", f"{TOPIC}/set{NAME}", "-f", hall.folder / "large"])
    check(hall.set(NAME, "behind them") == {"outcome": "done"}, "a set behind a large one")
    check("NUL" not in hall.bed.role_log("b1"), "a set of 2 MiB came")
    check("kesto/QM2/availability" not in hall.retained(), "a device of somebody else's was said to be offline")


def check_secret(hall):
    """What a device reports of a password before the bridge has read it."""
    hall.bed.kill(hall.bridge)
    hall.control("Fault", "read:/Device=error")
    listener = hall.bed.start("pin", ["mosquitto_sub", "-p", PORT, "-t", f"{TOPIC}/state{PIN}"])
    hall.start_bridge()
    hall.expect_log("/Device cannot be read")
    hall.control("Change", PIN, "4711", "s")
    hall.control("Fault", "read:/Device=none")
    hall.expect_equal("a password changed before the first read")
    hall.bed.kill(listener)
    check("4711" not in hall.bed.role_log("pin"), "a password was published")


def check_end(hall):
    hall.bridge.send_signal(signal.SIGTERM)
    check(hall.bridge.wait() == 0, f"the bridge ended with {hall.bridge.returncode}")
    hall.expect_log("ended; ")
    hall.expect_log(" 40 alarms dropped")
    hall.expect_kept(AVAILABILITY, "offline")
    hall.start_bridge()


def change(hall, chance):
    """By the device itself, by another client, by a set; or many at once. Whoever is away does nothing."""
    key, value = chance.choice(KEYS), str(chance.randrange(1000))
    acts = [(hall.control, "Change", key, value, "s"), (hall.kesto, "write", key, value),
            (hall.kesto, "multi-write", f"{key}={value}", f"{NAME}={value}"),
            (hall.publish, f"{TOPIC}/set{key}", value), (hall.control, "LoadSnapshot", "1")]
    act, *words = chance.choice(acts)
    with contextlib.suppress(Failure):
        act(*words)


def walk(hall, steps, seed):
    chance, bed = random.Random(seed), hall.bed
    restarts = {"bridge": (lambda: hall.bridge, hall.start_bridge), "broker": (lambda: hall.broker.process, hall.broker.start),
                "service": (lambda: bed.program, bed.start_program), "device": (lambda: bed.device, hall.start_device)}
    for step in range(steps):
        role = chance.choice(list(restarts))
        process, start = restarts[role]
        stopped = chance.choice([hall.broker.process, hall.bridge, bed.program])
        stopped.send_signal(signal.SIGSTOP)
        for _ in range(chance.randrange(4)):
            hall.control("Change", chance.choice(KEYS), str(chance.randrange(1000)), "s")
        stopped.send_signal(signal.SIGCONT)
        bed.kill(process())
        change(hall, chance)
        start()
        change(hall, chance)
        hall.expect_equal(f"step {step} of seed {seed}, a restart of the {role}")


steps, seed = int(os.environ.get("KESTO_MQTT_STEPS", "15")), int(os.environ.get("KESTO_MQTT_SEED", "1"))
with tempfile.TemporaryDirectory() as folder:
    hall = Hall(sys.argv[1], folder)
    with hall.bed:
        for part in (check_start, check_sets, check_remains, check_events, check_same_id, check_other_store,
                     check_second_bridge, check_short_rival, check_strangers, check_secret, check_stopped_broker, check_end):
            part(hall)
        walk(hall, steps, seed)
