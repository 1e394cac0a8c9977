"""A socket between a client and a real bus. The client gets no answer until the test lets it through, and what it sends
can be held back."""

import contextlib
import math
import socket
import threading

from world.harness import PATIENCE


class StalledBus:
    """Connections are not answered until release()."""

    def __init__(self, world):
        path = str(world.path / "stalled-bus")
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={path}"}
        self.target = str(world.bus.socket)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.settimeout(PATIENCE)
        self.listener.bind(path)
        self.listener.listen()
        self.allowance = 0  # the number of bytes that the client may still send, guarded by changed
        self.changed = threading.Condition()
        self.ends = [self.listener]
        self.threads = []

    def __enter__(self):
        return self

    def release(self, most=math.inf):
        """Waits for a connection and connects it to the real bus, until the client has sent `most` bytes."""
        self.hold(most)
        client, _ = self.listener.accept()
        server = socket.socket(socket.AF_UNIX)
        server.connect(self.target)
        self.ends += [client, server]
        client.settimeout(None)
        for arguments in ((client, server, True), (server, client, False)):
            self.threads.append(threading.Thread(target=self._pump, args=arguments, daemon=True))
            self.threads[-1].start()

    def hold(self, most=0):
        """Holds back what the client sends, except for the piece that has the next `most` bytes."""
        with self.changed:
            self.allowance = most
            self.changed.notify_all()

    def let_through(self, count):
        """Waits until so many more bytes of the client have been let through."""
        self.hold(count)
        with self.changed:
            assert self.changed.wait_for(lambda: self.allowance <= 0, PATIENCE), "the client sends no more"

    def go_on(self):
        """Ends hold()."""
        self.hold(math.inf)

    def _pump(self, source, sink, limited):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                with self.changed:
                    self.changed.wait_for(lambda: not limited or self.allowance > 0)
                sink.sendall(data)
                with self.changed:
                    self.allowance -= limited * len(data)
                    self.changed.notify_all()
            sink.shutdown(socket.SHUT_RDWR)

    def __exit__(self, *_):
        self.go_on()
        for end in self.ends:
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        for end in self.ends:
            end.close()


@contextlib.contextmanager
def stalled_start(machine, **options):
    """Starts a service whose bus does not answer. Yields the bus, the start command and the daemon, which ends before its
    bus."""
    with StalledBus(machine) as bus:
        starter = machine.launch(environment=bus.environment, **options)
        yield bus, starter, machine.unready_service()
        machine.end_services()
