"""Too much of everything, from peers that are not well-behaved, while one that is keeps its session. What a flood leaves
behind in memory is measured for each thing that is held."""
import os
import time

import zmq
from google.protobuf.internal.encoder import _VarintBytes

from box import AUTH_PORT, Box, wait_until
from cases import case, check
from remote import (A_KEY, Pace, Remote, connect, discovery_request, discovery_socket, request, stranger, wire)

MANY = 100_000
MANY_RECORDS = 10_000  # each takes half a millisecond to release, as it is left and at the stop
LARGEST_BYTES = 10 << 20
GROWTH_KIB = 32 << 10  # of floods that leave nothing to hold
GREETING_HALF = b"\xff" + bytes(8) + b"\x7f\x03" + bytes(21)  # of the 64 bytes of a ZeroMQ peer


class Flood:
    """with Flood(run) as box: ... ; a service with one well-behaved client, and what it cost them both."""

    def __init__(self, run, growth_kib=GROWTH_KIB):
        self.run, self.growth_kib = run, growth_kib

    def __enter__(self):
        self.box = Box(self.run)
        self.pace = Pace()
        Remote("first").log_in()
        self.before = self.box.figures()["rss_kib"]
        self.pace.__enter__()
        return self.box

    def __exit__(self, kind, error, trace):
        self.pace.__exit__(kind, error, trace)
        if kind is None:
            self.pace.note(self.run)
            grown = self.box.figures()["rss_kib"] - self.before
            self.run.note("memory grown", grown, "KiB")
            check(grown < self.growth_kib, f"it holds {grown} KiB more than before")
            check(Remote("afterwards").log_in(), "no login after the flood")
            status, seconds = self.box.stop()
            self.run.note("stop", seconds, "s")
            check(status == 0, f"it ended with {self.box.last_words()}")
        self.box.__exit__()


def flood_discovery(run, make_id, growth_kib):
    with Flood(run, growth_kib):
        door, begin = discovery_socket(), time.monotonic()
        for number in range(MANY_RECORDS):
            door.send(discovery_request(make_id(number)))
            door.recv(8192)  # one after the other: none is lost, so that each is counted
        run.note("requests", MANY_RECORDS / (time.monotonic() - begin), "/s")


@case("discovery-one-id", "10,000 requests with one id leave one record", alone=True)
def discovery_one_id(run):
    flood_discovery(run, lambda number: "panel", GROWTH_KIB)


@case("discovery-own-ids", "10,000 ids leave 10,000 small records, and the service goes on", alone=True)
def discovery_own_ids(run):
    flood_discovery(run, lambda number: f"panel-{number}", GROWTH_KIB)
    run.note("memory each", 1024 * run.figures["memory grown"][0] / MANY_RECORDS, "bytes")


@case("discovery-unread", "100,000 requests as fast as they go, answers unread", alone=True)
def discovery_unread(run):
    with Flood(run):
        door = discovery_socket()
        for _ in range(MANY):
            door.send(discovery_request("panel"))


def flood_garbage(run, port):
    """Frames that are not requests, each answered by an empty one, ten under way at a time."""
    begin, peer = time.monotonic(), connect(zmq.DEALER, port)
    for number in range(MANY + 10):
        if number >= 10:
            check(peer.recv_multipart() == [b"", b""], "garbage was not answered by an empty frame")
        if number < MANY:
            peer.send_multipart([b"", os.urandom(1 + number % 200)])
    run.note("frames", MANY / (time.monotonic() - begin), "/s")


@case("garbage-authentication", "100,000 frames of garbage are answered, one by one", alone=True)
def garbage_authentication(run):
    with Flood(run):
        flood_garbage(run, AUTH_PORT)


@case("garbage-commands", "the same on the command socket of a session", alone=True)
def garbage_commands(run):
    with Flood(run):
        flood_garbage(run, Remote("victim").log_in()[0])


@case("frames", "requests of many frames are answered once each", alone=True)
def frames(run):
    with Flood(run):
        peer = connect(zmq.DEALER, AUTH_PORT)
        for _ in range(1000):
            peer.send_multipart([b""] + [request("panel", login=wire.Login())] * 100)
            check(peer.recv_multipart() == [b"", b""], "it was not answered by one empty frame")


def peak_kib(box):
    """The highest resident memory that the kernel has seen."""
    with open(f"/proc/{box.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmHWM"))


def flood_large(run, frame, count):
    """`count` large requests that one peer sends without waiting for answers."""
    with Flood(run, 128 << 10) as box:
        peer = connect(zmq.DEALER, AUTH_PORT)
        for _ in range(count):
            peer.send_multipart([b"", frame], copy=False)
        for _ in range(count):
            check(peer.recv_multipart() == [b"", b""], "it was not answered by an empty frame")
        run.note("peak memory", peak_kib(box) / 1024, "MiB")


def field(tag, body):
    """One field of a serialized message."""
    return tag + _VarintBytes(len(body)) + body


@case("large-garbage", "100 pipelined messages of 10 MiB before a login", alone=True)
def large_garbage(run):
    flood_large(run, bytes(LARGEST_BYTES), 100)


@case("large-empty-parts", "100 pipelined messages of 5 million empty parts each", alone=True)
def large_empty_parts(run):
    pairs = field(b"\x6a", b"\x0a\x00" * (LARGEST_BYTES // 2 - 20))
    flood_large(run, field(b"\x0a", field(b"\x0a", b"panel") + pairs), 50)


@case("large-stalled", "what one peer can pile up while the service waits 5 s for the device", alone=True)
def large_stalled(run):
    with Box(run) as box:
        box.control("Fault", "(s)", f"read:{A_KEY}=late:5000")
        waiting, peer = Remote("waiting"), connect(zmq.DEALER, AUTH_PORT)
        waiting.log_in()
        before = box.figures()["rss_kib"]
        waiting.open().commands.send(request("waiting", read=wire.Read(key=A_KEY, flags=0x2000)))
        for _ in range(100):
            peer.send_multipart([b"", bytes(LARGEST_BYTES)], copy=False)
        waiting.commands.recv()
        for _ in range(100):
            peer.recv_multipart()
        run.note("piled up", (peak_kib(box) - before) / 1024, "MiB")
        check(peak_kib(box) - before < 128 << 10, "it took more than 128 MiB")
        check(box.stop()[0] == 0, "it did not end in order")


@case("events-unread", "100,000 events past subscribers that never read", alone=True)
def events_unread(run):
    with Flood(run, 64 << 10) as box:
        idle = [Remote(f"idle-{number}") for number in range(10)]
        for client in idle:
            client.log_in()
            client.listen(rcvhwm=1)
        connection = box.connection()
        from gi.repository import Gio, GLib
        name = "com.quillmont.kesto.Access"
        for number in range(MANY):
            text = ("/Device/Count", str(number), "x" * 100)
            connection.call(name, "/com/quillmont/kesto/Access", f"{name}.Service", "GeneralDispatch",
                            GLib.Variant("(sss)", text), None, Gio.DBusCallFlags.NONE, -1, None, None)
            if number % 1000 == 999:
                box.call("SpeakerPresetLoadedDispatch")  # all before it have arrived
        wait_until(lambda: Remote("fence").log_in(), "the loop is free")


@case("answers-unread", "a client that sends 100,000 requests and never receives", alone=True)
def answers_unread(run):
    with Flood(run, 64 << 10):
        deaf = Remote("deaf")
        peer = connect(zmq.DEALER, deaf.log_in()[0])
        peer.rcvhwm, peer.sndtimeo = 1, 60000
        frame = request("deaf", change_count=wire.ChangeCount())
        for _ in range(MANY):
            peer.send_multipart([b"", frame])
        deaf.open()
        check(deaf.read() == "8", "the session of the deaf client does not work")


@case("half-open", "1,000 connections that say nothing or half a greeting", alone=True)
def half_open(run):
    with Flood(run, 64 << 10) as box:
        before = box.figures()["rss_kib"]
        port = Remote("victim").log_in()[0]
        held = [stranger((AUTH_PORT, port)[number % 2], (b"", GREETING_HALF)[number // 2 % 2]) for number in range(1000)]
        wait_until(lambda: box.figures()["descriptors"] > len(held), "all are accepted")
        run.note("memory each", (box.figures()["rss_kib"] - before) / len(held), "KiB")
        idle = box.cpu_percent()
        run.note("CPU", idle, "%")
