"""The C client library as its user meets it: header, library and the example program, against the real host."""

import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import unittest

from deliveries import Deliveries
from host_fixture import HostTestCase, LIB, PATIENCE, SANITIZED, message_bytes, wait_until

CLIENT = pathlib.Path(__file__).resolve().parents[2] / "client"
STRICT = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]
EXPORTS = {
    "qm_client_open", "qm_client_send", "qm_client_process", "qm_client_flush", "qm_client_fd", "qm_client_pending",
    "qm_client_close", "qm_client_error_text", "qm_client_status_text", "qm_client_version",
}


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE, check=False, **options)


class HeaderTest(unittest.TestCase):
    def check_compiles(self, suffix, *command):
        with tempfile.TemporaryDirectory() as directory:
            source = pathlib.Path(directory) / f"includes{suffix}"
            source.write_text("#include <qmclient.h>\n"
                              "struct qm_client_options options = QM_CLIENT_OPTIONS_INIT;\n"
                              "struct qm_client_record record = QM_CLIENT_RECORD_INIT;\n")
            result = run(*command, *STRICT, "-I", CLIENT, "-fsyntax-only", source)
            self.assertEqual(result.returncode, 0, result.stderr)

    def test_the_header_is_c99(self):
        self.check_compiles(".c", "cc", "-std=c99")

    def test_the_header_is_cxx98_and_later(self):
        for standard in ("c++98", "c++20"):
            self.check_compiles(".cpp", "c++", f"-std={standard}")


class LibraryTest(unittest.TestCase):
    def test_it_exports_the_functions_of_the_header_and_nothing_else(self):
        symbols = run("nm", "-D", "--defined-only", LIB / "libqmclient.so").stdout.split("\n")
        names = {line.split()[2].partition("@")[0] for line in symbols if line and line.split()[1] != "A"}
        self.assertEqual(names, EXPORTS)
        declared = set(re.findall(r"^QM_CLIENT_API .*?(qm_client_\w+)\(", (CLIENT / "qmclient.h").read_text(), re.M))
        self.assertEqual(declared, EXPORTS)

    def test_its_name_holds_the_version_of_its_interface(self):
        dynamic = run("readelf", "-d", LIB / "libqmclient.so").stdout
        self.assertIn("Library soname: [libqmclient.so.0]", dynamic)

    def test_it_needs_nothing_of_the_components(self):
        dynamic = run("readelf", "-d", LIB / "libqmclient.so").stdout
        needed = set(re.findall(r"NEEDED.*\[(.*?)\.so", dynamic))
        self.assertLessEqual(needed, {"libstdc++", "libgcc_s", "libc", "libm", "ld-linux-x86-64", "ld-linux-aarch64"}
                             | ({"libasan", "libubsan", "libtsan"} if SANITIZED else set()))


class ExampleTest(HostTestCase):
    def setUp(self):
        super().setUp()
        self.program = self.dir / "send_lines"
        sanitizer = [f"-fsanitize={os.environ['QMLOGCACHE_SANITIZE']}"] if SANITIZED else []
        result = run("cc", "-std=c99", *STRICT, *sanitizer, "-I", CLIENT, CLIENT / "examples" / "send_lines.c",
                     "-L", LIB, "-lqmclient", f"-Wl,-rpath,{LIB}", "-o", self.program)
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_the_example_hands_over_every_line(self):
        self.start_host()
        lines = [f"line {number} of a C program".encode() for number in range(1000 if SANITIZED else 5000)]
        result = subprocess.run([self.program, self.socket, "a C program"], input=b"\n".join(lines) + b"\n\n",
                                capture_output=True, timeout=PATIENCE, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        arrived = [message_bytes(record) for record in self.wait_for_records(len(lines))]
        self.assertEqual(sorted(arrived), sorted(lines))
        self.assertEqual(self.stop_host(), 0)

    def example(self, data, *arguments):
        return subprocess.run([self.program, self.socket, "a C program", *arguments], input=data, capture_output=True,
                              timeout=PATIENCE, check=False)

    def test_a_line_that_cannot_be_sent_is_named_and_a_long_one_is_one_record(self):
        self.write_config(ingress={"max_frame": 1_000_000})
        self.start_host()
        long, last = b"l" * 200_000, b"last, without a newline"
        result = self.example(b"a\0b\n" + long + b"\n" + b"x" * 1_000_000 + b"\n" + last)
        self.assertEqual(result.returncode, 1)
        said = result.stderr.decode().splitlines()
        self.assertIn("line 1 was not sent: the record holds a zero byte, where the component would cut it", said)
        # Which of both it is depends on whether the host has told its limit by then.
        self.assertTrue({"line 3 was not sent: the record is longer than the host takes",
                         "line 3 was not accepted: longer than the host takes"} & set(said), said)
        self.assertEqual(len(said), 2, said)
        arrived = [message_bytes(record) for record in self.wait_for_records(2)]
        self.assertEqual(sorted(arrived), sorted([long, last]))
        self.assertEqual(self.stop_host(), 0)

    def test_without_a_host_it_says_that_nothing_was_sent(self):
        result = self.example(b"one\n", "0")
        self.assertEqual((result.returncode, result.stderr), (1, b"line 1 was not accepted: not sent\n"))

    def answer_with(self, *answers):
        """A host for one connection and one message, which it answers so and then keeps waiting."""
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        self.socket.parent.mkdir(parents=True, exist_ok=True)
        listener.bind(str(self.socket))
        listener.listen()

        def serve():
            connection, _ = listener.accept()
            with connection, connection.makefile("rb") as stream:
                stream.read(16)
                connection.sendall(struct.pack("<IB3x4sIII", 20, 2, b"QMIN", 1, 65536, 16))
                length, request = struct.unpack("<I8xQ", stream.read(20))
                stream.read(length - 16)
                for status in answers:
                    connection.sendall(struct.pack("<IB3xIQ", 16, 4, status, request))
                stream.read()

        thread = threading.Thread(target=serve)
        thread.start()
        self.addCleanup(thread.join)

    def test_a_line_without_an_answer_is_said_to_have_none(self):
        self.answer_with()
        result = self.example(b"one\n", "2")
        self.assertEqual((result.returncode, result.stderr),
                         (1, b"line 1 was not accepted: no answer, it may have been taken or not\n"))

    def test_a_refusal_is_told_with_its_reason(self):
        self.answer_with(0xE0020002)
        result = self.example(b"one\n")
        self.assertEqual((result.returncode, result.stderr),
                         (1, b"line 1 was not accepted: producers may not send this type\n"))

    def test_it_goes_on_when_the_host_is_killed_and_started_again(self):
        """Nothing is lost; what had no answer may come twice, and that is at most what the client holds."""
        count, kills, held = 2_000 if SANITIZED else 6_000, 3, 1024
        self.start_host()
        lines = [f"line {number} through kills".encode() for number in range(count)]
        source = self.dir / "lines"
        source.write_bytes(b"\n".join(lines) + b"\n")
        with source.open("rb") as stream:
            program = subprocess.Popen([self.program, self.socket, "a C program"], stdin=stream,
                                       stderr=subprocess.PIPE)
        self.addCleanup(program.stderr.close)
        self.addCleanup(program.kill)
        deliveries = Deliveries(self.dir)
        for _ in range(kills):
            seen = len(deliveries.read())
            wait_until(lambda: program.poll() is not None or len(deliveries.read()) > seen + 300, "records to arrive")
            self.stop_host(signal.SIGKILL)
            self.start_host()
        self.assertEqual(program.wait(timeout=PATIENCE), 0, program.stderr.read())
        wait_until(lambda: len({record for record, _ in deliveries.read()}) == count, "every line to arrive")
        self.assertEqual(self.stop_host(), 0)
        self.assertEqual({record for record, _ in deliveries.read()}, set(lines))
        # A record that the client sent again has another data id; one that the component sent again keeps its own.
        ids = {data_id for _, data_id in deliveries.records}
        self.assertLessEqual(len(ids) - count, kills * held)


if __name__ == "__main__":
    unittest.main()
