"""The first process of a test's PID namespace: reaps what daemons leave behind, tells on standard output which process
ended with which status, and ends, with everything in the namespace, when its standard input does."""

import os
import select
import signal


def reap():
    while True:
        try:
            pid, status = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if pid == 0:
            return
        print(pid, os.waitstatus_to_exitcode(status), flush=True)


def main():
    wake_reader, wake_writer = os.pipe()
    os.set_blocking(wake_writer, False)
    signal.set_wakeup_fd(wake_writer, warn_on_full_buffer=False)
    signal.signal(signal.SIGCHLD, lambda *_: None)
    print("ready", flush=True)
    while 0 not in select.select([0, wake_reader], [], [])[0]:
        os.read(wake_reader, 4096)
        reap()


main()
