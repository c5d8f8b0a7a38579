"""The test bed: a private bus, the simulated device, and the service or another program in its place, with limits; and what
the kernel knows about that program.

Nothing here waits for a time: each wait is for an event and gives up after PATIENCE_S. Everything that is started here is
ended here, by its process id, also when something fails."""
import atexit
import os
import resource
import signal
import subprocess
import tempfile
import time
from pathlib import Path

PATIENCE_S = 60
AUTH_PORT = 60000
TICKS_PER_S = os.sysconf("SC_CLK_TCK")
NOBODY = 65534  # root's threads are not counted; this user's are, over the whole machine
ESTABLISHED, LISTENING = "01", "0A"  # states in /proc/net/tcp
SERVICE = ("com.quillmont.kesto.Access", "/com/quillmont/kesto/Access", "com.quillmont.kesto.Access.Service")
DATA = ("com.quillmont.kesto.Data", "/com/quillmont/kesto/Data", "com.quillmont.kesto.Data.Service")
CONTROL = ("com.quillmont.kesto.Data", "/com/quillmont/kesto/Device", "com.quillmont.kesto.Device.Control")


class Failure(Exception):
    """What went wrong, told to a person; the text says what should have been and what was."""


def check(condition, text):
    if not condition:
        raise Failure(text)


def wait_until(condition, what, patience_s=PATIENCE_S, pause_s=0.005):
    """The first true value of `condition()`; a Failure when there is none in time."""
    end = time.monotonic() + patience_s
    while not (value := condition()):
        check(time.monotonic() < end, f"waited {patience_s} s in vain: {what}")
        time.sleep(pause_s)
    return value


def tcp_sockets(state):
    """This network's TCP sockets in a state: (port, the peer's port, bytes that the peer has not acknowledged) each."""
    lines = [line.split() for line in Path("/proc/net/tcp").read_text().splitlines()[1:]]
    return [(int(local.split(":")[1], 16), int(far.split(":")[1], 16), int(queues.split(":")[0], 16))
            for _, local, far, in_state, queues, *_ in lines if in_state == state]


def is_listening(port):
    return any(port == other for other, _, _ in tcp_sockets(LISTENING))


def _text(path):
    """What is in a file; nothing when it is a pipe."""
    return path.read_text(errors="replace") if path.is_file() else ""


def processors():
    """The one for the program and those for all else; with a single processor both are the same."""
    all_of_them = sorted(os.sched_getaffinity(0))
    return all_of_them[-1:], all_of_them[:-1] or all_of_them


class TestBed:
    """with TestBed("build/release/bin") as bed: ... ; starts all three, and ends them at the end, as close() does.

    env        further environment of the program
    nofile     descriptors that the program may have: (soft, hard), or one number for both
    as_nobody  all run as "nobody", so that a limit of threads counts (it does not for root)
    pinned     the program has one processor to itself; everything else shares the others
    device     arguments of kesto-device, or None: it is not started
    start      False: the program is not started; call start_program()"""

    def __init__(self, bin_dir, env=None, nofile=None, as_nobody=False, pinned=False, device=(), start=True):
        self.bin, self.env, self.nofile = Path(bin_dir).resolve(), env or {}, nofile
        self.uid = NOBODY if as_nobody and os.geteuid() == 0 else None
        self.program_cpus, self.other_cpus = processors() if pinned else (None, None)
        sanitizers = {name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
        self.environment = {"PATH": os.environ["PATH"], "LD_LIBRARY_PATH": str(self.bin.parent / "lib"),
                            **sanitizers}  # of everything
        self.bus = self.device = self.program = self._connection = None
        self._started, self._owned_folder = [], tempfile.TemporaryDirectory(prefix="testbed-", ignore_cleanup_errors=True)
        atexit.register(self.close)
        self.folder = Path(self._owned_folder.name)
        self.log_path = self.folder / "program.log"
        if self.uid is not None:
            for folder in (self.bin, *self.bin.parents):
                check(folder.stat().st_mode & 0o001, f"nobody but its owner may enter {folder}, where the programs are")
            for folder in ("/tmp", self.folder):
                os.chmod(folder, 0o1777)
        self.start_bus()
        if device is not None:
            self.start_device(*device)
        if start:
            self.start_program()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends what still runs; the folder with the logs goes as well."""
        for process in reversed(self._started):
            self.kill(process)
        self._owned_folder.cleanup()

    def start(self, role, command, env=None, nofile=None, cpus=None, stdin=subprocess.DEVNULL, stdout=None, **options):
        """Any program beside these; the caller waits for what it needs of it. What it writes is in ROLE.log."""
        def prepare():
            if cpus or self.other_cpus:
                os.sched_setaffinity(0, cpus or self.other_cpus)
            if nofile is not None:
                resource.setrlimit(resource.RLIMIT_NOFILE, nofile if isinstance(nofile, tuple) else (nofile, nofile))
            if self.uid is not None:
                os.setgroups([])
                os.setresgid(self.uid, self.uid, self.uid)
                os.setresuid(self.uid, self.uid, self.uid)

        with (self.folder / f"{role}.log").open("wb") as log:
            process = subprocess.Popen([str(word) for word in command], env={**self.environment, **(env or {})}, stdin=stdin,
                                       stdout=log if stdout is None else stdout, stderr=log, preexec_fn=prepare, **options)
        self._started.append(process)
        return process

    def start_bus(self):
        command = ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address"]
        self.bus = self.start("bus", command, stdout=subprocess.PIPE)
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = self.bus.stdout.readline().decode().strip()

    def start_device(self, *arguments):
        self.device = self.start("device", [self.bin / "kesto-device", *arguments])
        self._wait_for("device", self.device, lambda: "serving" in self.role_log("device"))

    def start_program(self, command=None, port=AUTH_PORT, wait=True):
        """The service, or the command in its place. `wait`: until it listens on `port`."""
        wait_until(lambda: not is_listening(port), f"port {port} is free")
        command = command or [self.bin / "kesto-access"]
        self.program = self.start("program", command, self.env, self.nofile, self.program_cpus)
        if wait:
            self._wait_for("program", self.program, lambda: is_listening(port))

    def _wait_for(self, role, process, condition):
        wait_until(lambda: condition() or process.poll() is not None, f"the {role} serves")
        check(process.poll() is None, f"the {role} did not start: status {process.poll()}, {self.role_log(role)[-1000:]!r}")

    def load(self, command):
        """Runs a command beside the program to its end; what it printed on standard output."""
        process = self.start("load", command, stdout=subprocess.PIPE, text=True)
        output, _ = process.communicate()
        if process.returncode != 0:
            raise Failure(f"{self.role_log('load') or command[0]}; the program: {self.last_words()}")
        return output

    @property
    def pid(self):
        return self.program.pid

    def alive(self):
        return self.program.poll() is None

    def last_words(self):
        """How the program ended, with its last lines on standard error or of its log."""
        return f"status {self.program.poll()}, {self.log()[-1000:]!r}"

    def log(self):
        return _text(self.log_path)

    def role_log(self, role):
        """What a program that was started in this role has written."""
        return _text(self.folder / f"{role}.log")

    def limit(self, what, value):
        """Sets a limit of the running program: limit("as", bytes), limit("nproc", threads), limit("nofile", count)."""
        done = self.start("prlimit", ["prlimit", "--pid", self.pid, f"--{what}={value}:{value}"])  # as the program's user
        check(done.wait() == 0, f"prlimit --{what}={value} was refused")

    def figures(self):
        """What the program holds now: rss_kib and its highest so far, peak_kib; virtual_kib, descriptors, threads. And cpu_s,
        user and system, since its start."""
        check(self.alive(), f"the program ended: {self.last_words()}")
        process = Path("/proc") / str(self.pid)
        status = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
        times = (process / "stat").read_text().rpartition(")")[2].split()
        sizes = {"rss_kib": "VmRSS", "peak_kib": "VmHWM", "virtual_kib": "VmSize", "threads": "Threads"}
        return {**{name: int(status[field].split()[0]) for name, field in sizes.items()},
                "descriptors": len(os.listdir(process / "fd")), "cpu_s": (int(times[11]) + int(times[12])) / TICKS_PER_S}

    def cpu_percent(self, period_s=2):
        """Share of one core that the program takes while the caller does nothing, measured over `period_s`."""
        before, begin = self.figures()["cpu_s"], time.monotonic()
        time.sleep(period_s)
        return 100 * (self.figures()["cpu_s"] - before) / (time.monotonic() - begin)

    def stop(self):
        """SIGTERM. (exit status, seconds until then); a status below 0 is the signal that ended it."""
        begin = time.monotonic()
        self.program.send_signal(signal.SIGTERM)
        try:
            status = self.program.wait(PATIENCE_S)
        except subprocess.TimeoutExpired:
            raise Failure(f"the program did not stop within {PATIENCE_S} s of SIGTERM") from None
        return status, time.monotonic() - begin

    def kill(self, process):
        """SIGKILL to bed.bus, bed.device or bed.program, and its end awaited."""
        process.kill()
        process.wait()

    def connection(self):
        """A connection of one's own to the bus."""
        if self._connection is None:
            from gi.repository import Gio  # here, because it starts threads, and a case may want to fork before
            flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
            self._connection = Gio.DBusConnection.new_for_address_sync(
                self.environment["DBUS_SESSION_BUS_ADDRESS"], flags, None, None)
            self._connection.set_exit_on_close(False)
        return self._connection

    def _call_of(self, target, method, signature, arguments):
        """What the two ways to call a method begin with."""
        from gi.repository import Gio, GLib
        return (*target, method, GLib.Variant(signature, arguments), None, Gio.DBusCallFlags.NO_AUTO_START)

    def call(self, method, signature="()", *arguments, target=SERVICE):
        """A method of the service, answered: call("Dispatch", "(idi)", 40, 3.5, 2). Raises GLib.Error."""
        call = self._call_of(target, method, signature, arguments)
        return self.connection().call_sync(*call, PATIENCE_S * 1000, None)

    def send(self, method, signature="()", *arguments):
        """The same, but nobody waits for an answer."""
        self.connection().call(*self._call_of(SERVICE, method, signature, arguments), -1, None, None)

    def control(self, method, signature="()", *arguments):
        """Steers the device: control("Fault", "(s)", "read=never")."""
        return self.call(method, signature, *arguments, target=CONTROL)
