"""A service manager for a test: the socket on which a service tells how it is."""

import select
import socket
import time

# A hang guard, not a bound.
PATIENCE = 120


class ServiceManager:
    """Collects what it is told, a dictionary for each message."""

    def __init__(self, path):
        self.path = path
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_CLOEXEC)
        self._socket.bind(str(path))
        self.heard = []

    def close(self):
        self._socket.close()

    def environment(self, watchdog=None):
        """What a service is given; watchdog in seconds."""
        given = {"NOTIFY_SOCKET": str(self.path)}
        if watchdog is not None:
            given["WATCHDOG_USEC"] = str(int(watchdog * 1_000_000))
        return given

    def read(self):
        """Waits for the next message."""
        if not select.select([self._socket], [], [], PATIENCE)[0]:
            raise AssertionError(f"waited in vain for a message after {self.heard}")
        text = self._socket.recv(65536).decode()
        message = dict(line.split("=", 1) for line in text.splitlines())
        self.heard.append(message)
        return message

    def read_until(self, key, value=None):
        """Reads on up to a message that has this key; returns it."""
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            message = self.read()
            if key in message and value in (None, message[key]):
                return message
        raise AssertionError(f"waited in vain for {key}")
