"""A daemon that faults or signals end again and again, and its only client."""

import itertools
import resource

import dbus

from attacked import EXCEPTION
from world import observe

OLD = b"[net]\nip=old\n"


class Victim:
    """Lives as long as its world. `revive` starts another daemon on the same files if there is none."""

    def __init__(self, world, wrapper=()):
        self.world = world
        self.wrapper = wrapper
        self.daemon = None
        self.client = world.client()
        self.values = (f"value {number:04}" for number in itertools.count())

    def revive(self):
        if self.daemon is None or self.daemon.process.poll() is not None:
            self.world.wait_until_unserved()
            self.daemon = self.world.start(wrapper=self.wrapper)

    def prepare(self, old):
        """Makes the file `old`, or removes it, with a change pending in a living daemon; returns the pending text."""
        self.revive()
        value = next(self.values)
        self.client.write("net", "ip", value)
        if old is None:
            self.world.registry.unlink(missing_ok=True)
        else:
            self.world.registry.write_bytes(old)
        return f"[net]\nip={value}\n".encode()

    def directory(self):
        """All files with their content."""
        return {file.name: file.read_bytes() for file in self.world.registry.parent.iterdir()}

    def descriptors(self):
        return len(observe.descriptors(self.daemon.pid))

    def flush(self, member="Flush", *arguments):
        """The message of the error, None for success."""
        try:
            self.client.call(member, *arguments)
            return None
        except dbus.DBusException as e:
            assert e.get_dbus_name() == EXCEPTION, e
            return e.get_dbus_message()

    def limit_file_size(self, limit=resource.RLIM_INFINITY):
        """The kernel writes only the beginning of a text that is longer."""
        resource.prlimit(self.daemon.pid, resource.RLIMIT_FSIZE, (limit, resource.RLIM_INFINITY))


def files(registry, new=None):
    """The directory with these contents, as Victim.directory returns it; None for no file."""
    return {name: text for name, text in [("registry", registry), ("registry~~new", new)] if text is not None}
