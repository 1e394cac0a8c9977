"""The tables of the page on performance, in Markdown."""

import statistics

import figures as names
from memory import FIELDS as MEMORY_FIELDS

MODES = {"lock-step": "One client, one call after the other", "pipelined": "Eight clients, eight calls each under way"}
SIZES = ((1, 0), (1, 25), (1, 50), (1, 100), (500, 25), (500, 50), (500, 100))


def table(head, rows):
    """The first column is text, the others are figures."""
    lines = [head, ["---", *["---:"] * (len(head) - 1)], *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines) + "\n"


def shown(figures, name):
    """The median in its unit's scale, without the unit."""
    return names.number(statistics.median(figures[name]) / names.unit_of(name)[1])


def shown_range(figures, name):
    divisor = names.unit_of(name)[1]
    median, least, most = (names.number(f(figures[name]) / divisor) for f in (statistics.median, min, max))
    return f"{median} ({least} … {most})"


def machine(description):
    return table(("measured", ""), [(name, str(value)) for name, value in description]).replace("---:", "---")


def goals(outcomes):
    rows = []
    for outcome in outcomes:
        if outcome.values:
            median, least, most = (names.number(f(outcome.values)) for f in (statistics.median, min, max))
            measured = f"{median} ({least} … {most})" if len(outcome.values) > 1 else median
        else:
            measured = "-"
        rows.append((outcome.goal.text, str(outcome.goal.limit), measured, outcome.verdict))
    return table(("ratio", "at most", "measured", "goal"), rows)


def calls(figures, mode):
    rows = []
    for name in figures:
        if name.startswith(mode) and name.endswith(" p50"):
            call = name.split()[1]
            fields = [shown_range(figures, name)]
            fields += [shown(figures, f"{mode} {call} {field}") for field in ("p99", "rate", "cpu", "bus_cpu")]
            ratio = names.ratio(figures, f"{mode} {call} cpu")
            rows.append((f"{call}", *fields, "1" if ratio is None else f"{ratio:.2f}"))
    return table(("call", "p50, us", "p99, us", "calls/s", "CPU of the service, us", "CPU of the bus, us",
                  "service's CPU against Echo-2"), rows)


def memory(figures, kind):
    programs = dict.fromkeys(name.split()[1] for name in figures if name.startswith(f"{kind} "))
    rows = [(f"{kind} {program}", *(shown(figures, f"{kind} {program} {field}") for field in MEMORY_FIELDS))
            for program in programs]
    return table(("process", *(f"{field}, KiB" for field in MEMORY_FIELDS)), rows)


def starts(figures):
    rows = []
    for name in figures:
        kind, program = name.split(" ", 1)
        if kind == "start":
            row = [f"`{program}`"]
            for each in (name, f"start-cpu {program}"):
                ratio = names.ratio(figures, each)
                row += [shown_range(figures, each), "1" if ratio is None else f"{ratio:.2f}"]
            rows.append(row)
    return table(("program", "start, ms", "against minimal", "processor time, ms", "against minimal"), rows)


def operations(figures):
    """Nanoseconds, with the ratio to the floor."""
    rows = []
    for operation in dict.fromkeys(name.split()[1].split("/")[0] for name in figures if name.startswith("operation ")):
        row = [operation]
        for keys, percent in SIZES:
            name = f"operation {operation}/keys:{keys}/full:{percent}"
            if name not in figures:
                row.append("")
                continue
            ratio = names.ratio(figures, name)
            row.append(shown(figures, name) + ("" if ratio is None else f" ({ratio:.1f})"))
        rows.append(row)
    return table(("operation", *(f"{keys} key{'s' * (keys > 1)}, {percent} %" for keys, percent in SIZES)), rows)
