#!/usr/bin/python3
"""Many clients load the unmodified daemon with calls whose replies are predicted. The program measures the daemon's
memory, descriptors and threads.

    load.py --ledgerd PROGRAM --client PROGRAM [--clients 16] [--seed N] CALLS
"""

import argparse
import pathlib
import re
import subprocess
import sys

from world import observe
from world.harness import World

CLIENTS = 16
SEED = 20240229

# The part of the calls in which buffers and the heap grow to their size.
WARM_UP = 0.1


def private_memory(pid):
    """The bytes that only this process has written."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty")) * 1024


class Load:
    """One run and its results."""

    def __init__(self, world, daemon, client, calls, clients=CLIENTS, seed=SEED, warm_up=WARM_UP):
        self.samples = []
        process = subprocess.Popen(
            [str(client), world.bus.address, str(world.registry), str(calls), str(clients), str(seed)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        last = ""
        for line in process.stdout:
            last = line
            if line.startswith("checkpoint"):
                # All clients wait, and the registry is empty.
                pid = daemon.pid
                self.samples.append((int(line.split()[1]), private_memory(pid), len(observe.descriptors(pid)),
                                     len(observe.thread_names(pid))))
                process.stdin.write("\n")
                process.stdin.flush()
        process.stdin.close()
        assert process.wait() == 0, "a client has received a wrong reply"
        result = re.fullmatch(r"calls (\d+) errors (\d+) seconds (\S+)\n", last)
        self.calls, self.errors, self.seconds = int(result[1]), int(result[2]), float(result[3])

        warm = [sample for sample in self.samples if sample[0] >= warm_up * self.calls]
        self.memory_after_warm_up = warm[0][1]
        self.memory_growth = warm[-1][1] - warm[0][1]
        self.highest_growth = max(sample[1] for sample in warm) - warm[0][1]
        self.descriptor_counts = sorted({sample[2] for sample in self.samples})
        self.thread_counts = sorted({sample[3] for sample in self.samples})

    def report(self):
        return (f"calls            {self.calls}, {self.errors} of them with the error that was expected\n"
                f"calls per second {self.calls / self.seconds:.0f} ({self.seconds:.1f} s)\n"
                f"private memory   {self.memory_after_warm_up // 1024} KiB after warm-up, "
                f"{self.memory_growth // 1024:+} KiB at the end, {self.highest_growth // 1024:+} KiB at most\n"
                f"descriptors      {self.descriptor_counts}\n"
                f"threads          {self.thread_counts}\n")


def main():
    parser = argparse.ArgumentParser(description="Loads the daemon and prints its memory, descriptors and threads.")
    parser.add_argument("--ledgerd", type=pathlib.Path, required=True)
    parser.add_argument("--client", type=pathlib.Path, required=True)
    parser.add_argument("--clients", type=int, default=CLIENTS)
    parser.add_argument("--seed", type=int, default=SEED)
    parser.add_argument("calls", type=int)
    arguments = parser.parse_args()
    world = World(arguments.ledgerd)
    try:
        daemon = world.start()
        load = Load(world, daemon, arguments.client, arguments.calls, arguments.clients, arguments.seed)
        daemon.stop()
        printed, logged = daemon.take_stderr(), world.kernel_log.read()
        print(load.report(), end="")
        if printed or logged:
            sys.exit(f"The daemon has printed: {printed}{logged}")
    finally:
        world.close()


if __name__ == "__main__":
    main()
