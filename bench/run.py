#!/usr/bin/python3
"""Runs the benchmarks and prints what they found; scripts/bench builds what they need.

    bench/run.py BUILD-FOLDER [--quick] [--only operations|bus|start-up]... [--armhf PROGRAM] [--page FILE]

With --page the results replace the second half of the page, and its plot. With --quick a few calls show that
everything still works; the figures mean nothing then.
"""

import argparse
import json
import pathlib
import sys

import bus_benchmark
import goals
import machine
import operations
import report
import start_up
import world

PARTS = ("operations", "bus", "start-up")


class Extent:
    """How much is measured."""

    def __init__(self, quick):
        self.rounds = 2 if quick else 9
        self.passes = 1 if quick else 20
        self.block = 20 if quick else 50
        self.starts = 2 if quick else 60
        self.seconds = 0.0001 if quick else 0.02


def measure(place, build, parts, extent, armhf):
    """All figures, {name: [a value for each round]}: in nanoseconds, but for starts in milliseconds, sizes in KiB and
    rates in calls per second."""
    figures = {"size ledgerd": [start_up.stripped_size(build / "daemon/ledgerd", "strip", place.state)]}
    if armhf:
        figures["size ledgerd armhf"] = [start_up.stripped_size(armhf, "arm-linux-gnueabihf-strip", place.state)]
    if "start-up" in parts:
        figures.update(start_up.run(place, build, extent.starts))
    if "operations" in parts:
        for name, values in operations.run(place, build, extent.rounds, extent.seconds).items():
            figures[f"operation {name}"] = values
    if "bus" in parts:
        calls, usage = bus_benchmark.run(place, build, extent.rounds, extent.passes, extent.block)
        for (mode, kind), fields in calls.items():
            for field, values in fields.items():
                figures[f"{mode} {kind} {field}"] = values
        for service, sizes in usage.items():
            for field, size in sizes.items():
                figures[f"loaded {service} {field}"] = [size]
    return figures


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(description="Measures the daemon.")
    parser.add_argument("build", type=lambda path: pathlib.Path(path).resolve())
    parser.add_argument("--quick", action="store_true", help="a few calls of everything")
    parser.add_argument("--only", action="append", choices=PARTS)
    parser.add_argument("--armhf", type=pathlib.Path, help="the daemon's program for 32-bit ARM")
    parser.add_argument("--page", type=pathlib.Path, help="the page that gets the results")
    parser.add_argument("--figures", type=pathlib.Path, help="where all values go as JSON")
    return parser.parse_args(arguments)


def inside(state, arguments):
    options = parse_arguments(arguments)
    place = world.World(state)
    description = machine.describe(options.build)
    print(report.machine_text(description), flush=True)
    figures = measure(place, options.build, options.only or PARTS, Extent(options.quick), options.armhf)
    outcomes = [outcome for outcome in goals.outcomes(figures) if outcome.values or not options.only]
    print(report.figures_text(figures))
    print(report.goals_text(outcomes))
    if options.figures:
        options.figures.write_text(json.dumps(figures, indent=1), encoding="utf-8")
    if options.page:
        report.write_page(options.page, description, figures, outcomes)


def main():
    if sys.argv[1:2] == [world.INSIDE]:
        inside(sys.argv[2], sys.argv[3:])
        return 0
    parse_arguments(sys.argv[1:])
    return world.enter(__file__, *sys.argv[1:])


if __name__ == "__main__":
    sys.exit(main())
