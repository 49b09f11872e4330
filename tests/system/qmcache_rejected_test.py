"""What a destination refuses can be taken from the log and sent again, as it was."""

import json
import shutil
import subprocess
import time
import unittest

from host_fixture import BIN, PATIENCE, wait_until
from http_link_case import HttpLinkTestCase
from qmcache_case import DAMAGE, FAILED, NOTHING, USAGE, WELL, CacheToolTestCase, without_id
from readback_test import NAUGHTY

RECORD = ("dataid", "priority", "public", "kind", "priv", "msgtype", "guid", "product", "combo", "message")


class RejectedTest(HttpLinkTestCase, CacheToolTestCase):
    def rejected(self, *arguments, status=WELL):
        return self.records("rejected", "--log-directory", self.log_dir, *arguments, status=status)

    def refuse(self):
        """All but good records, which tell the refused ones from a server that takes nothing."""

        def answer(request, handler):
            return 200 if all(self.is_good(record) for record in request.records) else 422

        self.destination.answer = answer

    @staticmethod
    def is_good(record):
        return record.get("message", "").startswith("good ")

    def wait_for_rejected(self, count):
        def logged():
            return sum(file.read_bytes().count(b"\n") for file in self.log_dir.glob("qmlogcacheerror*.log"))

        deadline = time.monotonic() + PATIENCE
        good = 0
        while logged() < count:
            self.assertLess(time.monotonic(), deadline, f"{logged()} of {count} records are rejected")
            self.put("--priority", "real", lines=[f"good {good}"])
            good += 1
            time.sleep(0.1)

    def test_rejected_records_are_sent_again_and_arrive(self):
        self.refuse()
        self.start_up()
        lines = [text for text in NAUGHTY if "\n" not in text] + ["] strData[<version=1><dataid=1>]", "\xff"]
        self.put("--sender", "one", "--priority", "high", "--public", "--product", "p] strCombo[", "--combo",
                 "] strData[", lines=lines[:20])
        self.put("--sender", "two", "--kind", "tag", lines=lines[20:])
        self.wait_for_rejected(len(lines))
        found = self.rejected()
        self.assertEqual(sorted(record["message"] for record in found), sorted(lines))
        one = [record for record in found if record["product"]]
        self.assertEqual(len(one), 20)
        for record in one:
            self.assertEqual((record["priv"], record["kind"]), (12, "edr"))
            self.assertEqual((record["product"], record["combo"]), ("p] strCombo[", "] strData["))
        self.assertEqual({record["kind"] for record in found if not record["product"]}, {"tag"})
        for record in found:
            self.assertTrue(record["result"].startswith("0x"))
            self.assertRegex(record["rejected"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d")
        self.destination.answer = lambda request, handler: 200
        command = [BIN / "qmcache", "rejected", "--log-directory", self.log_dir]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
            sent = subprocess.run([BIN / "qmsend", "--socket", self.socket, "--records"], stdin=process.stdout,
                                  capture_output=True, timeout=PATIENCE, check=False)
            self.assertEqual((process.wait(PATIENCE), sent.returncode), (WELL, 0), sent.stderr)
        arrived = lambda: [record for record in self.destination.arrived if not self.is_good(record)]
        wait_until(lambda: len(arrived()) >= len(lines), "the records to arrive")
        self.assertEqual(without_id([{name: record[name] for name in RECORD} for record in arrived()]),
                         without_id([{name: record[name] for name in RECORD} for record in found]))

    def test_filters_take_what_they_name(self):
        self.refuse()
        self.start_up()
        self.put("--sender", "one", "--priority", "high", lines=["high"])
        self.put("--sender", "two", "--priority", "low", lines=["low"])
        self.wait_for_rejected(2)
        messages = lambda *arguments, **options: [r["message"] for r in self.rejected(*arguments, **options)]
        self.assertEqual(messages("--sender", "one"), ["high"])
        self.assertEqual(messages("--priority", "low"), ["low"])
        self.assertEqual(sorted(messages("--since", "1h")), ["high", "low"])
        self.assertEqual(messages("--since", "2100-01-01", status=NOTHING), [])
        self.output("rejected", "--since", "soon", status=USAGE)

    def test_rotated_files_are_read_oldest_first(self):
        self.write_config(link={"driver": "http"}, log={"max_file_size": "32K", "max_files": 50},
                          http={"url": f"http://127.0.0.1:{self.destination.port}/records", "retry_max_ms": 200})
        self.refuse()
        self.start_up()
        lines = [f"{n:04} " + "x" * 2000 for n in range(100)]
        self.put(lines=lines)
        self.wait_for_rejected(len(lines))
        self.assertGreater(len(list(self.log_dir.glob("qmlogcacheerror*.log"))), 5)
        found = self.rejected()
        self.assertEqual(sorted(record["message"] for record in found), lines)
        times = [record["rejected"] for record in found]
        self.assertEqual(times, sorted(times))

    def test_damaged_lines_are_named_and_the_others_are_read(self):
        self.refuse()
        self.start_up()
        self.put(lines=["one", "two"])
        self.wait_for_rejected(2)
        good = (self.log_dir / "qmlogcacheerror.log").read_bytes().splitlines(keepends=True)
        good.sort(key=lambda line: b"<msg=two>" in line)
        logs = self.dir / "logs"
        logs.mkdir()
        file = logs / "qmlogcacheerror.log"
        file.write_bytes(good[0][:-10] + b"\n" + b"2026-01-01T00:00:00.000000Z 1 1 L3 qmlog lost[3] lines\n" +
                         b"\xff\x00\x1b[2J\n" + good[1] + good[0].replace(b"strData[", b"strData[\\q") + good[1][:-1])
        done = self.tool("rejected", "--log-directory", logs)
        self.assertEqual(done.returncode, DAMAGE)
        self.assertEqual([json.loads(line)["message"] for line in done.stdout.splitlines()], ["two", "two"])
        self.assertEqual([line.split(b": ")[1] for line in done.stderr.splitlines()],
                         [str(file).encode() + b":1", str(file).encode() + b":5"])
        self.assertEqual(self.records("rejected", file, status=DAMAGE), self.records("rejected", file, status=DAMAGE))

    def test_the_line_that_is_being_written_is_no_damage(self):
        self.refuse()
        self.start_up()
        self.put(lines=["one"])
        self.wait_for_rejected(1)
        line = (self.log_dir / "qmlogcacheerror.log").read_bytes().splitlines(keepends=True)[0]
        logs = self.dir / "logs"
        logs.mkdir()
        newest, older = logs / "qmlogcacheerror.log", logs / "qmlogcacheerror.1.log"
        for length in (10, len(line) // 2, len(line) - 3):
            newest.write_bytes(line + line[:length])
            done = self.tool("rejected", "--log-directory", logs)
            self.assertEqual((done.returncode, done.stdout.count(b"\n")), (WELL, 1))
            self.assertIn(b"ends without a newline", done.stderr)
        older.write_bytes(line[:-10])  # nobody goes on with that one
        done = self.tool("rejected", older, newest)
        self.assertEqual((done.returncode, done.stdout.count(b"\n")), (DAMAGE, 1))
        self.assertIn(b"qmlogcacheerror.1.log:1: the line is cut", done.stderr)

    def test_filters_may_stand_before_the_files(self):
        self.refuse()
        self.start_up()
        self.put("--sender", "one", "--priority", "high", lines=["high"])
        self.put("--sender", "two", "--priority", "low", lines=["low"])
        self.wait_for_rejected(2)
        file = self.log_dir / "qmlogcacheerror.log"
        messages = lambda *arguments: [r["message"] for r in self.records("rejected", *arguments, file)]
        self.assertEqual(messages("--sender", "one"), ["high"])
        self.assertEqual(messages("--priority", "low"), ["low"])
        self.assertEqual(sorted(messages("--sender", "one", "--sender", "two")), ["high", "low"])

    def test_what_cannot_be_read_is_told(self):
        self.output("rejected", "--log-directory", self.dir / "none", status=FAILED)
        (self.dir / "link.log").symlink_to(self.config)
        self.output("rejected", self.dir / "link.log", status=FAILED)

    def test_the_hosts_configuration_says_where_the_log_is(self):
        self.refuse()
        self.start_up()
        self.put(lines=["one"])
        self.wait_for_rejected(1)
        shutil.copy2(BIN / "qmcache", self.prefix / "bin" / "qmcache")
        done = subprocess.run([self.prefix / "bin" / "qmcache", "--config", self.config, "rejected"],
                              capture_output=True, timeout=PATIENCE, check=False)
        self.assertEqual(json.loads(done.stdout)["message"], "one")


if __name__ == "__main__":
    unittest.main()
