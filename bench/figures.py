"""The names of figures: what they are measured in, and what they are compared with.

    operation NAME/keys:KEYS/full:PERCENT     nanoseconds of processor time
    lock-step|pipelined SERVICE.CALL FIELD    nanoseconds, but for the field "rate"
    start|start-cpu PROGRAM                   milliseconds
    idle|loaded PROGRAM FIELD, size PROGRAM   KiB
"""

import statistics

import operations


def unit_of(name):
    """The unit to show and what a value is divided by for it."""
    kind, field = name.split()[0], name.split()[-1]
    if kind in ("start", "start-cpu"):
        return "ms", 1
    if kind in ("idle", "loaded", "size"):
        return "KiB", 1
    if kind == "operation":
        return "ns", 1
    return ("calls/s", 1) if field == "rate" else ("us", 1000)


def baseline_of(name):
    """The name of the figure that this one is compared with, or None."""
    kind, *rest = name.split()
    if kind == "operation":
        floor = operations.floor_of(rest[0])
        return floor and f"operation {floor}"
    if kind in ("lock-step", "pipelined"):
        call, field = rest
        ping = "ledgerd.Ping-25" if call.endswith("-25") else "ledgerd.Ping"
        return f"{kind} {'echo.Echo-2' if field in ('cpu', 'bus_cpu') else ping} {field}"
    if kind in ("start", "start-cpu", "idle"):
        return " ".join([kind, "minimal", *rest[1:]]).removesuffix(" -d")
    return None


def ratio(figures, name):
    """The median of the rounds' ratios to the baseline; None if there is no baseline in this run."""
    baseline = baseline_of(name)
    if baseline is None or baseline == name or baseline not in figures:
        return None
    pairs = [(value, base) for value, base in zip(figures[name], figures[baseline]) if base > 0]
    return statistics.median(value / base for value, base in pairs) if pairs else None


def number(value):
    """Three significant digits at least."""
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"
