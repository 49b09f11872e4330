"""The host as a service: what it tells the service manager that started it, and its watchdog."""

import os
import signal
import subprocess
import time
import unittest

from host_fixture import HostTestCase, LINK_DOWN, SANITIZED, wait_until
from service_manager import ServiceManager


class ServiceTestCase(HostTestCase):
    def setUp(self):
        super().setUp()
        self.manager = ServiceManager(self.dir / "notify")
        self.addCleanup(self.manager.close)

    def launch(self, watchdog=None):
        with (self.dir / "host.out").open("ab") as stream:
            self.host = subprocess.Popen(
                self.host_command(), stdout=stream, stderr=subprocess.STDOUT,
                env={**os.environ, **self.manager.environment(watchdog)},
            )  # fmt: skip


class ServiceTest(ServiceTestCase):
    def test_ready_is_told_when_records_are_taken(self):
        self.launch()
        ready = self.manager.read_until("READY")
        self.assertEqual(ready["READY"], "1")
        self.assertIn(f"Taking records on {self.socket}; the link is ", ready["STATUS"])
        self.assertEqual(self.send(data=b"x\n").returncode, 0)
        self.assertEqual(len(self.manager.heard), 1)

    def test_a_stop_is_told_before_it_begins(self):
        self.launch()
        self.manager.read_until("READY")
        self.assertEqual(self.stop_host(), 0)
        last = self.manager.read()
        self.assertEqual(last["STOPPING"], "1")
        self.assertIn("STATUS", last)

    def test_a_reload_is_told_with_its_time_and_its_end(self):
        self.launch()
        self.manager.read_until("READY")
        before = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000
        self.host.send_signal(signal.SIGHUP)
        reloading = self.manager.read()
        after = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1000
        self.assertEqual(reloading["RELOADING"], "1")
        self.assertTrue(before <= int(reloading["MONOTONIC_USEC"]) <= after)
        self.assertEqual(self.manager.read()["READY"], "1")

    def test_a_start_that_fails_says_why_and_is_never_ready(self):
        self.write_config(**{"plugin logcache": {"guid": "00000000-0000-0000-0000-000000000000"}})
        self.launch()
        told = self.manager.read()
        self.assertRegex(told["STATUS"], "^Failed: .*00000000-0000-0000-0000-000000000000")
        self.assertEqual(self.host.wait(), 1)
        self.assertNotIn("READY", told)


class WatchdogTest(ServiceTestCase):
    """Short times, so that the tests are short; nothing depends on them."""

    def feeds(self, count):
        for _ in range(count):
            self.manager.read_until("WATCHDOG", "1")

    def test_without_a_watchdog_nothing_is_fed(self):
        self.launch()
        self.manager.read_until("READY")
        self.assertEqual(self.send(data=b"x\n").returncode, 0)
        self.assertEqual(self.stop_host(), 0)
        self.manager.read_until("STOPPING")
        self.assertFalse(any("WATCHDOG" in message for message in self.manager.heard))

    def test_it_is_fed_after_ready_with_every_link_up_or_down(self):
        for link in (
            {},
            {"link": {"driver": "http"}, "http": {"url": "http://127.0.0.1:1/"}},
            {"link": {"driver": "nats"}, "nats": {"servers": "nats://127.0.0.1:1"}},
        ):
            with self.subTest(link=link):
                self.write_config(**link)
                self.launch(watchdog=40)  # a quarter of it is more than a busy machine keeps a thread waiting
                self.manager.heard.clear()
                self.feeds(2)
                self.assertIn("READY", self.manager.heard[0])
                self.assertEqual(self.stop_host(), 0)
                self.manager.read_until("STOPPING")
        self.assertNotIn("stand still", self.log_text("qmhost"))

    def test_it_is_fed_while_the_file_link_is_down_and_says_so(self):
        self.launch(watchdog=2)
        self.manager.read_until("READY")
        wait_until(self.records_file.exists, "the link to be up")
        self.take_link_down()
        self.assertIn(LINK_DOWN, self.log_text("qmhost"))
        self.feeds(1)
        while "the link is down" not in self.manager.read().get("STATUS", ""):
            pass
        self.feeds(2)

    def test_it_is_fed_under_load(self):
        self.write_config(storage={"sync": "normal"})
        self.launch(watchdog=2)
        self.manager.read_until("READY")
        count = 1000 if SANITIZED else 5000
        self.assertEqual(self.send(data=b"x\n" * count).returncode, 0)
        self.wait_for_records(count)
        self.feeds(2)

    def test_a_watchdog_of_another_process_is_not_fed(self):
        environment = {**os.environ, **self.manager.environment(2), "WATCHDOG_PID": str(os.getpid())}
        self.host = subprocess.Popen(self.host_command(), stdout=subprocess.DEVNULL, env=environment)
        self.manager.read_until("READY")
        self.assertEqual(self.send(data=b"x\n").returncode, 0)
        self.assertEqual(self.stop_host(), 0)
        self.manager.read_until("STOPPING")
        self.assertFalse(any("WATCHDOG" in message for message in self.manager.heard))


if __name__ == "__main__":
    unittest.main()
