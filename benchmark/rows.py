"""The rows of the table: what the load records, named for a reader, and how two sides of it compare."""
import dataclasses
import statistics

PROGRAM = {"baseline": "bench-baseline", "service": "kesto-access"}  # the two sides
CLIENTS = (1, 10, 100)
EVENT_CLIENTS = (1, 10, 100, 500)
SESSIONS = (1, 10, 100, 250, 500, 998)
IDLE_SESSIONS = (0, 100)
EXPLAINED_ABOVE = 1.05  # a median ratio above it needs a reason on docs/performance.md


@dataclasses.dataclass(frozen=True)
class Row:
    key: str
    name: str
    what: str
    unit: str = "µs"
    divisor: float = 1


CPU, TIME = "processor time", "time"


def _pair(key, name, unit="µs", divisor=1, per=""):
    return [Row(f"{key}.cpu", name, CPU + per), Row(f"{key}.time", name, TIME + per, unit, divisor)]


def _plural(count, noun):
    return f"{count} {noun}" + ("" if count == 1 else "s")


def _groups():
    commands = []
    for kind, name in (("read", "read, one bus call"), ("authorize", "authorize, no bus call")):
        for n in CLIENTS:
            commands += _pair(f"{kind}.{n}", f"{name}, {_plural(n, 'client')}")
    commands += _pair("multiwrite.1", "multi-write of 8 keys, 1 client")
    commands += _pair("echo", "write, echoed to 9 others")
    events = []
    for n in EVENT_CLIENTS:
        events.append(Row(f"event.{n}.cpu", f"event to {_plural(n, 'client')}", "processor time per delivery"))
        events.append(Row(f"event.{n}.time", f"event to {_plural(n, 'client')}", "report to last delivery", "ms", 1000))
    entering = (_pair("discovery.key", "discovery, 2048-bit key") + _pair("discovery.plain", "discovery without a key")
                + _pair("discovery.known", "discovery of a known id")
                + [Row("login.cpu", "login and log-out", CPU), Row("login.time", "login", TIME),
                   Row("logout.time", "log-out", TIME)])
    sessions = []
    for n in SESSIONS:
        sessions += _pair(f"sessions.{n}", f"read, {_plural(n, 'session')} open")
    sessions += [Row("session.memory", "memory per session", "resident", "KiB"),
                 Row("session.descriptors", "descriptors per session", "open", "")]
    idle = []
    for n in IDLE_SESSIONS:
        idle += [Row(f"idle.{n}.cpu", f"idle, {_plural(n, 'session')}", "processor time per second", "ms", 1000),
                 Row(f"idle.{n}.wakes", f"idle, {_plural(n, 'session')}", "wake-ups per second", "")]
    return {"Commands": commands, "Events": events, "Discovery and login": entering, "Sessions": sessions, "Idle": idle}


def _unpinned_groups():
    lines = []
    for key, name in (("read.1", "read, 1 client"), ("read.10", "read, 10 clients"), ("authorize.1", "authorize, 1 client"),
                      ("authorize.10", "authorize, 10 clients")):
        lines += [*_pair(key, name), Row(f"{key}.wakes", name, "wake-ups", "")]
    lines += [Row("login.cpu", "login and log-out", CPU), Row("login.wakes", "login and log-out", "wake-ups", ""),
              Row("login.time", "login", TIME), Row("logout.time", "log-out", TIME)]
    return {"Not pinned": lines}


GROUPS, UNPINNED_GROUPS = _groups(), _unpinned_groups()


@dataclasses.dataclass(frozen=True)
class Comparison:
    row: Row
    baseline: float
    service: float
    ratios: list
    controls: list  # of the baseline with the baseline

    @property
    def ratio(self):
        return statistics.median(self.ratios)


def with_derived(figures):
    """Adds what one session costs, from what many cost, where that was measured."""
    few, many = SESSIONS[0], SESSIONS[-1]
    if f"sessions.{many}.memory" not in figures:
        return figures
    for what in ("memory", "descriptors"):
        difference = figures[f"sessions.{many}.{what}"] - figures[f"sessions.{few}.{what}"]
        figures[f"session.{what}"] = difference / (many - few)
    return figures


def compare(row, baselines, services):
    """baselines[i], services[i] and baselines[i + 1] ran one after the other: a service's ratio is to the mean of the
    baselines around it, so that a machine that slows down or speeds up meanwhile weighs on both sides."""
    value = [run[row.key] / row.divisor for run in baselines], [run[row.key] / row.divisor for run in services]
    ratios = [s / ((before + after) / 2) for s, before, after in zip(value[1], value[0], value[0][1:])]
    controls = [after / before for before, after in zip(value[0], value[0][1:])]
    return Comparison(row, statistics.median(value[0]), statistics.median(value[1]), ratios, controls)


def comparisons(runs, groups):
    """{group: [Comparison]} of runs in their order, as bench.json keeps them."""
    baselines = [with_derived(run["figures"]) for run in runs if run["side"] == "baseline"]
    services = [with_derived(run["figures"]) for run in runs if run["side"] == "service"]
    return {group: [compare(row, baselines, services) for row in rows] for group, rows in groups.items()}


def number(value):
    if value >= 1000:
        return f"{value:.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def cells(comparison):
    """The comparison as the texts of one line of a table."""
    row, ratios, controls = comparison.row, comparison.ratios, comparison.controls
    return [row.name, row.what, f"{number(comparison.baseline)} {row.unit}".strip(),
            f"{number(comparison.service)} {row.unit}".strip(), f"{comparison.ratio:.2f}",
            f"{min(ratios):.2f} to {max(ratios):.2f}",
            f"{statistics.median(controls):.2f}, {min(controls):.2f} to {max(controls):.2f}"]


HEADINGS = ["", "figure", "baseline", "service", "ratio", "smallest, largest", "baseline : baseline"]
