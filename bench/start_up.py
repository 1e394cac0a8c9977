"""Times the daemon's start beside a minimal program on the same bus, in turn, and looks at what either holds when idle.

Both are timed from their start until their name on the bus has an owner, which takes the same steps in both. What a
user of the daemon waits for, the return of the command that starts it in the background, is timed as well.
"""

import itertools
import os
import pathlib
import resource
import signal
import subprocess
import time

import memory
import world

MINIMAL_NAME = "com.example.Minimal"


class NameWatch:
    """Tells when a name on the bus gets an owner."""

    def __init__(self, program, name):
        self.process = subprocess.Popen([program, name], stdout=subprocess.PIPE, bufsize=0)
        self.wait()

    def wait(self):
        assert self.process.stdout.read(1), "the watch has ended"

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def milliseconds_since(begin):
    return (time.monotonic() - begin) * 1000


def processor_time(pid):
    """Milliseconds of all threads until now."""
    accounts = pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")
    return sum(int(account.read_text(encoding="ascii").split()[0]) for account in accounts) / 1e6


def children_time():
    """Milliseconds of all children that have ended."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (usage.ru_utime + usage.ru_stime) * 1000


def start_until_owner(watch, *command):
    """Returns the milliseconds, those of processor time among them, and the process, which goes on."""
    begin = time.monotonic()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    watch.wait()
    return milliseconds_since(begin), processor_time(process.pid), process


def end(process):
    process.send_signal(signal.SIGTERM)
    process.wait()


def background_daemon():
    return int(pathlib.Path("/run/ledgd.pid").read_text(encoding="ascii"))


def start_until_return(ledgerd):
    """Returns the milliseconds, and those of processor time that the command and the daemon have used."""
    begin, before = time.monotonic(), children_time()
    subprocess.run([ledgerd], check=True, stderr=subprocess.DEVNULL)
    return milliseconds_since(begin), children_time() - before + processor_time(background_daemon())


def run(place, build, rounds):
    """Returns {name of the figure: [a value for each round]}: milliseconds, and KiB."""
    ledgerd = str(build / "daemon/ledgerd")
    minimal = str(build / "bench/minimal_service")
    watch_program = build / "bench/ledgerd_name_watch"
    watches = {name: NameWatch(watch_program, name) for name in (MINIMAL_NAME, world.REGISTRY_NAME)}
    programs = ("minimal", "ledgerd -d", "ledgerd")
    figures = {f"{what} {program}": [] for what in ("start", "start-cpu") for program in programs}

    def keep(program, elapsed, used):
        figures[f"start {program}"].append(elapsed)
        figures[f"start-cpu {program}"].append(used)

    def hold(name, pid):
        for field, size in memory.of(pid).items():
            figures.setdefault(f"idle {name} {field}", []).append(size)

    def start_minimal():
        *times, process = start_until_owner(watches[MINIMAL_NAME], minimal)
        keep("minimal", *times)
        hold("minimal", process.pid)
        end(process)

    def start_in_foreground():
        *times, process = start_until_owner(watches[world.REGISTRY_NAME], ledgerd, "-d")
        keep("ledgerd -d", *times)
        end(process)

    def start_in_background():
        keep("ledgerd", *start_until_return(ledgerd))
        watches[world.REGISTRY_NAME].wait()
        hold("ledgerd", background_daemon())
        subprocess.run([ledgerd, "-k"], check=True)
        place.forget_kernel_log()

    # What went before has its effect on a busy machine, so each follows each of the others as often.
    orders = list(itertools.permutations((start_minimal, start_in_foreground, start_in_background)))
    for number in range(rounds):
        for start in orders[number % len(orders)]:
            start()
    for watch in watches.values():
        watch.close()
    return figures


def stripped_size(program, strip, state):
    """KiB of the program without its symbols."""
    stripped = pathlib.Path(state) / "stripped"
    subprocess.run([strip, "-o", stripped, program], check=True)
    return os.path.getsize(stripped) / 1024
