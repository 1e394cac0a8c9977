"""Times the registry's operations in one process, without a bus."""

import json
import os
import subprocess

# The floor of each, measured in the same run on a registry or text of the same size.
FLOORS = {"Serialise": "Append", "Parse": "Append", "Write": "Append", "ReadAllJson": "Append", "WriteJson": "Append",
          "Read": "Find", "KeyList": "Find", "Escape": "Copy", "Unescape": "Copy"}


def floor_of(name):
    """The name of the benchmark that `name` is compared with, or None."""
    operation, arguments = name.split("/", 1)
    return f"{FLOORS[operation]}/{arguments}" if operation in FLOORS else None


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
    return figures
