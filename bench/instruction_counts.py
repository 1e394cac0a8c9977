#!/usr/bin/python3
"""Counts the instructions of the hot operations with callgrind and compares them with the recorded counts.

    bench/instruction_counts.py PROGRAM           fails if an operation needs over 10 % more than recorded
    bench/instruction_counts.py PROGRAM --record  writes the counts to bench/instruction-counts
    bench/instruction_counts.py PROGRAM --print   prints the counts of the operations and of our functions in them

PROGRAM is ledgerd_count_instructions of a release build.
"""

import argparse
import os
import pathlib
import platform
import subprocess
import sys
import tempfile

import callgrind_profile

BASELINE = pathlib.Path(__file__).resolve().parent / "instruction-counts"
ALLOWED_RISE_PERCENT = 10

# Functions with a smaller share of their operation are not recorded.
SHOWN_SHARE = 0.02

# Makes the C library use the same code on every processor, so that the counts are the same on every machine.
PLAIN_LIBRARY = ("glibc.cpu.hwcaps=-AVX512F,-AVX512VL,-AVX512BW,-AVX2,-AVX,-AVX_Fast_Unaligned_Load,-BMI1,-BMI2,-LZCNT,"
                 "-MOVBE,-RTM,-SSSE3,-SSE4_1,-SSE4_2,-ERMS,-FSRM")


def count(program, *arguments):
    """Returns the instructions of one call: {operation: (total, {function: inclusive})}."""
    program = str(pathlib.Path(program).resolve())
    with tempfile.TemporaryDirectory(prefix="ledgerd-bench-") as directory:
        output = pathlib.Path(directory) / "callgrind.out"
        result = subprocess.run(
            ["setarch", "-R", "valgrind", "-q", "--tool=callgrind", "--collect-atstart=no", "--combine-dumps=yes",
             "--compress-strings=no", "--compress-pos=no", f"--callgrind-out-file={output}", program, *arguments],
            env={"PATH": os.environ["PATH"], "GLIBC_TUNABLES": PLAIN_LIBRARY}, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False, timeout=120)
        if result.returncode != 0:
            sys.exit(f"valgrind failed:\n{result.stderr}")
        profiles = callgrind_profile.parse(output.read_text(), program)
    counts = {}
    for line in result.stdout.splitlines():
        operation, calls, *root = line.split()
        profile, calls = profiles[operation], int(calls)
        total = profile.functions[root[0]] if root else profile.total
        if total == 0:
            sys.exit(f"{operation}: nothing was counted{f' in {root[0]}' if root else ''}")
        functions = profile.functions_within(root[0]) if root else profile.functions
        shown = {name: round(cost / calls) for name, cost in functions.items() if cost >= SHOWN_SHARE * total}
        counts[operation] = (round(total / calls), shown)
    return counts


def compiler():
    return subprocess.run(["c++", "--version"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()[0]


def table(counts):
    """Returns the record: a line for each operation, then an indented line for each of its functions, the largest
    first."""
    lines = ["# Instructions of one call, and of our functions in it, including all functions that they call.",
             f"# Written by scripts/instruction-counts --record, with {compiler()}."]
    for operation, (total, functions) in counts.items():
        lines.append(f"{operation} {total}")
        lines += [f"  {name} {cost}" for name, cost in sorted(functions.items(), key=lambda item: (-item[1], item[0]))]
    return "\n".join(lines) + "\n"


def read_table(text):
    counts = {}
    functions = {}
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        name, cost = line.split()
        if line.startswith(" "):
            functions[name] = int(cost)
        else:
            functions = {}
            counts[name] = (int(cost), functions)
    return counts


def risen_functions(before, now):
    """Returns a line for each function that needs more than before, the largest rise first. New ones count in full."""
    rises = sorted(((cost - before.get(name, 0), name) for name, cost in now.items()), reverse=True)
    return [f"    {name} {before.get(name, 0)} -> {now[name]}\n" for rise, name in rises if rise > 0]


def compare(recorded, counts):
    """Prints one line for each operation. Returns whether no operation has risen too far."""
    good = True
    if list(recorded) != list(counts):
        print(f"FAILED: counted {' '.join(counts)}, recorded {' '.join(recorded)}")
        return False
    for operation, (total, functions) in counts.items():
        before, functions_before = recorded[operation]
        failed = (total - before) * 100 > before * ALLOWED_RISE_PERCENT
        print(f"{'FAILED' if failed else 'ok':6} {operation:18} {before:9} -> {total:9}  {total / before - 1:+.1%}")
        if failed:
            good = False
            print("".join(risen_functions(functions_before, functions)), end="")
    return good


def main():
    parser = argparse.ArgumentParser(description="Counts the instructions of the hot operations.")
    parser.add_argument("program", type=pathlib.Path)
    parser.add_argument("--record", action="store_true")
    parser.add_argument("--print", action="store_true")
    arguments = parser.parse_args()
    if platform.machine() != "x86_64":
        sys.exit("the counts are recorded for x86-64 only")
    counts = count(arguments.program)
    if arguments.print:
        print(table(counts), end="")
        return 0
    if arguments.record:
        BASELINE.write_text(table(counts))
        return 0
    if compare(read_table(BASELINE.read_text()), counts):
        return 0
    print(f"Avoid a rise of over {ALLOWED_RISE_PERCENT} %, or record it and give the reason in the commit message:\n"
          "scripts/instruction-counts --record")
    return 1


if __name__ == "__main__":
    sys.exit(main())
