"""A bus that takes connections and does not answer, until it is told to."""

import contextlib
import socket
import threading

from harness import PATIENCE


class StalledBus:
    """Stands in front of a real bus. Connections wait unanswered until release(), which lets them through."""

    def __init__(self, world):
        self.socket = world.path / "stalled-bus"
        self.environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.socket}"}
        self.target = str(world.bus.socket)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(self.socket))
        self.listener.listen()
        self.ends = []
        self.threads = []

    def __enter__(self):
        return self

    def release(self, most=None):
        """Waits for a connection and lets it through to the real bus: for good, or until the client has sent `most`
        bytes."""
        self.listener.settimeout(PATIENCE)
        client, _ = self.listener.accept()
        server = socket.socket(socket.AF_UNIX)
        server.connect(self.target)
        self.ends += [client, server]
        for end in (client, server):
            end.settimeout(None)
        for source, sink, most_of_it in ((client, server, most), (server, client, None)):
            self.threads.append(threading.Thread(target=pump, args=(source, sink, most_of_it), daemon=True))
            self.threads[-1].start()

    def __exit__(self, *_):
        for end in (self.listener, *self.ends):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        for end in (self.listener, *self.ends):
            end.close()


def pump(source, sink, most):
    sent = 0
    with contextlib.suppress(OSError):
        while data := source.recv(65536):
            sink.sendall(data)
            sent += len(data)
            if most is not None and sent >= most:
                return
        sink.shutdown(socket.SHUT_RDWR)
