"""The cases of this folder: a function each, registered under a name, run by run.py in a process and a sandbox of its own."""
CASES = {}


class Case:
    """One run of a case: where the programs are, and what the case has measured."""

    def __init__(self, bin_dir):
        self.bin = bin_dir
        self.figures = {}

    def note(self, what, value, unit=""):
        """Records a figure under a name; it is printed as "WHAT VALUE UNIT" and kept as a number."""
        self.figures[what] = [round(value, 3) if isinstance(value, float) else value, unit]


class Failed(Exception):
    """What a case found; the text says what should have been and what was."""


def check(condition, text):
    if not condition:
        raise Failed(text)


def case(name, shows, alone=False):
    """Registers the decorated function, which is called with a Case, under `name`. `shows` says in a sentence what holds
    when it returns. `alone`: nothing else runs beside it, because its figures are times."""

    def register(function):
        CASES[name] = {"function": function, "shows": shows, "alone": alone}
        return function

    return register
