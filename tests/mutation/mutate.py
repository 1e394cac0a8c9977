"""Builds and tests each mutant of the folder mutants in a copy of the tree; scripts/mutate starts it.

The tests that the table names run first, and the rest of the fast tier only if they pass.
"""
import argparse
import collections
import fcntl
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

import children
import table

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "mutants"
TREE = WORK / "tree"
BUILD = TREE / "build" / "dev"

FAST_TIER = ["-LE", "slow"]
BUILD_LIMIT = 1200
UNIT_TESTS_LIMIT = 30
SERVICE_TESTS_LIMIT = 240
FAST_TIER_LIMIT = 900


# A service test stops at its first failure.
os.environ["PYTEST_ADDOPTS"] = "-x"


class Failure(Exception):
    """No statement about mutants can be made."""


def copy_tree():
    """Makes TREE the same as the user's tree without touching what is the same, so that little is built again."""
    listing = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT,
                             check=True, stdout=subprocess.PIPE).stdout.decode()
    wanted = {name for name in listing.split("\0") if name and (ROOT / name).is_file()}
    for folder, folders, files in os.walk(TREE):
        if pathlib.Path(folder) == TREE and "build" in folders:
            folders.remove("build")
        for file in files:
            path = pathlib.Path(folder) / file
            if str(path.relative_to(TREE)) not in wanted:
                path.unlink()
    for name in sorted(wanted):
        source, target = ROOT / name, TREE / name
        content = source.read_bytes()
        if not target.is_file() or target.read_bytes() != content:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(content)
        target.chmod(source.stat().st_mode)


def step(command, log, limit):
    status, seconds = children.run(command, log, limit, TREE)
    return status == 0, seconds


def build(targets, log):
    return step(["ninja", "-C", str(BUILD), *targets], log, BUILD_LIMIT)[0]


def named_tests(expression):
    """How many tests the expression names, what has to be built for them, as ninja's targets, and their time limit."""
    listing = subprocess.run(["ctest", "--test-dir", str(BUILD), "--show-only=json-v1", "-R", expression, *FAST_TIER],
                             check=True, stdout=subprocess.PIPE).stdout
    tests = json.loads(listing)["tests"]
    words = {word.rpartition("=")[2] for test in tests for word in test.get("command", [])}
    files = [pathlib.Path(word) for word in words if word.startswith(f"{BUILD}/")]
    targets = [str(file.relative_to(BUILD)) for file in files if file.is_file() and os.access(file, os.X_OK)]
    with_service = any(test["name"].startswith("service.") for test in tests)
    return len(tests), sorted(targets), SERVICE_TESTS_LIMIT if with_service else UNIT_TESTS_LIMIT


def killer(log, start):
    """The first failed test of ctest's summary behind the offset, and how it failed."""
    text = log.read_bytes()[start:].decode(errors="replace")
    found = re.search(r"The following tests FAILED:\n\s*\d+ - (\S+).* \(([^()]*)\)(?:\n|\Z)", text)
    if found is None:
        raise Failure(f"ctest failed without a failed test; {log} has its output")
    return found[1] if found[2] == "Failed" else f"{found[1]} ({found[2].lower()})"


def test(expression, log, limit):
    """The name of the test that failed, None if all passed."""
    start = log.stat().st_size
    selection = FAST_TIER if expression is None else ["-R", expression, *FAST_TIER]
    jobs = (os.cpu_count() or 1) + 2
    command = ["ctest", "--test-dir", str(BUILD), "--output-on-failure", "--stop-on-failure", "-j", str(jobs),
               *selection]
    status, seconds = children.run(command, log, limit, TREE)
    if status is None:
        return f"the time-out after {seconds:.0f} s"
    return None if status == 0 else killer(log, start)


def prepare(mutants):
    """Builds the tree unchanged and shows that the tests pass: only then does a failure speak of the mutant."""
    log = WORK / "unchanged.log"
    log.write_bytes(b"")
    copy_tree()
    # All warnings stay errors, as in the inner loop.
    if not step(["cmake", "--preset", "dev"], log, BUILD_LIMIT)[0] or not build([], log):
        raise Failure(f"the unchanged tree does not build; {log} says why")
    for mutant in mutants:
        if named_tests(mutant.kill)[0] == 0:
            raise table.TableError(f"{mutant.name}: no test matches {mutant.kill}")
    expression = "|".join(sorted({mutant.kill for mutant in mutants}))
    failed = test(expression, log, FAST_TIER_LIMIT)
    if failed is not None:
        raise Failure(f"the unchanged tree fails {failed}; {log} says why")


def try_mutant(mutant, named_only):
    """What killed the mutant, None if it survived."""
    log = WORK / f"{mutant.name}.log"
    log.write_bytes(b"")
    _, targets, limit = named_tests(mutant.kill)
    path = TREE / mutant.file
    original = path.read_text()
    path.write_text(mutant.apply(original))
    try:
        if not build(targets, log):
            raise table.TableError(f"does not build; {log} says why")
        killed_by = test(mutant.kill, log, limit)
        if killed_by is not None or named_only:
            return killed_by
        if not build([], log):
            raise table.TableError(f"does not build; {log} says why")
        killed_by = test(None, log, FAST_TIER_LIMIT)
        return None if killed_by is None else f"{killed_by}, which the table does not name"
    finally:
        path.write_text(original)


def verdict(mutant, named_only):
    """A word for the count, and the rest of the mutant's line."""
    try:
        killed_by = try_mutant(mutant, named_only)
    except table.TableError as e:
        return "in error", f"ERROR: {e}"
    if killed_by is None:
        return ("explained" if mutant.survives else "survived"), f"SURVIVED {mutant.survives}"
    if mutant.survives:
        return "in error", f"ERROR: killed by {killed_by}, but the table says that it survives"
    return "killed", f"killed by {killed_by}"


def run_all(mutants, named_only):
    count = collections.Counter()
    for mutant in mutants:
        start = time.monotonic()
        word, result = verdict(mutant, named_only)
        count[word] += 1
        print(f"{mutant.name:62} {time.monotonic() - start:4.0f} s  {result}", flush=True)
    errors = f", {count['in error']} in error" if count["in error"] else ""
    print(f"{count['killed']} killed, {count['survived'] + count['explained']} survived{errors}")
    return count["survived"] + count["in error"] == 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("names", nargs="*")
    parser.add_argument("--named", action="store_true", help="run only the tests that the table names")
    parser.add_argument("--check", action="store_true", help="only see whether the table fits the code")
    arguments = parser.parse_args()
    names = arguments.names
    try:
        known = table.read(pathlib.Path(__file__).with_name("mutants"), ROOT)
        if unknown := [name for name in names if name not in known]:
            raise table.TableError(f"no mutant has the name {', '.join(unknown)}")
        if arguments.check:
            return 0
        mutants = [known[name] for name in names] or list(known.values())
        WORK.mkdir(parents=True, exist_ok=True)
        with open(WORK / "lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            children.adopt_orphans()
            # As an interrupt does: nothing stays behind.
            signal.signal(signal.SIGTERM, lambda *_: sys.exit(2))
            prepare(mutants)
            return 0 if run_all(mutants, arguments.named) else 1
    except BlockingIOError:
        print("another run is at work in build/mutants", file=sys.stderr)
    except (table.TableError, Failure) as e:
        print(e, file=sys.stderr)
    return 2


sys.exit(main())
