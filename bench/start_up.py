"""Measures the start of the daemon and of a minimal program, in turn, and the memory of both when they are idle. The
registry file is full to 99 %."""

import pathlib
import subprocess
import time

import calls
import bus_world

PID_FILE = pathlib.Path("/run/ledgd.pid")


def start_minimal(build):
    """Measures the time until the program owns its name."""
    begin = time.monotonic()
    with subprocess.Popen([build / "bench/minimal_service"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          bufsize=0) as process:
        assert process.stdout.read(1), "the minimal program has ended"
        elapsed = time.monotonic() - begin
        memory = bus_world.private_memory(process.pid)
        process.terminate()
    return elapsed, memory


def start_daemon(build):
    """Measures the time until the command returns. The daemon then owns its name and has loaded the registry."""
    begin = time.monotonic()
    subprocess.run([build / "daemon/ledgerd"], check=True, stderr=subprocess.DEVNULL)
    elapsed = time.monotonic() - begin
    memory = bus_world.private_memory(int(PID_FILE.read_text(encoding="ascii")))
    subprocess.run([build / "daemon/ledgerd", "-k"], check=True)
    return elapsed, memory


def run_round(build, starts):
    """Returns {"start PROGRAM": median milliseconds, "memory PROGRAM": KiB}."""
    (bus_world.STORE / "registry").write_text(calls.registry_text(calls.FULL), encoding="ascii")
    results = {"minimal": [], "ledgerd": []}
    for _ in range(starts):
        results["minimal"].append(start_minimal(build))
        results["ledgerd"].append(start_daemon(build))
    figures = {}
    for program, pairs in results.items():
        elapsed, memory = (sorted(values)[starts // 2] for values in zip(*pairs))
        figures[f"start {program}"] = elapsed * 1000
        figures[f"memory {program}"] = memory
    return figures
