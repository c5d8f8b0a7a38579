"""Remote clients and strangers. One ZeroMQ context for each process, so that the caller may fork."""
import importlib
import multiprocessing
import os
import resource
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import zmq

from testbed.gateway import AUTH_PORT, ESTABLISHED, Failure, check, tcp_sockets

HOST, DISCOVERY_PORT = "127.0.0.1", 8004
ANSWER_MS = 60000
A_KEY, A_VALUE = "/Device/Config/Hardware/Channels", "8"  # of the simulated device
EXACT = 0x2000  # flag of a read: this key alone


def load_contract():
    """The messages of proto/access.proto. They are generated each time: that is quick, and never out of date."""
    proto = Path(__file__).resolve().parent.parent / "proto"
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["protoc", f"--python_out={folder}", f"--proto_path={proto}", "access.proto"], check=True)
        sys.path.insert(0, folder)
        try:
            return importlib.import_module("access_pb2")
        finally:
            sys.path.remove(folder)


wire = load_contract()
_contexts = {}


def context():
    if os.getpid() not in _contexts:
        _contexts[os.getpid()] = made = zmq.Context()
        made.max_sockets = 60000
    return _contexts[os.getpid()]


def raise_own_limits():
    """Whoever plays hundreds of clients needs what the system allows; programs that are started later inherit it."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def connect(kind, port, rcvhwm=1000):
    made = context().socket(kind)
    made.linger, made.rcvtimeo, made.sndtimeo, made.rcvhwm = 0, ANSWER_MS, ANSWER_MS, rcvhwm
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
    """One client. `auth` is its authentication socket; hundreds of clients may share one."""

    def __init__(self, client_id, auth=None):
        self.id, self.owns_auth = client_id, auth is None
        self.auth = auth or connect(zmq.REQ, AUTH_PORT)
        self.commands = self.events = self.ports = None

    def log_in(self, user="root", password="vormi", **flags):
        """(command port, event port), or None when refused. Flags as in the contract: monitor=1, no_lock=1 ..."""
        login = wire.Login(user_name=user, password=password, **flags)
        reply = exchange(self.auth, request(self.id, login=login))
        check(reply is not None, f"{self.id}: an empty answer to a login")
        self.ports = (reply.session.command_port, reply.session.event_port) if reply.HasField("session") else None
        return self.ports

    def open(self):
        """Connects the command socket; the first request on it also waits for the connection."""
        self.commands = connect(zmq.REQ, self.ports[0])
        return self

    def listen(self, rcvhwm=1000):
        """Connects the event socket; an answer to a later request does not mean that it is subscribed."""
        self.events = connect(zmq.SUB, self.ports[1], rcvhwm)
        self.events.subscribe(b"")
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

    def is_served(self):
        return self.read() == A_VALUE

    def write(self, key, value):
        return self.ask(write=wire.Write(key=key, value=value))

    def hear(self, wanted=lambda message: True):
        """The next message on the event socket of which `wanted` is true; zmq.Again when none comes in ANSWER_MS."""
        while not wanted(message := wire.Message.FromString(self.events.recv())):
            pass
        return message

    def log_out(self):
        exchange(self.auth, request(self.id, login=wire.Login()))
        self.close()

    def close(self):
        for socket_ in (self.commands, self.events, self.auth if self.owns_auth else None):
            if socket_ is not None:
                socket_.close()
        self.commands = self.events = None


def enter(client_id, **flags):
    """A client with a session that works."""
    client = Remote(client_id)
    check(client.log_in(**flags), f"{client_id} could not log in")
    check(client.is_served(), f"the session of {client_id} does not work")
    return client


def discovery_request(client_id, public_key=""):
    return b"@?\x1c\x1c" + public_key.encode() + b"\x1c" + client_id.encode() + b"!"


def discovery_socket():
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.settimeout(ANSWER_MS / 1000)
    made.connect((HOST, DISCOVERY_PORT))
    return made


def stranger(port, first_bytes=b""):
    """A TCP connection that is no client's. Never blocks for long; raises OSError when it cannot be made."""
    made = socket.create_connection((HOST, port), timeout=10)
    if first_bytes:
        made.sendall(first_bytes)
    return made


def zmtp_frame(content, more=False):
    """A frame as a ZeroMQ peer sends it."""
    if len(content) > 255:
        return bytes([2 | more]) + len(content).to_bytes(8, "big") + content
    return bytes([more, len(content)]) + content


def zmtp_request(content):
    """A request with the envelope that belongs to it."""
    return zmtp_frame(b"", more=True) + zmtp_frame(content)


class RawPeer:
    """A peer that speaks ZeroMQ's protocol over a socket of its own, so that it may break the rules and never reads."""

    GREETING = b"\xff" + bytes(8) + b"\x7f\x03\x00" + b"NULL".ljust(20, b"\0") + bytes(32)

    def __init__(self, port, kind=b"DEALER", receive_bytes=None, timeout_s=10, address=HOST):
        self.socket, self.sent = socket.socket(), 0
        self.socket.bind((address, 0))
        if receive_bytes:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
        self.socket.settimeout(timeout_s)
        self.socket.connect((HOST, port))
        ready = b"\x05READY\x0bSocket-Type" + len(kind).to_bytes(4, "big") + kind
        self.offer(self.GREETING + bytes([4, len(ready)]) + ready)
        self.receive_until(b"\x05READY")  # libzmq takes no message before

    def offer(self, *pieces):
        """Sends the pieces as long as they are taken; False when the service took no more or closed the connection."""
        for piece in pieces:
            left = memoryview(piece)
            while left:
                try:
                    taken = self.socket.send(left)
                except OSError:
                    return False
                self.sent += taken
                left = left[taken:]
        return True

    def receive_until(self, part):
        """Reads until what has come in has this in it. TimeoutError, or False when the connection ends before."""
        received = b""
        while part not in received:
            if not (piece := self.socket.recv(65536)):
                return False
            received += piece
        return True

    def is_open(self):
        """Whether the service still has its end of the connection, whatever of it has come here."""
        own_port = self.socket.getsockname()[1]
        return any(far == own_port for _, far, _ in tcp_sockets(ESTABLISHED))

    def close(self):
        self.socket.close()


class Pace:
    """A well-behaved client in a process of its own, which reads a key every `period_s` while the caller does its worst.

    with Pace() as pace: ... ; latencies_s = pace.end()

    With each request it calls `ping`, which does without the service; pings_s then tells how long that took, and behind_s
    how much later the answer came."""

    def __init__(self, client_id="well-behaved", period_s=0.01, ping=lambda: None):
        ready, self.results = multiprocessing.Event(), multiprocessing.SimpleQueue()
        self.over, self.id, self.ping = multiprocessing.Event(), client_id, ping
        self.process = multiprocessing.Process(target=self._run, args=(period_s, ready), daemon=True)
        self.process.start()
        check(ready.wait(ANSWER_MS / 1000), f"{client_id} could not log in")

    def _run(self, period_s, ready):
        client = enter(self.id)
        ports, times_s, wrong = client.ports, [], 0
        self.ping()
        ready.set()
        while not self.over.is_set():
            begin = time.monotonic()
            try:
                client.commands.send(request(self.id, read=wire.Read(key=A_KEY, flags=EXACT)))
                self.ping()
                pinged = time.monotonic()
                wrong += wire.Message.FromString(client.commands.recv()).reply.value.text != A_VALUE
            except zmq.ZMQError:
                wrong += 1
                break
            end = time.monotonic()
            times_s.append((end - begin, pinged - begin, end - pinged))
            self.over.wait(period_s)
        try:
            wrong += client.log_in() != ports  # the session is still the one of the beginning
            client.log_out()
        except (zmq.ZMQError, Failure):
            wrong += 1
        self.results.put((times_s, wrong))

    def end(self):
        """How long each answer took. A Failure when one was wrong or missing, or the session is another."""
        self.over.set()
        times_s, wrong = self.results.get()
        check(wrong == 0, f"{self.id} had {wrong} wrong or missing answers")
        latencies_s, self.pings_s, self.behind_s = zip(*times_s)
        return latencies_s

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
