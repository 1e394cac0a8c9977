"""ledgerd -k: which process it stops, which it does not, and when it uses SIGKILL."""

import os
import signal
import time

from world import observe
from world.harness import MISSING_HARDWARE
from world.stalled_bus import StalledBus

STOP_TIMEOUT = 2
NO_SUCH_PROCESS = "ledgerd caught exception: ReadPidFile:ledgd: No such process (3)\n"
NO_PID_FILE = "ledgerd caught exception: ReadPidFile:ledgd: No such file or directory (2)\n"


def does_not_exist(number):
    return (f"PID file exists but ledgd process does not exist: /proc/{number}/stat: No such file or directory (2)\n"
            + NO_SUCH_PROCESS)


def test_daemon_is_stopped_silently_with_its_changes_written(machine):
    daemon = machine.start()
    daemon.client().write("net", "ip", "10.0.0.1")
    # It uses neither the bus nor the hardware. Only the first argument counts.
    with StalledBus(machine) as bus:
        machine.stop("-d", "surplus", environment=bus.environment)
    assert set(machine.processes()) == {1}
    assert daemon.wait_end() == 0
    assert machine.registry_bytes() == b"[net]\nip=10.0.0.1\n"
    # The PID file stays.
    assert machine.run("-k") == (0, does_not_exist(daemon.inner_pid))
    assert machine.pid_file.read_text() == f"{daemon.inner_pid}\n"


def test_missing_pid_file_is_reported(machine):
    assert machine.run("-k") == (0, NO_PID_FILE)


def test_no_process_is_signalled_if_the_pid_file_has_another_number(machine):
    foreground = machine.launch("-d")
    machine.wait_until_name_is_owned()
    # kill() would send the signal to all processes, or to a process group.
    for text in ("-1\n", "0\n"):
        machine.pid_file.write_text(text)
        assert machine.run("-k") == (0, does_not_exist(int(text)))
    inner_pid, = machine.processes_named(observe.PROCESS_NAME)
    machine.pid_file.write_text(f"{inner_pid}\n")
    assert machine.run("-k") == (0, "PID file exists but ledgd not running\n" + NO_SUCH_PROCESS)
    assert machine.owner() == foreground.pid
    os.kill(foreground.pid, signal.SIGTERM)
    assert foreground.result() == (0, MISSING_HARDWARE)


def test_daemon_that_does_not_end_is_killed_after_2_seconds(machine):
    machine.registry.write_bytes(b"[net]\nip=old\n")
    daemon = machine.start()
    daemon.client().write("net", "ip", "new")
    daemon.signal(signal.SIGSTOP)
    began = time.monotonic()
    assert machine.run("-k") == (0, f"PID {daemon.inner_pid} didn't exit from signal 15. Trying harder.\n")
    assert STOP_TIMEOUT <= time.monotonic() - began < STOP_TIMEOUT + 1
    assert daemon.wait_end() == -signal.SIGKILL
    # The pending change is lost.
    assert machine.registry_bytes() == b"[net]\nip=old\n"
