"""Draws the processor time of a Write by how full the registry is."""

import statistics
from xml.sax.saxutils import escape

import calls

WIDTH, HEIGHT = 720, 380
LEFT, RIGHT, TOP, BOTTOM = 56, 150, 56, 52
LABEL_GAP = 16
ECHO_COLOUR = "#777"


def text(x, y, words, anchor="start", colour="#222"):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{colour}">{escape(words)}</text>'


def line(x1, y1, x2, y2, style):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" {style}/>'


def step_of(highest):
    """Returns the distance of the grid lines, for at most eight intervals."""
    return next(step for step in (1, 2, 5, 10, 20, 50, 100, 200, 500, 1000) if highest / step <= 8)


def spread_out(places):
    """Moves labels down until none covers another. Returns {label: y}."""
    moved = {}
    last = -LABEL_GAP
    for label, y in sorted(places.items(), key=lambda item: item[1]):
        last = moved[label] = max(y, last + LABEL_GAP)
    return moved


def draw(figures, series):
    """Returns the picture as SVG. `series` is {label: (prefix of the figures, colour)}."""
    values = {label: [figures[f"{prefix}Write {fill} cpu"] for fill in calls.FILLS]
              for label, (prefix, _) in series.items()}
    echo = statistics.median(figures["echo of Write cpu"])
    highest = max(max(rounds) for points in values.values() for rounds in points)
    step = step_of(highest)
    top = (int(highest / step) + 1) * step

    def x_of(fill):
        return LEFT + (WIDTH - LEFT - RIGHT) * fill / 100

    def y_of(microseconds):
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * microseconds / top

    end = x_of(calls.FILLS[-1])
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" width="{WIDTH}" '
             f'height="{HEIGHT}" font-family="sans-serif" font-size="13">',
             '<rect width="100%" height="100%" fill="#fff"/>',
             text(LEFT, 18, "Processor time of the daemon for a Write, in microseconds"),
             text(LEFT, 36, "Dots: median of the rounds. Vertical lines: minimum to maximum.", colour="#666")]
    for number in range(top // step + 1):
        y = y_of(number * step)
        lines += [line(LEFT, y, end, y, 'stroke="#ddd"'), text(LEFT - 8, y + 4, str(number * step), "end")]
    lines += [text(x_of(fill), HEIGHT - BOTTOM + 20, f"{fill} %", "middle") for fill in calls.FILLS]
    lines += [text((LEFT + end) / 2, HEIGHT - 10, "share of the registry's capacity in use", "middle"),
              line(LEFT, y_of(echo), end, y_of(echo), f'stroke="{ECHO_COLOUR}" stroke-dasharray="6 4"')]
    places = {("echo (baseline)", ECHO_COLOUR): y_of(echo)}
    # The shift keeps the vertical lines of two series apart.
    for shift, (label, (_, colour)) in zip((-2, 2), series.items()):
        medians = [statistics.median(rounds) for rounds in values[label]]
        points = " ".join(f"{x_of(fill):.1f},{y_of(median):.1f}" for fill, median in zip(calls.FILLS, medians))
        lines.append(f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for fill, median, rounds in zip(calls.FILLS, medians, values[label]):
            x = x_of(fill) + shift
            lines += [line(x, y_of(min(rounds)), x, y_of(max(rounds)), f'stroke="{colour}"'),
                      f'<circle cx="{x_of(fill):.1f}" cy="{y_of(median):.1f}" r="4" fill="{colour}"/>']
        places[label, colour] = y_of(medians[-1])
    lines += [text(end + 12, y + 4, label, colour=colour) for (label, colour), y in spread_out(places).items()]
    return "\n".join([*lines, "</svg>", ""])
