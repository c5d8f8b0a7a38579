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

from cases import Case, case
from testbed import remote
from testbed.remote import EXACT, Remote, enter, wire
from testbed.gateway import ESTABLISHED, LISTENING, check, tcp_sockets, wait_until

run = partial(subprocess.run, shell=True, check=True)
KEY = "/Device/Config/Name"
OK, REFUSED = wire.STATUS_OK, wire.STATUS_REFUSED
CALL_S, MULTI_WRITE_S = 25, 65  # how long GDBus and the service wait for an answer
HEARTBEAT_S, KEEPALIVE_S = 1 + 20, 20 + 2 * 5
SLACK_S = 2  # that a busy machine may add
NEW_TIME, NEW_NET = 0x80, 0x40000000  # CLONE_NEWTIME, CLONE_NEWNET
TEN_YEARS_S = 10 * 365 * 86400
CLOCK = """#include <sys/syscall.h>
#include <unistd.h>
int clock_gettime(int id, long *t) {
    int result = syscall(SYS_clock_gettime, id, t);
    if (id == 0 && access("/tmp/set-back", F_OK) == 0) *t -= 86400;
    return result;
}
int gettimeofday(long *t, void *zone) { return zone ? -1 : clock_gettime(0, t) | ((t[1] /= 1000) < 0); }
"""
ACTS = {
    "read": lambda _: {"read": wire.Read(key=KEY, flags=EXACT)},
    "write": lambda value: {"write": wire.Write(key=KEY, value=value)},
    "multi-write": lambda value: {"multi_write": wire.MultiWrite(pairs=[wire.Pair(key=KEY, value=value)])}}


def ask(act, client, value=""):
    return client.ask(**ACTS[act](value)).status


def timed(function, *arguments):
    begin = time.monotonic()
    return function(*arguments), time.monotonic() - begin


class FaultBed(Case):
    """A test bed whose device tells of each call, and on which every step is timed."""

    def __init__(self, bin_dir, notes, device=("--trace",), **settings):
        super().__init__(bin_dir, notes, device=device, **settings)
        self.pool = ThreadPoolExecutor()

    def clients(self, *ids):
        made = [Remote(client_id) for client_id in ids]
        for client in made:
            check(client.log_in(), f"{client.id} could not log in")
            client.open().listen().commands.rcvtimeo = 1000 * (MULTI_WRITE_S + 15)
            client.ask(change_count={})
        return made

    def calls(self, text="\n"):
        return self.role_log("device").count(text)

    def begin(self, act, client, value=""):
        """A future of the act, whose call has come to the device."""
        before, future = self.calls(), self.pool.submit(timed, ask, act, client, value)
        wait_until(lambda: self.calls() > before, f"{act} is under way")
        return future

    def expect(self, label, outcome, wanted=None, at_least_s=0, at_most_s=None):
        got, seconds = outcome
        self.note(label, seconds, "s")
        check(got == wanted and at_least_s <= seconds < (at_most_s or at_least_s) + SLACK_S,
              f"{label}: {got} after {seconds:.1f} s, not {wanted} after {at_most_s or at_least_s} s")

    def expect_end(self, within_s=0, label="SIGTERM then", status=0, number=signal.SIGTERM):
        self.program.send_signal(number)  # 0: it ends by itself
        self.expect(label, timed(self.program.wait, within_s + 60), status, 0, within_s)

    def expect_echo(self, label, writer, listener, value):
        def write_and_hear():
            check(ask("write", writer, value) == OK, f"the write of {value} was refused")
            listener.hear(lambda message: message.reply.write.value == value)
        self.expect(label, timed(write_and_hear))


fault = partial(case, bed=FaultBed)


def hang(bed, act, seconds):
    panel, other = bed.clients("panel", "other")
    bed.expect_echo("an echo before", panel, other, "before")
    bed.fault(act, "never")
    answer = bed.begin(act, panel, "meant")
    bed.note("others wait", timed(lambda: other.ask(change_count={}))[1], "s")
    bed.expect("answered after", answer.result(), REFUSED, seconds)
    bed.fault(act, "none")
    check(panel.read(KEY) == "before", f"the device holds {panel.read(KEY)}")
    bed.expect_echo("an echo afterwards", panel, other, "after")
    bed.fault(act, "never")
    answer = bed.begin(act, panel, "last")
    bed.expect_end(seconds)
    check(answer.result()[0] == REFUSED, "the call under way was not answered")


for hung_act, given_up_s in (("read", CALL_S), ("write", CALL_S), ("multi-write", MULTI_WRITE_S)):
    fault(f"fault-hung-{hung_act}", "a call that hangs is refused in its time, what was kept stays, SIGTERM waits for it")(
        partial(hang, act=hung_act, seconds=given_up_s))


@fault("fault-hung-crowd", "SIGTERM waits for one call that hangs, however many clients wait with theirs")
def crowd(bed):
    first, *others = bed.clients(*"abcd")
    bed.fault("read", "never")
    answer = bed.begin("read", first)
    for client in others:
        bed.pool.submit(ask, "read", client)
    bed.expect("the first is answered after", answer.result(), REFUSED, CALL_S)
    wait_until(lambda: bed.calls(KEY) == 2, "the second call is under way")
    bed.expect_end(CALL_S)


@fault("fault-bus-mute", "a bus that never answers, or too few descriptors, end the start with its own status", device=None,
       start=False)
def mute_bus(bed):
    bed.bus.send_signal(signal.SIGSTOP)
    for label, within_s, number in (("given up after", CALL_S, 0), ("SIGTERM", 1, signal.SIGTERM),
                                    ("SIGINT", 1, signal.SIGINT)):
        bed.start_program(wait=False)
        wait_until(lambda: bed.figures()["threads"] > 2, "it is connecting")
        bed.expect_end(within_s, label, 255, number)
    bed.nofile = 7
    bed.start_program(wait=False)
    bed.expect_end(0, "7 descriptors", 255, 0)


@fault("fault-bus-frozen", "with a bus that stopped answering a call fails in its time, and SIGTERM waits for one")
def frozen_bus(bed):
    panel, = bed.clients("panel")
    bed.bus.send_signal(signal.SIGSTOP)
    bed.expect("answered after", timed(ask, "read", panel), REFUSED, CALL_S)
    bed.pool.submit(ask, "read", panel)
    time.sleep(SLACK_S)
    bed.expect_end(CALL_S)


@fault("fault-bus-killed", "the bus's end ends the service in order, and the call under way is answered before")
def killed_bus(bed):
    panel, = bed.clients("panel")
    bed.fault("read", "never")
    answer = bed.begin("read", panel)
    bed.kill(bed.bus)
    bed.expect_end(0, "end", number=0)
    check(answer.result()[0] == REFUSED, "the call under way was not answered")


@fault("fault-no-audio", "with an audio service that hangs, or without one, clients come and go as ever")
def no_audio(bed):
    def visits():
        for _ in range(100):
            bed.clients("visitor")[0].log_out()
    bed.expect("100 visits", timed(visits))
    bed.device.send_signal(signal.SIGSTOP)
    bed.expect("100 while it hangs", timed(visits))
    bed.kill(bed.device)
    bed.expect("100 without it", timed(visits))
    bed.expect_end()


@fault("fault-tmp", "a full or locked /tmp costs the small files alone, and only until a later start", alone=True,
       as_nobody=True, start=False)
def tmp(bed):
    for label, mode, size in (("full", 0o1777, "64k"), ("locked", 0o555, "64m"), ("as it was", 0o1777, "64m")):
        os.chmod("/tmp", mode)
        run(f"mount -o remount,size={size} /tmp")
        if label == "full":
            run("dd if=/dev/zero of=/tmp/filler 2>/dev/null || true")
        bed.start_program()
        check(bed.clients("panel")[0].is_served(), "no service")
        bed.note(label, len(list(Path("/tmp").glob("discovery_*"))), "files")
        check(Path("/tmp/discovery_serial.txt").exists() == (label == "as it was"), "a file that should not be, or none")
        bed.expect_end(0, f"{label}: SIGTERM")


def bed_in_ten_years(bin_dir, notes):
    ctypes.CDLL(None).unshare(NEW_TIME)
    Path("/proc/self/timens_offsets").write_text(f"monotonic {TEN_YEARS_S} 0\n")
    run("gcc -shared -fPIC -x c - -o /tmp/clock.so", input=CLOCK.encode())
    return FaultBed(bin_dir, notes, env={"LD_PRELOAD": "/tmp/clock.so"})


@case("fault-clock", "after ten years of uptime, and with the clock set back a day, everything keeps its time",
      bed=bed_in_ten_years)
def clock(bed):
    panel, other = bed.clients("panel", "other")

    def dispatch_and_hear():
        bed.call("SpeakerPresetLoadedDispatch")
        other.hear(lambda message: message.event.HasField("speaker_preset_loaded"))
    for label in ("before", "set back"):
        bed.expect_echo(f"{label}: an echo", panel, other, label)
        bed.expect(f"{label}: an event", timed(dispatch_and_hear))
        bed.fault("read", "never")
        answer = bed.begin("read", panel)
        Path("/tmp/set-back").touch()  # in the middle of the first call
        bed.expect(f"{label}: a hung read", answer.result(), REFUSED, CALL_S)
    bed.expect_end()


def unacknowledged(state, port):
    """Of this side's sockets at a port in a state: the bytes that the peer has not acknowledged."""
    return [count for local, _, count in tcp_sockets(state) if local == port]


def enter_network(pid):
    with open(f"/proc/{pid}/ns/net") as network:
        check(ctypes.CDLL(None).setns(network.fileno(), NEW_NET) == 0, "no way into that network")


@fault("fault-pulled-peer", "a peer whose cable is pulled is logged off if it is monitored, and keeps its session if not")
def pulled_peer(bed):
    far = bed.start("far", ["unshare", "--net", "sleep", "600"])  # a network
    wait_until(lambda: os.readlink(f"/proc/{far.pid}/ns/net") != os.readlink("/proc/self/ns/net"), "the far side")
    there = f"nsenter -t {far.pid} -n ip"
    run(f"""ip link add near type veth peer name far netns {far.pid} && ip address add 10.0.0.1/24 dev near &&
        ip link set near up && {there} address add 10.0.0.2/24 dev far && {there} link set far up""")
    enter_network(far.pid)  # libzmq makes its sockets where its threads were born: here
    remote.HOST = "10.0.0.1"
    watched, other = enter("watched", monitor=1), enter("other")
    enter_network(bed.pid)
    wait_until(lambda: unacknowledged(ESTABLISHED, other.ports[0]) == [0], "all is acknowledged")
    run(f"{there} link set far down")
    pulled = time.monotonic()
    wait_until(lambda: bed.calls("client gone: watched"), "the log-off")
    bed.expect("monitored: logged off after", (None, time.monotonic() - pulled), None, HEARTBEAT_S - 1)
    wait_until(lambda: not unacknowledged(ESTABLISHED, other.ports[0]), "the other connection goes")
    bed.expect("the other: connection gone after", (None, time.monotonic() - pulled), None, KEEPALIVE_S - 1, KEEPALIVE_S)
    check(len(unacknowledged(LISTENING, other.ports[0])) == 1, "its session is gone as well")
    run(f"{there} link set far up")
    check(other.open().is_served(), "its session does not answer any more")
    bed.expect_end()


@fault("fault-starts", "a hundred starts and stops in a row, each second one stopped somewhere in its start", alone=True,
       start=False)
def starts(bed):
    ends = []
    for number in range(100):
        bed.start_program(wait=number % 2 == 0)
        if number % 2 == 0:
            enter(f"panel-{number}", monitor=number % 4)
        else:
            wait_until(lambda: bed.figures()["threads"] > 1 + number % 5, "that thread", pause_s=0)
        ends.append(bed.stop())
    check({status for status, _ in ends} == {0}, f"it ended with {ends}")
    bed.note("slowest stop", max(seconds for _, seconds in ends), "s")
