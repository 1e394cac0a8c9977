"""A bus that takes connections and does not answer, until it is told to, or takes what it gets piece by piece."""

import contextlib
import math
import socket
import threading

from world.harness import PATIENCE


class StalledBus:
    """Stands in front of a real bus. Connections wait unanswered until release(), which lets them through."""

    def __init__(self, world):
        self.socket = world.path / "stalled-bus"
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.socket}"}
        self.target = str(world.bus.socket)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(self.socket))
        self.listener.listen()
        self.allowance = Allowance()
        self.ends = []
        self.threads = []

    def __enter__(self):
        return self

    def release(self, most=math.inf):
        """Waits for a connection and lets it through to the real bus: for good, or until the client has sent `most`
        bytes."""
        self.listener.settimeout(PATIENCE)
        client, _ = self.listener.accept()
        server = socket.socket(socket.AF_UNIX)
        server.connect(self.target)
        self.ends += [client, server]
        for end in (client, server):
            end.settimeout(None)
        self.allowance.set(most)
        for source, sink, allowance in ((client, server, self.allowance), (server, client, Allowance(math.inf))):
            self.threads.append(threading.Thread(target=pump, args=(source, sink, allowance), daemon=True))
            self.threads[-1].start()

    def hold(self, most=0):
        """From now on nothing of what the client sends comes through, but for the piece that holds its next `most`
        bytes."""
        self.allowance.set(most)

    def let_through(self, count):
        """Waits until so many more bytes of the client have come through."""
        self.allowance.set(count)
        self.allowance.wait_until_used()

    def go_on(self):
        """Ends hold()."""
        self.allowance.set(math.inf)

    def __exit__(self, *_):
        self.go_on()
        for end in (self.listener, *self.ends):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        for end in (self.listener, *self.ends):
            end.close()


class Allowance:
    """How many bytes may still go in one direction."""

    def __init__(self, count=0):
        self.count = count
        self.changed = threading.Condition()

    def set(self, count):
        with self.changed:
            self.count = count
            self.changed.notify_all()

    def use(self, count):
        with self.changed:
            self.count -= count
            self.changed.notify_all()

    def wait_until_some(self):
        with self.changed:
            self.changed.wait_for(lambda: self.count > 0)

    def wait_until_used(self):
        with self.changed:
            assert self.changed.wait_for(lambda: self.count <= 0, PATIENCE), "the client sends no more"


def pump(source, sink, allowance):
    with contextlib.suppress(OSError):
        while data := source.recv(65536):
            allowance.wait_until_some()
            sink.sendall(data)
            allowance.use(len(data))
        sink.shutdown(socket.SHUT_RDWR)
