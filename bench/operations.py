"""Times the registry's operations in one process, without a bus."""

import json
import os
import re
import subprocess

# The floor of each, measured in the same run on a registry or text of the same size.
FLOORS = {"Append": None, "Find": None, "Copy": None,
          "Serialise": "Append", "Parse": "Append", "Write": "Append", "ReadAllJson": "Append", "WriteJson": "Append",
          "Read": "Find", "KeyList": "Find", "Escape": "Copy", "Unescape": "Copy", "ReplaceFile": None}


def floor_of(name):
    """The name of the benchmark that `name` is compared with, or None."""
    operation, arguments = name.split("/", 1)
    floor = FLOORS[operation]
    return f"{floor}/{arguments}" if floor and not arguments.endswith("full:0") else None


def argument_numbers(name):
    return [int(number) for number in re.findall(r":(\d+)", name)]


def run(place, build, rounds, seconds):
    """Returns {"Operation/keys:K/full:PERCENT": [nanoseconds of processor time, a value for each round]}. Each round
    takes at least `seconds` for each operation; the rounds of all are mixed."""
    output = subprocess.run(
        [build / "bench/ledgerd_operations_benchmark", "--benchmark_format=json", f"--benchmark_repetitions={rounds}",
         f"--benchmark_min_time={seconds}", "--benchmark_enable_random_interleaving=true"],
        env=dict(os.environ, TMPDIR=str(place.state)), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    figures = {}
    for run_of_one in json.loads(output.stdout)["benchmarks"]:
        if run_of_one["run_type"] == "iteration":
            assert run_of_one["time_unit"] == "ns"
            figures.setdefault(run_of_one["run_name"], []).append(run_of_one["cpu_time"])
    # They come in the order of their first rounds, which is another in each run.
    order = {operation: number for number, operation in enumerate(FLOORS)}
    return dict(sorted(figures.items(), key=lambda item: (order[item[0].split("/")[0]], argument_numbers(item[0]))))
