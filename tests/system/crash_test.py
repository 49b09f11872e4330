"""The host dies, in every way, at any moment: what was accepted is delivered, or waits in a cache file.

QMLOGCACHE_CRASH_SEED repeats the moments and records of a run, as far as the machine does.
"""

import collections
import os
import random
import secrets
import signal
import sys
import time

from cache_files import read_copy, read_file, record_of
from deliveries import Deliveries, key_of
from host_fixture import HostTestCase, PATIENCE, SANITIZED, wait_until
from ingress_client import LoadProducer

KILLS = 10 if SANITIZED else 50
KILLS_IN_OUTAGES = 4 if SANITIZED else 12
LONGEST_RUN = 2.0 if SANITIZED else 0.6  # seconds a host lives at most once it is ready


class CrashTestCase(HostTestCase):
    def setUp(self):
        super().setUp()
        self.seed = int(os.environ.get("QMLOGCACHE_CRASH_SEED") or secrets.randbits(32))
        self.random = random.Random(self.seed)
        self.deliveries = Deliveries(self.dir)
        self.producers = []
        self.kills = 0

    def tearDown(self):
        for producer in self.producers:
            producer.stop()
        super().tearDown()

    def start_producers(self, count, limit=10_000):
        """limit: of records each, so that a fast machine does not make a test long."""
        self.producers = [
            LoadProducer(self.socket, f"p{n}", self.random.getrandbits(32), limit) for n in range(count)
        ]
        for producer in self.producers:
            producer.start()

    def accepted(self):
        return set().union(*(producer.accepted() for producer in self.producers))

    def kill_host(self):
        self.stop_host(signal.SIGKILL)
        self.kills += 1

    def delivered_keys(self):
        self.deliveries.read()
        return self.deliveries.keys

    def check_nothing_is_lost(self):
        """Every accepted record has arrived or stands in a cache file. No host may be running."""
        accepted = self.accepted()  # first: what is accepted later is not looked for
        delivered = self.delivered_keys()
        kept = {key_of(record_of(row)) for row in read_copy(self.cache_dir)}
        self.assertEqual(accepted - delivered - kept, set(), f"lost with kill {self.kills}, seed {self.seed}")
        self.assertEqual(list(self.cache_dir.glob("*.zip")), [], f"a crash was taken for damage, seed {self.seed}")
        return kept

    def drain(self, expected):
        """Waits until all of these have arrived; gives up only when nothing new arrives for a long time."""
        count = -1
        while not expected <= self.delivered_keys():
            self.assertGreater(len(self.deliveries.records), count,
                               f"{len(expected - self.delivered_keys())} records never arrive, seed {self.seed}")
            count = len(self.deliveries.records)
            deadline = time.monotonic() + PATIENCE
            while len(self.deliveries.read()) == count and time.monotonic() < deadline:
                time.sleep(0.02)

    def finish(self, what):
        """Ends the load, has everything delivered, and holds what arrived against what was sent. No host may be running."""
        if len(self.accepted()) <= self.kills:  # on a very slow disk; otherwise nothing would be shown
            self.start_host()
            wait_until(lambda: len(self.accepted()) > self.kills, "enough records to be accepted")
            self.stop_host(signal.SIGKILL)
        for producer in self.producers:
            producer.stop()
            self.assertIsNone(producer.fault)
        kept = self.check_nothing_is_lost()
        accepted = self.accepted()
        self.start_host()
        self.drain(accepted | kept)
        self.assertEqual(self.stop_host(), 0)

        sent = {}
        for producer in self.producers:
            sent.update(producer.sent())
        ids = collections.defaultdict(set)
        for record, data_id in self.deliveries.read():
            self.assertEqual(sent.get(key_of(record)), record, f"nobody sent this, seed {self.seed}")
            ids[data_id].add(key_of(record))
        arrived = [key_of(record) for record, _ in self.deliveries.records]
        distinct = set(arrived)
        self.assertLessEqual(accepted, distinct)
        # No record was given two ids, and no id was given twice.
        self.assertEqual((len(ids), max(map(len, ids.values()))), (len(distinct), 1), f"seed {self.seed}")
        # What still stands in the files had arrived already when the host was stopped.
        left = {key_of(record_of(row)) for row in read_copy(self.cache_dir)}
        self.assertLessEqual(left, distinct)
        self.assertEqual(self.log_text("qmlogcacheerror"), "")
        self.assertLessEqual(self.deliveries.torn, self.kills)
        unanswered = sum(producer.unanswered for producer in self.producers)
        refused = sum(producer.refused for producer in self.producers)
        print(
            f"\n  {what}: seed {self.seed}, {self.kills} kills, sent {len(sent)}, accepted {len(accepted)}, "
            f"unanswered {unanswered}, refused {refused}, delivered {len(distinct)}, "
            f"repeats {len(arrived) - len(distinct)}, torn lines {self.deliveries.torn}, rows left {len(left)}",
            file=sys.stderr,
        )
        self.assertGreater(len(accepted), self.kills)


class CrashTest(CrashTestCase):
    def test_nothing_accepted_is_lost_by_kills_at_random_moments(self):
        self.start_producers(3)
        for _ in range(KILLS):
            ready = self.launch_host()
            if self.random.random() < 0.2:
                time.sleep(self.random.uniform(0, 1.2))  # in the middle of the start, too
            else:
                wait_until(ready, "the host to be ready")
                time.sleep(self.random.uniform(0, LONGEST_RUN))
            self.kill_host()
            self.check_nothing_is_lost()
        self.finish("kills with the destination up")

    def test_nothing_accepted_is_lost_by_kills_in_outages_of_the_destination(self):
        self.start_producers(2)
        for number in range(KILLS_IN_OUTAGES):
            self.start_host()
            time.sleep(self.random.uniform(0, LONGEST_RUN / 3))
            if number % 2 == 0:
                self.take_link_down()
                time.sleep(self.random.uniform(0, LONGEST_RUN))
            self.kill_host()
            self.check_nothing_is_lost()
        self.finish("kills in outages")


class CleanStopTest(CrashTestCase):
    def test_a_stop_writes_what_was_not_written_at_intake(self):
        self.write_cache_config(dataflowflag=1)
        self.start_host()
        self.take_link_down()
        self.start_producers(2, limit=2_000)
        wait_until(lambda: len(self.accepted()) >= 500, "records to be accepted in the outage")
        self.assertEqual(self.stop_host(), 0)
        for producer in self.producers:
            producer.stop()
            self.assertIsNone(producer.fault)
        kept = self.check_nothing_is_lost()
        self.assertGreaterEqual(len(kept), 500)
        self.start_host()
        self.drain(self.accepted() | kept)
        # A row goes once its record's delivery has been confirmed.
        wait_until(lambda: not any(read_file(path) for path in self.cache_dir.glob("*.db")), "the rows to be deleted")
        self.assertEqual(self.stop_host(), 0)
        arrived = collections.Counter(key_of(record) for record, _ in self.deliveries.read())
        self.assertEqual([key for key, times in arrived.items() if times > 1], [])
