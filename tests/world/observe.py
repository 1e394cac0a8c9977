"""Looks at a daemon from outside: through /proc, and through strace."""

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

# The calls that can change or read a file, or make it durable.
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
    """Whether the daemon itself, not what it was started through, has all its signal handlers."""
    fields = status(daemon.pid)
    return fields["Name"] == PROCESS_NAME and int(fields["SigCgt"], 16) & TERMINATION_MASK == TERMINATION_MASK


def thread_names(pid):
    names = {}
    for thread in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{thread}/comm", encoding="ascii") as file:
            names[int(thread)] = file.read().rstrip("\n")
    return names


def thread_named(pid, name):
    """The one thread with this name, or None; a thread gives itself its name a moment after its start."""
    found = [thread for thread, its_name in thread_names(pid).items() if its_name == name]
    assert len(found) <= 1
    return found[0] if found else None


def descriptors(pid):
    """What each open descriptor refers to."""
    return {int(fd): os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd")}


def closes_on_exec(pid, fd):
    with open(f"/proc/{pid}/fdinfo/{fd}", encoding="ascii") as file:
        flags = next(line for line in file if line.startswith("flags:"))
    return int(flags.split()[1], 8) & os.O_CLOEXEC != 0


def cpu_ticks(pid):
    """Clock ticks that the process has spent, in the kernel too. It may be a zombie."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def registry_behind(daemon):
    """The registry file as the daemon sees it, with what is mounted in its namespace only."""
    return pathlib.Path(f"/proc/{daemon.pid}/root/var/lib/plinthware/registry")


def without_leak_check():
    """A wrapper for a daemon that is traced when it ends: a leak check cannot be made then."""
    options = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "detect_leaks=0"]))
    return ("env", f"ASAN_OPTIONS={options}")


class Strace:
    """A log of system calls. strace goes its own way as a grandchild, so the daemon stays the test's own child."""

    def __init__(self, world, *options):
        self.path = world.path / f"strace.{len(world.daemons)}"
        self.wrapper = (*without_leak_check(), "strace", "-D", "-f", "-y", "-o", str(self.path), *options)

    def lines(self):
        return self.path.read_text(errors="backslashreplace").splitlines() if self.path.exists() else []

    def finished_lines(self, daemon):
        """All lines of a process that has ended."""
        end = re.compile(rf"{daemon.pid} +\+\+\+ (exited|killed)")
        wait_for(lambda: any(end.match(line) for line in self.lines()), "strace has logged the daemon's end")
        return self.lines()


def whole_calls(lines):
    """The log with each call that another thread interrupted on one line again, where it began."""
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


def attached_strace(pid, path, *options):
    """Logs the calls of all threads of a running daemon from its return on; returns strace's process."""
    tracer = subprocess.Popen(["strace", "-f", "-o", str(path), *options, "-p", str(pid)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    # The kernel names the tracer before it stops the threads, so TracerPid would be too early.
    line = tracer.stderr.readline()
    assert b"attached" in line, line
    return tracer
