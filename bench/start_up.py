#!/usr/bin/python3
"""Times the daemon's start beside a minimal program on the same bus, in turn, and prints what the idle daemon holds.

    bench/start_up.py BUILD-FOLDER [ROUNDS]

The build folder must hold the targets ledgerd and minimal_service of a release build.
"""

import os
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parent.parent
INSIDE = "--inside"

# Bash as the first process of the PID namespace: a daemon that nobody reaps would count as running.
REAP_ORPHANS = '"$@"; exit'


def command_output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False).stdout


def print_machine(build):
    cache = (build / "CMakeCache.txt").read_text()
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M)[1]
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    print("commit    ", command_output("git", "-C", str(SOURCE), "describe", "--always", "--dirty").strip())
    print("build type", re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", cache, re.M)[1])
    print("compiler  ", command_output(compiler, "--version").splitlines()[0])
    print("CPU       ", f"{os.cpu_count()} x {model[1] if model else os.uname().machine}")
    print("kernel    ", os.uname().release)


def enter(arguments):
    """Runs this script again in mount and PID namespaces of its own, with a private /var/lib, /run and /dev/kmsg."""
    state = tempfile.mkdtemp(prefix="ledgerd-bench-")
    try:
        for folder in ("lib/plinthware", "run/dbus"):
            os.makedirs(f"{state}/{folder}")
        os.mkfifo(f"{state}/kmsg")
        as_root = [] if os.geteuid() == 0 else ["--map-root-user"]
        return subprocess.call(["unshare", "--mount", "--pid", "--fork", "--kill-child", "--propagation", "private",
                                *as_root, "bash", "-c", REAP_ORPHANS, "bash",
                                sys.executable, __file__, INSIDE, state, *arguments])
    finally:
        shutil.rmtree(state)


def start_daemon(ledgerd):
    """Seconds until the command that starts the daemon has returned."""
    begin = time.monotonic()
    subprocess.run([ledgerd], check=True)
    return time.monotonic() - begin


def start_minimal(minimal):
    """Seconds until the minimal program owns its name."""
    begin = time.monotonic()
    process = subprocess.Popen([minimal], stdout=subprocess.PIPE)
    process.stdout.read(1)
    elapsed = time.monotonic() - begin
    process.kill()
    process.wait()
    process.stdout.close()
    return elapsed


def memory_of(pid):
    """Resident, proportional, private and private dirty memory in KiB, and the number of threads."""
    rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    fields = {name: int(size) for name, size in re.findall(r"^(\w+):\s+(\d+) kB", rollup, re.M)}
    threads = len(os.listdir(f"/proc/{pid}/task"))
    private = fields["Private_Clean"] + fields["Private_Dirty"]
    return fields["Rss"], fields["Pss"], private, fields["Private_Dirty"], threads


def print_memory(name, pid):
    rss, pss, private, dirty, threads = memory_of(pid)
    print(f"{name:16} Rss {rss} KiB, Pss {pss} KiB, private {private} KiB (dirty {dirty} KiB), {threads} thread(s)")


def print_times(name, seconds):
    median, least, most = (f(seconds) * 1000 for f in (statistics.median, min, max))
    print(f"{name:16} {median:6.2f} ms ({least:.2f} … {most:.2f})  n={len(seconds)}")


def measure(state, build, rounds):
    subprocess.run(["mount", "-t", "proc", "proc", "/proc"], check=True)
    for source, target in (("lib", "/var/lib"), ("run", "/run"), ("kmsg", "/dev/kmsg")):
        subprocess.run(["mount", "--bind", f"{state}/{source}", target], check=True)
    kernel_log = os.open("/dev/kmsg", os.O_RDWR | os.O_NONBLOCK)  # a reader, so that writers need not wait
    os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
    subprocess.run(["dbus-daemon", f"--config-file={SOURCE}/scripts/private-bus.conf", "--fork"], check=True)
    ledgerd = str(build / "daemon" / "ledgerd")
    minimal = str(build / "bench" / "minimal_service")

    daemon_times, minimal_times = [], []
    for _ in range(rounds):
        minimal_times.append(start_minimal(minimal))
        daemon_times.append(start_daemon(ledgerd))
        subprocess.run([ledgerd, "-k"], check=True)
        os.read(kernel_log, 65536)
    print_times("minimal_service", minimal_times)
    print_times("ledgerd", daemon_times)
    print(f"ratio of medians {statistics.median(daemon_times) / statistics.median(minimal_times):.2f}")

    process = subprocess.Popen([minimal], stdout=subprocess.PIPE)
    process.stdout.read(1)
    print_memory("minimal_service", process.pid)
    start_daemon(ledgerd)
    print_memory("ledgerd", int(pathlib.Path("/run/ledgd.pid").read_text()))
    stripped = f"{state}/stripped"
    subprocess.run(["strip", "-o", stripped, ledgerd], check=True)
    print(f"ledgerd stripped {os.path.getsize(stripped) / 1024:.0f} KiB")


def main():
    if sys.argv[1:2] == [INSIDE]:
        measure(sys.argv[2], pathlib.Path(sys.argv[3]), int(sys.argv[4]))
        return 0
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    build = pathlib.Path(sys.argv[1]).resolve()
    print_machine(build)
    sys.stdout.flush()
    return enter([str(build), sys.argv[2] if len(sys.argv) == 3 else "50"])


if __name__ == "__main__":
    sys.exit(main())
