#!/usr/bin/python3
"""A small remote control client: discovers a device, logs in, reads, writes, watches, logs out. When the device no longer
answers while it watches, it gets its session back.

    client.py [--address ADDRESS] [--user NAME] [--password TEXT] [--seconds N] [--timeout N]

It needs access_pb2.py, which protoc makes of access.proto (examples/README.md).
"""

import argparse
import socket
import sys
import time

import zmq
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import padding, rsa

from access_pb2 import STATUS_OK, Message, Request, Status

DISCOVERY_PORT = 8004
LOGIN_PORT_ON_LOOPBACK = 60000  # a device that listens on 127.0.0.1 only publishes port 0
SEPARATOR = b"\x1c"
LOGIN_PORT, WRAPPED_KEY, SERIAL, PROJECT = 3, 5, 10, 12  # of the 14 fields, counted from 0

SERIAL_KEY = "/Device/Config/Hardware/Model/Serial"
PROJECT_KEY = "/Device/Config/PROJECT_INFO"
THIS_KEY_ALONE = 0x2000
ANSWER_TIMEOUT_S = 70  # a multi-write may take 65 s, and others' requests are served first
SIGN_OF_LIFE_S = 2
PAUSE_S = 1  # between two attempts to get a session back


class DeviceError(Exception):
    pass


def discover(address, client_id, timeout_s=5):
    """The device's address, the fields of its reply, and the shared key."""
    pair = rsa.generate_private_key(public_exponent=65537, key_size=2048)
    public_key = pair.public_key().public_bytes(
        serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo)
    fields = [b"example", b"python", public_key, client_id.encode()]
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        udp.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        udp.settimeout(timeout_s)
        udp.sendto(b"@?" + SEPARATOR.join(fields) + b"!", (address, DISCOVERY_PORT))
        try:
            datagram, (device, _) = udp.recvfrom(8192)
        except TimeoutError:
            raise DeviceError(f"no device answers at {address}") from None
    reply = datagram.removeprefix(b"@?D").split(SEPARATOR)
    if len(reply) <= PROJECT:
        raise DeviceError(f"a reply of {len(reply)} fields")
    # A client wrote the project information, and maybe separators with it; the reply is cut when it is too long.
    whole = datagram.endswith(b"!")
    reply[PROJECT:] = [SEPARATOR.join(reply[PROJECT:-1]), reply[-1].removesuffix(b"!")] if whole else [b"", b""]
    shared_key = pair.decrypt(bytes.fromhex(reply[WRAPPED_KEY].decode()), padding.PKCS1v15())
    return device, [field.decode(errors="replace") for field in reply], shared_key.decode()


class Client:
    """One session after the other. A request socket that got no answer is of no use any more: the session has to be
    recovered."""

    def __init__(self, device, login_port, client_id, login, timeout_s=ANSWER_TIMEOUT_S):
        self.device, self.login_port, self.client_id = device, login_port, client_id
        self.login, self.timeout_s, self.sequence = login, timeout_s, 0
        self.context = zmq.Context()
        self.commands = self.events = None

    def _connect(self, kind, port):
        connection = self.context.socket(kind)
        connection.setsockopt(zmq.LINGER, 0)
        connection.setsockopt(zmq.RCVTIMEO, int(self.timeout_s * 1000))
        connection.connect(f"tcp://{self.device}:{port}")
        return connection

    def _ask(self, connection, **operation):
        self.sequence += 1
        request = Request(client_id=self.client_id, sequence=self.sequence, **operation)
        connection.send(Message(request=request).SerializeToString())
        name = next(iter(operation))
        try:
            reply = Message.FromString(connection.recv()).reply  # an empty frame gives a reply without a status
        except zmq.Again:
            raise DeviceError(f"{name} was not answered") from None
        if reply.status != STATUS_OK:
            raise DeviceError(f"{name} was answered {Status.Name(reply.status)}")
        return reply

    def _ask_login_port(self, login):
        with self._connect(zmq.REQ, self.login_port) as connection:
            return self._ask(connection, login=login)

    def log_in(self):
        session = self._ask_login_port({**self.login, "monitor": 1, "discard_my_feedback": 1}).session
        self.commands = self._connect(zmq.REQ, session.command_port)
        self.events = self._connect(zmq.SUB, session.event_port)
        self.events.setsockopt(zmq.SUBSCRIBE, b"")
        return session

    def log_out(self):
        self._ask_login_port({})

    def close(self):
        for connection in (self.commands, self.events):
            if connection is not None:
                connection.close()

    def recover(self):
        """A new session, on other ports. What was read before may have changed meanwhile: read it again."""
        self.close()
        while True:
            try:
                self.log_out()  # or a session that is about to end may be given once more
                return self.log_in()
            except DeviceError:
                time.sleep(PAUSE_S)

    def read(self, key):
        return self._ask(self.commands, read={"key": key, "flags": THIS_KEY_ALONE}).value.text

    def write(self, key, value):
        self._ask(self.commands, write={"key": key, "value": value})

    def watch(self, end):
        """Yields what the device and the other clients change: events, and the replies to others' writes. Ends with a
        DeviceError when the device does not answer any more."""
        sign_of_life = time.monotonic() + SIGN_OF_LIFE_S
        while (now := time.monotonic()) < end:
            if self.events.poll(max(0, min(end, sign_of_life) - now) * 1000):
                yield Message.FromString(self.events.recv())
            if time.monotonic() >= sign_of_life:
                self._ask(self.commands, change_count={})
                sign_of_life = time.monotonic() + SIGN_OF_LIFE_S


def watch_and_recover(client, end):
    while True:
        try:
            yield from client.watch(end)
            return
        except DeviceError as error:
            print(f"connection lost: {error}")
            session = client.recover()
            print(f"recovered: command port {session.command_port}, event port {session.event_port}")
            print(f"read {PROJECT_KEY} = {client.read(PROJECT_KEY)}")


def main():
    parser = argparse.ArgumentParser(description="Visits one device.")
    parser.add_argument("--address", default="255.255.255.255", help="whom to ask for devices (default: everybody)")
    parser.add_argument("--user", default="quillmont")
    parser.add_argument("--password", default="tandrivel")
    parser.add_argument("--seconds", type=float, default=5, help="how long to watch")
    parser.add_argument("--timeout", type=float, default=ANSWER_TIMEOUT_S, help="how many seconds an answer may take")
    options = parser.parse_args()

    client_id = f"python-example-{socket.gethostname()}"
    device, fields, shared_key = discover(options.address, client_id)
    login_port = int(fields[LOGIN_PORT].removeprefix("ZMQ:")) or LOGIN_PORT_ON_LOOPBACK
    print(f"discovered {fields[0]}, serial {fields[SERIAL]}, at {device}:{login_port}; shared key {shared_key}")

    login = {"user_name": options.user, "password": options.password}
    client = Client(device, login_port, client_id, login, options.timeout)
    session = client.log_in()
    try:
        print(f"logged in: command port {session.command_port}, event port {session.event_port}")
        print(f"read {SERIAL_KEY} = {client.read(SERIAL_KEY)}")
        before = client.read(PROJECT_KEY)
        client.write(PROJECT_KEY, "written by the Python example")
        print(f"wrote {PROJECT_KEY} = {client.read(PROJECT_KEY)}")
        client.write(PROJECT_KEY, before)
        for message in watch_and_recover(client, time.monotonic() + options.seconds):
            print("heard", str(message).replace("\n", " "))
    finally:
        client.log_out()
        client.close()
    print("logged out")


if __name__ == "__main__":
    try:
        main()
    except (DeviceError, OSError, zmq.ZMQError) as error:
        sys.exit(f"client.py: {error}")
