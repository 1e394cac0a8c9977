"""Runs the client's executable in a test's world."""

import contextlib
import os
import subprocess
import threading

from world import observe
from world.harness import BUS_NAME, DIE_WITH_TEST, ENTER_WORLD, PATIENCE
from world.raw_client import (ERROR, ERROR_NAME_FIELD, METHOD_CALL, METHOD_RETURN, REPLY_SERIAL_FIELD, RawClient,
                              pack_call)

# Exit statuses.
MISSING, USAGE, INVALID_NAME, NO_DOCUMENT, FULL, NOT_RUNNING, DENIED, NO_ANSWER, DAEMON_ERROR, LOCAL = range(1, 11)


def failure(status, text):
    """The status and the output of a command that fails."""
    return status, b"", b"ledgerctl: " + text + b"\n"


def traced(*options, log=os.devnull):
    """A wrapper that traces the client with strace."""
    return (*observe.without_leak_check(), "strace", "-y", "-o", str(log), *options)


class Ledgerctl:
    """`environment` is added to the test's own; `directory` is where the client makes its temporary files."""

    def __init__(self, binary, world):
        self.binary = binary
        self.world = world
        self.directory = world.path / "tmp"
        self.directory.mkdir()
        self.environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus.address, TMPDIR=str(self.directory),
                                TERM="xterm")
        for name in ("VISUAL", "EDITOR", "NO_COLOR"):
            self.environment.pop(name, None)

    def start(self, *arguments, wrapper=(), environment=(), **options):
        """Starts it. Texts are bytes, because names and values need not be UTF-8."""
        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        return subprocess.Popen([*DIE_WITH_TEST, *wrapper, str(self.binary), *arguments],
                                env={**self.environment, **dict(environment)}, **{**streams, **options})

    def run(self, *arguments, input=None, **options):
        """Returns the status, standard output and standard error."""
        if input is not None:
            options["stdin"] = subprocess.PIPE
        process = self.start(*arguments, **options)
        output, error = process.communicate(input, timeout=PATIENCE)
        return process.returncode, output, error

    def output(self, *arguments, **options):
        """Returns the output of a command that succeeds and prints no message."""
        status, output, error = self.run(*arguments, **options)
        assert (status, error) == (0, b""), (arguments, status, output, error)
        return output

    def in_world(self):
        """A wrapper for a client that sees the world's /var/lib."""
        unshare = ["unshare", "--mount", "--propagation", "private"]
        if os.geteuid() != 0:
            unshare.append("--map-root-user")
        return (*unshare, "--", "sh", "-c", ENTER_WORLD, "enter-world", str(self.world.path))

    def left_files(self):
        return sorted(path.name for path in self.directory.iterdir())


@contextlib.contextmanager
def fake_daemon(bus, answer):
    """Another service that has the daemon's name. `answer` gets each call and returns a list of arguments, or a tuple
    of an error's name and message, or None to end the service without an answer."""
    service = RawClient(bus)
    assert service.call_bus("RequestName", BUS_NAME, 0).kind == METHOD_RETURN

    def reply(call, result):
        fields = [(REPLY_SERIAL_FIELD, "u", call.serial)]
        arguments, kind = result, METHOD_RETURN
        if isinstance(result, tuple):
            fields.append((ERROR_NAME_FIELD, "s", result[0]))
            arguments, kind = [result[1]], ERROR
        service.serial += 1
        service.socket.sendall(pack_call(service.serial, "Reply", *arguments, interface=None, path="/",
                                         destination=call.sender, kind=kind, more_fields=fields))

    def serve():
        with contextlib.suppress(OSError):
            while True:
                call = service.receive()
                if call.kind == METHOD_CALL:
                    result = answer(call)
                    if result is None:
                        break
                    reply(call, result)
            service.socket.shutdown(2)

    thread = threading.Thread(target=serve, daemon=True)
    thread.start()
    try:
        yield
    finally:
        with contextlib.suppress(OSError):
            service.socket.shutdown(2)
        thread.join()
        service.close()
