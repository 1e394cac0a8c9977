"""A bar for each call: how long a client waits for it, and how much of that the service works."""

import statistics
from xml.sax.saxutils import escape

LEFT, WIDTH, BAR, GAP, TOP = 190, 560, 14, 8, 58
COLOURS = {"p50": "#c9d3df", "cpu": "#2f6f9f"}


def bar(y, length, colour):
    return f'<rect x="{LEFT}" y="{y}" width="{max(length, 1):.1f}" height="{BAR}" fill="{colour}"/>'


def text(x, y, words, anchor="start"):
    return f'<text x="{x:.1f}" y="{y}" text-anchor="{anchor}">{escape(words)}</text>'


def plot_calls(figures):
    calls = [name.split()[1] for name in figures if name.startswith("lock-step") and name.endswith(" p50")]

    def microseconds(call, field):
        return statistics.median(figures[f"lock-step {call} {field}"]) / 1000

    # Linear up to the longest, so that lengths can be compared.
    scale = WIDTH / max((max(microseconds(call, "p50"), microseconds(call, "cpu")) for call in calls), default=1)
    height = TOP + len(calls) * (BAR + GAP) + 10
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{LEFT + WIDTH + 120}" height="{height}" '
             'font-family="sans-serif" font-size="12" fill="#222">',
             f'<rect width="100%" height="{height}" fill="#fff"/>',
             text(LEFT, 20, "One call after the other, medians in microseconds"),
             f'<rect x="{LEFT}" y="32" width="{BAR}" height="{BAR}" fill="{COLOURS["p50"]}"/>',
             text(LEFT + 20, 44, "until the reply (p50)"),
             f'<rect x="{LEFT + 160}" y="32" width="{BAR}" height="{BAR}" fill="{COLOURS["cpu"]}"/>',
             text(LEFT + 180, 44, "of it the service's processor time")]
    for index, call in enumerate(calls):
        y = TOP + index * (BAR + GAP)
        whole, own = microseconds(call, "p50"), microseconds(call, "cpu")
        lines += [text(LEFT - 8, y + 11, call, "end"), bar(y, whole * scale, COLOURS["p50"]),
                  bar(y, own * scale, COLOURS["cpu"]),
                  text(LEFT + max(whole, own) * scale + 6, y + 11, f"{whole:.0f}, {own:.0f}")]
    return "\n".join([*lines, "</svg>", ""])
