"""Runs the client's executable in a test's world."""

import contextlib
import os
import subprocess
import threading

from world.harness import BUS_NAME, DIE_WITH_TEST, ENTER_WORLD, PATIENCE
from world.raw_client import ERROR, ERROR_NAME_FIELD, METHOD_CALL, METHOD_RETURN, REPLY_SERIAL_FIELD, RawClient, pack_call

# Exit statuses.
MISSING, USAGE, INVALID_NAME, NO_DOCUMENT, FULL, NOT_RUNNING, DENIED, NO_ANSWER, DAEMON_ERROR, LOCAL = range(1, 11)


FULL_TEXT = b"registry full (16383 bytes); nothing changed"


def failure(status, text):
    """What a command that fails returns and prints."""
    return status, b"", b"ledgerctl: " + text + b"\n"


class Ledgerctl:
    """`environment` is added to the test's own; `folder` is where the client makes its temporary files."""

    def __init__(self, binary, world):
        self.binary = binary
        self.world = world
        self.folder = world.path / "tmp"
        self.folder.mkdir()
        self.environment = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=world.bus.address, TMPDIR=str(self.folder),
                                TERM="xterm")
        for name in ("VISUAL", "EDITOR", "NO_COLOR"):
            self.environment.pop(name, None)

    def start(self, *arguments, wrapper=(), environment=(), **options):
        """Starts it; texts are bytes, as a name or value may be any."""
        options.setdefault("stdin", subprocess.DEVNULL)
        options.setdefault("stdout", subprocess.PIPE)
        options.setdefault("stderr", subprocess.PIPE)
        return subprocess.Popen([*DIE_WITH_TEST, *wrapper, str(self.binary), *arguments],
                                env={**self.environment, **dict(environment)}, **options)

    def run(self, *arguments, input=None, **options):
        """Returns the status, standard output and standard error."""
        if input is not None:
            options["stdin"] = subprocess.PIPE
        process = self.start(*arguments, **options)
        output, error = process.communicate(input, timeout=PATIENCE)
        return process.returncode, output, error

    def output(self, *arguments, **options):
        """What a command prints that does what it is told, and says nothing else."""
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
        return sorted(path.name for path in self.folder.iterdir())


@contextlib.contextmanager
def fake_daemon(bus, answer):
    """Something else under the daemon's name. `answer` gets each call and returns a list of arguments, or an error's
    name and message as a tuple."""
    service = RawClient(bus)
    assert service.call_bus("RequestName", BUS_NAME, 0).kind == METHOD_RETURN

    def serve():
        with contextlib.suppress(OSError):
            while True:
                call = service.receive()
                if call.kind != METHOD_CALL:
                    continue
                result = answer(call)
                fields = [(REPLY_SERIAL_FIELD, "u", call.serial)]
                arguments, kind = result, METHOD_RETURN
                if isinstance(result, tuple):
                    fields.append((ERROR_NAME_FIELD, "s", result[0]))
                    arguments, kind = [result[1]], ERROR
                service.serial += 1
                service.socket.sendall(pack_call(service.serial, "Reply", *arguments, interface=None, path="/",
                                                 destination=call.sender, kind=kind, more_fields=fields))

    thread = threading.Thread(target=serve, daemon=True)
    thread.start()
    try:
        yield
    finally:
        service.socket.shutdown(2)
        thread.join()
        service.close()
