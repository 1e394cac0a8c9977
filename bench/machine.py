"""What a figure depends on besides the code."""

import datetime
import os
import pathlib
import re
import subprocess

SOURCE = pathlib.Path(__file__).resolve().parent.parent


def command_output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          check=False).stdout.strip()


def describe(build):
    """Pairs of a name and a text."""
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
        ("load at start", f"{os.getloadavg()[0]:.1f}"),
    ]
