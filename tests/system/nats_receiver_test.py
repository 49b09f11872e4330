"""The reader that comes with the nats link: each message of the stream is in its file once, come what may."""

import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

from host_fixture import wait_until
from nats_server import NatsServer

RECEIVER = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "nats-receiver"


class NatsReceiverTest(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="qmlogcache-"))
        self.addCleanup(shutil.rmtree, self.dir)
        self.file = self.dir / "records.jsonl"
        self.server = NatsServer(self.dir)
        self.addCleanup(lambda: self.server.stop())
        self.server.start()

    def start(self):
        """The receiver; returns as soon as the stream is there."""
        receiver = subprocess.Popen([sys.executable, "-B", RECEIVER, str(self.server.port), self.file],
                                    stdout=subprocess.PIPE, text=True)
        self.addCleanup(receiver.stdout.close)
        self.addCleanup(receiver.wait)
        self.addCleanup(receiver.kill)
        self.assertEqual(receiver.stdout.readline(), "reading\n")
        return receiver

    def publish(self, *lines):
        client = self.server.client()
        try:
            for line in lines:
                self.assertIn(b'"seq"', client.request("qmlogcache.a.edr.high", line.encode()))
        finally:
            client.close()

    def expect_file(self, *lines):
        """As soon as the last line is there; what comes too often stands before it."""
        wait_until(lambda: self.file.read_text().splitlines()[-1:] == list(lines[-1:]), f"the line {lines[-1]}")
        self.assertEqual(self.file.read_text().splitlines(), list(lines))

    def test_a_server_that_comes_back_is_read_on_from_where_it_was(self):
        receiver = self.start()
        self.publish("one", "two")
        self.expect_file("one", "two")
        self.server.kill()
        self.server.start()
        self.assertEqual(receiver.stdout.readline(), "reading\n")
        self.publish("three")
        self.expect_file("one", "two", "three")

    def test_messages_that_are_gone_make_none_come_twice(self):
        client = self.server.client()
        client.make_stream()
        self.publish("one", "two", "three", "four")
        client.api("STREAM.MSG.DELETE.qmlogcache", seq=1)
        client.api("STREAM.MSG.DELETE.qmlogcache", seq=3)
        client.close()
        receiver = self.start()
        self.expect_file("two", "four")
        self.server.kill()
        self.server.start()
        self.assertEqual(receiver.stdout.readline(), "reading\n")
        self.publish("five")
        self.expect_file("two", "four", "five")

    def test_a_stream_that_was_made_anew_is_read_from_its_beginning(self):
        receiver = self.start()
        self.publish("one", "two")
        self.expect_file("one", "two")
        receiver.send_signal(signal.SIGSTOP)
        self.server.kill()
        shutil.rmtree(self.server.directory / "store")
        self.server.start()
        client = self.server.client()
        client.make_stream()
        client.close()
        self.publish("three", "four", "five")
        receiver.send_signal(signal.SIGCONT)
        self.expect_file("one", "two", "three", "four", "five")

    def test_after_a_restart_the_file_is_written_anew(self):
        receiver = self.start()
        self.publish("one", "two")
        self.expect_file("one", "two")
        receiver.kill()
        receiver.wait()
        with self.file.open("ab") as file:
            file.write(b"tw")
        self.start()
        self.publish("three")
        self.expect_file("one", "two", "three")


if __name__ == "__main__":
    unittest.main()
