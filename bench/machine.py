"""Describes the machine that the figures depend on, and waits until it is idle."""

import datetime
import os
import pathlib
import re
import subprocess
import time

SOURCE = pathlib.Path(__file__).resolve().parent.parent

MAX_BUSY_PERCENT = 5
SAMPLE_SECONDS = 1.0
MAX_WAIT_SECONDS = 300.0


def processor_ticks(path="/proc/stat"):
    """Returns the ticks of all processors since the boot: (busy, all)."""
    first_line = pathlib.Path(path).read_text(encoding="ascii").split("\n", 1)[0]
    # Time that the host steals counts as busy, because it disturbs the figures. The time of guests is a part of the
    # user time.
    ticks = [int(field) for field in first_line.split()[1:9]]
    idle = ticks[3] + ticks[4]
    return sum(ticks) - idle, sum(ticks)


def busy_percent():
    """Returns how busy the processors are while this process sleeps, in percent."""
    busy_before, all_before = processor_ticks()
    time.sleep(SAMPLE_SECONDS)
    busy, total = processor_ticks()
    return 100 * (busy - busy_before) / max(total - all_before, 1)


def wait_until_idle(sample=busy_percent, clock=time.monotonic):
    """Waits until the machine is idle and returns whether it is. Prints a line if it has to wait."""
    deadline = clock() + MAX_WAIT_SECONDS
    announced = False
    while (busy := sample()) > MAX_BUSY_PERCENT:
        if clock() >= deadline:
            print(f"The machine is not idle: its processors are {busy:.0f} % busy.", flush=True)
            return False
        if not announced:
            print(f"Waiting until the processors are at most {MAX_BUSY_PERCENT} % busy, for {MAX_WAIT_SECONDS:.0f} s "
                  f"at most. They are {busy:.0f} % busy now.", flush=True)
            announced = True
    return True


def command_output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          check=False).stdout.strip()


def describe(build):
    """Returns pairs of a name and a text."""
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M)[1]
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(encoding="ascii"))
    return [
        ("date", datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")),
        ("commit", command_output("git", "-C", str(SOURCE), "describe", "--always", "--dirty")),
        ("build type", re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", cache, re.M)[1]),
        ("compiler", command_output(compiler, "--version").splitlines()[0]),
        ("CPU", f"{os.cpu_count()} x {model[1] if model else os.uname().machine}"),
        ("kernel", os.uname().release),
        ("load", f"{os.getloadavg()[0]:.2f}"),
    ]
