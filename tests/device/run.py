"""Boots the emulated board once for each scenario and compares the output of the scenario with the expected output."""

import argparse
import concurrent.futures
import difflib
import pathlib
import sys
import tempfile
import time

import board
import image

SCENARIOS = {path.stem: path for path in sorted(image.HERE.glob("scenarios/*.sh"))}
# Boards that panic, hang or send no result. Each must be reported as a failure.
FAILURES = {path.stem: path for path in sorted(image.HERE.glob("failures/*.sh"))}
# Emulation on a busy machine is slow. A scenario should need less than a tenth of this.
TIMEOUT = 300
FAILURE_TIMEOUT = 30
BOARDS_AT_ONCE = 2


def expected_output(name):
    path = (SCENARIOS | FAILURES)[name].with_suffix(".expected")
    return path.read_text() if path.exists() else None


def run_scenario(archive, name):
    """Returns a description of the failure, empty after a success, and what to print after a success."""
    expected = expected_output(name)
    with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as directory:
        try:
            result = board.boot(archive, directory, FAILURE_TIMEOUT if name in FAILURES else TIMEOUT, name)
        except board.BoardFailure as failure:
            if name not in FAILURES:
                return str(failure), ""
            missing = [line for line in expected.splitlines() if line not in str(failure)]
            return f"{missing} is not in this failure:\n{failure}" if missing else "", ""
    if name in FAILURES:
        return f"reported as a success: {result}", ""
    if expected not in (None, result.output):
        return "\n".join(difflib.unified_diff(expected.splitlines(), result.output.splitlines(), "expected", "printed",
                                              lineterm="")), ""
    if result.status != 0:
        return f"ended with status {result.status}:\n{result.output}", ""
    return "", result.output if expected is None else ""


def timed_run(archive, name):
    start = time.monotonic()
    return (*run_scenario(archive, name), time.monotonic() - start)


def main():
    known = [*SCENARIOS, *FAILURES]
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="directory of the armhf build")
    parser.add_argument("scenario", nargs="*", choices=[[], *known], help="default: all with an expected output")
    arguments = parser.parse_args()
    names = arguments.scenario or [name for name in known if expected_output(name) is not None]
    # clock_jumps waits for a minute. It starts first and runs in parallel with all others.
    names.sort(key=lambda name: name != "clock_jumps")

    failed = 0
    start = time.monotonic()
    with tempfile.NamedTemporaryFile(prefix="ledgerd-board-") as archive:
        image.build(arguments.build, archive.name)
        with concurrent.futures.ThreadPoolExecutor(BOARDS_AT_ONCE) as pool:
            runs = {pool.submit(timed_run, archive.name, name): name for name in names}
            for done in concurrent.futures.as_completed(runs):
                complaint, output, seconds = done.result()
                failed += bool(complaint)
                print(f"board {runs[done]:18} {'FAILED' if complaint else 'ok':6} {seconds:6.1f} s", flush=True)
                print(complaint + "\n" if complaint else output, end="", flush=True)
    print(f"{len(names) - failed} passed, {failed} failed, in {time.monotonic() - start:.0f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
