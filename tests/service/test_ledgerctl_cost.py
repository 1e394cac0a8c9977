"""The cost of one `get` as a whole process, compared with the same call by dbus-send. `-s` shows it."""

import re
import shutil
import subprocess

import pytest

from world.harness import BUS_NAME, INTERFACE, OBJECT_PATH

DBUS_SEND = ("dbus-send", "--system", "--print-reply", f"--dest={BUS_NAME}", OBJECT_PATH, f"{INTERFACE}.Read",
             "string:network", "string:hostname")


def instructions(command, environment):
    """Returns the number of instructions, nearly all at start. It does not depend on the load of the machine."""
    result = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command],
                            env=environment, stdin=subprocess.DEVNULL, capture_output=True, check=True)
    assert b"player-7" in result.stdout
    return int(re.search(rb"Collected : (\d+)", result.stderr)[1])


@pytest.mark.skipif(shutil.which("valgrind") is None, reason="valgrind is missing")
def test_get_costs_less_than_one_and_a_half_times_dbus_send(ledgerctl, client):
    client.write("network", "hostname", "player-7")
    cost = instructions([ledgerctl.binary, "get", "network", "hostname"], ledgerctl.environment)
    baseline = instructions(DBUS_SEND, ledgerctl.environment)
    print(f"instructions {cost}, dbus-send {baseline}, ratio {cost / baseline:.2f}")
    assert cost < 1.5 * baseline
