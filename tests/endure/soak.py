#!/usr/bin/python3
"""Sessions come and go at full speed for a time given, in rounds, beside strangers who do what they should not; after each
round all have left, and what the service then holds must be what it held after the first one. Run it as tests/sandbox tests/endure/soak.py --minutes 30;
tests/endure/soak.gnuplot draws docs/soak.svg from what it has sampled."""
import argparse
import ctypes
import itertools
import json
import multiprocessing
import os
import random
import sys
import time
from contextlib import suppress
from pathlib import Path

import zmq

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.append(str(ROOT))
from testbed.remote import (RawPeer, Remote, connect, discovery_request, discovery_socket, enter,
                            raise_own_limits, wire, zmtp_frame, zmtp_request)
from testbed.gateway import AUTH_PORT, LISTENING, TestBed, check, tcp_sockets, wait_until

ROUNDS, WORKERS, STRANGERS = 10, 2, 3
SAMPLE_S, RESTART_S, EVENT_S, SETTLE_S = 5, 20, 0.01, 2
SESSION_PORTS, EVENT_PORTS_BEGIN = range(62000, 64000), 63000
FLAGS = ("monitor", "discard_my_feedback", "hide_secure_info", "no_lock")
EVENTS = (("Dispatch", "(idi)", 40, 3.5, 2), ("GeneralDispatch", "(sss)", "/a", "b", "c"),
          ("SnapshotLoadedDispatch", "(u)", 3), ("SpeakerPresetLoadedDispatch",))
COUNTS = {name: multiprocessing.Value(ctypes.c_ulong)
          for name in ("opened", "vanished", "refused", "requests", "events", "disturbed")}
STRANGE_ADDRESS = "127.0.0.2"  # not the clients', whose own connections are served first
MIB = 1 << 20


def count(what):
    with COUNTS[what]:
        COUNTS[what].value += 1


def session_ports():
    """Those that are listened on; two for each session."""
    return [port for port, _, _ in tcp_sockets(LISTENING) if port in SESSION_PORTS]


def sessions_open():
    return len(session_ports()) // 2


def visit(number, auth, rng):
    """The combinations of flags in turn, all else by chance. A session that vanishes is watched, and so logged off."""
    flags = {name: number >> bit & 1 for bit, name in enumerate(FLAGS)}
    vanishes = flags["monitor"] and rng.random() < 0.3
    client = Remote(f"soak-{os.getpid()}" + (f"-{number}" if vanishes or rng.random() < 0.5 else ""), auth)
    if rng.random() < 0.3:
        with discovery_socket() as asking:
            asking.send(discovery_request(client.id))
            check(asking.recv(9000).startswith(b"@?D"), "an odd answer to a discovery request")
    check(rng.random() > 0.1 or client.log_in(password="wrong") is None, "a login with a wrong password")
    while not client.log_in(**flags):
        count("refused")  # its ports were still somebody's
    count("opened")
    if rng.random() < 0.5:
        client.listen()
    acts = (client.read, lambda: client.write("/Device/Config/Name", str(number)), lambda: client.log_in(**flags),
            lambda: client.ask(multi_write=wire.MultiWrite(pairs=[wire.Pair(key="/a", value="b")])))
    for act in (*rng.choices(acts, k=rng.randrange(4)), lambda: client.ask(change_count={})):
        act()
        count("requests")
    if vanishes:
        count("vanished")
    elif rng.random() < 0.5:
        client.ask(login=wire.Login())
    else:
        client.log_out()
    client.close()


def play_clients(seed, end):
    rng, auth = random.Random(seed), connect(zmq.REQ, AUTH_PORT)
    for number in itertools.takewhile(lambda _: time.monotonic() < end, itertools.count()):
        visit(number, auth, rng)


DISTURBANCES = (
    lambda peer: peer.offer(zmtp_frame(b"", more=True), *[zmtp_frame(bytes(MIB), more=True)] * 40),  # it never ends
    lambda peer: peer.offer(zmtp_frame(b"", more=True), zmtp_frame(bytes(9 * MIB))[:-1]),
    lambda peer: peer.offer(zmtp_frame(b"no envelope")),
    lambda peer: peer.offer(zmtp_frame(b"\x01" + bytes(2 * MIB))),  # for an event port a subscription
    lambda peer: peer.offer(*[zmtp_frame(b"\x01" + bytes(1000))] * 1000),
    lambda peer: peer.offer(*[zmtp_request(b"garbage")] * 1000),  # whose answers are not taken
    lambda peer: time.sleep(0.1))


def disturb(rng, victim_port):
    """The command ports of the other sessions are left alone: a connection that is closed there before the client has come
    ends a monitored session, as it should."""
    event_ports = [port for port in session_ports() if port >= EVENT_PORTS_BEGIN]
    port = rng.choice([AUTH_PORT, victim_port, *event_ports])
    peer = RawPeer(port, b"SUB" if port >= EVENT_PORTS_BEGIN else b"DEALER", timeout_s=1, address=STRANGE_ADDRESS)
    rng.choice(DISTURBANCES)(peer)
    peer.close()


def play_stranger(seed, end, victim_port):
    rng = random.Random(seed)
    while time.monotonic() < end:
        with suppress(OSError):  # it was refused, or the session is over
            disturb(rng, victim_port)
        count("disturbed")


def play_platform(bed, end):
    while time.monotonic() < end:
        for event in EVENTS:
            bed.call(*event)
            count("events")
        time.sleep(EVENT_S)


def work_round(bed, number, seconds, sample):
    end, restart, victim = time.monotonic() + seconds, time.monotonic() + RESTART_S, enter("victim", monitor=1)
    work = [(play_clients, (WORKERS * number + n, end)) for n in range(WORKERS)] + [(play_platform, (bed, end))]
    work += [(play_stranger, (STRANGERS * number + n, end, victim.ports[0])) for n in range(STRANGERS)]
    workers = [multiprocessing.Process(target=target, args=arguments) for target, arguments in work]
    for worker in workers:
        worker.start()
    while any(worker.is_alive() for worker in workers):
        time.sleep(min(SAMPLE_S, seconds / 4))
        sample()
        if time.monotonic() > restart:
            restart += RESTART_S
            bed.kill(bed.device)
            bed.start_device()
    check(not any(worker.exitcode for worker in workers), "a client failed; see above")
    check(victim.is_served(), "the session that strangers came to is not served any more")
    victim.log_out()
    wait_until(lambda: sessions_open() == 0, "all sessions are gone")
    time.sleep(SETTLE_S)


def soak(bed, minutes, out):
    """(what the service holds after each round; status; entries that were still in its table when it stopped)"""
    os.mkfifo(bed.log_path)
    last_words = bed.start("last-words", ["tail", "-n", "2000", bed.log_path])  # the log as a whole would fill the disk
    begin, samples, quiet = time.monotonic(), [], []

    def sample(into=samples):
        into.append({"s": round(time.monotonic() - begin, 1), **bed.figures(), "open": sessions_open(),
                     **{name: value.value for name, value in COUNTS.items()}})
    bed.start_program()
    bed.log_path = bed.folder / "last-words.log"
    for number in range(ROUNDS):
        work_round(bed, number, minutes * 60 / ROUNDS, sample)
        sample(quiet)
        out.write_text(json.dumps({"quiet": quiet, "samples": samples}) + "\n")
        print(quiet[-1], flush=True)
    status, _ = bed.stop()
    last_words.wait()
    return quiet, status, bed.log().rpartition("destroy srv")[2].count("client_free_callback")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--bin", type=Path, default=ROOT / "build" / "release" / "bin", help="where the programs are")
    parser.add_argument("--out", type=Path, default=ROOT / "build" / "soak.json")
    parser.add_argument("--rss-kib", type=int, default=2048, help="what the allocator may keep beyond the first round's")
    options = parser.parse_args()
    raise_own_limits()
    with TestBed(options.bin, env={"KESTO_DEBUG": "1"}, start=False) as bed:
        quiet, status, left = soak(bed, options.minutes, options.out)
    for what, tolerance in (("descriptors", 0), ("threads", 0), ("rss_kib", options.rss_kib)):
        first, last = quiet[0][what], quiet[-1][what]
        print(f"{what}: {first} after the first round, {last} at the end")
        check(last - first <= tolerance, f"more than {tolerance} above")
    check(status == 0 and left == 0, f"status {status}, {left} entries left in the table")


if __name__ == "__main__":
    main()
