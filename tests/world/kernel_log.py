"""The FIFO in place of /dev/kmsg."""

import contextlib
import os


class KernelLog:
    def __init__(self, path):
        os.mkfifo(path)
        self.fd = os.open(path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
        self.text = b""
        self.taken = 0

    def read(self):
        """Returns everything that was written so far."""
        with contextlib.suppress(BlockingIOError):
            while True:
                self.text += os.read(self.fd, 65536)
        return self.text.decode()

    def take(self):
        """Returns what was written since the last call."""
        text = self.read()[self.taken:]
        self.taken += len(text)
        return text

    def close(self):
        os.close(self.fd)
