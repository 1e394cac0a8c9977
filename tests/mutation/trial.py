"""Tries the mutants of one source: runs the nearest tests with each until one fails."""
import re
import sys

import nearest_tests
import schemata
from view import ROOT, run

UNCHANGED_LIMIT = 600
# What the time of the unchanged program allows a mutant of processor time. It may as well hang.
SECONDS_MORE = 5
TIMES_MORE = 2
MOST_MUTANTS = 4096
REACHED = ROOT / "build" / "reached"
# A mutant may leave a parameter unused. There are no warnings in the system's headers.
HEAD = b"""\
#pragma GCC system_header
#include "tests/mutation/chosen_mutant.h"
#line 1 "%b"
"""

FAILED = re.compile(rb"^(?:\[  FAILED  \]|FAILED) (\S+)", re.MULTILINE)
SURVIVED = "survived"
INVALID = "did not compile"


class Failure(Exception):
    """The tests fail on the unchanged source, so they prove nothing about a mutant."""


class BuildError(Exception):
    """The source does not compile. The argument is what the compiler printed."""


class Trial:
    """Works in a view of the tree that nobody else uses. All mutants that can be chosen at run time have one build."""

    def __init__(self, directory, path, layout, mutants):
        self.directory = directory
        self.path = path
        self.mutants = mutants
        self.schemata = schemata.Schemata(ROOT / path, (ROOT / path).read_bytes(), layout, mutants)
        self.source = b""  # that has the mutants that can be chosen at run time
        self.units = list(nearest_tests.unit_steps(directory, path))
        self.text = b""
        self.built = set()

    def verdicts(self, services):
        """What noticed each mutant. `services`: for each the names of its service tests, by default the nearest."""
        self._build_all()
        # The others change the source.
        order = sorted(enumerate(services, 1), key=lambda each: each[0] not in self.schemata.lines)
        found = {number: self._verdict(number, names) for number, names in order}
        return [found[number] for number in sorted(found)]

    def _build(self, text, step):
        if text != self.text:
            (ROOT / self.path).write_text(f'#include "{self.path}.changed"\n')
            (ROOT / f"{self.path}.changed").write_bytes(HEAD % str(ROOT / self.path).encode() + text)
            self.text = text
            self.built = set()
        if not self.built.issuperset(step.targets):
            status, _, output = run(["ninja", "-C", self.directory, *step.targets], UNCHANGED_LIMIT)
            if status != 0:
                raise BuildError(output)
            self.built.update(step.targets)

    def _build_all(self):
        self.source = self.schemata.write()
        try:
            for step in self.units:
                self._build(self.source, step)
        except BuildError as e:
            if not self.schemata.refuse(e.args[0]):
                raise Failure(f"{self.path} does not compile unchanged:\n{e.args[0].decode()}") from e
            self._build_all()

    def _verdict(self, number, services):
        try:
            for step in self.units:
                if killer := self._killer(step, number):
                    return killer
            for name in services or nearest_tests.service_tests(self.path):
                if killer := self._killer(nearest_tests.service_step(self.directory, name), number):
                    return killer
            return SURVIVED
        except BuildError:
            return INVALID

    def _killer(self, step, number):
        """What of the step noticed the mutant, None if all passed."""
        if step.seconds is None:
            self._record(step)
        if number in self.schemata.lines:
            self._build(self.source, step)
        else:
            self._build(self.mutants[number - 1].apply(self.schemata.text), step)
        for command, seconds in step.commands(number if number in self.schemata.recorded else None):
            limit = SECONDS_MORE + TIMES_MORE * int(seconds)
            # In a build of another mutant, no number is chosen.
            status, _, output = run(command, limit, LEDGERD_MUTANT=str(number))
            if status is None:
                return f"{step.name}, which did not end"
            if status != 0:
                failed = re.search(FAILED, output)
                return f"{step.name} {failed[1].decode().rpartition('/')[2] if failed else f'({status})'}"
        return None

    def _record(self, step):
        """Runs the step without a mutant."""
        self._build(self.source, step)
        tests = REACHED.with_suffix(".tests")
        # Some tests limit what a program may open. Without a record, each mutant counts as reached.
        for environment in ({"LEDGERD_REACHED": str(REACHED)}, {}):
            REACHED.write_bytes((b"\0" if environment else b"\1") * MOST_MUTANTS)
            tests.write_bytes(b"")
            # Some tests start the daemon as another user.
            REACHED.chmod(0o666)
            status, seconds, output = run(step.command, UNCHANGED_LIMIT, **environment)
            step.record(seconds, REACHED.read_bytes(), tests.read_text())
            # A unit test that fails proves nothing about a mutant. The others do.
            failed = {name.decode() for name in re.findall(FAILED, output)} & step.tests.keys()
            for name in failed:
                print(f"{name} fails without a mutant, and is not used", file=sys.stderr)
                del step.tests[name]
            if status == 0 or status == 1 and failed and step.tests:
                return
        raise Failure(f"{step.name} fails on the unchanged {self.path}:\n{output.decode(errors='replace')}")
