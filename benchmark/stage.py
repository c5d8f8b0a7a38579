"""What a measurement stands on: a bus and a simulated device of its own, and the measured program, each on its processor.

The measured program has one processor to itself; everything that loads it shares the others. Everything that is started
here is ended here, by its process id, also when a measurement fails.
"""
import contextlib
import os
import pathlib
import subprocess
import tempfile
import time

PATIENCE_S = 60
AUTH_PORT = 60000
PROGRAM = {"floor": "bench-floor", "service": "kesto-access"}  # the two sides
TCP_LISTENS = "0A"  # in /proc/net/tcp


class Failure(Exception):
    """Told to the user in one sentence."""


def processors():
    """The one for the measured program and those for its load; with a single processor both are the same."""
    all_of_them = sorted(os.sched_getaffinity(0))
    return {all_of_them[-1]}, set(all_of_them[:-1]) or set(all_of_them)


def listens(port):
    wanted = f":{port:04X}"
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        for line in pathlib.Path(table).read_text().splitlines()[1:]:
            _, local, _, state = line.split()[:4]
            if local.endswith(wanted) and state == TCP_LISTENS:
                return True
    return False


def wait_until(condition, what, process=None):
    end = time.monotonic() + PATIENCE_S
    while not condition():
        if process is not None and process.poll() is not None:
            raise Failure(f"{what}: the program has ended with status {process.returncode}")
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {PATIENCE_S} s")
        time.sleep(0.01)


@contextlib.contextmanager
def running(command, cpus, output, environment=None):
    """A program that is ended at the end of the block."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                               env={**os.environ, **(environment or {})},
                               preexec_fn=lambda: os.sched_setaffinity(0, cpus))
    try:
        yield process
    finally:
        process.terminate()
        try:
            process.wait(PATIENCE_S)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Stage:
    """Bus and device, serving; the bus's address is in the environment of everything started afterwards."""

    def __init__(self, programs):
        self.programs = pathlib.Path(programs)
        self.measured_cpus, self.load_cpus = processors()
        self._stack = contextlib.ExitStack()

    def __enter__(self):
        self.folder = pathlib.Path(self._stack.enter_context(tempfile.TemporaryDirectory()))
        self.log = self._stack.enter_context(open(self.folder / "log", "w+", encoding="utf-8"))
        address = f"unix:path={self.folder}/bus"
        bus = ["dbus-daemon", "--session", "--nofork", "--nopidfile", f"--address={address}"]
        process = self._stack.enter_context(running(bus, self.load_cpus, self.log))
        wait_until((self.folder / "bus").exists, "starting the bus", process)
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = address
        device = self._stack.enter_context(running([self.programs / "kesto-device"], self.load_cpus, self.log))
        wait_until(lambda: "serving" in self.log_text(), "starting the device", device)
        return self

    def __exit__(self, *failure):
        return self._stack.__exit__(*failure)

    def log_text(self):
        return (self.folder / "log").read_text(encoding="utf-8", errors="replace")

    @contextlib.contextmanager
    def measured(self, command, port=AUTH_PORT, environment=None):
        """The measured program, serving on the port."""
        wait_until(lambda: not listens(port), f"waiting for port {port} to be free")
        with running(command, self.measured_cpus, self.log, environment) as process:
            wait_until(lambda: listens(port), f"starting {command[0]}", process)
            yield process

    def load(self, command):
        """Runs a load to its end and returns what it printed."""
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                                preexec_fn=lambda: os.sched_setaffinity(0, self.load_cpus))
        if result.returncode != 0:
            raise Failure(f"{result.stderr.strip() or command[0]}; the end of the programs' log:\n{self.log_text()[-2000:]}")
        return result.stdout
