"""The daemon's system calls that replace and read the registry file: strace logs them, and makes them fail."""

import re
import subprocess

from world import observe

FILE = "/var/lib/plinthware/registry"
NEW = FILE + "~~new"

# The system calls of each step; the machine and the C library choose one of them.
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

NO_FILE = "-1 ENOENT (No such file or directory)"


def rule(step, fault, when):
    """strace's option for a fault in that step: `fault` as in "error=EIO", `when` as in "1", "2" or "1+"."""
    return f"--inject={','.join(f'?{name}' for name in STEPS[step])}:{fault}:when={when}"


def steps(lines):
    """The steps in a log of one thread."""
    calls = (re.match(r"(?:\d+ +)?(\w+)\(", line) for line in lines)
    return [next(step for step, names in STEPS.items() if call[1] in names) for call in calls if call]


def injected(lines):
    return sum("(INJECTED)" in line for line in lines)


def registry_calls(lines):
    """The calls on the registry file and those that sync a file, without thread, descriptor numbers and padding."""
    calls = [re.sub(r"\) += ", ") = ", line.split(" ", 1)[1]) for line in observe.whole_calls(lines)]
    return [re.sub(r"\b(AT_FDCWD)<[^>]*>|\b\d+(<[^>]*>)", r"\1\2", call) for call in calls
            if FILE in call or re.match(r"f?sync|fdatasync|msync|sync_file_range", call)]


def replacement(text, access="0"):
    """The calls of one write of the file, in their order; `text` as strace quotes it."""
    size = len(text.encode().decode("unicode_escape"))
    write = f'write(<{NEW}>, "{text}", {size}) = {size}'
    return [
        f'access("{FILE}", W_OK) = {access}',
        f'openat(AT_FDCWD, "{NEW}", O_WRONLY|O_CREAT|O_TRUNC|O_CLOEXEC, 0600) = <{NEW}>',
        *([write] if text else []),
        f"close(<{NEW}>) = 0",
        f'rename("{NEW}", "{FILE}") = 0',
    ]


def timed_waits(lines):
    """Clock and end, in seconds, of each wait for a condition variable that has an end."""
    waits = (re.search(r"FUTEX_WAIT_BITSET\w*(\|FUTEX_CLOCK_REALTIME)?, \d+, \{tv_sec=(\d+), tv_nsec=(\d+)\}", line)
             for line in lines)
    return [("realtime" if wait[1] else "monotonic", int(wait[2]) + int(wait[3]) / 1e9) for wait in waits if wait]


class Injection:
    """Within the `with` block the main thread of a running daemon meets these faults; the worker does not. strace
    counts and logs the calls on files with these paths; all calls if there are no paths."""

    def __init__(self, daemon, rules, paths=(FILE, NEW)):
        self.log = daemon.world.path / "injection"
        chosen = [option for path in paths for option in ("-P", path)]
        self.command = ["strace", "-o", str(self.log), *chosen, *rules, "-p", str(daemon.pid)]
        self.process = None

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
        # After this message strace sees each call of the thread.
        line = self.process.stderr.readline()
        assert b"attached" in line, line
        return self

    def __exit__(self, *_):
        # strace ends with the daemon.
        self.process.terminate()
        self.process.wait()
        self.process.stderr.close()

    def lines(self):
        """The log; complete after the block."""
        return self.log.read_text(errors="backslashreplace").splitlines()
