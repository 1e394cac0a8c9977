"""The content of a registry under attack, the errors of refused calls, and the state after an attack."""

from world.harness import ERROR_PREFIX, is_sanitized
from world.observe import status

MEGABYTE = 1 << 20

INVALID_NAME = (ERROR_PREFIX + "InvalidName", "Invalid Name")
INVALID_JSON = (ERROR_PREFIX + "InvalidJson", "Invalid Json")
FULL = (ERROR_PREFIX + "Full", "Full")
EXCEPTION = ERROR_PREFIX + "Exception"

CONTENT_JSON = '{"s":{"k":"v"}}'


def fill(client):
    client.write("s", "k", "v")
    client.flush()


def check_served_and_untouched(world, client):
    assert client.read_all_json() == CONTENT_JSON
    client.flush()
    assert world.registry_bytes() == b"[s]\nk=v\n"
    client.write("s", "k", "w")
    assert client.read("s", "k") == "w"


def check_syntax_error(error):
    name, message = error
    assert name == EXCEPTION
    assert message.startswith("parse error - unexpected ") and message.isascii() and 25 < len(message) <= 4000


def peak_memory(daemon):
    return int(status(daemon.pid)["VmHWM"].split()[0]) * 1024


def check_memory_growth(daemon, before, limit):
    if not is_sanitized(daemon.world):
        grown = peak_memory(daemon) - before
        assert grown < limit, f"the daemon's memory has grown by {grown} bytes"
