"""Times the daemon's start beside a minimal program on the same bus, in turn, and looks at what either holds when idle.

Both are timed from their start until their name on the bus has an owner, which takes the same steps in both. What a
user of the daemon waits for, the return of the command that starts it in the background, is timed as well.
"""

import os
import pathlib
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


def time_until_owner(watch, *command):
    """Returns the milliseconds and the process, which goes on."""
    begin = time.monotonic()
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    watch.wait()
    return milliseconds_since(begin), process


def end(process):
    process.send_signal(signal.SIGTERM)
    process.wait()


def background_daemon():
    return int(pathlib.Path("/run/ledgd.pid").read_text(encoding="ascii"))


def time_until_return(ledgerd):
    begin = time.monotonic()
    subprocess.run([ledgerd], check=True, stderr=subprocess.DEVNULL)
    return milliseconds_since(begin)


def run(place, build, rounds):
    """Returns {name of the figure: [a value for each round]}: milliseconds, and KiB."""
    ledgerd = str(build / "daemon/ledgerd")
    minimal = str(build / "bench/minimal_service")
    watch_program = build / "bench/ledgerd_name_watch"
    watches = {name: NameWatch(watch_program, name) for name in (MINIMAL_NAME, world.REGISTRY_NAME)}
    times = {"start minimal": [], "start ledgerd -d": [], "start ledgerd": []}
    held = {}

    def hold(name, pid):
        for field, size in memory.of(pid).items():
            held.setdefault(f"idle {name} {field}", []).append(size)

    for _ in range(rounds):
        elapsed, process = time_until_owner(watches[MINIMAL_NAME], minimal)
        times["start minimal"].append(elapsed)
        hold("minimal", process.pid)
        end(process)

        elapsed, process = time_until_owner(watches[world.REGISTRY_NAME], ledgerd, "-d")
        times["start ledgerd -d"].append(elapsed)
        end(process)

        times["start ledgerd"].append(time_until_return(ledgerd))
        watches[world.REGISTRY_NAME].wait()
        hold("ledgerd", background_daemon())
        subprocess.run([ledgerd, "-k"], check=True)
        place.forget_kernel_log()
    for watch in watches.values():
        watch.close()
    return {**times, **held}


def stripped_size(program, strip, state):
    """KiB of the program without its symbols."""
    stripped = pathlib.Path(state) / "stripped"
    subprocess.run([strip, "-o", stripped, program], check=True)
    return os.path.getsize(stripped) / 1024
