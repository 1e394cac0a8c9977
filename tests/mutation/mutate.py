"""Breaks the code in small ways and shows which test notices each; scripts/mutate says how it is called."""
import argparse
import collections
import fcntl
import functools
import multiprocessing
import os
import pathlib
import random
import resource
import shutil
import signal
import subprocess
import sys

import children
import generator
import lists
import programs
import trial

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "mutants"
HERE = pathlib.Path(__file__).parent
SOURCES = ("lib/*.cpp", "registry/*.cpp", "dbus/*.cpp", "daemon/*.cpp", "client/*.cpp")
MEMORY_LIMIT = 4 << 30
JOBS = min(2, os.cpu_count() or 1)

SURVIVED = "survived"
EXPLAINED = "survived with a reason"
INVALID = "did not compile"


def git(*arguments):
    return subprocess.run(["git", *arguments], cwd=ROOT, check=True, text=True, stdout=subprocess.PIPE).stdout.split()


def key_of(mutant):
    return mutant.file, mutant.function, *mutant.change((ROOT / mutant.file).read_bytes())


def place(mutant):
    return f"{mutant.file}:{mutant.line}:{mutant.column}: {mutant.kind}"


def start_worker():
    # An idle worker must end at once, and no test may start with ignored signals.
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
        signal.signal(number, signal.SIG_DFL)
    # A loop that does not end takes all memory that it can get.
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, resource.RLIM_INFINITY))
    children.adopt_orphans()


@functools.lru_cache
def build_in(directory):
    return programs.Build(directory)


@functools.lru_cache
def trial_in(directory):
    return trial.Trial(build_in(directory), ROOT, WORK / str(os.getpid()))


def generate(directory, path):
    return generator.generate(ROOT, path, build_in(directory).options(ROOT / path))


def try_change(directory, path, changed, services):
    """A worker's task: what noticed the changed text."""
    try:
        return trial_in(directory).killer(path, (ROOT / path).read_bytes(), changed, services) or SURVIVED
    except programs.BuildError:
        return INVALID


class Run:
    """What a command works with."""

    def __init__(self, pool, directory):
        self.pool = pool
        self.directory = directory
        self.by_hand = lists.read(HERE / "by_hand")
        self.reasons = lists.read(HERE / "survivors")
        self.explained = {entry.key for entry in self.reasons}

    def generate(self, paths):
        return dict(zip(paths, self.pool.map(functools.partial(generate, self.directory), paths, chunksize=1)))

    def verdicts(self, changes):
        """What noticed each (path, changed text, service tests), in their order."""
        tries = [self.pool.apply_async(try_change, (self.directory, *change)) for change in changes]
        return (each.get() for each in tries)

    def check_reasons(self, known):
        """Whether each reason about one of the files is about a mutant of it."""
        keys = {key_of(mutant) for mutants in known.values() for mutant in mutants}
        stale = [entry for entry in self.reasons if entry.file in known and entry.key not in keys]
        for entry in stale:
            print(f"a reason for a mutant that does not exist:\n{lists.show(*entry.key)}")
        return not stale

    def check_all(self):
        """Whether the lists fit the code, without any test."""
        for entry in self.by_hand:
            entry.apply((ROOT / entry.file).read_text())
        return self.check_reasons(self.generate(sorted({entry.file for entry in self.reasons})))

    def sample(self, count, seed):
        """The seed chooses files by their sizes, and mutants in each that no reason is about."""
        chooser = random.Random(seed)
        files = git("ls-files", *SOURCES)
        sizes = [(ROOT / file).stat().st_size for file in files]
        numbers = collections.Counter(chooser.choices(files, sizes, k=count))
        mutants = []
        for path, known in self.generate(sorted(numbers)).items():
            known = [mutant for mutant in known if key_of(mutant) not in self.explained]
            mutants += chooser.sample(known, min(numbers[path], len(known)))
        return mutants

    def try_generated(self, mutants, verbose):
        """Whether each survivor has a reason, and no reason is about a mutant that a test notices."""
        changes = [(mutant.file, mutant.apply((ROOT / mutant.file).read_bytes()), None) for mutant in mutants]
        count = collections.Counter()
        survivors = set()
        for mutant, verdict in zip(mutants, self.verdicts(changes)):
            key = key_of(mutant)
            if verdict == SURVIVED:
                survivors.add(key)
                verdict = EXPLAINED if key in self.explained else SURVIVED
            count[verdict if verdict in (SURVIVED, EXPLAINED, INVALID) else "killed"] += 1
            if verbose or verdict == SURVIVED:
                print(f"{place(mutant)}: {verdict}", flush=True)
            if verdict == SURVIVED:
                print(lists.show(*key), flush=True)
        stale = self.explained & {key_of(mutant) for mutant in mutants} - survivors
        for key in sorted(stale):
            print(f"a reason for a mutant that does not survive:\n{lists.show(*key)}")
        print(", ".join(f"{number} {verdict}" for verdict, number in sorted(count.items())), flush=True)
        return not stale and not count[SURVIVED]

    def try_files(self, paths):
        known = self.generate(paths)
        passed = self.check_reasons(known)
        for path, mutants in known.items():
            print(f"{path}: {len(mutants)} mutants", flush=True)
            passed = self.try_generated(mutants, False) and passed
        return passed

    def try_by_hand(self, names):
        if unknown := set(names) - {entry.name for entry in self.by_hand}:
            raise lists.ListError(f"no mutant has the name {' '.join(sorted(unknown))}")
        entries = [entry for entry in self.by_hand if not names or entry.name in names]
        changes = [(entry.file, entry.apply((ROOT / entry.file).read_text()).encode(), tuple(entry.text.split()))
                   for entry in entries]
        passed = True
        for entry, verdict in zip(entries, self.verdicts(changes)):
            print(f"{entry.file}: {entry.name}: {verdict}", flush=True)
            passed = passed and verdict not in (SURVIVED, INVALID)
        return passed


def run_command(arguments):
    with multiprocessing.Pool(JOBS, start_worker) as pool:
        run = Run(pool, ROOT / arguments.build)
        if arguments.check:
            return run.check_all()
        if arguments.named:
            return run.try_by_hand(arguments.names)
        if arguments.sample:
            seed = arguments.seed or git("rev-parse", "HEAD")[0]
            print(f"scripts/mutate --sample {arguments.sample} --seed {seed}", flush=True)
            return run.try_generated(run.sample(arguments.sample, seed), True)
        return run.try_files(arguments.names or git("ls-files", *SOURCES))


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("names", nargs="*", metavar="FILE", help="a source; with --named, a mutant")
    parser.add_argument("--sample", type=int, metavar="COUNT", help="try so many mutants of all sources")
    parser.add_argument("--seed", help="what chooses the sample, by default the commit")
    parser.add_argument("--named", action="store_true", help="try the mutants that are written by hand")
    parser.add_argument("--check", action="store_true", help="only see whether the lists fit the code")
    parser.add_argument("--build", default="build/dev", help="the directory of the build to use")
    arguments = parser.parse_args()
    WORK.mkdir(parents=True, exist_ok=True)
    try:
        with open(WORK / "lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            for directory in WORK.glob("*/"):
                shutil.rmtree(directory)
            signal.signal(signal.SIGTERM, lambda *_: sys.exit(2))
            return 0 if run_command(arguments) else 1
    except BlockingIOError:
        print("another run uses build/mutants", file=sys.stderr)
    except (lists.ListError, trial.Failure, generator.GeneratorError, subprocess.CalledProcessError) as e:
        print(e, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
