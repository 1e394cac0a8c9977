"""Boots the emulated board once for each scenario and compares the output of the scenario with the expected output."""

import argparse
import concurrent.futures
import difflib
import pathlib
import shutil
import sys
import tempfile
import time

import board
import image

SCENARIOS = image.HERE / "scenarios"
# Boards that panic, hang or send no result. Each must be reported as a failure.
FAILURES = image.HERE / "failures"
# Emulation on a busy machine is slow. A scenario should need less than a tenth of this.
TIMEOUT = 300
FAILURE_TIMEOUT = 30
BOARDS_AT_ONCE = 2


def archive_for(base, scenario, directory):
    """Appends the scenario to the base archive. The kernel unpacks both, so that only the scenario is packed anew."""
    tree = directory / "tree"
    own = image.Image(tree)
    own.add_file(scenario, "scenario/run.sh")
    own.write(directory / "scenario.cpio")
    target = directory / "archive"
    with open(target, "wb") as output:
        for part in (base, directory / "scenario.cpio"):
            with open(part, "rb") as content:
                shutil.copyfileobj(content, output)
            output.write(b"\0" * (-output.tell() % 4))
    shutil.rmtree(tree)
    return target


def boot(base, scenario, timeout):
    with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as directory:
        directory = pathlib.Path(directory)
        return board.boot(archive_for(base, scenario, directory), directory, timeout)


def run_scenario(base, scenario):
    """Returns a description of the failure, empty after a success, and the output of the scenario."""
    try:
        result = boot(base, scenario, TIMEOUT)
    except board.BoardFailure as failure:
        return str(failure), ""
    expected = scenario.with_suffix(".expected")
    if expected.exists() and expected.read_text() != result.output:
        return "\n".join(difflib.unified_diff(expected.read_text().splitlines(), result.output.splitlines(),
                                              "expected", "printed", lineterm="")), result.output
    if result.status != 0:
        return f"ended with status {result.status}:\n{result.output}", result.output
    return "", result.output


def run_failure(base, scenario):
    """Like run_scenario, for a board that must fail. The failure must contain each expected line."""
    try:
        result = boot(base, scenario, FAILURE_TIMEOUT)
    except board.BoardFailure as failure:
        missing = [line for line in scenario.with_suffix(".expected").read_text().splitlines()
                   if line not in str(failure)]
        return f"{missing} is not in this failure:\n{failure}" if missing else "", ""
    return f"reported as a success: {result}", result.output


def timed(function, *arguments):
    start = time.monotonic()
    return (*function(*arguments), time.monotonic() - start)


def main():
    known = {path.stem: path for path in sorted([*SCENARIOS.glob("*.sh"), *FAILURES.glob("*.sh")])}
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="directory of the armhf build")
    parser.add_argument("scenario", nargs="*", choices=[[], *known],
                        help="default: all with an expected output")
    arguments = parser.parse_args()
    names = arguments.scenario or [name for name, path in known.items() if path.with_suffix(".expected").exists()]
    # clock_jumps waits for a minute. It starts first and runs in parallel with all others.
    names.sort(key=lambda name: name != "clock_jumps")

    failed = 0
    start = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as directory:
        directory = pathlib.Path(directory)
        base_image = image.Image(directory / "tree")
        base_image.add_system()
        base_image.add_product(arguments.build)
        base = directory / "base.cpio"
        base_image.write(base)
        with concurrent.futures.ThreadPoolExecutor(BOARDS_AT_ONCE) as pool:
            runs = {pool.submit(timed, run_failure if known[name].parent == FAILURES else run_scenario, base,
                                known[name]): name for name in names}
            for done in concurrent.futures.as_completed(runs):
                name = runs[done]
                complaint, output, seconds = done.result()
                failed += bool(complaint)
                print(f"board {name:18} {'FAILED' if complaint else 'ok':6} {seconds:6.1f} s", flush=True)
                if complaint:
                    print(complaint, flush=True)
                elif not known[name].with_suffix(".expected").exists():
                    print(output, end="", flush=True)
    print(f"{len(names) - failed} passed, {failed} failed, in {time.monotonic() - start:.0f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
