"""Too much of everything, from peers that are not well-behaved, while one that is keeps its session. What a flood leaves
behind in memory is measured for each thing that is held."""
import os
import statistics
import time
from contextlib import contextmanager

import zmq
from google.protobuf.internal.encoder import _VarintBytes

from cases import case
from testbed.remote import (A_KEY, EXACT, Pace, Remote, connect, discovery_request, discovery_socket, enter, request, stranger,
                        wire)
from testbed.gateway import AUTH_PORT, check, wait_until

MANY = 100_000
MANY_ANSWERED = 10_000
SILENCE_MS = 3000  # after which no more answers come
LARGEST_BYTES = 10 << 20
GROWTH_KIB = 32 << 10  # of floods that leave nothing to hold
PEAK_KIB = 128 << 10  # what one peer may pile up
GUESTS = 60  # that a session's port takes
GREETING_HALF = b"\xff" + bytes(8) + b"\x7f\x03" + bytes(21)  # of the 64 bytes of a ZeroMQ peer


@contextmanager
def flooded(bed, growth_kib=GROWTH_KIB):
    """Around a flood: a well-behaved client meanwhile, and what it cost them both."""
    with Pace() as pace:
        enter("first").close()  # what a first session takes
        before = bed.figures()["rss_kib"]
        yield
        latencies_s = pace.end()
    bed.note("well-behaved requests", len(latencies_s))
    bed.note("median", 1000 * statistics.median(latencies_s), "ms")
    bed.note("worst", 1000 * max(latencies_s), "ms")
    grown = bed.note("memory grown", bed.figures()["rss_kib"] - before, "KiB")
    check(grown < growth_kib, f"it holds {grown} KiB more than before")
    check(Remote("afterwards").log_in(), "no login after the flood")
    bed.check_stop()


def flood_discovery(bed, id_format):
    asking, begin = discovery_socket(), time.monotonic()
    for number in range(MANY_ANSWERED):
        asking.send(discovery_request(id_format.format(number)))
        asking.recv(8192)  # one after the other: none is lost, so that each is counted
    bed.note("requests", MANY_ANSWERED / (time.monotonic() - begin), "/s")


@case("discovery-one-id", "10,000 requests with one id leave one record", alone=True)
def discovery_one_id(bed):
    with flooded(bed):
        flood_discovery(bed, "panel")


@case("discovery-own-ids", "of 10,000 ids the last 1,024 are remembered", alone=True)
def discovery_own_ids(bed):
    with flooded(bed):
        flood_discovery(bed, "panel-{}")


@case("discovery-unread", "100,000 requests as fast as they go, answers unread", alone=True)
def discovery_unread(bed):
    with flooded(bed):
        asking = discovery_socket()
        for _ in range(MANY):
            asking.send(discovery_request("panel"))


def check_refused(peer, count=1):
    """Each of `count` messages that were no requests is answered by one empty frame."""
    for _ in range(count):
        check(peer.recv_multipart() == [b"", b""], "it was not answered by one empty frame")


def flood_garbage(bed, port):
    """Frames that are not requests, each answered, ten under way at a time."""
    begin, peer = time.monotonic(), connect(zmq.DEALER, port)
    for number in range(MANY):
        if number >= 10:
            check_refused(peer)
        peer.send_multipart([b"", os.urandom(1 + number % 200)])
    check_refused(peer, 10)
    bed.note("frames", MANY / (time.monotonic() - begin), "/s")


@case("garbage-authentication", "100,000 frames of garbage are answered, one by one", alone=True)
def garbage_authentication(bed):
    with flooded(bed):
        flood_garbage(bed, AUTH_PORT)


@case("garbage-commands", "the same on the command socket of a session", alone=True)
def garbage_commands(bed):
    with flooded(bed):
        flood_garbage(bed, Remote("victim").log_in()[0])


@case("frames", "requests of many frames are answered once each", alone=True)
def frames(bed):
    with flooded(bed):
        peer = connect(zmq.DEALER, AUTH_PORT)
        for _ in range(1000):
            peer.send_multipart([b""] + [request("panel", login=wire.Login())] * 100)
            check_refused(peer)


def check_pipelined(bed, peer, count):
    """Whoever sends more than two of the largest requests ahead is disconnected, and sends the rest over its next
    connection; what is answered is answered by one empty frame."""
    answered = 0
    while peer.poll(SILENCE_MS):
        check_refused(peer)
        answered += 1
    bed.note(f"answered of {count}", answered)
    check(0 < answered <= count, f"{answered} answers")


def send_large(peer, frame, count):
    for _ in range(count):
        peer.send_multipart([b"", frame], copy=False)


def flood_large(bed, frame, count):
    """`count` large requests that one peer sends without waiting for answers."""
    with flooded(bed, PEAK_KIB):
        peer = connect(zmq.DEALER, AUTH_PORT)
        send_large(peer, frame, count)
        check_pipelined(bed, peer, count)
        bed.note("peak memory", bed.figures()["peak_kib"] / 1024, "MiB")


def field(tag, body):
    """One field of a serialized message."""
    return tag + _VarintBytes(len(body)) + body


@case("large-garbage", "100 pipelined messages of 10 MiB before a login", alone=True)
def large_garbage(bed):
    flood_large(bed, bytes(LARGEST_BYTES), 100)


@case("large-empty-parts", "50 pipelined messages of 5 million empty parts each", alone=True)
def large_empty_parts(bed):
    pairs = field(b"\x6a", b"\x0a\x00" * (LARGEST_BYTES // 2 - 20))
    flood_large(bed, field(b"\x0a", field(b"\x0a", b"panel") + pairs), 50)


@case("large-stalled", "what one peer can pile up while the service waits 5 s for the device", alone=True)
def large_stalled(bed):
    waiting, peer = enter("waiting"), connect(zmq.DEALER, AUTH_PORT)
    bed.control("Fault", "(s)", f"read:{A_KEY}=late:5000")
    before = bed.figures()["rss_kib"]
    waiting.commands.send(request("waiting", read=wire.Read(key=A_KEY, flags=EXACT)))
    send_large(peer, bytes(LARGEST_BYTES), 100)
    waiting.commands.recv()
    check_pipelined(bed, peer, 100)
    piled_up_mib = bed.note("piled up", (bed.figures()["peak_kib"] - before) / 1024, "MiB")
    check(piled_up_mib < PEAK_KIB / 1024, f"it took {piled_up_mib:.0f} MiB")
    bed.check_stop()


@case("events-unread", "100,000 events past subscribers that never read", alone=True)
def events_unread(bed):
    with flooded(bed, 64 << 10):
        idle = [enter(f"idle-{number}").listen(rcvhwm=1) for number in range(10)]
        for number in range(MANY):
            bed.send("GeneralDispatch", "(sss)", "/Device/Count", str(number), "x" * 100)
            if number % 1000 == 999:
                bed.call("SpeakerPresetLoadedDispatch")  # all before it have arrived
        wait_until(lambda: Remote("fence").log_in(), "the loop is free")


@case("answers-unread", "a client that sends 100,000 requests and never receives", alone=True)
def answers_unread(bed):
    with flooded(bed, 64 << 10):
        deaf = enter("deaf")
        peer = connect(zmq.DEALER, deaf.ports[0], rcvhwm=1)
        frame = request("deaf", change_count=wire.ChangeCount())
        for _ in range(MANY):
            peer.send_multipart([b"", frame])
        check(deaf.is_served(), "the session of the deaf client does not work")


@case("half-open", "1,000 connections that say nothing or half a greeting", alone=True)
def half_open(bed):
    with flooded(bed, 64 << 10):
        before = bed.figures()["rss_kib"]
        port = Remote("victim").log_in()[0]
        held = [stranger((AUTH_PORT, port)[number < GUESTS], (b"", GREETING_HALF)[number // 2 % 2]) for number in range(1000)]
        wait_until(lambda: bed.figures()["descriptors"] > len(held), "all are accepted")
        bed.note("memory each", (bed.figures()["rss_kib"] - before) / len(held), "KiB")
        bed.note("CPU", bed.cpu_percent(), "%")
