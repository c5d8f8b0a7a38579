"""Peers that come, go and do not read, with and without a password: sessions keep their ports, and what nobody fetches is not
kept without end."""
import itertools
import multiprocessing
import os
import time
from concurrent.futures import ThreadPoolExecutor
from functools import partial

import zmq

from cases import case
from strangers import LONGEST_STOP_S, MIB, SLOW_S, attacked, longest_wait_s, read_directly
from testbed import remote
from testbed.remote import A_KEY, EXACT, RawPeer, Remote, connect, enter, request, wire, zmtp_frame, zmtp_request
from testbed.gateway import AUTH_PORT, SERVICE, check, is_listening, wait_until

NAME = "/Device/Config/Name"
FLOOD_S = 10
PING = (SERVICE[0], "/", "org.freedesktop.DBus.Peer")  # answered by the library, in its turn
LOGIN = wire.Login(user_name="quillmont", password="tandrivel")


def beside(target, *arguments):
    """A process of its own, which ends by itself or with the case."""
    process = multiprocessing.Process(target=target, args=arguments, daemon=True)
    process.start()
    return process


def end_beside():
    for process in multiprocessing.active_children():
        process.kill()


def log_in_and_out(number, seconds):
    """Over some connections, each with 100 requests under way and more, so that the login port is never without one."""
    pairs = []
    for name in (f"visitor-{number}-{connection}" for connection in range(4)):
        acts = [request(name, login=LOGIN), request(name, login=wire.Login())]
        pairs.append((connect(zmq.DEALER, AUTH_PORT), acts * 50))
    end, begun = time.monotonic() + seconds, False
    while time.monotonic() < end:
        for peer, acts in pairs:
            for act in acts:
                peer.send_multipart([b"", act])
            for _ in acts if begun else ():  # those of the round before
                peer.recv_multipart()
        begun = True


@case("peers-log-in-out", "eight connections that pipeline log-ins and log-outs", alone=True)
def logins(bed):
    with attacked(bed):
        for process in [beside(log_in_and_out, number, FLOOD_S) for number in range(2)]:
            process.join()
            check(process.exitcode == 0, "it was not answered to the end")


def report(bed, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for _ in range(200):
            bed.send("SnapshotLoadedDispatch", "(u)", 3)
        bed.connection().flush_sync(None)
    time.sleep(60)  # its connection stays until the case ends


def begin_reports(bed, seconds):
    """A client, 300 more sessions, and programs that report faster than all of these can be told."""
    listener = enter("listener").listen()
    for number in range(300):
        check(Remote(f"session-{number}", listener.auth).log_in(), f"login {number} was refused")
    for _ in range(3):
        beside(report, bed, seconds)
    return listener


def taken_s(ask):
    begin = time.monotonic()
    ask()
    return time.monotonic() - begin


def longest_answers_s(seconds, *asks):
    """Asks all at the same moment, again and again; how long the slowest answer of each took."""
    longest_s, end = [0] * len(asks), time.monotonic() + seconds
    with ThreadPoolExecutor(len(asks)) as pool:
        while time.monotonic() < end:
            longest_s = list(map(max, longest_s, pool.map(taken_s, asks)))
            time.sleep(0.02)
    return longest_s


@case("peers-reports", "sessions are served, and a stop does not wait, while the device reports more than can be told to 300",
      alone=True)
def reports(bed):
    """The device's answers come to the service over the bus as the reports do, behind them: nobody can be faster than a
    ping of the bus takes. What needs no device must not wait at all."""
    remote.ANSWER_MS = 60000
    listener = begin_reports(bed, 3 * FLOOD_S)
    direct_s, waited_s = longest_answers_s(FLOOD_S, lambda: read_directly(bed),
                                           lambda: listener.ask(change_count=wire.ChangeCount()))
    bed.note("longest direct call", 1000 * direct_s, "ms")
    bed.note("longest wait", 1000 * waited_s, "ms")
    check(waited_s < longest_wait_s(direct_s), f"a request waited for {waited_s:.1f} s")
    ping_s, device_s = longest_answers_s(FLOOD_S, lambda: bed.call("Ping", target=PING), listener.is_served)
    bed.note("longest ping over the bus", 1000 * ping_s, "ms")
    bed.note("longest wait for the device", 1000 * device_s, "ms")
    check(device_s < ping_s + longest_wait_s(direct_s), f"a read waited for {device_s:.1f} s, a ping for {ping_s:.1f} s")
    bed.check_stop(LONGEST_STOP_S)
    end_beside()


def is_heard(bed, client):
    """An event comes to the client within a minute."""
    end = time.monotonic() + 60
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
    remote.ANSWER_MS = 60000  # thousands of peers try again and again
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
        writer = enter("writer", user="quillmont", password="tandrivel")
        for _ in range(25):
            calls_s.append(taken_s(lambda: check(writer.write(NAME, "v" * (9 * MIB)).status == wire.STATUS_OK, "refused")))
        check(listener.is_served(), "the session of the listener does not work")


@case("peers-untaken-reads", "200 answers to reads of 1 MiB that nobody takes", alone=True)
def untaken_reads(bed):
    with attacked(bed):
        reader = enter("reader")
        reader.write(NAME, "v" * MIB)
        frame = zmtp_request(request("reader", read=wire.Read(key=NAME, flags=EXACT)))
        peer = RawPeer(reader.ports[0], receive_bytes=4096)
        peer.offer(*itertools.repeat(frame, 200), zmtp_request(request("reader", login=wire.Login())))
        wait_until(lambda: "gone: reader\n" in bed.role_log("device") or not peer.is_open(), "the end", patience_s=300)


def log_reader(bed, lines):
    """After the first line the service waits for the device, and writes no further one before the reader has gone."""
    remote.ANSWER_MS = 10000
    os.mkfifo(bed.log_path)
    reader = bed.start("reader", ["head", "-n", lines, bed.log_path])
    bed.start_program(["sh", "-c", f"sleep 1; exec {bed.bin}/kesto-access"], wait=False)
    check(reader.wait(60) == 0, "the reader did not end")
    bed.fault("read", "none")
    wait_until(lambda: bed.figures() and is_listening(AUTH_PORT), "it listens")  # figures() says when it has ended
    for number in range(20):
        enter(f"visitor-{number}").log_out()
    bed.check_stop()


for lines in (0, 1):
    case(f"peers-log-reader-{lines}", f"it goes on when the reader of its log goes after {lines} lines",
         env={"KESTO_DEBUG": "1"}, device=("--fault", f"read=late:{1000 * SLOW_S}"), start=False)(partial(log_reader, lines=lines))
