"""The small HTTP server that comes with the host: what it has answered is whole in its file, come what may."""

import http.client
import importlib.machinery
import importlib.util
import os
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

RECEIVER = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "http-receiver"


class ReceiverTest(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="qmlogcache-"))
        self.addCleanup(shutil.rmtree, self.dir)
        self.file = self.dir / "records.jsonl"

    def start(self, largest_file=resource.RLIM_INFINITY):
        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (largest_file, resource.RLIM_INFINITY))

        receiver = subprocess.Popen(
            [sys.executable, "-B", RECEIVER, "0", self.file], stdout=subprocess.PIPE, text=True, preexec_fn=limit
        )
        self.addCleanup(receiver.stdout.close)
        self.addCleanup(receiver.wait)
        self.addCleanup(receiver.kill)
        self.port = int(receiver.stdout.readline().split()[-1])
        return receiver

    def post(self, body, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        try:
            connection.request("POST", "/", body, headers or {})
            return connection.getresponse().status
        finally:
            connection.close()

    def test_what_a_full_disk_cuts_short_is_not_accepted_and_does_not_break_what_comes_next(self):
        receiver = self.start(largest_file=20)
        self.assertEqual(self.post(b'{"id":"a/1"}\n'), 200)
        self.assertEqual(self.post(b'{"id":"a/2","message":"long"}\n'), 503)
        self.assertEqual(self.file.read_bytes(), b'{"id":"a/1"}\n')
        resource.prlimit(receiver.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        self.assertEqual(self.post(b'{"id":"a/2","message":"long"}\n'), 200)
        self.assertEqual(self.file.read_bytes(), b'{"id":"a/1"}\n{"id":"a/2","message":"long"}\n')

    def test_what_a_kill_left_of_a_line_is_gone_after_the_next_start(self):
        receiver = self.start()
        self.assertEqual(self.post(b'{"id":"a/1"}\n'), 200)
        receiver.kill()
        receiver.wait()
        with self.file.open("ab") as file:
            file.write(b'{"id":"a/2","mess')
        self.start()
        self.assertEqual(self.post(b'{"id":"a/2"}\n'), 200)
        self.assertEqual(self.file.read_bytes(), b'{"id":"a/1"}\n{"id":"a/2"}\n')

    def test_a_body_that_is_not_what_its_header_says_is_refused(self):
        self.start()
        self.assertEqual(self.post(b"no gzip", {"Content-Encoding": "gzip"}), 400)
        self.assertEqual(self.post(b"\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff\xff\xff", {"Content-Encoding": "gzip"}), 400)
        self.assertEqual(self.file.read_bytes(), b"")

    def test_the_name_of_a_new_file_is_on_disk_before_anything_is_answered(self):
        loader = importlib.machinery.SourceFileLoader("http_receiver", str(RECEIVER))
        receiver = importlib.util.module_from_spec(importlib.util.spec_from_loader("http_receiver", loader))
        with mock.patch("sys.dont_write_bytecode", True):
            loader.exec_module(receiver)
        synced = []
        with mock.patch("os.fsync", lambda descriptor: synced.append(os.readlink(f"/proc/self/fd/{descriptor}"))):
            receiver.Server(0, self.file).server_close()
        self.assertEqual(synced, [str(self.dir)])

    def test_an_empty_batch_is_accepted(self):
        self.start()
        self.assertEqual(self.post(b""), 200)
        self.assertEqual(self.file.read_bytes(), b"")


if __name__ == "__main__":
    unittest.main()
