"""The servers that the links deliver to. Both count what arrives, and keep nothing longer than a measurement."""

import asyncio
import collections
import gzip
import http.client
import os
import shutil
import socket
import time

from nats_client import NatsClient
from processes import Daemon

UUID_SIZE = 36


def find_nats_server():
    """None when it is not installed. Debian has it where not every user's PATH leads."""
    return shutil.which("nats-server", path=os.environ.get("PATH", "") + ":/usr/sbin")


def timed(action):
    begun = time.monotonic()
    action()
    return time.monotonic() - begun


class HttpDestination:
    """Unpacks each batch, counts its lines and answers 200: less than any server can do that keeps them."""

    driver = "http"

    def __init__(self, loop):
        self.port = 0
        self._loop = loop
        self._server = None
        self._counts = collections.Counter()

    def start(self):
        async def listen():
            server = await self._loop.loop.create_server(lambda: _Requests(self._counts), "127.0.0.1", 0)
            return server, server.sockets[0].getsockname()[1]

        self._server, self.port = self._loop.run(listen())

    def stop(self):
        if self._server is not None:
            self._loop.loop.call_soon_threadsafe(self._server.close)
            self._server = None

    def reset(self):
        self._counts.clear()

    def count(self):
        """Records so far, repeats included."""
        return sum(list(self._counts.values()))

    def agents(self):
        """The ids of the agents whose records have come."""
        return set(self._counts)

    def configuration(self, port):
        return f"[link]\ndriver = http\n[http]\nurl = http://127.0.0.1:{port}/records\n"

    def round_trips(self, port, count):
        """How long so many requests took, in seconds, one after the other on one connection."""
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
        connection.connect()
        connection.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

        def ask():
            connection.request("POST", "/", headers={"Content-Length": "0"})
            connection.getresponse().read()

        ask()
        found = [timed(ask) for _ in range(count)]
        connection.close()
        return found


class _Requests(asyncio.Protocol):
    """The requests of one connection."""

    def __init__(self, counts):
        self._counts = counts
        self._transport = None
        self._read = bytearray()

    def connection_made(self, transport):
        self._transport = transport

    def data_received(self, data):
        self._read += data
        while (end := self._read.find(b"\r\n\r\n")) >= 0:
            headers = bytes(self._read[:end]).lower().split(b"\r\n")[1:]
            size = next((int(line.partition(b":")[2]) for line in headers if line.startswith(b"content-length:")), 0)
            begin = end + 4
            if len(self._read) < begin + size:
                return
            if size:
                self._count(gzip.decompress(self._read[begin:begin + size]))
            del self._read[:begin + size]
            self._transport.write(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")

    def _count(self, lines):
        head = b'{"id":"'
        if lines.startswith(head):
            self._counts[lines[len(head):len(head) + UUID_SIZE].decode()] += lines.count(b"\n")


class NatsDestination:
    """nats-server with a stream in memory. Repeats are dropped by the stream."""

    driver = "nats"
    stream = "qmlogcache"

    def __init__(self, directory):
        self.port = 0
        self._directory = directory
        self._daemon = None
        self._client = None

    def start(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        self._directory.mkdir()
        config = self._directory / "server.conf"
        config.write_text(f'host: "127.0.0.1"\nport: {self.port}\n'
                          f'jetstream {{ store_dir: "{self._directory}/store", max_mem: 1G, max_file: 1M }}\n')
        self._daemon = Daemon([find_nats_server(), "-c", config], self._directory / "words")
        self._daemon.wait_ready(lambda: "Server is ready" in self._daemon.said())
        self._client = NatsClient(self.port)
        self._client.make_stream(self.stream, storage="memory", duplicate_window=120 * 10**9)

    def stop(self):
        if self._client is not None:
            self._client.close()
            self._client = None
        if self._daemon is not None:
            self._daemon.stop()
            self._daemon = None

    def reset(self):
        self._client.api(f"STREAM.PURGE.{self.stream}")

    def count(self):
        return self._client.count(self.stream)

    def agents(self):
        state = self._client.api(f"STREAM.INFO.{self.stream}", subjects_filter=">")["state"]
        return {subject.split(".")[1] for subject in state.get("subjects") or ()}

    def configuration(self, port):
        return f"[link]\ndriver = nats\n[nats]\nservers = nats://127.0.0.1:{port}\n"

    def round_trips(self, port, count):
        client = NatsClient(port)
        client.api("INFO")
        found = [timed(lambda: client.api("INFO")) for _ in range(count)]
        client.close()
        return found


def make_destinations(loop, directory):
    """One of each kind that there is a server for, not started yet, and why one is missing."""
    destinations, missing = [HttpDestination(loop)], []
    if find_nats_server():
        destinations.append(NatsDestination(directory / "nats"))
    else:
        missing.append("nats-server is not installed (scripts/install-deps test installs it): nothing of the nats link")
    return destinations, missing
