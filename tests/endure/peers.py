"""Peers that come, go and do not read, with and without a password: sessions keep their ports, and what nobody fetches is not
kept without end."""
import multiprocessing
import os
import time

import zmq

from cases import case
from strangers import MIB, attacked, settle
from testbed import remote
from testbed.remote import EXACT, RawPeer, Remote, connect, enter, request, wire, zmtp_request
from testbed.gateway import AUTH_PORT, check

NAME = "/Device/Config/Name"
FLOOD_S = 10
IN_FLIGHT = 50
RESTRICTED = {"user": "quillmont", "password": "tandrivel"}


def beside(target, *arguments):
    """A process of its own, which ends by itself or with the case."""
    process = multiprocessing.Process(target=target, args=arguments, daemon=True)
    process.start()
    return process


def log_in_and_out(name, seconds, done):
    peer, end, sent = connect(zmq.DEALER, AUTH_PORT), time.monotonic() + seconds, 0
    peer.rcvtimeo = 2000
    acts = [request(name, login=wire.Login(user_name="quillmont", password="tandrivel")), request(name, login=wire.Login())]
    while time.monotonic() < end:
        peer.send_multipart([b"", acts[sent % 2]])
        sent += 1
        if sent >= IN_FLIGHT:
            try:
                peer.recv_multipart()
            except zmq.Again:
                break
    done.put(sent)


@case("peers-log-in-out", "two connections that pipeline log-ins and log-outs", alone=True)
def logins(bed):
    with attacked(bed):
        done = multiprocessing.SimpleQueue()
        for process in [beside(log_in_and_out, f"visitor-{number}", FLOOD_S, done) for number in range(2)]:
            process.join()
        bed.note("requests", done.get() + done.get())


def report(bed, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for _ in range(200):
            bed.send("SnapshotLoadedDispatch", "(u)", 3)
        bed.connection().flush_sync(None)
    time.sleep(60)  # its connection stays until the case ends


@case("peers-reports", "programs of the device that report events without a pause", alone=True)
def reports(bed):
    remote.ANSWER_MS = 20000
    with remote.Pace(period_s=0.02) as pace:
        enter("first").listen()
        reporters = [beside(report, bed, FLOOD_S + 2) for _ in range(3)]
        time.sleep(FLOOD_S)
        status, seconds = bed.stop()
        bed.note("stop", 1000 * seconds, "ms")
        pace.process.kill()
    for reporter in reporters:
        reporter.kill()
    check(status == 0 and seconds < 5, f"status {status} after {seconds:.1f} s: {bed.last_words()}")


@case("peers-reports-waits", "a session is served while programs of the device report events without a pause", alone=True)
def reports_waits(bed):
    with attacked(bed):
        listener = enter("listener").listen()
        reporters = [beside(report, bed, FLOOD_S) for _ in range(3)]
        time.sleep(FLOOD_S)
        for reporter in reporters:
            reporter.kill()
        check(listener.is_served(), "the listener is not served")


def is_heard(bed, client):
    """An event comes to the client within some seconds."""
    end = time.monotonic() + 10
    while time.monotonic() < end:
        bed.call("SpeakerPresetLoadedDispatch")
        if client.events.poll(50):
            return True
    return False


def holders(bed):
    remote.ANSWER_MS = 10000
    auth = connect(zmq.REQ, AUTH_PORT)
    check(remote.exchange(auth, request("early", login=wire.Login())), "no answer to a log-out")
    held = [connect(zmq.DEALER, AUTH_PORT) for _ in range(bed.nofile + 100)]
    time.sleep(3)
    bed.note("descriptors", bed.figures()["descriptors"])
    granted, broken, kept = 0, [], []
    for number in range(40):
        client = Remote(f"owner-{number}", auth)
        if client.log_in(monitor=number % 2) is None:
            break
        granted += 1
        kept.append(client)
        try:
            served = client.listen().is_served() and is_heard(bed, client)
        except zmq.ZMQError:
            served = False
        if not served:
            broken.append(client.id)
            if len(broken) == 2:
                break
    bed.note("granted", granted)
    bed.note("not served", len(broken))
    check(not broken, f"granted and not served: {broken}")
    for peer in held:
        peer.close()
    bed.check_stop()


for allowed in (64, 256, 1024):
    case(f"peers-descriptors-{allowed}", f"ZeroMQ peers hold {allowed} descriptors: who is granted a login can use it",
         nofile=allowed)(holders)


@case("peers-return", "a monitored client that vanishes and is back at once is given ports that work")
def returns(bed):
    remote.ANSWER_MS = 5000
    client, broken = enter("panel", monitor=1), 0
    for _ in range(120):
        client.commands.close()
        client.commands = None
        try:
            served = client.log_in(monitor=1) and client.open().is_served()
        except zmq.ZMQError:
            served = False
        broken += not served
        if broken == 3:
            break
    bed.note("broken", broken)
    check(broken == 0, f"{broken} answers with ports that do not work")
    bed.check_stop()


@case("peers-deaf-listener", "an event connection that does not read, and 25 writes of 9 MiB", alone=True)
def deaf_listener(bed):
    with attacked(bed):
        listener = enter("listener")
        deaf = RawPeer(listener.ports[1], b"SUB", receive_bytes=4096)
        deaf.offer(b"\x00\x01\x01")
        writer, value, done = enter("writer", **RESTRICTED), "v" * (9 * MIB), 0
        for _ in range(25):
            done += writer.write(NAME, value).status == wire.STATUS_OK
        bed.note("writes", done)
        check(listener.is_served(), "the session of the listener does not work")


def offer_all(bed, peer, frame, count):
    for _ in range(count):
        if not peer.offer(frame):
            break
    bed.note("offered", peer.sent / MIB, "MiB")
    settle(bed)
    peer.close()


@case("peers-untaken-logins", "120 answers of 1 MiB at the login port that nobody takes", alone=True)
def untaken_logins(bed):
    with attacked(bed):
        frame = zmtp_request(request("i" * MIB, change_count=wire.ChangeCount()))
        offer_all(bed, RawPeer(AUTH_PORT, receive_bytes=4096), frame, 120)


@case("peers-untaken-reads", "300 answers to reads of 1 MiB that nobody takes", alone=True)
def untaken_reads(bed):
    with attacked(bed):
        reader = enter("reader")
        reader.write(NAME, "v" * MIB)
        frame = zmtp_request(request("reader", read=wire.Read(key=NAME, flags=EXACT)))
        offer_all(bed, RawPeer(reader.ports[0], receive_bytes=4096), frame, 300)


@case("peers-untaken-writes", "60 answers to writes of 9 MiB that nobody takes", alone=True)
def untaken_writes(bed):
    with attacked(bed):
        writer = enter("writer")
        frame = zmtp_request(request("writer", write=wire.Write(key=NAME, value="v" * (9 * MIB))))
        offer_all(bed, RawPeer(writer.ports[0], receive_bytes=4096), frame, 60)


@case("peers-localhost", "\"@localhost\" that logs out and in at once is never refused")
def localhost(bed):
    remote.ANSWER_MS = 10000
    program, refused = Remote("@localhost"), 0
    for _ in range(200):
        if program.log_in() is None:
            refused += 1
            continue
        remote.exchange(program.auth, request("@localhost", login=wire.Login()))
    bed.note("refused", refused, "of 200")
    check(refused == 0, f"{refused} logins were refused")
    bed.check_stop()


@case("peers-log-reader", "it goes on when the reader of its log has gone", env={"KESTO_DEBUG": "1"}, start=False)
def log_reader(bed):
    remote.ANSWER_MS = 10000
    os.mkfifo(bed.log_path)
    reader = bed.start("reader", ["head", "-n", "1", bed.log_path])
    bed.start_program()
    check(reader.wait(60) == 0, "the reader did not end")
    for number in range(20):
        client = enter(f"visitor-{number}")
        check(client.is_served(), "a session does not work")
        client.log_out()
    bed.check_stop()
