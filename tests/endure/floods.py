"""Too much of everything, from peers that are not well-behaved, while one that is keeps its session. What a flood leaves
behind in memory is measured."""
import os
import statistics
import time
from contextlib import contextmanager

import zmq
from google.protobuf.internal.encoder import _VarintBytes

from cases import case
from testbed.remote import A_KEY, Pace, Remote, connect, discovery_request, discovery_socket, enter
from testbed.gateway import AUTH_PORT, check, wait_until

MANY = 100_000
LARGEST_BYTES = 10 << 20
GROWTH_KIB = 32 << 10  # of floods that leave nothing to hold
PEAK_KIB = 128 << 10  # what one peer may pile up


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


@case("garbage-authentication", "100,000 frames of garbage are answered, one by one", alone=True)
def garbage_authentication(bed):
    with flooded(bed):
        begin, peer = time.monotonic(), connect(zmq.DEALER, AUTH_PORT)
        for number in range(MANY):
            if number >= 10:  # as many are under way at a time
                check_refused(peer)
            peer.send_multipart([b"", os.urandom(1 + number % 200)])
        check_refused(peer, 10)
        bed.note("frames", MANY / (time.monotonic() - begin), "/s")


def send_large(peer, frame, count):
    for _ in range(count):
        peer.send_multipart([b"", frame], copy=False)


def field(tag, body):
    """One field of a serialized message."""
    return tag + _VarintBytes(len(body)) + body


@case("large-empty-parts", "50 pipelined messages of 5 million empty parts each", alone=True)
def large_empty_parts(bed):
    with flooded(bed, PEAK_KIB):
        pairs = field(b"\x6a", b"\x0a\x00" * (LARGEST_BYTES // 2 - 20))
        peer = connect(zmq.DEALER, AUTH_PORT)
        send_large(peer, field(b"\x0a", field(b"\x0a", b"panel") + pairs), 50)
        check_refused(peer, 50)
        bed.note("peak memory", bed.figures()["peak_kib"] / 1024, "MiB")


@case("large-stalled", "what one peer can pile up while the service waits 5 s for the device", alone=True)
def large_stalled(bed):
    waiting, peer = enter("waiting"), connect(zmq.DEALER, AUTH_PORT)
    before = bed.figures()["rss_kib"]
    bed.begin_slow_read(waiting, A_KEY, 5)
    send_large(peer, bytes(LARGEST_BYTES), 100)
    waiting.commands.recv()
    check_refused(peer, 100)
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
