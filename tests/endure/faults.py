"""What the world around the service can do to it. Whatever it is, what was acknowledged stays, and SIGTERM waits for the
call under way at most."""
import ctypes
import os
import signal
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from pathlib import Path

import remote
from box import Box, wait_until
from cases import case, check
from remote import EXACT, Remote, wire

KEY = "/Device/Config/Name"
DEVICE = ("--trace", "--store", "/tmp/device.store")
OK, REFUSED = wire.STATUS_OK, wire.STATUS_REFUSED
CALL_S, MULTI_WRITE_S = 25, 65  # how long GDBus and the service wait for an answer
HEARTBEAT_S, KEEPALIVE_S = 1 + 20, 20 + 2 * 5
SLACK_S = 2  # that a busy machine may add
NEW_TIME, NEW_NET = 0x80, 0x40000000  # CLONE_NEWTIME, CLONE_NEWNET
TEN_YEARS_S = 10 * 365 * 86400
CLOCK = """#include <sys/syscall.h>
#include <unistd.h>
static int read_clock(int call, long which, long *seconds, int is_of_day) {
    int result = syscall(call, which, seconds);
    if (is_of_day && access("/tmp/set-back", F_OK) == 0) *seconds -= 86400;
    return result;
}
int clock_gettime(int id, long *t) { return read_clock(SYS_clock_gettime, id, t, id == 0); }
int gettimeofday(long *t, void *zone) { return zone ? -1 : read_clock(SYS_clock_gettime, 0, t, 1) | ((t[1] /= 1000) < 0); }
"""
ACTS = {
    "read": lambda _: {"read": wire.Read(key=KEY, flags=EXACT)},
    "write": lambda value: {"write": wire.Write(key=KEY, value=value)},
    "multi-write": lambda value: {"multi_write": wire.MultiWrite(pairs=[wire.Pair(key=KEY, value=value)])}}
FAULTS = {  # of the data service: in which call, what it does, what the client is told, after how many seconds
    "slow": ("write", "late:5000", OK, 5), "hung-read": ("read", "never", REFUSED, CALL_S),
    "hung-write": ("write", "never", REFUSED, CALL_S), "hung-multi-write": ("multi-write", "never", REFUSED, MULTI_WRITE_S),
    "wrong-type": ("multi-write", "type", OK, 0), "dying": ("write", "die", REFUSED, 0), "absent": ("write", None, REFUSED, 0)}


def ask(act, client, value=""):
    return client.ask(**ACTS[act](value)).status


def timed(function, *arguments):
    begin = time.monotonic()
    return function(*arguments), time.monotonic() - begin


class Hall(Box):
    def __init__(self, run, device=DEVICE, **settings):
        super().__init__(run, device=device, **settings)
        self.run, self.pool = run, ThreadPoolExecutor()

    def clients(self, *ids):
        made = [Remote(client_id) for client_id in ids]
        for client in made:
            check(client.log_in(), f"{client.id} could not log in")
            client.open().listen().commands.rcvtimeo = 1000 * (MULTI_WRITE_S + 15)
            client.ask(change_count={})
        return made

    def fault(self, method, kind):
        self.control("Fault", "(s)", f"{method}={kind}")

    def calls(self, text="\n"):
        return self.device_log_path.read_text().count(text)

    def begin(self, act, client, value=""):
        """A future of the act, whose call has come to the device, if that is there."""
        before, future = self.calls(), self.pool.submit(timed, ask, act, client, value)
        wait_until(lambda: self.calls() > before or future.done(), f"{act} is under way")
        return future

    def expect(self, label, outcome, wanted, at_least_s=0, at_most_s=None):
        got, seconds = outcome
        self.run.note(label, seconds, "s")
        check(got == wanted and at_least_s <= seconds < (at_most_s or at_least_s) + SLACK_S,
              f"{label}: {got} after {seconds:.1f} s, not {wanted} after {at_most_s or at_least_s} s")

    def expect_end(self, label, within_s, status=0, number=signal.SIGTERM):
        self.service.send_signal(number)  # 0: it ends by itself
        self.expect(label, timed(self.service.wait, within_s + 60), status, 0, within_s)

    def expect_echo(self, label, writer, listener, value):
        def write_and_hear():
            check(ask("write", writer, value) == OK, f"the write of {value} was refused")
            while wire.Message.FromString(listener.events.recv()).reply.write.value != value:
                pass
        self.expect(label, timed(write_and_hear), None)


def meet(run, name):
    act, kind, told, seconds = FAULTS[name]
    with Hall(run) as box:
        panel, other = box.clients("panel", "other")
        box.expect_echo("an echo before", panel, other, "before")

        def break_device():
            box.fault(act, kind) if kind else box.kill(box.device)
        break_device()
        answer = box.begin(act, panel, "meant")
        run.note("others wait", timed(lambda: other.ask(change_count={}))[1], "s")
        box.expect("answered after", answer.result(), told, seconds)
        if kind in ("die", None):
            box.device.wait()
            box.start_device(*DEVICE)
        else:
            box.fault(act, "none")
        check(panel.read(KEY) == ("meant" if told == OK else "before"), f"the device holds {panel.read(KEY)}")
        box.expect_echo("an echo afterwards", panel, other, "after")
        break_device()
        answer = box.begin(act, panel, "last")
        box.expect_end("SIGTERM then", seconds)
        check(answer.result()[0] == told, "the call under way was not answered")


for fault in FAULTS:
    case(f"fault-{fault}", f"{fault}: it is answered, what was kept stays, SIGTERM waits for it")(partial(meet, name=fault))


@case("fault-hung-crowd", "SIGTERM waits for one call that hangs, however many clients wait with theirs")
def crowd(run):
    with Hall(run) as box:
        first, *others = box.clients(*"abcd")
        box.fault("read", "never")
        answer = box.begin("read", first)
        for client in others:
            box.pool.submit(ask, "read", client)
        box.expect("the first is answered after", answer.result(), REFUSED, CALL_S)
        wait_until(lambda: box.calls(KEY) == 2, "the second call is under way")
        box.expect_end("SIGTERM then", CALL_S)


@case("fault-restarting", "a data service that restarts all the time loses no write that was acknowledged")
def restarting(run):
    with Hall(run) as box:
        panel, = box.clients("panel")
        statuses, over = [], time.monotonic() + 20

        def write_on():
            while time.monotonic() < over:
                statuses.append(ask("write", panel, str(len(statuses))))
        writing = box.pool.submit(write_on)
        while not writing.done():
            box.kill(box.device)
            box.start_device(*DEVICE)
            time.sleep(0.2)
        writing.result()
        last, kept = max(i for i, status in enumerate(statuses) if status == OK), int(panel.read(KEY))
        check(kept >= last, f"the device holds {kept}, but {last} was acknowledged")
        run.note("acknowledged", statuses.count(OK), "writes")
        run.note("refused", statuses.count(REFUSED), "writes")


@case("fault-hung-start", "a start before a data service that never answers ends with SIGTERM or with the bus")
def hung_start(run):
    for label, within_s in (("SIGTERM", CALL_S), ("bus killed", 0)):
        with Hall(run, device=(*DEVICE, "--fault", "read=never"), service=False) as box:
            box.start_service(wait=False)
            wait_until(lambda: box.calls("Read"), "the first call is under way")
            if label == "bus killed":
                box.kill(box.bus)
            box.expect_end(label, within_s, number=signal.SIGTERM if within_s else 0)


@case("fault-bus-mute", "a bus that accepts and never answers ends the start with its own status")
def mute_bus(run):
    with Hall(run, device=None, service=False) as box:
        box.bus.send_signal(signal.SIGSTOP)
        for label, within_s, number in (("given up after", CALL_S, 0), ("SIGTERM", 1, signal.SIGTERM)):
            box.start_service(wait=False)
            wait_until(lambda: box.figures()["threads"] > 2, "it is connecting")
            box.expect_end(label, within_s, 255, number)


@case("fault-bus-frozen", "with a bus that stopped answering a call fails in its time, and SIGTERM waits for one")
def frozen_bus(run):
    with Hall(run) as box:
        panel, = box.clients("panel")
        box.bus.send_signal(signal.SIGSTOP)
        box.expect("answered after", timed(ask, "read", panel), REFUSED, CALL_S)
        box.pool.submit(ask, "read", panel)
        time.sleep(SLACK_S)
        box.expect_end("SIGTERM then", CALL_S)


@case("fault-bus-killed", "the bus's end ends the service in order, and the call under way is answered before")
def killed_bus(run):
    for label in ("idle", "in a call"):
        with Hall(run) as box:
            panel, = box.clients("panel")
            box.fault("read", "never")
            answer = box.begin("read", panel) if label == "in a call" else None
            box.kill(box.bus)
            box.expect_end(label, 0, number=0)
            check(answer is None or answer.result()[0] == REFUSED, "the call under way was not answered")


@case("fault-no-audio", "with an audio service that hangs, or without one, clients come and go as ever")
def no_audio(run):
    with Hall(run) as box:
        def visits():
            for _ in range(100):
                box.clients("visitor")[0].log_out()
        box.expect("100 visits", timed(visits), None)
        box.device.send_signal(signal.SIGSTOP)
        box.expect("100 while it hangs", timed(visits), None)
        box.kill(box.device)
        box.expect("100 without it", timed(visits), None)
        box.expect_end("SIGTERM then", 0)


@case("fault-tmp", "a full or locked /tmp costs the small files alone, and only until a later start", alone=True)
def tmp(run):
    with Hall(run, as_nobody=True, service=False) as box:
        for label, mode, size in (("full", 0o1777, "64k"), ("locked", 0o555, "64m"), ("as it was", 0o1777, "64m")):
            os.chmod("/tmp", mode)
            subprocess.run(["mount", "-o", f"remount,size={size}", "/tmp"], check=True)
            if label == "full":
                subprocess.run(["dd", "if=/dev/zero", "of=/tmp/filler"], stderr=subprocess.DEVNULL)
            box.start_service()
            check(box.clients("panel")[0].read() == "8", "no service")
            run.note(label, len(list(Path("/tmp").glob("discovery_*"))), "files")
            check(Path("/tmp/discovery_serial.txt").exists() == (label == "as it was"), "a file that should not be, or none")
            box.expect_end(f"{label}: SIGTERM", 0)


@case("fault-clock", "after ten years of uptime, and with the clock set back a day, everything keeps its time")
def clock(run):
    ctypes.CDLL(None).unshare(NEW_TIME)
    Path("/proc/self/timens_offsets").write_text(f"monotonic {TEN_YEARS_S} 0\n")
    subprocess.run("gcc -shared -fPIC -x c - -o /tmp/clock.so".split(), input=CLOCK.encode(), check=True)
    with Hall(run, env={"LD_PRELOAD": "/tmp/clock.so"}) as box:
        panel, other = box.clients("panel", "other")

        def dispatch_and_hear():
            box.call("SpeakerPresetLoadedDispatch")
            while not wire.Message.FromString(other.events.recv()).event.HasField("speaker_preset_loaded"):
                pass
        for label in ("before", "set back"):
            box.expect_echo(f"{label}: an echo", panel, other, label)
            box.expect(f"{label}: an event", timed(dispatch_and_hear), None)
            box.fault("read", "never")
            answer = box.begin("read", panel)
            Path("/tmp/set-back").touch()  # in the middle of the first call
            box.expect(f"{label}: a hung read", answer.result(), REFUSED, CALL_S)
        box.expect_end("SIGTERM then", 0)


def sockets(state, port):
    """This side's TCP sockets at a port in a state, each as the bytes that the peer has not acknowledged."""
    lines = [line.split() for line in Path("/proc/net/tcp").read_text().splitlines()[1:]]
    return [int(line[4].split(":")[0], 16) for line in lines if line[1].endswith(f":{port:04X}") and line[3] == state]


def enter_network(pid):
    with open(f"/proc/{pid}/ns/net") as network:
        check(ctypes.CDLL(None).setns(network.fileno(), NEW_NET) == 0, "no way into that network")


@case("fault-pulled-peer", "a peer whose cable is pulled is logged off if it is monitored, and keeps its session if not")
def pulled_peer(run):
    established, listening = "01", "0A"
    far = subprocess.Popen(["unshare", "--net", "sleep", "600"])  # a network; it ends with the sandbox
    with Hall(run) as box:
        wait_until(lambda: os.readlink(f"/proc/{far.pid}/ns/net") != os.readlink("/proc/self/ns/net"), "the far side")
        there = f"nsenter -t {far.pid} -n ip"
        subprocess.run(f"""ip link add near type veth peer name far netns {far.pid} && ip address add 10.0.0.1/24 dev near &&
            ip link set near up && {there} address add 10.0.0.2/24 dev far && {there} link set far up""", shell=True, check=True)
        enter_network(far.pid)  # libzmq makes its sockets where its threads were born: here
        remote.HOST = "10.0.0.1"
        watched, other = Remote("watched"), Remote("other")
        for client, monitor in ((watched, 1), (other, 0)):
            check(client.log_in(monitor=monitor) and client.read() == "8", "no session")
        enter_network(box.pid)
        wait_until(lambda: sockets(established, other.ports[0]) == [0], "all is acknowledged")
        subprocess.run(f"{there} link set far down", shell=True, check=True)
        pulled = time.monotonic()
        wait_until(lambda: box.calls("client gone: watched"), "the log-off")
        box.expect("monitored: logged off after", (OK, time.monotonic() - pulled), OK, HEARTBEAT_S - 1)
        wait_until(lambda: not sockets(established, other.ports[0]), "the other connection goes")
        box.expect("the other: connection gone after", (OK, time.monotonic() - pulled), OK, KEEPALIVE_S - 1, KEEPALIVE_S)
        check(len(sockets(listening, other.ports[0])) == 1, "its session is gone as well")
        subprocess.run(f"{there} link set far up", shell=True, check=True)
        check(other.open().read() == "8", "its session does not answer any more")
        box.expect_end("SIGTERM then", 0)


@case("fault-starts", "a hundred starts and stops in a row, each second one stopped somewhere in its start", alone=True)
def starts(run):
    with Hall(run, service=False) as box:
        ends = []
        for number in range(100):
            box.start_service(wait=number % 2 == 0)
            if number % 2 == 0:
                check(Remote(f"panel-{number}").log_in(monitor=number % 4), "no login")
            else:
                wait_until(lambda: box.figures()["threads"] > 1 + number % 5, "that thread", pause_s=0)
            ends.append(box.stop())
        check({status for status, _ in ends} == {0}, f"it ended with {ends}")
        run.note("slowest stop", max(seconds for _, seconds in ends), "s")
