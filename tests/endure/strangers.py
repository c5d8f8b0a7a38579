"""Peers that mean harm and need no password: what comes in, and what is kept of it. However much they send, the service
holds a bounded part of it, and who has a session is served meanwhile."""
import itertools
import socket
import statistics
import time
from contextlib import contextmanager, suppress
from functools import partial

from cases import case
from testbed import remote
from testbed.remote import (A_KEY, DISCOVERY_PORT, EXACT, HOST, Pace, RawPeer, Remote, discovery_request, discovery_socket,
                            enter, request, stranger, wire, zmtp_frame)
from testbed.gateway import AUTH_PORT, DATA, check, wait_until
import zmq

MIB = 1 << 20
LARGEST_BYTES = 10 * MIB
ABOVE_MIB = 128  # what the service may take above what it had before
ADDRESS_SPACE = 4 << 30  # above what it has: an end to a service that takes all it is given
WAIT_S = 0.1  # beyond the call under way and what the same call takes without the service
BUSY_S, BUSY_PINGS = 0.9, 10  # what a busy machine may add: so much, and so many times the longest of those calls
ANSWER_MS = 60000  # that is given to an answer before it counts as lost
SLOW_KEY, SLOW_S, CHURN_S = "/Device/Config/Name", 4, 20
LONGEST_STOP_S = 5  # without a call under way


@contextmanager
def attacked(bed, call_s=0):
    """Around an attack: a session that is served meanwhile. `call_s`: how long a call to the device takes; where it is to
    be measured, the case appends it to what it is given."""
    remote.ANSWER_MS = ANSWER_MS
    with Pace(period_s=0.02, ping=lambda: read_directly(bed)) as pace:
        enter("first").log_out()
        before = bed.figures()
        bed.limit("as", before["virtual_kib"] * 1024 + ADDRESS_SPACE)
        calls_s = [call_s]
        yield calls_s
        settle(bed)
        above_mib = bed.note("memory above", (bed.figures()["peak_kib"] - before["rss_kib"]) / 1024, "MiB")
        latencies_s = pace.end()
    bed.note("median", 1000 * statistics.median(latencies_s), "ms")
    bed.note("longest wait", 1000 * max(latencies_s), "ms")
    ping_s, behind_s = max(pace.pings_s), max(pace.behind_s)
    bed.note("longest direct call", 1000 * ping_s, "ms")
    bed.note("behind it", 1000 * behind_s, "ms")
    call_s = bed.note("longest call", max(calls_s), "s")
    check(above_mib <= ABOVE_MIB, f"it took {above_mib:.0f} MiB")
    check(behind_s < call_s + longest_wait_s(ping_s), f"an answer came {behind_s:.1f} s after that of the device")
    check(Remote("afterwards").log_in(), "no login afterwards")
    bed.check_stop(LONGEST_STOP_S)


def read_directly(bed):
    bed.call("Read", "(us)", EXACT, A_KEY, target=DATA)


def longest_wait_s(ping_s):
    return WAIT_S + BUSY_S + BUSY_PINGS * ping_s


def settle(bed):
    """Until the service has dealt with what it has: half a second with hardly any work."""
    wait_until(lambda: bed.cpu_percent(0.5) < 40, "the service has done all", patience_s=30)


@case("strangers-churn", "2,000 connections to a session's port during one call, and its log-out: others are served", alone=True)
def churn(bed):
    with attacked(bed, call_s=CHURN_S):
        watched = enter("watched", monitor=1)
        bed.begin_slow_read(watched, SLOW_KEY, CHURN_S)
        time.sleep(1)  # the call is under way
        watched.auth.send(request("watched", login=wire.Login()))
        for _ in range(bed.note("connections", 2000)):
            try:
                with stranger(watched.ports[0]) as peer:
                    peer.recv(1)  # it has been accepted, or refused
            except TimeoutError:
                break
            except OSError:
                pass
        watched.auth.recv()
        enter("next", monitor=1)


@case("strangers-unfinished", "30 connections with all but one byte of a message of 10 MiB", alone=True)
def unfinished(bed):
    with attacked(bed):
        ports = (AUTH_PORT, enter("victim").ports[0])
        message = zmtp_frame(b"", more=True) + zmtp_frame(bytes(LARGEST_BYTES))[:-1]
        peers = [RawPeer(ports[number % 2]) for number in range(30)]
        bed.note("taken whole", sum(peer.offer(message) for peer in peers), "messages")


@case("strangers-gone", "during one call 60 peers, one after the other, send a message of 9 MiB and leave", alone=True)
def gone(bed):
    with attacked(bed, call_s=SLOW_S):
        victim = enter("victim")
        bed.begin_slow_read(victim, SLOW_KEY, SLOW_S)
        message = zmtp_frame(b"", more=True) + zmtp_frame(bytes(9 * MIB))
        taken = 0
        for number in range(60):
            with suppress(OSError):  # of a connection that is not to be had
                peer = RawPeer((AUTH_PORT, victim.ports[0])[number % 2])
                taken += peer.offer(message)
                peer.close()
        bed.note("taken whole", taken, "messages")
        victim.commands.recv()


@case("strangers-event-frames", "256 MiB of frames to an event port while no event is published", alone=True)
def event_frames(bed):
    with attacked(bed):
        peers = [RawPeer(enter("victim").ports[1], b"SUB") for _ in range(4)]
        for peer, size in zip(peers, (100, 4000, 100_000, MIB)):
            peer.offer(*itertools.repeat(zmtp_frame(b"\x02" * size), 64 * MIB // size))
        bed.note("taken", sum(peer.sent for peer in peers) / MIB, "MiB")


def ask_all(bed, ids):
    """One after the other, and each is answered."""
    with attacked(bed):
        asking = discovery_socket()
        for client_id in ids:
            asking.send(discovery_request(client_id))
            check(asking.recv(8192), "an empty answer")


case("strangers-datagrams", "20,000 datagrams with ids of 8 KB", alone=True)(
    partial(ask_all, ids=(f"{number:05}".ljust(8000, "i") for number in range(20_000))))
case("strangers-one-hash", "32,768 ids that all fall into one place of a hash table", alone=True)(
    partial(ask_all, ids=map("".join, itertools.product(("BY", "C8"), repeat=15))))  # "times 33 and add" makes these equal


def answer_bytes(socket_):
    """How long the answer is that comes within 2 s."""
    socket_.settimeout(2)
    try:
        return len(socket_.recv(8192))
    except TimeoutError:
        return 0


@case("strangers-own-answer", "a device's answer that comes as a request is not answered")
def own_answer(bed):
    asking, other, same = discovery_socket(), discovery_socket(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    asking.send(discovery_request("panel"))
    other.send(asking.recv(8192))
    to_own = bed.note("answer to its own answer", answer_bytes(other), "bytes")
    other.send(b"@?D8\x1c1.0\x1c\x1cZMQ:60000\x1c61000!")  # of a device without a serial of its maker
    to_plain = bed.note("answer to another device's", answer_bytes(other), "bytes")
    same.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    same.bind((HOST, DISCOVERY_PORT))
    same.sendto(discovery_request("itself"), ("127.0.0.2", DISCOVERY_PORT))  # here the service listens alone
    bed.note("answer to a request from its own port", answer_bytes(same), "bytes")
    same.close()
    check(to_own == to_plain == 0, "a device's answer was answered")
    asking.send(discovery_request("panel-2"))
    check(asking.recv(8192), "no answer afterwards")
    bed.check_stop()


def lost_after(bed, port, ask):
    """How many of 50 requests are not answered right after a peer that sent no envelope and left."""
    lost = 0
    for _ in range(50):
        peer = RawPeer(port)
        peer.offer(zmtp_frame(b"no envelope"))
        peer.close()
        try:
            lost += not ask()
        except zmq.ZMQError:
            lost += 1
            if lost == 3:
                break
    return bed.note(f"lost on {port}", lost)


@case("strangers-no-envelope", "a message without an envelope from a peer that leaves takes no other client's answer")
def no_envelope(bed):
    remote.ANSWER_MS = 5000
    panel, numbers = enter("panel"), itertools.count()
    lost = lost_after(bed, AUTH_PORT, lambda: (client := Remote(f"c-{next(numbers)}")).log_in() and not client.log_out())
    lost += lost_after(bed, panel.ports[0], panel.is_served)
    check(lost == 0, f"{lost} requests were lost")
    bed.check_stop()
