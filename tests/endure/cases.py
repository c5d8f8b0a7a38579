"""The cases of this folder: a function each, registered under a name, run by run.py in a process and a sandbox of its own."""
from testbed.gateway import TestBed, check

CASES = {}
CASE_LIMIT_S = 600


class Case(TestBed):
    """The test bed of one case, and in `notes` what the case measures on it."""

    def __init__(self, bin_dir, notes, **settings):
        self.notes = notes
        super().__init__(bin_dir, **settings)

    def note(self, what, value, unit=""):
        """Records a figure under a name, and returns it; it is printed as "WHAT VALUE UNIT" and kept as a number."""
        self.notes[what] = [round(value, 3) if isinstance(value, float) else value, unit]
        return value

    def check_stop(self, longest_s=60):
        status, seconds = self.stop()
        self.note("stop", 1000 * seconds, "ms")
        check(status == 0, f"it ended with {self.last_words()}")
        check(seconds < longest_s, f"the stop took {seconds:.1f} s")


def case(name, shows, alone=False, bed=Case, limit_s=CASE_LIMIT_S, **settings):
    """Registers the decorated function under `name`; it is called with what `bed` makes of these settings. `shows` says in
    a sentence what holds when it returns. `alone`: nothing else runs beside it, because its figures are times, or because
    threads count over the whole machine. `limit_s`: how long it may take."""

    def register(function):
        CASES[name] = {"function": function, "shows": shows, "alone": alone, "bed": bed, "limit_s": limit_s,
                       "settings": settings}
        return function

    return register
