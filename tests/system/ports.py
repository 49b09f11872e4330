"""Ports for servers that a test starts."""

import random
import socket


def free_ports(count):
    """Ports that are free now. A server takes the same ones again whenever it is started anew, so they are none that the
    system gives to whoever asks for any: another program's connection would hold one meanwhile."""
    sockets = []
    try:
        for port in random.sample(range(12_000, 32_000), 20 * count):
            one = socket.socket()
            sockets.append(one)
            try:
                one.bind(("127.0.0.1", port))
            except OSError:
                sockets.pop().close()
            if len(sockets) == count:
                return [one.getsockname()[1] for one in sockets]
        raise AssertionError("there are no free ports")
    finally:
        for one in sockets:
            one.close()
