"""The results as text, and as the second half of the page on performance."""

import statistics

import figures as names
import tables
from plot import plot_calls

MARKER = "<!-- From here on written by scripts/bench. -->\n"

OPERATIONS_CAPTION = (
    "Nanoseconds of processor time, by the number of keys and how full the registry is, or how long the text; in\n"
    "brackets the ratio to the floor: `Append` makes the registry's text without escapes, `Find` looks a value up and\n"
    "copies it, `Copy` copies the text.\n")


def machine_text(description):
    return "\n".join(f"{name:13} {value}" for name, value in description)


def figures_text(figures):
    """A line for each: name, median (min … max), number of values, ratio to its baseline."""
    lines = []
    for name, values in figures.items():
        unit, divisor = names.unit_of(name)
        median, least, most = (names.number(f(values) / divisor) for f in (statistics.median, min, max))
        line = f"{name:44} {median:>8} ({least} … {most}) {unit}  n={len(values)}"
        ratio = names.ratio(figures, name)
        lines.append(line if ratio is None else f"{line}  ratio {ratio:.2f} to {names.baseline_of(name)}")
    return "\n".join(["", *lines])


def goals_text(outcomes):
    lines = ["", f"{'goal':88} {'limit':>6}  measured"]
    for outcome in outcomes:
        measured = names.number(outcome.median) if outcome.values else "-"
        lines.append(f"{outcome.goal.text:88} {outcome.goal.limit:6}  {measured:8} {outcome.verdict.strip('*')}")
    return "\n".join(lines)


def write_page(page, description, figures, outcomes):
    """Keeps the page up to the marker and writes the plot beside it."""
    head, marker, _ = page.read_text(encoding="utf-8").partition(MARKER)
    assert marker, f"{page} has no line {MARKER!r}"
    plot = page.parent / "performance" / "calls.svg"
    plot.parent.mkdir(exist_ok=True)
    plot.write_text(plot_calls(figures), encoding="utf-8")
    sections = [
        "", tables.machine(description), "## The goals\n", tables.goals(outcomes),
        "## Calls on the bus\n", f"![The calls' time]({plot.relative_to(page.parent)})\n",
        *(f"### {title}\n\n{tables.calls(figures, mode)}" for mode, title in tables.MODES.items()),
        "### Memory after the load\n", tables.memory(figures, "loaded"),
        "## Start-up and memory\n", tables.starts(figures), tables.memory(figures, "idle"),
        "## Without a bus\n", OPERATIONS_CAPTION, tables.operations(figures)]
    page.write_text(head + marker + "\n".join(sections), encoding="utf-8")
