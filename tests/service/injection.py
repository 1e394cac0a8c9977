"""Faults in chosen system calls of the unmodified daemon, put there by strace."""

import re
import subprocess

FILE = "/var/lib/plinthware/registry"
NEW = FILE + "~~new"

# What each step is called in the kernel; which of the names there are depends on the machine and the C library.
STEPS = {
    "access": ("access", "faccessat", "faccessat2"),
    "open": ("open", "openat"),
    "seek": ("lseek", "_llseek"),
    "read": ("read",),
    "write": ("write",),
    "close": ("close",),
    "rename": ("rename", "renameat", "renameat2"),
    "remove": ("unlink", "unlinkat"),
}

STEP_OF_CALL = {name: step for step, names in STEPS.items() for name in names}


def rule(step, fault, when):
    """strace's option for a fault in that step: `fault` as in "error=EIO", `when` as in "1", "2" or "1+"."""
    names = ",".join(f"?{name}" for name in STEPS[step])
    return f"--inject={names}:{fault}:when={when}"


def steps(lines):
    """The steps in a log of one thread."""
    calls = (re.match(r"(?:\d+ +)?(\w+)\(", line) for line in lines)
    return [STEP_OF_CALL[call[1]] for call in calls if call]


def injected(lines):
    return sum("(INJECTED)" in line for line in lines)


class Injection:
    """Within the `with` block the main thread of a running daemon meets these faults; the worker does not. Only calls
    on files with these paths are counted and logged; with none, all are."""

    def __init__(self, daemon, rules, paths=(FILE, NEW)):
        self.log = daemon.world.path / "injection"
        chosen = [option for path in paths for option in ("-P", path)]
        self.command = ["strace", "-o", str(self.log), *chosen, *rules, "-p", str(daemon.pid)]
        self.process = None

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
        # Once strace says so the thread makes no further call unseen.
        line = self.process.stderr.readline()
        assert b"attached" in line, line
        return self

    def __exit__(self, *_):
        # It ends by itself when the daemon does.
        self.process.terminate()
        self.process.wait()
        self.process.stderr.close()

    def lines(self):
        """The log; complete after the block."""
        return self.log.read_text(errors="backslashreplace").splitlines()

