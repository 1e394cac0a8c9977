"""Private views of the tree, which can be changed and built without a trace in it; and commands that leave nothing."""
import contextlib
import os
import pathlib
import pickle
import resource
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build" / "mutants"
# A mutant may send a signal to all processes, or start a daemon that does not end.
NAMESPACES = ("setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc")
MEMORY_LIMIT = 4 << 30
# What a command may take on a busy machine, or if it waits.
TIMES_OF_LIMIT = 3


class TimedOut(Exception):
    pass


def _mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def prepare():
    """Makes room for the views, in memory. This process must have its own mounts."""
    WORK.mkdir(parents=True, exist_ok=True)
    _mount("-t", "tmpfs", "tmpfs", WORK)


def call(name, lower, function, *arguments):
    """Returns what the function returns in another process, which sees the tree with the changes of the views `lower`.
    Its own changes are the view `name`."""
    done = subprocess.run([*NAMESPACES, sys.executable, "-B", *sys.argv[:1], "--worker"], check=True,
                          input=pickle.dumps((name, lower, function, arguments)), stdout=subprocess.PIPE)
    result = pickle.loads(done.stdout)
    if isinstance(result, Exception):
        raise result
    return result


def work(errors):
    """The other process of a call, whose exceptions of the types `errors` are those of the caller."""
    if os.getpid() != 1:
        sys.exit("this process must be the first of its namespace")
    name, lower, function, arguments = pickle.load(sys.stdin.buffer)
    for directory in ("upper", "work"):
        (WORK / name / directory).mkdir(parents=True)
    below = ":".join(map(str, [*(WORK / each / "upper" for each in lower), ROOT]))
    _mount("-t", "overlay", "overlay", ROOT, "-o",
           f"lowerdir={below},upperdir={WORK}/{name}/upper,workdir={WORK}/{name}/work")
    os.chdir(ROOT)
    # A loop that does not end takes all memory that it can get.
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, resource.RLIM_INFINITY))
    signal.signal(signal.SIGALRM, _raise_timed_out)
    try:
        result = function(*arguments)
    except errors as e:
        result = e
    sys.stdout.buffer.write(pickle.dumps(result))


def _raise_timed_out(_signal, _frame):
    raise TimedOut


def run(command, limit, **environment):
    """Returns (exit status, None if it was stopped; seconds; output). `limit`: seconds of processor time. Then ends all
    other processes of the namespace."""
    start = time.monotonic()
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen(command, env={**os.environ, **environment}, stdin=subprocess.DEVNULL, stdout=output,
                                   stderr=subprocess.STDOUT, start_new_session=True,
                                   preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CPU, (limit, limit)))
        result = None
        signal.alarm(TIMES_OF_LIMIT * limit)
        with contextlib.suppress(TimedOut):
            # Orphans end here as well.
            while result is None:
                pid, status = os.waitpid(-1, 0)
                if pid == process.pid:
                    result = os.waitstatus_to_exitcode(status)
            signal.alarm(0)
        process.returncode = result or 0
        with contextlib.suppress(ProcessLookupError):
            os.kill(-1, signal.SIGKILL)
        with contextlib.suppress(ChildProcessError):
            while True:
                os.waitpid(-1, 0)
        output.seek(0)
        return result, time.monotonic() - start, output.read()
