"""What stands between and behind the links when they are measured: if it lost or reordered something, or were faster
than it says, the figures would be wrong."""

import gzip
import pathlib
import socket
import sys
import threading
import time
import unittest

HERE = pathlib.Path(__file__).resolve()
sys.path += [str(HERE.parents[1]), str(HERE.parents[2] / "peers"), str(HERE.parents[3] / "tests" / "system")]

from delay_proxy import DelayProxy, Loop  # noqa: E402
from destinations import HttpDestination  # noqa: E402

PATIENCE = 60
AGENTS = ("0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11", "1d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c12")


def connect(port):
    connection = socket.create_connection(("127.0.0.1", port), timeout=PATIENCE)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return connection


def read(connection, size):
    data = b""
    while len(data) < size:
        piece = connection.recv(size - len(data))
        if not piece:
            break
        data += piece
    return data


class Echo:
    """A server that answers with what it is told."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.answer, args=(connection,), daemon=True).start()

    @staticmethod
    def answer(connection):
        with connection:
            try:
                while data := connection.recv(1 << 16):
                    connection.sendall(data)
            except OSError:
                pass  # the proxy was closed


class DelayProxyTest(unittest.TestCase):
    def setUp(self):
        self.loop = Loop()
        self.addCleanup(self.loop.stop)
        self.echo = Echo()
        self.addCleanup(self.echo.listener.close)
        self.proxy = DelayProxy(self.loop, self.echo.port)
        self.proxy.open()
        self.addCleanup(self.proxy.close)

    def test_passes_everything_unchanged_and_in_order(self):
        sent = b"".join(number.to_bytes(4, "big") for number in range(250_000))
        for round_trip in (0.0, 0.01):
            with self.subTest(round_trip=round_trip), connect(self.proxy.port) as connection:
                self.proxy.round_trip = round_trip
                writer = threading.Thread(target=connection.sendall, args=(sent,), daemon=True)
                writer.start()
                self.assertEqual(read(connection, len(sent)), sent)
                writer.join(PATIENCE)

    def test_a_round_trip_takes_no_less_than_it_is_to_take(self):
        self.proxy.round_trip = 0.05
        with connect(self.proxy.port) as connection:
            for _ in range(3):
                begun = time.monotonic()
                connection.sendall(b"x")
                self.assertEqual(read(connection, 1), b"x")
                self.assertGreaterEqual(time.monotonic() - begun, 0.05)

    def test_what_is_under_way_arrives_before_the_end_of_the_connection(self):
        self.proxy.round_trip = 0.05
        with connect(self.proxy.port) as connection:
            connection.sendall(b"last words")
            connection.shutdown(socket.SHUT_WR)
            self.assertEqual(read(connection, 100), b"last words")
        deadline = time.monotonic() + PATIENCE
        while self.proxy.ends and time.monotonic() < deadline:
            time.sleep(0.01)
        self.assertEqual(self.proxy.ends, set())

    def test_a_closed_proxy_ends_connections_and_refuses_new_ones(self):
        with connect(self.proxy.port) as connection:
            connection.sendall(b"x")
            self.assertEqual(read(connection, 1), b"x")
            self.proxy.close()
            self.assertEqual(read(connection, 1), b"")
        with self.assertRaises(ConnectionRefusedError):
            connect(self.proxy.port)

    def test_a_proxy_that_is_opened_again_has_its_port(self):
        port = self.proxy.port
        self.proxy.close()
        self.proxy.open()
        self.assertEqual(self.proxy.port, port)
        with connect(port) as connection:
            connection.sendall(b"x")
            self.assertEqual(read(connection, 1), b"x")


class HttpDestinationTest(unittest.TestCase):
    def setUp(self):
        self.loop = Loop()
        self.addCleanup(self.loop.stop)
        self.destination = HttpDestination(self.loop)
        self.destination.start()
        self.addCleanup(self.destination.stop)

    @staticmethod
    def request(agent, count):
        body = gzip.compress(b"".join(b'{"id":"%s/%d"}\n' % (agent.encode(), number) for number in range(count)))
        return b"POST /records HTTP/1.1\r\nHost: x\r\nContent-Length: %d\r\n\r\n" % len(body) + body

    def test_counts_the_lines_of_each_agent_however_they_are_cut(self):
        requests = self.request(AGENTS[0], 64) + self.request(AGENTS[1], 3) + self.request(AGENTS[0], 1)
        with connect(self.destination.port) as connection:
            for begin in range(0, len(requests), 7):
                connection.sendall(requests[begin:begin + 7])
            answer = b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"
            self.assertEqual(read(connection, 3 * len(answer)), 3 * answer)
        self.assertEqual(self.destination.count(), 68)
        self.assertEqual(self.destination.agents(), set(AGENTS))
        self.destination.reset()
        self.assertEqual((self.destination.count(), self.destination.agents()), (0, set()))

    def test_an_empty_batch_is_answered_and_counts_nothing(self):
        with connect(self.destination.port) as connection:
            connection.sendall(b"POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n" + self.request(AGENTS[0], 0))
            self.assertEqual(read(connection, 76).count(b"200 OK"), 2)
        self.assertEqual(self.destination.count(), 0)


if __name__ == "__main__":
    unittest.main()
