"""The cases of this folder: a function each, registered under a name, run by run.py in a process and a sandbox of its own."""
from testbed.gateway import TestBed, check
from testbed.remote import EXACT, request, wire

CASES = {}


class Case(TestBed):
    """The test bed of one case, and in `notes` what the case measures on it."""

    def __init__(self, bin_dir, notes, **settings):
        self.notes = notes
        super().__init__(bin_dir, **settings)

    def note(self, what, value, unit=""):
        """Records a figure under a name, and returns it; it is printed as "WHAT VALUE UNIT" and kept as a number."""
        self.notes[what] = [round(value, 3) if isinstance(value, float) else value, unit]
        return value

    def fault(self, method, kind):
        """How the data service misbehaves from now on: fault("read", "late:5000"); "none" ends it."""
        self.control("Fault", "(s)", f"{method}={kind}")

    def begin_slow_read(self, client, key, seconds):
        """Returns as soon as the request is sent; its answer is the next on client.commands."""
        self.fault(f"read:{key}", f"late:{1000 * seconds}")
        client.commands.send(request(client.id, read=wire.Read(key=key, flags=EXACT)))

    def check_stop(self, longest_s=60):
        status, seconds = self.stop()
        self.note("stop", 1000 * seconds, "ms")
        check(status == 0, f"it ended with {self.last_words()}")
        check(seconds < longest_s, f"the stop took {seconds:.1f} s")


def case(name, shows, alone=False, bed=Case, **settings):
    """Registers the decorated function under `name`; it is called with what `bed` makes of these settings. `shows` says in
    a sentence what holds when it returns. `alone`: nothing else runs beside it, because its figures are times."""

    def register(function):
        CASES[name] = {"function": function, "shows": shows, "alone": alone, "bed": bed, "settings": settings}
        return function

    return register
