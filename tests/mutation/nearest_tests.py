"""Which tests are nearest to a source, the nearest first."""
import functools
import itertools
import json
import math
import os
import pathlib
import subprocess

# The service tests of a source: those of the longest beginning of its path.
SERVICE_TESTS = {
    "client/": "ledgerctl ledgerctl_status ledgerctl_processes",
    "client/shell_command": "ledgerctl_watch",
    "client/watch": "ledgerctl_watch",
    "daemon/": "foreground signals daemon_mode kill start_failures bus_loss methods",
    "daemon/dispatcher": "bus_loss foreground hostile",
    "dbus/": "methods hostile",
    "lib/hardware/": "hardware_lines",
    "lib/platform/": "",
    "lib/platform/daemonise": "daemon_mode handshake start_failures",
    "lib/platform/escape": "model",
    "lib/platform/lazy": "flush faults",
    "lib/platform/pid_file": "kill daemon_mode",
    "lib/platform/posix_helpers": "faults first_read",
    "lib/platform/standard_streams": "foreground daemon_mode",
    "lib/platform/tracepoint": "tracing",
    "registry/": "methods model",
    "registry/file_store": "faults first_read",
    "registry/json": "imports",
    "registry/refused_json": "imports",
    "registry/registry_json": "imports model",
}
# The tests of a program run in groups, the quickest first: the limits of the groups in milliseconds.
DURATIONS = (0, 20, 500, math.inf)


class Step:
    """A unit program or a file of service tests."""

    def __init__(self, name, command, targets):
        self.name = name
        self.command = tuple(command)
        self.targets = targets  # of the build, that the command uses
        self.seconds = None  # not known yet
        self.reached = set()  # the mutants that the command reaches, of a unit program outside its tests
        self.tests = {}  # of a unit program: name -> (milliseconds, the mutants that it reaches)

    def record(self, seconds, reached, tests):
        """Keeps what a run without a mutant has shown."""
        self.seconds = seconds
        self.tests = {}
        self.reached = {number for number, byte in enumerate(reached) if byte}
        for line in tests.splitlines():
            name, milliseconds, *numbers = line.split(" ")
            numbers = {int(number) for number in numbers}
            if name:
                self.tests[name] = int(milliseconds), numbers
            else:
                self.reached |= numbers

    def commands(self, number):
        """The commands that can notice the mutant, the quickest tests first, and their seconds. None: any mutant."""
        everywhere = number is None or number in self.reached
        if not self.tests:
            return [(self.command, self.seconds)] if everywhere else []
        reaching = {name: time for name, (time, reached) in self.tests.items() if everywhere or number in reached}
        groups = [{name: time for name, time in reaching.items() if shortest <= time < longest}
                  for shortest, longest in itertools.pairwise(DURATIONS)]
        return [((*self.command, "--gtest_fail_fast", f"--gtest_filter={':'.join(group)}"), sum(group.values()) / 1000)
                for group in groups if group]


def unit_steps(directory, path):
    """The unit programs of the source's directory."""
    for program in sorted((directory / "tests" / "unit" / pathlib.Path(path).parent.name).iterdir()):
        if program.is_file() and os.access(program, os.X_OK):
            yield Step("unit", [str(program)], [str(program.relative_to(directory))])


def service_tests(path):
    """The names of the service tests that are nearest to the source."""
    return SERVICE_TESTS[max((key for key in SERVICE_TESTS if path.startswith(key)), key=len)].split()


@functools.lru_cache
def service_step(directory, name):
    listing = subprocess.run(["ctest", "--test-dir", directory, "--show-only=json-v1"], check=True,
                             stdout=subprocess.PIPE).stdout
    test = next(test for test in json.loads(listing)["tests"] if test["name"] == f"service.{name}")
    # A service test stops at its first failure.
    return Step(test["name"], [*test["command"], "-x"], ["ledgerd", "ledgerctl"])
