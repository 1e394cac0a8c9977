"""Breaks the code in small ways and shows which test notices each; scripts/mutate says how it is called."""
import argparse
import collections
import functools
import multiprocessing.pool
import os
import pathlib
import random
import subprocess
import sys

import generator
import lists
import trial
import view
from trial import INVALID, SURVIVED
from view import ROOT

HERE = pathlib.Path(__file__).parent
SOURCES = ("lib/*.cpp", "registry/*.cpp", "dbus/*.cpp", "daemon/*.cpp", "client/*.cpp")
TEST_MAIN = ROOT / "tests" / "unit" / "support" / "test_main.cpp"
JOBS = min(2, os.cpu_count() or 1)
# A sample takes mutants of one file in groups of this size, because the build of a file takes longer than their tests.
SAMPLE_OF_FILE = 5
EXPLAINED = "survived with a reason"
ERRORS = (lists.ListError, trial.Failure, generator.GeneratorError, OSError, subprocess.CalledProcessError)


def git(*arguments):
    return subprocess.run(["git", *arguments], cwd=ROOT, check=True, text=True, stdout=subprocess.PIPE).stdout.split()


def key_of(mutant):
    return mutant.file, mutant.function, *mutant.change((ROOT / mutant.file).read_bytes())


def build_test_main(directory):
    """Makes the test programs record which mutants each test reaches."""
    TEST_MAIN.write_text(f'#include "tests/mutation/reached_tests.h"\n{TEST_MAIN.read_text()}')
    subprocess.run(["ninja", "-C", directory, "--quiet", "tests/unit/support/libledgerd_test_support.a"], check=True)


def try_file(directory, path, choose):
    """[(mutant, what noticed it)] of the file."""
    mutants, layout = generator.generate(directory, path)
    mutants, services = choose(mutants)
    return list(zip(mutants, trial.Trial(directory, path, layout, mutants).verdicts(services)))


def choose_all(mutants):
    """The mutants to try, and for each the names of its service tests."""
    return mutants, [None] * len(mutants)


def choose_some(count, seed, explained, mutants):
    mutants = [mutant for mutant in mutants if key_of(mutant) not in explained]
    return choose_all(random.Random(seed).sample(mutants, min(count, len(mutants))))


def choose_by_hand(entries, _mutants):
    return [entry.mutant((ROOT / entry.file).read_bytes()) for entry in entries], \
        [entry.text.split() for entry in entries]


class Run:
    """What a command works with."""

    def __init__(self, directory):
        self.directory = directory
        self.by_hand = lists.read(HERE / "by_hand")
        self.reasons = lists.read(HERE / "survivors")
        self.explained = {entry.key for entry in self.reasons}

    def verdicts(self, choices):
        """[(mutant, what noticed it)] for each file. `choices`: file -> what chooses its mutants."""
        view.prepare()
        view.call("base", [], build_test_main, self.directory)
        with multiprocessing.pool.ThreadPool(JOBS) as pool:
            yield from pool.imap(
                lambda path: view.call(path.replace("/", "-"), ["base"], try_file, self.directory, path, choices[path]),
                choices)

    def check_reasons(self, path, mutants):
        """Whether each reason about the file is about a mutant of it."""
        keys = {key_of(mutant) for mutant in mutants}
        stale = [entry for entry in self.reasons if entry.file == path and entry.key not in keys]
        for entry in stale:
            print(f"a reason for a mutant that does not exist:\n{lists.show(*entry.key)}")
        return not stale

    def check_all(self):
        """Whether the lists fit the code, without any test."""
        for entry in self.by_hand:
            entry.mutant((ROOT / entry.file).read_bytes())
        return all([self.check_reasons(path, generator.generate(self.directory, path)[0])
                    for path in sorted({entry.file for entry in self.reasons})])

    def try_sample(self, count, seed):
        """Tries `count` mutants that have no reason. The seed chooses the files, large ones more often, and the mutants
        of each file."""
        chooser = random.Random(seed)
        files = git("ls-files", *SOURCES)
        sizes = [(ROOT / file).stat().st_size for file in files]
        numbers = collections.Counter()
        while left := count - numbers.total():
            numbers[chooser.choices(files, sizes)[0]] += min(SAMPLE_OF_FILE, left)
        choices = {path: functools.partial(choose_some, number, seed, self.explained)
                   for path, number in numbers.items()}
        return all([self.report(path, tried, True) for path, tried in zip(choices, self.verdicts(choices))])

    def try_files(self, paths):
        tried_files = self.verdicts(dict.fromkeys(paths, choose_all))
        return all([self.report(path, tried, False) & self.check_reasons(path, [mutant for mutant, _ in tried])
                    for path, tried in zip(paths, tried_files)])

    def report(self, path, tried, verbose):
        """Whether each survivor has a reason, and no reason is about a mutant that a test notices."""
        count = collections.Counter()
        survivors = set()
        for mutant, verdict in tried:
            key = key_of(mutant)
            if verdict == SURVIVED:
                survivors.add(key)
                verdict = EXPLAINED if key in self.explained else SURVIVED
            count[verdict if verdict in (SURVIVED, EXPLAINED, INVALID) else "killed"] += 1
            if verbose or verdict == SURVIVED:
                print(f"{path}:{mutant.line}:{mutant.column}: {mutant.kind}: {verdict}")
            if verdict == SURVIVED:
                print(lists.show(*key))
        stale = self.explained & {key_of(mutant) for mutant, _ in tried} - survivors
        for key in sorted(stale):
            print(f"a reason for a mutant that does not survive:\n{lists.show(*key)}")
        print(f"{path}: {', '.join(f'{number} {verdict}' for verdict, number in sorted(count.items()))}", flush=True)
        return not stale and not count[SURVIVED]

    def try_by_hand(self, names):
        if unknown := set(names) - {entry.name for entry in self.by_hand}:
            raise lists.ListError(f"no mutant has the name {' '.join(sorted(unknown))}")
        entries = collections.defaultdict(list)
        for entry in self.by_hand:
            if not names or entry.name in names:
                entries[entry.file].append(entry)
        passed = True
        for tried in self.verdicts({path: functools.partial(choose_by_hand, own) for path, own in entries.items()}):
            for mutant, verdict in tried:
                print(f"{mutant.file}: {mutant.function}: {verdict}", flush=True)
                passed = passed and verdict not in (SURVIVED, INVALID)
        return passed


def run_command(arguments):
    run = Run(ROOT / arguments.build)
    if arguments.check:
        return run.check_all()
    if arguments.named:
        return run.try_by_hand(arguments.names)
    if arguments.sample:
        seed = arguments.seed or git("rev-parse", "HEAD")[0]
        print(f"scripts/mutate --sample {arguments.sample} --seed {seed}", flush=True)
        return run.try_sample(arguments.sample, seed)
    return run.try_files(arguments.names or git("ls-files", *SOURCES))


def main():
    if sys.argv[1:] == ["--worker"]:
        return view.work(ERRORS)
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("names", nargs="*", metavar="FILE", help="a source; with --named, a mutant")
    parser.add_argument("--sample", type=int, metavar="COUNT", help="try COUNT mutants of all sources")
    parser.add_argument("--seed", help="what chooses the sample, by default the commit")
    parser.add_argument("--named", action="store_true", help="try the mutants that are written by hand")
    parser.add_argument("--check", action="store_true", help="only check that the lists fit the code")
    parser.add_argument("--build", default="build/dev", help="the directory of the build to use")
    try:
        return 0 if run_command(parser.parse_args()) else 1
    except ERRORS as e:
        print(e, file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
