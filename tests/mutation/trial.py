"""Tries one mutant after the other: compiles it, and runs the nearest tests until one fails."""
import os
import re

import children
import nearest_tests
import programs

UNCHANGED_LIMIT = 600
# What the time of the unchanged program allows a mutant, which may as well hang.
SECONDS_MORE = 5
TIMES_MORE = 5

# A service test stops at its first failure.
os.environ["PYTEST_ADDOPTS"] = "-x"


class Failure(Exception):
    """The tests fail on the unchanged source, so they prove nothing about a mutant."""


class Trial:
    """For one process, whose files are in the directory."""

    def __init__(self, build, root, directory):
        directory.mkdir(parents=True, exist_ok=True)
        self.root = root
        self.log = directory / "log"
        self.tests = nearest_tests.NearestTests(build.directory)
        self.overlay = programs.Overlay(build, root, directory, self._run)
        self.limits = {}
        self.seconds = 0.0

    def _run(self, command, limit, directory):
        self.log.write_bytes(b"")
        status, self.seconds = children.run(command, self.log, limit, directory)
        return status

    def _step(self, step, limit):
        """The exit status with the overlay's programs in place of the build's; None if the limit ended it."""
        made = {path: str(self.overlay.program(path)) for path in step.programs}
        words = []
        for word in step.command:
            option, equals, value = word.rpartition("=")
            words.append(option + equals + made.get(value, value))
        return self._run(words, limit, self.root)

    def _limit(self, path, text, step):
        if (path, step) not in self.limits:
            self.overlay.change(path, text)
            if self._step(step, UNCHANGED_LIMIT) != 0:
                raise Failure(f"{step.name} fails on the unchanged {path}; {self.log} says why")
            self.limits[path, step] = SECONDS_MORE + TIMES_MORE * int(self.seconds)
        return self.limits[path, step]

    def killer(self, path, text, changed, services=None):
        """What fails with the changed text, None if all passes. Throws BuildError if it does not compile."""
        for step in self.tests.steps(path, services):
            limit = self._limit(path, text, step)
            self.overlay.change(path, changed)
            status = self._step(step, limit)
            if status is None:
                return f"{step.name}, after {limit} s"
            if status != 0:
                failed = re.search(rb"^(?:\[  FAILED  \]|FAILED) (\S+)", self.log.read_bytes(), re.MULTILINE)
                return f"{step.name} {failed[1].decode().rpartition('/')[2] if failed else f'({status})'}"
        return None
