"""A private bus, the simulated device and the service, with limits, and what the kernel knows about the service.

Nothing here waits for a time: each wait is for an event and gives up after PATIENCE_S."""
import os
import resource
import signal
import socket
import subprocess
import time
from pathlib import Path

from cases import Failed

PATIENCE_S = 60
AUTH_PORT = 60000
TICKS_PER_S = os.sysconf("SC_CLK_TCK")
NOBODY = 65534  # root's threads are not counted; this user's are, over the whole machine


def wait_until(condition, what, patience_s=PATIENCE_S, pause_s=0.005):
    """The first true value of `condition()`; Failed when there is none in time."""
    end = time.monotonic() + patience_s
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise Failed(f"waited {patience_s} s in vain: {what}")
        time.sleep(pause_s)


def raise_own_limits():
    """The case itself may open what the system allows: it plays hundreds of clients."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


class Box:
    """with Box(case) as box: ... ; starts all three, and ends them at the end.

    env        further environment of the service
    nofile     descriptors that the service may have: (soft, hard), or one number for both
    debug      the service writes its log to `log_path`
    as_nobody  all three run as "nobody", so that RLIMIT_NPROC counts (it does not for root); mark such a case `alone`
    device     arguments of kesto-device, or None: it is not started
    service    False: the service is not started; call start_service()"""

    def __init__(self, case, env=None, nofile=None, debug=False, as_nobody=False, device=(), service=True):
        self.bin, self.env, self.nofile, self.debug = Path(case.bin), env or {}, nofile, debug
        self.uid = NOBODY if as_nobody and os.geteuid() == 0 else None
        self.folder = Path(os.environ.get("TMPDIR", "/tmp")) / f"box-{os.getpid()}"
        self.folder.mkdir(mode=0o777, exist_ok=True)
        if self.uid is not None:
            for folder in ("/tmp", self.folder):
                os.chmod(folder, 0o1777)
        self.log_path, self.device_log_path = self.folder / "service.log", self.folder / "device.log"
        self.bus = self.device = self.service = self._connection = None
        raise_own_limits()
        self.start_bus()
        if device is not None:
            self.start_device(*device)
        if service:
            self.start_service()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.service, self.device, self.bus):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()

    def _start(self, command, output, env=None, nofile=None):
        def limit():
            if nofile is not None:
                resource.setrlimit(resource.RLIMIT_NOFILE, nofile if isinstance(nofile, tuple) else (nofile, nofile))
            if self.uid is not None:
                os.setgroups([])
                os.setresgid(self.uid, self.uid, self.uid)
                os.setresuid(self.uid, self.uid, self.uid)

        surroundings = {"PATH": os.environ["PATH"], "LD_LIBRARY_PATH": str(self.bin.parent / "lib"), **(env or {})}
        return subprocess.Popen(
            [str(word) for word in command], env=surroundings, stdin=subprocess.DEVNULL,
            stdout=output, stderr=subprocess.DEVNULL if output == subprocess.PIPE else output, preexec_fn=limit)

    def start_bus(self):
        """A new, empty bus; the connection of an earlier one is dropped."""
        self._connection = None
        self.bus = self._start(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address"], subprocess.PIPE)
        self.address = self.bus.stdout.readline().decode().strip()
        self.bus_env = {"DBUS_SESSION_BUS_ADDRESS": self.address}

    def start_device(self, *arguments):
        self.device = self._start([self.bin / "kesto-device", *arguments], self.device_log_path.open("wb"), self.bus_env)
        wait_until(lambda: b"serving" in self.device_log_path.read_bytes(), "the device serves")

    def start_service(self, wait=True):
        """`wait`: until it accepts connections on its authentication port."""
        debug = {"KESTO_DEBUG": "1"} if self.debug else {}
        self.service = self._start(
            [self.bin / "kesto-access"], self.log_path.open("wb"), {**self.bus_env, **debug, **self.env}, self.nofile)
        if wait:
            wait_until(lambda: is_listening(AUTH_PORT) or not self.alive(), "the service listens")
            if not self.alive():
                raise Failed(f"the service did not start: {self.last_words()}")

    @property
    def pid(self):
        return self.service.pid

    def alive(self):
        return self.service.poll() is None

    def last_words(self):
        """How the service ended, with its last lines on standard error or of its log."""
        return f"status {self.service.poll()}, {self.log()[-300:]!r}"

    def log(self):
        return self.log_path.read_text(errors="replace")

    def limit(self, what, value):
        """Sets a limit of the running service: limit("as", bytes), limit("nproc", threads), limit("nofile", count)."""
        done = self._start(["prlimit", "--pid", self.pid, f"--{what}={value}:{value}"], None)  # as the service's user
        if done.wait() != 0:
            raise Failed(f"prlimit --{what}={value} was refused")

    def figures(self):
        """What the service holds now: rss_kib, virtual_kib, descriptors, threads, cpu_s (user and system, since start)."""
        if not self.alive():
            raise Failed(f"the service ended: {self.last_words()}")
        process = Path("/proc") / str(self.pid)
        status = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
        times = (process / "stat").read_text().rpartition(")")[2].split()
        return {
            "rss_kib": int(status["VmRSS"].split()[0]), "virtual_kib": int(status["VmSize"].split()[0]),
            "descriptors": len(os.listdir(process / "fd")), "threads": int(status["Threads"]),
            "cpu_s": (int(times[11]) + int(times[12])) / TICKS_PER_S}

    def cpu_percent(self, period_s=2):
        """Share of one core that the service takes while the case does nothing, measured over `period_s`."""
        before, begin = self.figures()["cpu_s"], time.monotonic()
        time.sleep(period_s)
        return 100 * (self.figures()["cpu_s"] - before) / (time.monotonic() - begin)

    def stop(self):
        """SIGTERM. (exit status, seconds until then); a status below 0 is the signal that ended it."""
        begin = time.monotonic()
        self.service.send_signal(signal.SIGTERM)
        try:
            status = self.service.wait(PATIENCE_S)
        except subprocess.TimeoutExpired:
            raise Failed(f"the service did not stop within {PATIENCE_S} s of SIGTERM") from None
        return status, time.monotonic() - begin

    def kill(self, process):
        """SIGKILL to box.bus, box.device or box.service, and its end awaited."""
        process.kill()
        process.wait()

    def connection(self):
        if self._connection is None:
            from gi.repository import Gio  # here, because it starts threads, and a case may want to fork before
            flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
            self._connection = Gio.DBusConnection.new_for_address_sync(self.address, flags, None, None)
            self._connection.set_exit_on_close(False)
        return self._connection

    def _call(self, service, path, interface, method, signature, arguments):
        from gi.repository import Gio, GLib
        return self.connection().call_sync(
            service, path, interface, method, GLib.Variant(signature, arguments), None, Gio.DBusCallFlags.NO_AUTO_START,
            PATIENCE_S * 1000, None)

    def call(self, method, signature="()", *arguments):
        """A method of the service, answered: call("Dispatch", "(idi)", 40, 3.5, 2). Raises GLib.Error."""
        name = "com.quillmont.kesto.Access"
        return self._call(name, "/com/quillmont/kesto/Access", f"{name}.Service", method, signature, arguments)

    def control(self, method, signature="()", *arguments):
        """Steers the device: control("Fault", "(s)", "read=never")."""
        return self._call(
            "com.quillmont.kesto.Data", "/com/quillmont/kesto/Device", "com.quillmont.kesto.Device.Control", method,
            signature, arguments)


def is_listening(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0
