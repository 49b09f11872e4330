"""qmcache run again and again beside a host under load changes no outcome: nothing is lost, backed up or complained of."""

import subprocess
import threading
import unittest

from cache_files import read_copy
from host_fixture import BIN, PATIENCE, SANITIZED, message_bytes, wait_until
from ingress_client import LoadProducer
from qmcache_case import NOTHING, WELL, CacheToolTestCase

PRODUCERS = 3
RECORDS = 200 if SANITIZED else 1500


class Readers(threading.Thread):
    """Runs every reading verb, over and over; keeps what went wrong."""

    VERBS = (["ls"], ["cat", "--json"], ["verify"], ["export", "-"], ["show", "1"], ["ls", "--json"], ["salvage"])

    def __init__(self, directory, first):
        super().__init__()
        self._directory = directory
        self._first = first
        self._stopping = threading.Event()
        self.runs = 0
        self.wrong = []

    def stop(self):
        self._stopping.set()
        self.join()

    def run(self):
        while not self._stopping.is_set():
            verb = self.VERBS[(self.runs + self._first) % len(self.VERBS)]
            if verb == ["salvage"]:
                verb = ["salvage", next(self._directory.glob("*.db"))]
            done = subprocess.run([BIN / "qmcache", "--directory", self._directory, *verb], capture_output=True,
                                  timeout=PATIENCE, check=False)
            self.runs += 1
            if done.returncode != (NOTHING if verb[0] == "show" else WELL):
                self.wrong.append((verb, done.returncode, done.stdout[-1000:], done.stderr))


class LoadTest(CacheToolTestCase):
    def read_while(self, work, readers=2):
        threads = [Readers(self.cache_dir, number) for number in range(readers)]
        for thread in threads:
            thread.start()
        try:
            work(lambda: all(thread.runs > len(Readers.VERBS) for thread in threads))
        finally:
            for thread in threads:
                thread.stop()
        self.assertEqual([wrong for thread in threads for wrong in thread.wrong], [])

    def check_nothing_happened(self):
        self.assertEqual(list(self.cache_dir.glob("*.zip")), [])
        self.assertEqual(self.log_text("qmlogcacheerror"), "")
        lines = [line for line in self.log_text("qmlogcache").splitlines() if " L3 " in line or " L4 " in line]
        self.assertEqual([line for line in lines if "CLogCacheDb" in line or "CLogCacheFile" in line], [])

    def produce(self, long_enough):
        producers = [LoadProducer(self.socket, f"p{n}", n, RECORDS) for n in range(PRODUCERS)]
        for producer in producers:
            producer.start()
        for producer in producers:
            producer.join()
        wait_until(long_enough, "the readers to have read enough")
        for producer in producers:
            self.assertIsNone(producer.fault)
            self.assertEqual((producer.refused, producer.unanswered), (0, 0))
        return {key: record for producer in producers for key, record in producer.sent().items()}

    def test_records_that_come_and_go_meet_no_reader(self):
        self.start_host()
        self.put(lines=["first"])
        self.wait_for_records(1)
        sent = {}

        def work(long_enough):
            sent.update(self.produce(long_enough))
            self.wait_for_records(len(sent) + 1)

        self.read_while(work)
        self.assertEqual(self.stop_host(), 0)
        delivered = [message_bytes(record) for record in self.delivered()[1:]]
        self.assertEqual(sorted(delivered), sorted(sent.values()))
        self.assertEqual(read_copy(self.cache_dir), [])
        self.check_nothing_happened()

    def test_a_backlog_is_written_whole_and_its_logs_stay_short(self):
        self.start_without_destination()
        sent = {}
        self.put(lines=["first"])
        self.read_while(lambda long_enough: sent.update(self.produce(long_enough)))
        # A reader that had kept a transaction open would have kept the log from being shortened.
        self.put(lines=["x" * 200] * 60)
        for log in self.cache_dir.glob("*-wal"):
            self.assertLess(log.stat().st_size, 1 << 20)
        self.assertEqual(len(self.records("cat", "--json")), len(sent) + 61)
        self.assertEqual(self.stop_host(), 0)
        self.assertEqual(len(read_copy(self.cache_dir)), len(sent) + 61)
        self.check_nothing_happened()

    def test_a_reader_that_stands_still_holds_nothing_back(self):
        self.start_without_destination()
        count = 600 if SANITIZED else 3000
        self.put("--sender", "one", lines=["x" * 1000] * count)
        command = [BIN / "qmcache", "--directory", self.cache_dir, "cat"]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
            process.stdout.readline()  # and no more: it waits for its reader now
            self.put("--sender", "one", lines=["y" * 1000] * 300)
            logs = list(self.cache_dir.glob("*-wal"))
            self.assertEqual(len(logs), 1)
            self.assertLess(logs[0].stat().st_size, 200 << 10)
            lines = process.stdout.read().splitlines()
            self.assertEqual(process.wait(PATIENCE), WELL)
        self.assertGreaterEqual(len(lines), count - 1)
        self.check_nothing_happened()


if __name__ == "__main__":
    unittest.main()
