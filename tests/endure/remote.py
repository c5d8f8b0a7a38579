"""Remote clients and strangers. One ZeroMQ context for each process, so that a case may fork."""
import multiprocessing
import os
import socket
import statistics
import time

import access_pb2 as wire
import zmq

from box import AUTH_PORT
from cases import check

HOST, DISCOVERY_PORT = "127.0.0.1", 8004
ANSWER_MS = 60000
A_KEY = "/Device/Config/Hardware/Channels"
EXACT = 0x2000  # flag of a read: this key alone

_contexts = {}


def context():
    if os.getpid() not in _contexts:
        _contexts[os.getpid()] = made = zmq.Context()
        made.max_sockets = 60000
    return _contexts[os.getpid()]


def connect(kind, port, timeout_ms=ANSWER_MS):
    made = context().socket(kind)
    made.linger, made.rcvtimeo = 0, timeout_ms
    made.connect(f"tcp://{HOST}:{port}")
    return made


def request(client_id, **operation):
    """A serialized request: request("panel", read=wire.Read(key=..., flags=EXACT))."""
    return wire.Message(request=wire.Request(client_id=client_id, **operation)).SerializeToString()


def exchange(socket_, frame):
    """The reply to a request sent on a REQ socket; None for an empty answer. zmq.Again when none comes in ANSWER_MS."""
    socket_.send(frame)
    answer = socket_.recv()
    return wire.Message.FromString(answer).reply if answer else None


class Remote:
    """One client. `door` is its authentication socket; hundreds of clients may share one."""

    def __init__(self, client_id, door=None):
        self.id, self.own_door = client_id, door is None
        self.door = door or connect(zmq.REQ, AUTH_PORT)
        self.commands = self.events = self.ports = None

    def log_in(self, user="root", password="vormi", **flags):
        """(command port, event port), or None when refused. Flags as in the contract: monitor=1, no_lock=1 ..."""
        login = wire.Login(user_name=user, password=password, **flags)
        reply = exchange(self.door, request(self.id, login=login))
        check(reply is not None, f"{self.id}: an empty answer to a login")
        self.ports = (reply.session.command_port, reply.session.event_port) if reply.HasField("session") else None
        return self.ports

    def open(self):
        """Connects the command socket; the first request on it also waits for the connection."""
        self.commands = connect(zmq.REQ, self.ports[0])
        return self

    def listen(self, rcvhwm=1000):
        self.events = context().socket(zmq.SUB)
        self.events.linger, self.events.rcvtimeo, self.events.rcvhwm = 0, ANSWER_MS, rcvhwm
        self.events.subscribe(b"")
        self.events.connect(f"tcp://{HOST}:{self.ports[1]}")
        return self

    def ask(self, **operation):
        """The reply to an operation on the command socket."""
        if self.commands is None:
            self.open()
        return exchange(self.commands, request(self.id, **operation))

    def read(self, key=A_KEY):
        """The text of a value, or None."""
        reply = self.ask(read=wire.Read(key=key, flags=EXACT))
        return reply.value.text if reply is not None and reply.HasField("value") else None

    def write(self, key, value):
        return self.ask(write=wire.Write(key=key, value=value))

    def log_out(self):
        exchange(self.door, request(self.id, login=wire.Login()))
        self.close()

    def close(self):
        for socket_ in (self.commands, self.events, self.door if self.own_door else None):
            if socket_ is not None:
                socket_.close()
        self.commands = self.events = None


def discovery_request(client_id, public_key=""):
    return b"@?\x1c\x1c" + public_key.encode() + b"\x1c" + client_id.encode() + b"!"


def discovery_socket(timeout_s=ANSWER_MS / 1000):
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.settimeout(timeout_s)
    made.connect((HOST, DISCOVERY_PORT))
    return made


def stranger(port, first_bytes=b""):
    """A TCP connection that is no client's. Never blocks for long; raises OSError when it cannot be made."""
    made = socket.create_connection((HOST, port), timeout=10)
    if first_bytes:
        made.sendall(first_bytes)
    return made


class Pace:
    """A well-behaved client in a process of its own, which reads a key every `period_s` while the case does its worst.

    with Pace() as pace: ... ; then pace.note(case): its requests, the median and the worst latency. Fails when a request
    went unanswered or was answered with another value."""

    def __init__(self, client_id="well-behaved", period_s=0.01, user="root"):
        ready, self.results = multiprocessing.Event(), multiprocessing.SimpleQueue()
        self.over = multiprocessing.Event()
        self.process = multiprocessing.Process(target=self._run, args=(client_id, period_s, user, ready), daemon=True)
        self.process.start()
        check(ready.wait(ANSWER_MS / 1000), f"{client_id} could not log in")

    def _run(self, client_id, period_s, user, ready):
        client = Remote(client_id)
        password = {"root": "vormi", "quillmont": "tandrivel"}[user]
        ports, latencies, wrong = client.log_in(user, password), [], 0
        expected = client.read()
        if ports and expected:
            ready.set()
        while not self.over.is_set():
            begin = time.monotonic()
            try:
                wrong += client.read() != expected
            except zmq.ZMQError:
                wrong += 1
                break
            latencies.append(time.monotonic() - begin)
            self.over.wait(period_s)
        wrong += client.log_in(user, password) != ports  # the session is still the one of the beginning
        client.log_out()
        self.results.put((latencies, wrong))

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        self.over.set()
        if kind is None:
            self.latencies, self.wrong = self.results.get()
            self.process.join()
        else:
            self.process.kill()

    def note(self, case):
        check(self.wrong == 0, f"the well-behaved client had {self.wrong} wrong or missing answers")
        case.note("well-behaved requests", len(self.latencies))
        case.note("median", 1000 * statistics.median(self.latencies), "ms")
        case.note("worst", 1000 * max(self.latencies), "ms")
