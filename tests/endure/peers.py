"""Peers that come, go and do not read, with and without a password: sessions keep their ports, and what nobody fetches is not
kept without end."""
import multiprocessing
import os
import threading
import time
from functools import partial

import zmq

from cases import case
from strangers import MIB, WAIT_S, attacked, settle
from testbed import remote
from testbed.remote import A_KEY, EXACT, RawPeer, Remote, connect, enter, request, wire, zmtp_frame, zmtp_request
from testbed.gateway import AUTH_PORT, SERVICE, check

NAME = "/Device/Config/Name"
FLOOD_S = 10
IN_FLIGHT = 50
PING = (SERVICE[0], "/", "org.freedesktop.DBus.Peer")  # answered by the library, in its turn
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
    """No call to the device is under way, so that the stop waits for nothing else."""
    enter("first").listen()
    reporters = [beside(report, bed, FLOOD_S + 2) for _ in range(3)]
    time.sleep(FLOOD_S)
    status, seconds = bed.stop()
    bed.note("stop", 1000 * seconds, "ms")
    for reporter in reporters:
        reporter.kill()
    check(status == 0 and seconds < 5, f"status {status} after {seconds:.1f} s: {bed.last_words()}")


def longest_answers_s(seconds, *asks):
    """Asks all at the same moment, again and again; how long the slowest answer of each took."""
    longest_s, end = [0] * len(asks), time.monotonic() + seconds

    def take_time(number, begin):
        asks[number]()
        longest_s[number] = max(longest_s[number], time.monotonic() - begin)

    while (begin := time.monotonic()) < end:
        threads = [threading.Thread(target=take_time, args=(number, begin)) for number in range(len(asks))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        time.sleep(0.02)
    return longest_s


@case("peers-reports-waits", "a session is served while programs of the device report events without a pause", alone=True)
def reports_waits(bed):
    """The device's answers come to the service over the bus as the reports do, behind them: nobody can be faster than a
    ping of the bus takes. What needs no device must not wait at all."""
    remote.ANSWER_MS = 60000
    listener = enter("listener").listen()
    reporters = [beside(report, bed, 3 * FLOOD_S) for _ in range(3)]
    waited_s, = longest_answers_s(FLOOD_S, lambda: listener.ask(change_count=wire.ChangeCount()))
    bed.note("longest wait", 1000 * waited_s, "ms")
    ping_s, device_s = longest_answers_s(FLOOD_S, lambda: bed.call("Ping", target=PING), listener.is_served)
    bed.note("longest ping over the bus", 1000 * ping_s, "ms")
    bed.note("longest wait for the device", 1000 * device_s, "ms")
    for reporter in reporters:
        reporter.kill()
    check(waited_s < WAIT_S, f"a request waited for {waited_s:.1f} s")
    check(device_s < ping_s + WAIT_S, f"a read waited for {device_s:.1f} s, a ping for {ping_s:.1f} s")
    bed.check_stop()


def is_heard(bed, client):
    """An event comes to the client within some seconds."""
    end = time.monotonic() + 10
    while time.monotonic() < end:
        bed.call("SpeakerPresetLoadedDispatch")
        if client.events.poll(50):
            return True
    return False


def strange_peer(port):
    """A ZeroMQ peer from another address than the clients'."""
    made = remote.context().socket(zmq.DEALER)
    made.linger = 0
    made.connect(f"tcp://127.0.0.2:0;127.0.0.1:{port}")
    return made


def can_use(bed, client):
    try:
        return client.listen().is_served() and is_heard(bed, client)
    except zmq.ZMQError:
        return False


def holders(bed, at_session=False):
    remote.ANSWER_MS = 10000
    auth = connect(zmq.REQ, AUTH_PORT)
    owners = [Remote(f"owner-{number}", auth) for number in range(40)]
    granted = [owner for number, owner in enumerate(owners[:2]) if owner.log_in(monitor=number)]
    check(len(granted) == 2, "the first two logins were refused")
    ports = (AUTH_PORT, granted[0].ports[0]) if at_session else (AUTH_PORT, AUTH_PORT)
    held = [strange_peer(port) for _ in range(bed.nofile) for port in ports]
    for owner in owners[2:]:  # while the peers come
        if not owner.log_in():
            break
        granted.append(owner)
    time.sleep(3)
    bed.note("descriptors", bed.figures()["descriptors"])
    unusable = [owner.id for owner in granted if not can_use(bed, owner)]
    bed.note("granted", len(granted))
    bed.note("not served", len(unusable))
    check(not unusable, f"granted and not served: {unusable}")
    for peer in held:
        peer.close()
    bed.check_stop()


for allowed in (64, 256, 1024):
    case(f"peers-descriptors-{allowed}", f"ZeroMQ peers hold {allowed} descriptors: who is granted a login can use it",
         nofile=allowed)(holders)
case("peers-at-session", "ZeroMQ peers from elsewhere come to a session's port before its owner does",
     nofile=256)(partial(holders, at_session=True))


@case("peers-return", "a monitored client that vanishes and is back at once is given ports that work")
def returns(bed):
    remote.ANSWER_MS = 5000
    client, broken = Remote("panel"), 0
    read = zmtp_request(request("panel", read=wire.Read(key=A_KEY, flags=EXACT)))
    for _ in range(121):
        try:
            peer = RawPeer(client.log_in(monitor=1)[0], timeout_s=5)
            served = peer.offer(read) and peer.receive_until(A_KEY.encode())
            peer.close()  # at once, unlike a ZeroMQ socket
        except OSError:
            served = False
        broken += not served
        if broken == 3:
            break
    bed.note("broken", broken)
    check(broken == 0, f"{broken} answers with ports that do not work")
    bed.check_stop()


@case("peers-deaf-listener", "an event connection that does not read, and 25 writes of 9 MiB", alone=True)
def deaf_listener(bed):
    with attacked(bed) as calls_s:
        listener = enter("listener")
        deaf = RawPeer(listener.ports[1], b"SUB", receive_bytes=4096)
        deaf.offer(zmtp_frame(b"\x01"))
        writer = enter("writer", **RESTRICTED)
        for _ in range(25):
            calls_s.append(large_write_s(writer))
        check(listener.is_served(), "the session of the listener does not work")


def large_write_s(writer):
    """How long a write of 9 MiB takes, from the request to its answer."""
    begin = time.monotonic()
    check(writer.write(NAME, "v" * (9 * MIB)).status == wire.STATUS_OK, "a write of 9 MiB was refused")
    return time.monotonic() - begin


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
    with attacked(bed) as calls_s:
        writer = enter("writer")
        calls_s.append(large_write_s(writer))
        frame = zmtp_request(request("writer", write=wire.Write(key=NAME, value="v" * (9 * MIB))))
        offer_all(bed, RawPeer(writer.ports[0], receive_bytes=4096), frame, 60)


@case("peers-localhost", "\"@localhost\" that logs out and in at once is never refused")
def localhost(bed):
    remote.ANSWER_MS = 10000
    program, refused, unserved = Remote("@localhost"), 0, 0
    for _ in range(200):
        if program.log_in() is None:
            refused += 1
            continue
        unserved += not program.open().listen().is_served()
        remote.exchange(program.auth, request("@localhost", login=wire.Login()))
        program.commands.close()
        program.events.close()
    bed.note("refused", refused, "of 200")
    check(refused == 0 and unserved == 0, f"{refused} logins were refused, {unserved} sessions not served")
    bed.check_stop()


@case("peers-log-reader", "it goes on when the reader of its log has gone", env={"KESTO_DEBUG": "1"}, start=False)
def log_reader(bed):
    remote.ANSWER_MS = 10000
    os.mkfifo(bed.log_path)
    reader = bed.start("reader", ["head", "-c", "0", bed.log_path])
    bed.start_program(["sh", "-c", f"sleep 1; exec {bed.bin}/kesto-access"])
    check(reader.wait(60) == 0, "the reader did not end")
    for number in range(20):
        client = enter(f"visitor-{number}")
        check(client.is_served(), "a session does not work")
        client.log_out()
    bed.check_stop()
