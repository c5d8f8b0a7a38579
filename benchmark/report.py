"""Writes docs/performance.md and its pictures from the figures that ./bench has kept.

Only what stands between the page's marks is replaced; everything else on it is written by people and stays.
"""
import re
import subprocess

import bridge
import counts
import peer
import racks
import rows
from testbed.gateway import Failure

SIDES = ("baseline", "service")


def _curve(compared, keys):
    """[(x, baseline, service)] of the rows with these keys, which are (x, key)."""
    by_key = {line.row.key: line for lines in compared.values() for line in lines}
    return [(x, by_key[key].baseline, by_key[key].service) for x, key in keys]


FROM_ZERO, LOGARITHMIC = "set yrange [0:*]", "set logscale y"

# Each: file, title, what is drawn upwards and how, what to the right, and the curves as (name, [(x, row key)]).
PICTURES = (
    ("commands", "Processor time per command", "µs", FROM_ZERO, "clients that ask at once",
     (("read", [(n, f"read.{n}.cpu") for n in rows.CLIENTS]),
      ("authorize", [(n, f"authorize.{n}.cpu") for n in rows.CLIENTS]))),
    ("events", "Processor time per delivered event", "µs", LOGARITHMIC, "clients that hear it",
     (("event", [(n, f"event.{n}.cpu") for n in rows.EVENT_CLIENTS]),)),
    ("sessions", "Time of one read", "µs", FROM_ZERO, "sessions open",
     (("read", [(n, f"sessions.{n}.time") for n in rows.SESSIONS]),)),
)


def _gnuplot(path, picture, compared):
    _, title, upwards, scale, rightwards, curves = picture
    data, plots = [], []
    for name, keys in curves:
        points = "\n".join(f"{x} {baseline} {service}" for x, baseline, service in _curve(compared, keys))
        data.append(f"${name} << END\n{points}\nEND")
        for column, side in enumerate(SIDES, start=2):
            style = "dashtype 2 linecolor '#888888'" if column == 2 else "linecolor '#0060a0'"
            plots.append(f"${name} using 1:{column} with linespoints linewidth 2 {style} title '{name}, {side}'")
    return "\n".join([f"set terminal svg size 720,400 background 'white' font 'sans,14'", f"set output '{path}'",
                      f"set title '{title}'", f"set ylabel '{upwards}'", f"set xlabel '{rightwards}'",
                      "set logscale x", scale, "set grid", "set key outside below", "set bmargin 6", *data,
                      "plot " + ", ".join(plots)])


def _draw(folder, compared):
    folder.mkdir(exist_ok=True)
    for picture in PICTURES:
        script = _gnuplot(folder / f"{picture[0]}.svg", picture, compared)
        drawn = subprocess.run(["gnuplot"], input=script, text=True, stderr=subprocess.PIPE, check=False)
        if drawn.returncode != 0:
            raise Failure(f"gnuplot: {drawn.stderr.strip()}")


def _markdown(headings, lines):
    rule = ["---"] * 2 + ["--:"] * (len(headings) - 2)
    return "\n".join("| " + " | ".join(line) + " |" for line in [headings, rule, *lines])


def _origin(about):
    return f"Measured on {about['date']}, commit {about['commit']}, on {about['processors']} × {about['processor']}"


def _rounds(runs):
    return f"{sum(run['side'] == 'service' for run in runs)} rounds"


def _machine(kept):
    about = kept["runs from"]
    packages = ", ".join(f"{name} {version}" for name, version in about["packages"].items())
    return f"{_origin(about)}, {_rounds(kept['runs'])}, Linux {about['kernel']}; {packages}."


def _tables(compared):
    parts = [f"### {group}\n\n{_markdown(rows.HEADINGS, [rows.cells(line) for line in lines])}"
             for group, lines in compared.items()]
    return "\n\n".join(parts)


def _summary(compared):
    lines = [line for group in compared.values() for line in group]
    within = sum(line.ratio <= rows.EXPLAINED_ABOVE for line in lines)
    spread = sorted(abs(control - 1) for line in lines for control in line.controls)
    return (f"{within} of {len(lines)} rows are at or below {rows.EXPLAINED_ABOVE}. Nine of ten comparisons of the baseline "
            f"with itself differ by less than {spread[int(0.9 * len(spread))]:.0%}: that much is noise.")


def _lines_over(compared):
    return [line for lines in compared.values() for line in lines if line.ratio > rows.EXPLAINED_ABOVE]


def _over(compared):
    over = _lines_over(compared)
    if not over:
        return "None."
    return "\n".join(f"- {line.row.name}, {line.row.what}: {line.ratio:.3f}" for line in over)


def _replace(page, mark, text):
    pattern = re.compile(f"(<!-- {mark} -->\n).*?(<!-- end -->)", re.DOTALL)
    if not pattern.search(page):
        raise Failure(f"docs/performance.md has lost its mark <!-- {mark} -->")
    return pattern.sub(lambda found: found.group(1) + text + "\n" + found.group(2), page)


def _unexplained(page, compared):
    by_people = re.sub(r"<!-- \w+ -->\n.*?<!-- end -->", "", page, flags=re.DOTALL)
    return sorted({line.row.name for line in _lines_over(compared) if f"**{line.row.name}**" not in by_people})


def write(root, kept):
    """Replaces the parts of the page that something was measured for."""
    path = root / "docs/performance.md"
    page = path.read_text(encoding="utf-8")
    pinned = rows.comparisons(kept["runs"], rows.GROUPS) if "runs from" in kept else {}
    unpinned = rows.comparisons(kept["unpinned"], rows.UNPINNED_GROUPS) if "unpinned from" in kept else {}
    parts = {}
    if pinned:
        parts = {"summary": _summary(pinned), "machine": _machine(kept), "tables": _tables(pinned), "over": _over(pinned)}
        _draw(root / "docs/performance", pinned)
    if unpinned:
        lines = [rows.cells(line) for group in unpinned.values() for line in group]
        parts["unpinned"] = f"{_origin(kept['unpinned from'])}, {_rounds(kept['unpinned'])}.\n\n{_markdown(rows.HEADINGS, lines)}"
    for what, table in (("counts", counts.table), ("peer", peer.table), ("rack", racks.table), ("bridge", bridge.table)):
        if f"{what} from" in kept:
            parts[what] = f"{_origin(kept[f'{what} from'])}.\n\n{_markdown(*table(kept[what]))}"
    if not parts:
        raise Failure("there is nothing to report yet; run ./bench first")
    for mark, text in parts.items():
        page = _replace(page, mark, text)
    path.write_text(page, encoding="utf-8")
    for name in _unexplained(page, pinned | unpinned):
        print(f"docs/performance.md gives no reason yet for: {name}")
