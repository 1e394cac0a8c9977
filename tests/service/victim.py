"""A daemon that meets one fault after another, and the only client that it has."""

import itertools
import resource

import dbus

from world import observe
from world.harness import ERROR_PREFIX

OLD = b"[net]\nip=old\n"


class Victim:
    """Lives as long as its world. It may be killed; `revive` starts the next one on the same files."""

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
        """Makes the file be `old` or be missing, with a change pending; returns the text to be written."""
        value = next(self.values)
        self.client.write("net", "ip", value)
        if old is None:
            self.world.registry.unlink(missing_ok=True)
        else:
            self.world.registry.write_bytes(old)
        return f"[net]\nip={value}\n".encode()

    def folder(self):
        """All files with what is in them."""
        return {file.name: file.read_bytes() for file in self.world.registry.parent.iterdir()}

    def descriptors(self):
        return len(observe.descriptors(self.daemon.pid))

    def flush(self):
        """The message of the error, None for success."""
        return self.answer("Flush")

    def answer(self, member, *arguments):
        try:
            self.client.call(member, *arguments)
            return None
        except dbus.DBusException as e:
            assert e.get_dbus_name() == ERROR_PREFIX + "Exception", e
            return e.get_dbus_message()

    def limit_file_size(self, limit=resource.RLIM_INFINITY):
        """From now on the kernel takes a part only of a text that is longer."""
        resource.prlimit(self.daemon.pid, resource.RLIMIT_FSIZE, (limit, resource.RLIM_INFINITY))


def files(registry, new=None):
    """The folder's content as Victim.folder tells it; None for no file."""
    return {name: text for name, text in [("registry", registry), ("registry~~new", new)] if text is not None}
