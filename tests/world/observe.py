"""Observes a daemon from outside: with /proc, and with strace."""

import contextlib
import functools
import os
import pathlib
import re
import subprocess

import pytest

from world.harness import wait_for

TERMINATION_SIGNALS = ("SIGHUP", "SIGINT", "SIGQUIT", "SIGTERM")
TERMINATION_MASK = 1 << 0 | 1 << 1 | 1 << 2 | 1 << 14
PROCESS_NAME = "ledgdp"
WORKER_NAME = "DALazyStore"

# The calls that can read or change a file, or make it durable.
FILE_CALLS = ("access,faccessat,faccessat2,openat,open,creat,read,pread64,readv,write,pwrite64,writev,lseek,close,"
              "rename,renameat,renameat2,link,linkat,unlink,unlinkat,truncate,ftruncate,fsync,fdatasync,sync,syncfs,"
              "sync_file_range,msync,chmod,fchmod,fchmodat,fallocate,mkdir,stat,lstat,newfstatat,statx")


@functools.lru_cache(maxsize=None)
def ptrace_is_permitted():
    try:
        return subprocess.run(["strace", "-qq", "-o", os.devnull, "true"], stdin=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, check=False).returncode == 0
    except OSError:
        return False


needs_strace = pytest.mark.skipif(not ptrace_is_permitted(), reason="strace is missing or not permitted")


def status(pid):
    """The fields of /proc/PID/status."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)


def handles_termination_signals(daemon):
    """Whether the daemon itself, not the program that becomes the daemon, has all its signal handlers."""
    fields = status(daemon.pid)
    return fields["Name"] == PROCESS_NAME and int(fields["SigCgt"], 16) & TERMINATION_MASK == TERMINATION_MASK


def thread_names(pid):
    return {int(task.name): (task / "comm").read_text().rstrip("\n")
            for task in pathlib.Path(f"/proc/{pid}/task").iterdir()}


def thread_named(pid, name):
    """Returns the only thread with this name, or None. A thread sets its name a moment after its start."""
    found = [thread for thread, its_name in thread_names(pid).items() if its_name == name]
    assert len(found) <= 1
    return found[0] if found else None


def descriptors(pid):
    """Returns the file of each open descriptor."""
    found = {}
    for fd in os.listdir(f"/proc/{pid}/fd"):
        # It may be closed at any time.
        with contextlib.suppress(FileNotFoundError):
            found[int(fd)] = os.readlink(f"/proc/{pid}/fd/{fd}")
    return found


def open_flags(pid, fd):
    info = pathlib.Path(f"/proc/{pid}/fdinfo/{fd}").read_text()
    return int(re.search(r"flags:\s*(\d+)", info)[1], 8)


def cpu_ticks(pid):
    """The clock ticks of the process in user mode and in the kernel. It may be a zombie."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def registry_behind(daemon):
    """The registry file in the daemon's mount namespace."""
    return pathlib.Path(f"/proc/{daemon.pid}/root/var/lib/plinthware/registry")


def without_leak_check():
    """A wrapper for a program that strace traces until its end. A leak check would fail then."""
    options = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "detect_leaks=0"]))
    return ("env", f"ASAN_OPTIONS={options}")


class Strace:
    """A log of system calls. strace runs as a grandchild, so the daemon is the test's own child."""

    def __init__(self, world, *options):
        self.path = world.path / f"strace.{next(world.numbers)}"
        self.wrapper = (*without_leak_check(), "strace", "-D", "-f", "-y", "-o", str(self.path), *options)

    def lines(self):
        return self.path.read_text(errors="backslashreplace").splitlines() if self.path.exists() else []

    def finished_lines(self, daemon):
        """Returns all lines once strace has logged the end of the process."""
        end = re.compile(rf"{daemon.pid} +\+\+\+ (exited|killed)")
        wait_for(lambda: any(end.match(line) for line in self.lines()), "strace has logged the daemon's end")
        return self.lines()


def whole_calls(lines):
    """Joins the two lines of each call that another thread interrupted, where the call began."""
    whole, begun = [], {}
    for line in lines:
        thread, rest = line.split(None, 1)
        resumed = re.match(r"<\.\.\. \w+ resumed>", rest)
        if rest.endswith("<unfinished ...>"):
            begun[thread] = len(whole)
            whole.append(f"{thread} {rest[:-len('<unfinished ...>')].rstrip()}")
        elif resumed:
            whole[begun[thread]] += rest[resumed.end():]
        else:
            whole.append(f"{thread} {rest}")
    return whole


def assert_in_order(lines, steps):
    """Each step, a regular expression, is in exactly one line, and the lines have this order."""
    found = [[i for i, line in enumerate(lines) if re.search(step, line)] for step in steps]
    assert [len(numbers) for numbers in found] == [1] * len(steps), list(zip(steps, found))
    assert found == sorted(found), list(zip(steps, found))


def attached_strace(pid, path, *options):
    """Starts strace for all threads of a running process. Returns the process of strace."""
    tracer = subprocess.Popen(["strace", "-f", "-o", str(path), *options, "-p", str(pid)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    # TracerPid would be too early: the kernel sets it before it stops the threads.
    line = tracer.stderr.readline()
    assert b"attached" in line, line
    return tracer
