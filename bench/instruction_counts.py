#!/usr/bin/python3
"""Counts the instructions of the hot operations with callgrind and compares them with the recorded counts.

    bench/instruction_counts.py PROGRAM           fails if an operation needs over 10 % more than recorded
    bench/instruction_counts.py PROGRAM --record  writes the counts to bench/instruction-counts
    bench/instruction_counts.py PROGRAM --print   prints the counts, and the functions of each operation

PROGRAM is ledgerd_count_instructions of a release build.
"""

import argparse
import os
import pathlib
import platform
import re
import subprocess
import sys
import tempfile

BASELINE = pathlib.Path(__file__).resolve().parent / "instruction-counts"
ALLOWED_RISE_PERCENT = 10
SHOWN_FUNCTIONS = 12
FOREIGN = r"std::|boost::|fuzz::|main|Count|non-virtual thunk|\("

# Makes the C library use the same code on every processor, so that the counts are the same on every machine.
PLAIN_LIBRARY = ("glibc.cpu.hwcaps=-AVX512F,-AVX512VL,-AVX512BW,-AVX2,-AVX,-AVX_Fast_Unaligned_Load,-BMI1,-BMI2,-LZCNT,"
                 "-MOVBE,-RTM,-SSSE3,-SSE4_1,-SSE4_2,-ERMS,-FSRM")


def run(*command, **options):
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, timeout=120,
                            **options)
    if result.returncode != 0:
        sys.exit(f"{command[0]} failed:\n{result.stderr}")
    return result.stdout


def count(program, directory, *arguments):
    """Returns {operation: (the instructions of one call, the output file of callgrind)}."""
    output = pathlib.Path(directory) / "out"
    printed = run("setarch", "-R", "valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={output}",
                  "--toggle-collect=RegistryServer::handle_message*", program, *arguments,
                  env={"PATH": os.environ["PATH"], "GLIBC_TUNABLES": PLAIN_LIBRARY})
    counts = {}
    for number, line in enumerate(printed.splitlines(), 1):
        operation, calls = line.split()
        part = output.with_suffix(f".{number}")
        match = re.search(rf"Client Request: {operation}\n(?:.*\n)*?totals: (\d+)\n", part.read_text())
        counts[operation] = (round(int(match[1]) / int(calls)), part)
    return counts


def functions(part, program):
    """Returns a line for each of the most expensive functions of the program, including all functions that they call.
    Those of libraries and of the benchmark are left out."""
    report = run("callgrind_annotate", "--inclusive=yes", part).replace("(anonymous namespace)::", "")
    costs = re.findall(rf"^ *([\d,]+) [^:]*:(?!{FOREIGN})(.*) \[{re.escape(program)}\]$", report, re.M)
    return [f"    {cost:>12} {name.partition('(')[0]}" for cost, name in costs[:SHOWN_FUNCTIONS]]


def read_record():
    return {name: int(number) for name, number in re.findall(r"^(\S+) (\d+)$", BASELINE.read_text(), re.M)}


def write_record(counts):
    compiler = run("c++", "--version").splitlines()[0]
    lines = ["# Instructions of one call.", f"# Written by scripts/instruction-counts --record, with {compiler}.",
             *(f"{operation} {total}" for operation, (total, _) in counts.items())]
    BASELINE.write_text("\n".join(lines) + "\n")


def compare(recorded, counts, program):
    """Prints one line for each operation, and the functions of one that fails. Returns whether none fails."""
    if list(recorded) != list(counts):
        print(f"FAILED: counted {' '.join(counts)}, recorded {' '.join(recorded)}")
        return False
    good = True
    for operation, (total, part) in counts.items():
        before = recorded[operation]
        failed = (total - before) * 100 > before * ALLOWED_RISE_PERCENT
        print(f"{'FAILED' if failed else 'ok':6} {operation:18} {before:9} -> {total:9}  {total / before - 1:+.1%}")
        if failed:
            good = False
            print("\n".join(functions(part, program)))
    return good


def main():
    parser = argparse.ArgumentParser(description="Counts the instructions of the hot operations.")
    parser.add_argument("program", type=os.path.realpath)
    parser.add_argument("--record", action="store_true")
    parser.add_argument("--print", action="store_true")
    arguments = parser.parse_args()
    if platform.machine() != "x86_64":
        sys.exit("the counts are recorded for x86-64 only")
    with tempfile.TemporaryDirectory(prefix="ledgerd-bench-") as directory:
        counts = count(arguments.program, directory)
        if arguments.record:
            write_record(counts)
        elif arguments.print:
            for operation, (total, part) in counts.items():
                print(operation, total, *functions(part, arguments.program), sep="\n")
        elif not compare(read_record(), counts, arguments.program):
            print(f"Avoid a rise of over {ALLOWED_RISE_PERCENT} %, or record it and give the reason in the commit "
                  "message:\nscripts/instruction-counts --record")
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
