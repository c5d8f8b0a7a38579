#!/usr/bin/python3
"""mqtt_test.py BIN: the bridge between a simulated device and a real broker: what it publishes and takes, and that the
broker holds what the device holds after whatever happens to the broker, the device's programs and the bridge.

$KESTO_MQTT_STEPS: how many steps the random walk has; $KESTO_MQTT_SEED: which walk it is."""
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))
sys.dont_write_bytecode = True
from testbed.gateway import CONTROL, Failure, TestBed, check, wait_until  # noqa: E402

SERIAL, PASSWORD = "QM240817", "tandrivel"
NAME, LEVEL = "/Device/Config/Name", "/Device/Status/Channels/Channel-1/OutputLevel"
KEYS = [NAME, LEVEL, "/Device/Config/PROJECT_INFO", "/Device/Config/Panel/Brightness"]
HIDDEN = ("Password", "Passphrase", "Secret", "Pin")
TOPIC = f"kesto/{SERIAL}"
AVAILABILITY = f"{TOPIC}/availability"


class Hall:
    """A device, a broker and a bridge."""

    def __init__(self, bin_dir, folder):
        self.folder, self.fences = Path(folder), 0
        store = self.folder / "store"
        self.bed = TestBed(bin_dir, device=("--store", store))
        self.device_arguments = ("--store", store)
        (self.folder / "broker.conf").write_text("listener 1883 127.0.0.1\nallow_anonymous true\n")
        self.start_broker()
        self.start_bridge()

    def start_broker(self):
        self.broker = self.bed.start("broker", ["mosquitto", "-c", self.folder / "broker.conf"])
        wait_until(lambda: "running" in self.bed.role_log("broker"), "the broker runs")

    def start_bridge(self, name="b1", *options):
        command = [self.bed.bin / "kesto-mqtt", "--address=127.0.0.1", "--longest-pause=1", f"--id={name}", *options]
        process = self.bed.start(name, command, {"KESTO_PASSWORD": PASSWORD})
        if name == "b1":
            self.bridge = process
        return process

    def publish(self, topic, payload, *options):
        self.bed.load(["mosquitto_pub", "-q", "1", "-t", topic, "-m", payload, *options])

    def retained(self):
        """All that the broker has kept, by topic; a message that is kept, too, marks the end."""
        self.fences += 1
        self.publish("fence", str(self.fences), "-r")
        command = ["mosquitto_sub", "-t", "kesto/#", "-t", "fence", "-F", "%t\t%p"]
        process = self.bed.start("sub", command, stdout=subprocess.PIPE, text=True)
        lines = iter(process.stdout.readline, f"fence\t{self.fences}\n")
        kept = dict(line.rstrip("\n").split("\t", 1) for line in lines)
        self.bed.kill(process)
        process.stdout.close()
        return kept

    def kesto(self, *words):
        return self.bed.load([self.bed.bin / "kesto-client", f"--password={PASSWORD}", *words])

    def control(self, method, *arguments):
        name, path, interface = CONTROL
        self.bed.load(["gdbus", "call", "--session", "-d", name, "-o", path, "-m", f"{interface}.{method}", "--", *arguments])

    def held(self):
        """What the device holds, as topics; what is empty is not kept, and what is secret is not shown."""
        values = json.loads(self.kesto("--json", "read", "-r", "/Device"))["entries"]
        shown = {key: "********" if key.endswith(HIDDEN) else value for key, value in values.items()}
        return {f"{TOPIC}/state{key}": value for key, value in shown.items() if value}

    def differences(self):
        held, kept = self.held(), self.retained()
        state = {topic: value for topic, value in kept.items() if topic.startswith(f"{TOPIC}/state/")}
        if kept.get(AVAILABILITY) != "online":
            return f"the device is {kept.get(AVAILABILITY)}"
        return sorted(set(held.items()) ^ set(state.items()))[:4]

    def expect_equal(self, after):
        try:
            wait_until(lambda: not self.differences(), f"equal after {after}", pause_s=0.2)
        except Failure as failure:
            raise Failure(f"{failure}: {self.differences()}, {self.bed.role_log('b1')[-500:]}") from None
        check(self.bridge.poll() is None, f"the bridge has ended after {after}")

    def expect_kept(self, topic, value):
        wait_until(lambda: self.retained().get(topic) == value, f"{topic} is {value!r}")

    def expect_log(self, text, name="b1"):
        wait_until(lambda: text in self.bed.role_log(name), f"{name} says {text!r}")

    def set(self, key, value, topic=f"{TOPIC}/set"):
        """The answer to a set, with what came back as correlation."""
        command = ["mosquitto_rr", "-V", "5", "-t", topic + key, "-e", "answers/1", "-m", value,
                   "-D", "publish", "correlation-data", "one", "-F", "%D %p"]
        correlation, answer = self.bed.load(command).strip().split(" ", 1)
        check(correlation == "one", f"the answer to {key} came with {correlation!r}")
        return json.loads(answer)


SETS = [  # key, value, outcome, part of the reason
    (NAME, "Hall 5", "done", ""),
    (NAME, "", "done", ""),
    ("/Device/Config/None", "1", "refused", "did not accept it"),
    ("/Device/Config/EASY_SWAP_ID", "1", "refused", "may not write this key"),
    ("/", "1", "refused", ""),
    (NAME, os.fsdecode(b"a\xff"), "refused", "not UTF-8"),
]


def check_sets(hall):
    hall.expect_equal("the start")
    for key, value, outcome, reason in SETS:
        answer = hall.set(key, value)
        check(answer["outcome"] == outcome and reason in answer.get("reason", ""), f"set {key} {value!r}: {answer}")
        hall.expect_equal(f"a set of {key}")


def check_retained_set(hall):
    hall.bed.kill(hall.bridge)
    hall.publish(f"{TOPIC}/set{NAME}", "again and again", "-r")
    hall.start_bridge()
    hall.expect_log("a retained set is not taken")
    hall.expect_equal("a retained set")
    check("again and again" not in hall.held().values(), "a retained set was carried out")
    hall.publish(f"{TOPIC}/set{NAME}", "", "-r")


def check_strangers(hall):
    """Keys that the device does not have, from earlier, and a device that the bridge had and has not found."""
    hall.bed.kill(hall.bridge)
    hall.expect_kept(AVAILABILITY, "offline")
    hall.publish(f"{TOPIC}/state/Device/Gone", "1", "-r")
    hall.publish("kesto/QM0/bridge", "b1", "-r")
    hall.publish("kesto/QM0/availability", "online", "-r")
    hall.publish("kesto/QM1/bridge", "b2", "-r")
    hall.publish("kesto/QM1/availability", "online", "-r")
    hall.start_bridge()
    hall.expect_equal("a key that is gone")
    hall.expect_kept("kesto/QM0/availability", "offline")
    hall.expect_kept("kesto/QM1/availability", "online")


def check_away(hall):
    hall.bed.kill(hall.bed.program)
    hall.expect_kept(AVAILABILITY, "offline")
    answer = hall.set(NAME, "nobody there")
    check(answer == {"outcome": "refused", "reason": "the device is away"}, f"a set on a device that is away: {answer}")
    hall.bed.start_program()
    hall.expect_equal("a restart of the service")


def check_second_bridge(hall):
    """Each of the two says so; the one that goes does not take the device offline for long."""
    (hall.folder / "b2.conf").write_text("read-only = yes\nbrokr = 10.0.0.1\nbranch = /Device/Config\n")
    second = hall.start_bridge("b2", "--config", hall.folder / "b2.conf")
    hall.expect_log("there is no setting 'brokr'", "b2")
    hall.expect_log("bridge b2 publishes this device, too")
    hall.expect_log("bridge b1 publishes this device, too", "b2")
    check(hall.set(NAME, "only b1 takes it") == {"outcome": "done"}, "a set with a second bridge that takes none")
    hall.bed.kill(second)
    hall.expect_equal("the end of the second bridge")


def check_alarm(hall):
    listener = hall.bed.start("alarm", ["mosquitto_sub", "-C", "1", "-t", f"{TOPIC}/alarm/3"], stdout=subprocess.PIPE)
    while listener.poll() is None:
        hall.control("Alarm", "40", "91.5", "3")
    alarm = json.loads(listener.stdout.read())
    check((alarm["code"], alarm["active"], alarm["value"]) == (40, 1, 91.5), f"an alarm: {alarm}")


def restart(hall, role):
    if role == "bridge":
        hall.bed.kill(hall.bridge)
        hall.start_bridge()
    elif role == "orderly bridge":
        hall.bridge.send_signal(signal.SIGTERM)
        check(hall.bridge.wait() == 0, f"the bridge ended with {hall.bridge.returncode}")
        hall.start_bridge()
    elif role == "broker":
        hall.bed.kill(hall.broker)
        hall.start_broker()
    elif role == "service":
        hall.bed.kill(hall.bed.program)
        hall.bed.start_program()
    else:
        hall.bed.kill(hall.bed.device)
        hall.bed.start_device(*hall.device_arguments)


def change(hall, chance):
    key, value = chance.choice(KEYS), str(chance.randrange(1000))
    acts = [lambda: hall.control("Change", key, value, "s"), lambda: hall.kesto("write", key, value),
            lambda: hall.publish(f"{TOPIC}/set{key}", value), lambda: hall.control("LoadSnapshot", "1"),
            lambda: hall.kesto("multi-write", f"{key}={value}", f"{NAME}={value}")]
    chance.choice(acts)()


def walk(hall, steps, seed):
    """What is away in a step changes meanwhile, or does not answer, before it is back."""
    chance = random.Random(seed)
    roles = ["bridge", "orderly bridge", "broker", "service", "device"]
    for step in range(steps):
        role = chance.choice(roles)
        stopped = chance.choice([hall.broker, hall.bridge, None])
        if stopped:
            stopped.send_signal(signal.SIGSTOP)
        for _ in range(chance.randrange(4)):
            hall.control("Change", chance.choice(KEYS), str(chance.randrange(1000)), "s")
        if stopped:
            stopped.send_signal(signal.SIGCONT)
        change(hall, chance)
        restart(hall, role)
        change(hall, chance)
        hall.expect_equal(f"step {step} of seed {seed}, a restart of the {role}")


def main():
    steps, seed = int(os.environ.get("KESTO_MQTT_STEPS", "15")), int(os.environ.get("KESTO_MQTT_SEED", "1"))
    with tempfile.TemporaryDirectory() as folder:
        hall = Hall(sys.argv[1], folder)
        with hall.bed:
            for part in (check_sets, check_retained_set, check_strangers, check_away, check_second_bridge, check_alarm):
                print(part.__name__, flush=True)
                part(hall)
            walk(hall, steps, seed)


main()
