#!/usr/bin/python3
"""A rack of simulated amplifiers on this machine: each a service, a simulated device and a bus in a network and a /tmp of its
own, all on one bridge in a network apart from the machine's, where broadcast finds them. Takes no root where user namespaces
are allowed. One rack at a time for each user; the folder below $TMPDIR or /tmp that it has meanwhile goes with it."""
import argparse
import fcntl
import json
import os
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
from contextlib import contextmanager, suppress
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT))
from testbed import rack as racks
from testbed.gateway import Failure
from testbed.rack import WrongInput

REQUEST_LIMIT_S = 5  # for a request to come in
LOOK_S = 1  # between two looks whether a program that served has ended
FAILED, WRONG_INPUT = 1, 2  # exit statuses
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
PROGRAM = "scripts/rack.py"
FOLDER = Path(tempfile.gettempdir()) / f"kesto-rack-{os.getuid()}"
SOCKET = "control"  # in the rack's folder
HINTS = """
Serving until Ctrl-C. In a second terminal, at the root of the checkout ({program} --help):

    {program} enter                            a shell in the rack's network
    {program} enter wireshark -k -i {bridge}       or any other program
    {program} enter build/release/bin/kesto-client discover
    {program} list                             the devices' addresses and folders
    {program} unplug 1                         pull a device's cable; plug 1 puts it back
    {program} restart 1                        switch it off and on
    {program} fault 1 read=late:3000           make it slow; read=never: silent; read=none: as it was
    {program} address 1 10.77.9.9              give it another address
    {program} log 1                            what its service has logged

What device N has in its /tmp is in {folder}/N.
"""


def reply_to(rack, name, arguments):
    try:
        if arguments:
            arguments[0] = racks.find_device(rack, arguments[0])
        return {"text": racks.REQUESTS[name](rack, *arguments)}
    except Failure as failure:
        return {"failed": str(failure), "is_wrong_input": isinstance(failure, WrongInput)}


def answer(rack, connection):
    """One request: its name, a device's number where it is about one, and further arguments. Nothing comes from who only
    wants to know which process has the namespaces."""
    connection.settimeout(REQUEST_LIMIT_S)
    with suppress(OSError), connection, connection.makefile("rw") as stream:  # who asked may go at any time
        if line := stream.readline():
            name, *arguments = json.loads(line)
            stream.write(json.dumps(reply_to(rack, name, arguments)) + "\n")


def end_with_caller():
    """Ends this process, and with it the rack, when who started it closes its end or goes."""
    sys.stdin.read()
    os._exit(0)


def serve(rack, folder):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(folder / SOCKET))
        listener.listen()
        print(HINTS.format(program=PROGRAM, folder=folder, bridge=racks.BRIDGE), flush=True)
        while True:
            ready, _, _ = select.select([listener], [], [], LOOK_S)
            if ready:
                answer(rack, listener.accept()[0])
            racks.report_ended(rack)


def run_inside(chosen):
    """In the rack's namespaces, as their first process: with its end the kernel ends all others."""
    threading.Thread(target=end_with_caller, daemon=True).start()
    begin = time.monotonic()
    device_options = (f"--alarm-every={chosen.alarm_every}", f"--change-every={chosen.change_every}")
    devices = [racks.Device(number, chosen.inside / str(number), racks.FIRST_ADDRESS + number)
               for number in range(1, chosen.count + 1)]
    rack = racks.Rack(chosen.programs.resolve(), device_options, devices, not chosen.quiet)
    racks.start_all(rack)
    print(f"started {chosen.count} devices in {time.monotonic() - begin:.1f} s; broadcast finds:", flush=True)
    found = racks.find_all(rack)
    print(f"found {found} of {chosen.count}, {time.monotonic() - begin:.1f} s after the start", flush=True)
    if not chosen.once:
        serve(rack, chosen.inside)
    return 0 if found == chosen.count else FAILED


def end_by_signal(number, _):
    for other in ENDING_SIGNALS:
        signal.signal(other, signal.SIG_IGN)  # the end is under way
    sys.exit(128 + number)


@contextmanager
def own_folder():
    """The rack's folder, held as long as its rack runs."""
    FOLDER.mkdir(mode=0o700, exist_ok=True)
    held = os.open(FOLDER, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW)
    try:
        if os.fstat(held).st_uid != os.getuid():
            raise Failure(f"{FOLDER} belongs to somebody else")
        fcntl.flock(held, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        raise WrongInput("a rack runs already; end it first") from None
    for left in FOLDER.iterdir():  # of a rack that was killed
        shutil.rmtree(left) if left.is_dir() else left.unlink()
    try:
        yield
    finally:
        shutil.rmtree(FOLDER, ignore_errors=True)
        os.close(held)


def namespaces():
    """The command that makes the rack's namespaces."""
    made = ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    for command in (made, [*made, "--user", "--map-root-user"]):
        if subprocess.run([*command, "true"], stderr=subprocess.DEVNULL).returncode == 0:
            return command
    raise Failure("this system allows neither namespaces nor user namespaces; try it as root")


def run_start(chosen):
    if chosen.inside:
        return run_inside(chosen)
    for number in ENDING_SIGNALS:
        signal.signal(number, end_by_signal)
    with own_folder():
        if chosen.check:
            return 0 if namespaces() else FAILED
        command = [*namespaces(), sys.executable, "-B", __file__, *sys.argv[1:], "--inside", FOLDER]
        with subprocess.Popen(command, stdin=subprocess.PIPE, start_new_session=True) as process:  # Ctrl-C is for us alone
            return process.wait()


def connect():
    connection = socket.socket(socket.AF_UNIX)
    try:
        connection.connect(str(FOLDER / SOCKET))
    except OSError:
        raise WrongInput(f"no rack is running; start one with {PROGRAM} start N") from None
    return connection


def ask(*request):
    with connect() as connection, connection.makefile("rw") as stream:
        stream.write(json.dumps(request) + "\n")
        stream.flush()
        reply = json.loads(stream.readline() or '{"failed": "the rack has ended", "is_wrong_input": false}')
    if "failed" in reply:
        raise (WrongInput if reply["is_wrong_input"] else Failure)(reply["failed"])
    return reply["text"]


def run_request(chosen):
    print(ask(*(getattr(chosen, part) for part in ("request", "number", "argument") if part in chosen)))
    return 0


def run_log(chosen):
    path = Path(ask("log", chosen.number))
    with path.open("rb") as log:
        shutil.copyfileobj(log, sys.stdout.buffer)
    return 0


def run_enter(chosen):
    with connect() as connection:
        size = struct.calcsize("3i")
        rack_pid, _, _ = struct.unpack("3i", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, size))
    user = ["--user", "--preserve-credentials"]
    if os.stat(f"/proc/{rack_pid}/ns/user").st_ino == os.stat("/proc/self/ns/user").st_ino:
        user = []
    command = chosen.command or [os.environ.get("SHELL", "/bin/sh")]
    os.execvp("nsenter", ["nsenter", "-t", str(rack_pid), *user, "--net", "--", *command])


def device_count(text):
    if not text.isdecimal() or not 1 <= int(text) <= racks.DEVICES_MAX:
        raise WrongInput(f"a rack has 1 to {racks.DEVICES_MAX} devices, not {text!r}")
    return int(text)


def device_number(text):
    if not text.isdecimal():
        raise WrongInput(f"{text!r} is no number of a device")
    return int(text)


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise WrongInput(f"{message}; try {self.prog} --help")


def add_start(commands):
    command = commands.add_parser("start", help="start N devices, show what broadcast finds, keep serving")
    command.set_defaults(run=run_start)
    command.add_argument("count", metavar="N", type=device_count, help=f"1 to {racks.DEVICES_MAX}")
    command.add_argument("--once", action="store_true", help="end when broadcast has found all: status 0, or not: 1")
    command.add_argument("--quiet", action="store_true", help="do not log what the services do")
    command.add_argument("--check", action="store_true", help="only say whether a rack can be started")
    command.add_argument("--alarm-every", type=float, default=10, metavar="S", help="seconds between a device's alarms (10)")
    command.add_argument("--change-every", type=float, default=5, metavar="S", help="seconds between its changes (5)")
    command.add_argument("--programs", type=Path, default=ROOT / "build/release/bin", metavar="FOLDER",
                         help="where kesto-access, kesto-device and kesto-client are (build/release/bin)")
    command.add_argument("--inside", type=Path, help=argparse.SUPPRESS)  # the folder, as it is run in the rack's namespaces


def parser():
    parser = Parser(prog=PROGRAM, description=__doc__)
    commands = parser.add_subparsers(dest="request", required=True, metavar="COMMAND", parser_class=Parser)
    add_start(commands)
    about_device = (("unplug", "pull a device's cable", ()), ("plug", "plug it in again", ()),
                    ("restart", "switch a device off and on; it keeps what was written", ()),
                    ("fault", "make it misbehave, see kesto-device --help", (("FAULT", "such as read=late:3000"),)),
                    ("address", "give it another address", (("A.B.C.D", f"within {racks.NETWORK}"),)),
                    ("log", "print the log of its service", ()))
    commands.add_parser("list", help="show all devices").set_defaults(run=run_request)
    for name, text, further in about_device:
        command = commands.add_parser(name, help=text)
        command.set_defaults(run=run_log if name == "log" else run_request)
        command.add_argument("number", metavar="N", type=device_number, help="the device's number, from 1")
        for word, meaning in further:
            command.add_argument("argument", metavar=word, help=meaning)
    enter = commands.add_parser("enter", help="run a command, or a shell, in the rack's network")
    enter.set_defaults(run=run_enter)
    enter.add_argument("command", metavar="COMMAND", nargs=argparse.REMAINDER)
    return parser


def main():
    try:
        chosen = parser().parse_args()
        return chosen.run(chosen)
    except Failure as failure:
        print(f"{PROGRAM}: {failure}", file=sys.stderr)
        return WRONG_INPUT if isinstance(failure, WrongInput) else FAILED


if __name__ == "__main__":
    sys.exit(main())
