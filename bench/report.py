"""Formats the results as text and as the page on performance."""

import pathlib
import re
import statistics

import calls
import picture

TEMPLATE = pathlib.Path(__file__).resolve().parent / "page.md"
SERIES = {"version 1.0.0": ("before ", "#b5651d"), "now": ("", "#1f5f99")}
FIELDS = ("p50", "cpu", "bus")
UNITS = {"start": "ms", "memory": "KiB", "size": "KiB"}


def number(value):
    """Returns the number with at least three significant digits."""
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def summary(values):
    median, least, most = (number(f(values)) for f in (statistics.median, min, max))
    return f"{median} ({least} … {most})"


def baseline_of(name):
    """Returns the name of the figure that this figure is compared with, or None."""
    kind, field = name.rsplit(" ", 1)
    if kind in UNITS:
        return f"{kind} minimal" if field == "ledgerd" else None
    if "Write" in kind or "SetProperty" in kind:
        baseline = "echo of Write"
    else:
        baseline = {"Read": "echo of Read",
                    "ReadAllJson": "echo of a long text"}.get(kind.removeprefix("before "), kind)
    return f"{baseline} {field}" if baseline != kind else None


def ratio_text(figures, name):
    """Returns the median of the rounds' ratios to the baseline, or "1" for a baseline."""
    baseline = baseline_of(name)
    if baseline is None:
        return "1"
    return number(statistics.median(value / base for value, base in zip(figures[name], figures[baseline])))


def machine_text(description):
    return "\n".join(f"{name:11} {value}" for name, value in description)


def figures_text(figures):
    """Returns a line for each figure: name, median (min … max), number of rounds, ratio to its baseline."""
    lines = [""]
    for name, values in sorted(figures.items()):
        ratio = f"  {ratio_text(figures, name)} x {baseline_of(name)}" if baseline_of(name) else ""
        lines.append(f"{name:26} {summary(values):24} {UNITS.get(name.split()[0], 'us'):3}  n={len(values)}{ratio}")
    return "\n".join(lines)


def goal_rows(outcomes):
    """Returns the name, limit, measured value, spread and verdict of each goal."""
    return [(outcome.goal.name, number(outcome.goal.limit), summary(outcome.values) if outcome.values else "-",
             number(outcome.spread) if outcome.values else "-", outcome.verdict) for outcome in outcomes]


def goals_text(outcomes):
    lines = ["", f"{'ratio':78} {'goal':6} {'measured':22} {'spread':7} result"]
    lines += [f"{name:78} {limit:6} {measured:22} {spread:7} {verdict}"
              for name, limit, measured, spread, verdict in goal_rows(outcomes)]
    return "\n".join(lines)


def table(head, rows, alignment="---:"):
    """Returns a Markdown table. The first column is text. `alignment` is the alignment of the other columns."""
    lines = [head, ("---", *[alignment] * (len(head) - 1)), *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines) + "\n"


def label_of(kind):
    """Returns the name of a kind of call on the page: "before Write 25" is "`Write` at 25 %, version 1.0.0"."""
    version = ", version 1.0.0" if kind.startswith("before ") else ""
    return re.sub(r"^(\w+)( (\d+))?$", lambda name: f"`{name[1]}`" + (f" at {name[3]} %" if name[3] else ""),
                  kind.removeprefix("before ")) + version


def calls_table(figures):
    kinds = [name.removesuffix(" p50") for name in figures if name.endswith(" p50")]
    rows = [(label_of(kind), *(summary(figures[f"{kind} {field}"]) for field in FIELDS),
             ratio_text(figures, f"{kind} cpu")) for kind in sorted(kinds)]
    return table(("call", "p50, us", "CPU of the service, us", "CPU of the bus, us", "CPU to the echo"), rows)


def starts_table(figures):
    rows = [(program, summary(figures[f"start {program}"]), summary(figures[f"memory {program}"]))
            for program in ("minimal", "ledgerd")]
    return table(("program", "start, ms", "private memory, KiB"), rows)


def write_page(page, description, extent, figures, outcomes):
    """Writes the page, and its picture to a directory that is named after the page."""
    fields = {name: number(statistics.median(values)) for name, values in figures.items()}
    fields.update(vars(extent), calls=extent.passes * extent.block, keys=calls.KEYS_AT_FULL,
                  sections=len(calls.sections(calls.FULL)),
                  machine=table(("measured", ""), description, alignment="---"),
                  goals=table(("ratio", "goal", "measured", "spread", "result"), goal_rows(outcomes)),
                  calls_table=calls_table(figures), starts_table=starts_table(figures))
    image = page.parent / page.stem / "write.svg"
    image.parent.mkdir(exist_ok=True)
    image.write_text(picture.draw(figures, SERIES), encoding="utf-8")
    page.write_text(TEMPLATE.read_text(encoding="utf-8").format_map(fields), encoding="utf-8")
