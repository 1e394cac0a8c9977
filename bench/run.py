#!/usr/bin/python3
"""Runs the benchmark. scripts/bench builds the programs that it needs.

    bench/run.py BUILD --before PROGRAM [--armhf PROGRAM] [--quick] [--page FILE]

Prints every figure and every goal, and fails if a goal is missed by more than the spread of its rounds. With --page it
waits until the machine is idle and writes the page and its picture. If the machine stays busy, it writes nothing and
fails.
"""

import argparse
import os
import pathlib
import subprocess
import sys

import calls
import goals
import machine
import report
import start_up
import bus_world


class Extent:
    """The number of rounds, calls and starts."""

    def __init__(self, quick):
        self.rounds = 2 if quick else 15
        self.passes = 1 if quick else 60
        self.block = 20 if quick else 50
        self.starts = 2 if quick else 20


def stripped_size(program, state):
    """Returns the size of the program for 32-bit ARM without its symbols, in KiB."""
    stripped = pathlib.Path(state) / "stripped"
    subprocess.run(["arm-linux-gnueabihf-strip", "-o", stripped, program], check=True)
    return os.path.getsize(stripped) / 1024


def is_ready(options):
    """Returns whether the machine is idle, and waits for it if necessary. A run without a page never waits."""
    return not options.page or machine.wait_until_idle()


def measure(place, options, extent):
    """Returns all figures, {name: [the value of each round]}, or None if the machine is not ready for a round."""
    figures = {"size armhf": [stripped_size(options.armhf, place.state)]} if options.armhf else {}
    for _ in range(extent.rounds):
        if not is_ready(options):
            return None
        found = {**calls.run_round(place, options.build, options.before, extent.passes, extent.block),
                 **start_up.run_round(options.build, extent.starts)}
        for name, value in found.items():
            figures.setdefault(name, []).append(value)
    return figures


def exit_status(outcomes):
    """Prints the goals that make the run fail. Returns the exit status."""
    missed = [outcome.goal.name for outcome in outcomes if outcome.verdict == goals.MISSED]
    for name in missed:
        print(f"The goal is missed: {name}")
    return 1 if missed else 0


def parse_arguments(arguments):
    def path(text):
        return pathlib.Path(text).resolve()

    parser = argparse.ArgumentParser(description="Measures the daemon.")
    parser.add_argument("build", type=path, help="the directory of a release build")
    parser.add_argument("--before", type=path, required=True, help="the daemon of version 1.0.0")
    parser.add_argument("--armhf", type=path, help="the daemon for 32-bit ARM")
    parser.add_argument("--quick", action="store_true", help="only a few calls: the figures mean nothing")
    parser.add_argument("--page", type=path, help="the page to write; waits for an idle machine")
    options = parser.parse_args(arguments)
    if options.page and not options.armhf:
        parser.error("--page needs --armhf")
    return options


def inside(state, options):
    """Measures inside the namespaces and returns the exit status."""
    place = bus_world.World(state)
    extent = Extent(options.quick)
    figures = None
    if is_ready(options):
        description = machine.describe(options.build)
        print(report.machine_text(description), flush=True)
        figures = measure(place, options, extent)
    if figures is None:
        print(f"{options.page} is unchanged.")
        return 1
    outcomes = goals.outcomes(figures)
    print(report.figures_text(figures))
    print(report.goals_text(outcomes))
    if options.page:
        report.write_page(options.page, description, extent, figures, outcomes)
    return exit_status(outcomes)


def main():
    if sys.argv[1:2] == [bus_world.INSIDE]:
        return inside(sys.argv[2], parse_arguments(sys.argv[3:]))
    parse_arguments(sys.argv[1:])
    return bus_world.enter(__file__, *sys.argv[1:])


if __name__ == "__main__":
    sys.exit(main())
