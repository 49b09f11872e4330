"""Producers that break every rule, hundreds at a time: a producer beside them that keeps to the rules notices nothing,
and the host's memory stays within bounds."""

import contextlib
import os
import pathlib
import random
import resource
import socket
import struct
import unittest
import uuid

from host_fixture import HostTestCase, message_bytes, SANITIZED
from ingress_client import COMBO, Connection, EDR, LoadProducer, combo_payload

CONNECTIONS = 200 if SANITIZED else 1000
MEBIBYTE = 1 << 20
HELLO = struct.pack("<IB3x4sI", 12, 1, b"QMIN", 1)


def hostile_bytes(number, chance):
    """What a producer that breaks the rules sends after connecting."""
    kinds = (
        b"",  # nothing at all
        HELLO[:7],  # half a hello
        chance.randbytes(64),  # no protocol at all
        b"GET / HTTP/1.1\r\n\r\n",
        struct.pack("<IB3x4sI", 12, 1, b"QMIN", 9),  # another version
        HELLO + struct.pack("<I", 16 * MEBIBYTE),  # announces a long frame, and sends none of it
        HELLO + struct.pack("<I", 0xFFFFFFFF),  # one over the limit
        HELLO + struct.pack("<IB3xIQ16s", 32, 3, 99999, 1, b""),  # a message type nobody takes
        HELLO + struct.pack("<IB3xIQ16s", 32, 3, EDR, 1, b"") * 3 + b"\x20",  # three records, and a byte of the next
        HELLO + struct.pack("<IB3xIQ16s", 100, 3, COMBO, 1, b"") + chance.randbytes(68),  # a combo header cut short
        HELLO + struct.pack("<IB3x", 4, 200),  # a frame of no kind
    )
    return kinds[number % len(kinds)]


class HostileProducerTest(HostTestCase):
    def setUp(self):
        super().setUp()
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, max(soft, 4096)), hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        self.chance = random.Random(20260701)

    def resident(self):
        """Bytes of the host that are in memory."""
        pages = int(pathlib.Path(f"/proc/{self.host.pid}/statm").read_text().split()[1])
        return pages * os.sysconf("SC_PAGESIZE")

    def test_a_thousand_hostile_connections_disturb_nobody_and_cost_little(self):
        self.write_config(ingress={"max_connections": 2048, "stall_timeout_ms": 2000})
        self.start_host()
        good = LoadProducer(self.socket, "good", 1, 500)
        good.start()
        before = self.resident()
        peak = before
        with contextlib.ExitStack() as stack:
            for number in range(CONNECTIONS):
                peer = stack.enter_context(socket.socket(socket.AF_UNIX))
                peer.settimeout(10)
                try:
                    peer.connect(str(self.socket))
                    peer.sendall(hostile_bytes(number, self.chance))
                except OSError:
                    pass  # the host may have closed it already
                if number % 50 == 0:
                    peak = max(peak, self.resident())
            good.join()
            peak = max(peak, self.resident())
        self.assertIsNone(good.fault)
        self.assertEqual((good.unanswered, good.refused, len(good.accepted())), (0, 0, 500))
        records = self.wait_for_records(500)
        self.assertLessEqual(500, len(records))
        growth = (peak - before) / MEBIBYTE
        print(f"\n  {CONNECTIONS} hostile connections: memory grew by {growth:.1f} MiB", flush=True)
        if not SANITIZED:
            self.assertLess(growth, 100)
        # All are gone, and a new producer is welcome.
        Connection(self.socket).close()
        self.assertEqual(self.stop_host(), 0)

    def test_half_sent_long_frames_cost_no_more_than_what_was_sent(self):
        self.start_host()
        before = self.resident()
        with contextlib.ExitStack() as stack:
            for _ in range(40):
                peer = stack.enter_context(socket.socket(socket.AF_UNIX))
                peer.connect(str(self.socket))
                peer.sendall(HELLO + struct.pack("<IB3xIQ16s", 16 * MEBIBYTE, 3, EDR, 1, b"") + bytes(65536))
            self.assertEqual(self.send(data=b"still there\n").returncode, 0)
            growth = (self.resident() - before) / MEBIBYTE
        print(f"\n  40 half frames of 16 MiB: memory grew by {growth:.1f} MiB", flush=True)
        if not SANITIZED:
            self.assertLess(growth, 64)
        self.assertEqual(self.stop_host(), 0)

    def test_texts_of_every_trade_arrive_unchanged(self):
        self.write_config(log={"levels": "1,2,3,4,6"})
        self.start_host()
        texts = [
            b"'; drop table logcache; --",
            b"\"); delete from logcache; --",
            b"%s%s%s%n%n%n%1000000d",
            b"<version=1><dataid=1><end=1><msg=forged>",
            b"\x1b]0;title\x07\x1b[2J\x1b[31mred",
            b"one\nL4 **qmlogcache a forged line\r\ntwo",
            "\u202eright to left \U0001f480".encode(),
            b"../../../../etc/passwd",
            b"{\"onlineflag\":\"0\"}",
            b"\xff\xfe\xc0\x80",
        ]
        connection = Connection(self.socket)
        sender = uuid.uuid4()
        number = 0
        for text in texts:
            for product, combo, record in ((text[:64], b"c", b"r"), (b"p", text[:64], b"r"), (b"p", b"c", text)):
                number += 1
                connection.send(COMBO, number, sender, combo_payload(1, 1, product, combo, b"%d:" % number + record))
                self.assertEqual(connection.answer(), (number, 0))
        connection.close()
        self.wait_for_records(number)
        arrived = {message_bytes(record) for record in self.delivered()}
        self.assertEqual(len(arrived), number)
        # What stands in the product or combo may move the border between the fields, but a record's own text is whole.
        for index, text in enumerate(texts):
            self.assertIn(b"%d:" % (3 * index + 3) + text, arrived)
        self.assertEqual(self.stop_host(), 0)
        for channel in ("qmlogcache", "qmhost", "qmlogcacheerror"):
            log = self.log_text(channel)
            for forbidden in ("\x1b", "\r", "\x07"):
                self.assertNotIn(forbidden, log)
            for line in log.splitlines():
                self.assertRegex(line, r"^\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d\S* ", "a forged line")


if __name__ == "__main__":
    unittest.main()
