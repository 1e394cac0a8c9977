"""Runs a command with a time limit, and leaves nothing of it behind: a broken daemon does not end by itself."""
import contextlib
import ctypes
import os
import pathlib
import signal
import subprocess
import sys
import time

PR_SET_CHILD_SUBREAPER = 36


class TimedOut(Exception):
    pass


def adopt_orphans():
    """Makes this process the parent of what its descendants leave behind."""
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def _children():
    return [int(pid) for task in pathlib.Path("/proc/self/task").iterdir()
            for pid in (task / "children").read_text().split()]


def _end_all():
    # The children of each that ends become ours in turn.
    while left := _children():
        for pid in left:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        for pid in left:
            with contextlib.suppress(ChildProcessError):
                os.waitpid(pid, 0)


def _raise_timed_out(_signal, _frame):
    raise TimedOut


def _raise_exit(_signal, _frame):
    sys.exit(2)


def run(command, log, limit, directory):
    """Returns (exit status, None if it was stopped at `limit` seconds; seconds). Its output is added to `log`."""
    start = time.monotonic()
    signal.signal(signal.SIGALRM, _raise_timed_out)
    # What was started ends with this process.
    before = {number: signal.signal(number, _raise_exit) for number in (signal.SIGINT, signal.SIGTERM)}
    with open(log, "ab") as output:
        process = subprocess.Popen(command, cwd=directory, stdin=subprocess.DEVNULL, stdout=output,
                                   stderr=subprocess.STDOUT)
        signal.alarm(limit)
        try:
            # Orphans end here as well.
            while process.returncode is None:
                pid, status = os.waitpid(-1, 0)
                if pid == process.pid:
                    process.returncode = os.waitstatus_to_exitcode(status)
            result = process.returncode
        except TimedOut:
            result = None
            process.returncode = -signal.SIGKILL
        finally:
            signal.alarm(0)
            _end_all()
            for number, handler in before.items():
                signal.signal(number, handler)
    return result, time.monotonic() - start
