"""The http link: delivery, and every status that a server can answer with."""

import email.utils
import os
import signal
import threading
import time
import uuid

from host_fixture import LINK_DOWN, SANITIZED, wait_until
from http_destination import Destination
from http_link_case import HttpLinkTestCase, LINK_UP


class DeliveryTest(HttpLinkTestCase):
    def test_records_arrive_as_compressed_batches_of_lines_over_few_connections(self):
        self.start_up()
        lines = [f"line {n} äöü \"quoted\"" for n in range(1000)]
        self.send_lines(lines)
        self.wait_for_messages(lines)
        self.assertEqual(self.stop_host(), 0)
        agent = (self.data_dir / "agent_id").read_text().strip()
        uuid.UUID(agent)
        requests = self.destination.seen()
        self.assertEqual(requests[0].records, [])  # asks whether the server is well
        self.assertIsNone(requests[0].headers["Idempotency-Key"])
        for request in requests[1:]:
            self.assertEqual(request.path, "/records")
            self.assertEqual(request.headers["Content-Type"], "application/x-ndjson")
            self.assertEqual(request.headers["Content-Encoding"], "gzip")
            self.assertIsNone(request.headers["Authorization"])
            self.assertEqual(uuid.UUID(request.headers["Idempotency-Key"]).version, 5)
            self.assertTrue(1 <= len(request.records) <= 64)
        keys = [request.headers["Idempotency-Key"] for request in requests[1:]]
        self.assertEqual(len(set(keys)), len(keys))
        for record in self.destination.arrived:
            self.assertEqual(record["id"], f"{agent}/{record['dataid']}")
            self.assertEqual(record["combo"], "http")
        self.assertEqual(len(self.destination.arrived), len(lines))
        self.assertLessEqual(self.destination.connections, 2)
        self.assert_nothing_rejected()

    def test_the_id_of_the_agent_stays_and_can_be_configured(self):
        self.start_up()
        first = (self.data_dir / "agent_id").read_text()
        self.stop_host()
        self.start_host()
        self.wait_for_log(LINK_UP, 2)
        self.assertEqual((self.data_dir / "agent_id").read_text(), first)
        self.stop_host()
        own = str(uuid.uuid4())
        self.write_config(link={"driver": "http", "agent_id": own.upper()},
                          http={"url": f"http://127.0.0.1:{self.destination.port}"})
        self.start_host()
        self.send_lines(["one"])
        self.wait_for_messages(["one"])
        self.assertTrue(self.destination.arrived[0]["id"].startswith(own + "/"))

    def test_the_environments_proxy_is_not_used(self):
        proxies = {name: "http://127.0.0.1:1" for name in ("http_proxy", "HTTP_PROXY", "https_proxy", "all_proxy")}
        os.environ.update(proxies)
        self.addCleanup(lambda: [os.environ.pop(name) for name in proxies])
        self.start_up()
        self.send_lines(["direct"])
        self.wait_for_messages(["direct"])

    def test_a_configured_proxy_is_used(self):
        proxy = Destination()
        proxy.start()
        self.addCleanup(proxy.stop)
        # Only the proxy is asked for the name.
        self.configure(host="nowhere.invalid", proxy=f"http://127.0.0.1:{proxy.port}")
        self.start_up()
        self.send_lines(["by proxy"])
        wait_until(lambda: list(proxy.messages().values()) == ["by proxy"], "the record at the proxy")
        self.assertTrue(proxy.seen()[0].path.startswith("http://nowhere.invalid"))

    def test_sighup_renews_connections_without_an_outage_and_without_a_repeat(self):
        self.start_up()
        lines = [f"line {n}" for n in range(6000 if SANITIZED else 20000)]
        sender = threading.Thread(target=self.send_lines, args=(lines, "--no-save"))
        sender.start()
        self.addCleanup(sender.join)
        # Each time a request is under way: it is answered before its connection is closed.
        renewals = 3
        for n in range(1, renewals + 1):
            held = threading.Event()
            self.addCleanup(held.set)
            caught = threading.Event()

            def answer(request, _, held=held, caught=caught):
                if request.records:
                    caught.set()
                    held.wait(60)
                return 200

            connections = self.destination.connections
            self.destination.answer = answer
            self.assertTrue(caught.wait(60))
            self.host.send_signal(signal.SIGHUP)
            self.wait_for_log("qmhost reopens the link", n)
            time.sleep(0.3)  # longer than the renewal is put off
            self.destination.answer = lambda request, _: 200
            held.set()
            wait_until(lambda seen=connections: self.destination.connections > seen, "a new connection")
        sender.join()
        self.wait_for_messages(lines)
        self.assertEqual(len(self.destination.arrived), len(lines))
        self.assertEqual(self.count_log(LINK_DOWN), 0)
        self.assertEqual(self.stop_host(), 0)
        self.assertIn("held 0", self.host_said())


class TroubleTest(HttpLinkTestCase):
    def test_every_other_status_is_the_links_trouble_and_is_told_once(self):
        self.start_up()
        lines = []
        for status in (300, 301, 302, 304, 307, 308, 401, 403, 404, 405, 408, 409, 415, 429, 500, 502, 503, 504, 599):
            new = [f"{status} {n}" for n in range(3)]
            lines += new
            where = f"http://127.0.0.1:{self.destination.port}/elsewhere"
            reason = self.go_through_outage(lambda request, _, s=status: (s, {"Location": where}), new)
            self.assertEqual(reason, f": HTTP status {status}")
        self.wait_for_messages(lines)
        self.assertEqual({request.path for request in self.destination.seen()}, {"/records"})
        self.assertEqual(self.destination.foreign, [])
        self.assert_nothing_rejected()

    def test_an_outage_is_logged_once_however_often_the_server_is_asked(self):
        self.start_up()
        self.destination.answer = lambda request, _: 503
        asked = len(self.destination.seen())
        self.send_lines(["one"])
        wait_until(lambda: len(self.destination.seen()) >= asked + 6, "attempts")
        self.assertEqual(self.count_log(LINK_DOWN), 1)

    def test_what_the_server_asks_to_wait_is_kept(self):
        self.start_up()
        # A date has no fractions of a second: two seconds may be little more than one.
        for n, value in enumerate((lambda: "1", lambda: email.utils.formatdate(time.time() + 2, usegmt=True))):
            self.destination.answer = lambda request, _, v=value: (503, {"Retry-After": v()})
            before = len(self.destination.seen())
            self.send_lines([f"wait {n}"])
            self.wait_for_log(LINK_DOWN, n + 1)
            self.destination.answer = lambda request, _: 200
            self.wait_for_log(LINK_UP, n + 2)
            refused, asked = self.destination.seen()[before : before + 2]
            self.assertEqual((len(refused.records), asked.records), (1, []))
            self.assertGreaterEqual(asked.time - refused.time, 0.9)
        self.wait_for_messages(["wait 0", "wait 1"])

    def test_a_server_that_goes_in_the_middle_of_the_stream_and_comes_back_loses_nothing(self):
        self.start_up()
        lines = [f"line {n}" for n in range(3000)]
        sender = threading.Thread(target=self.send_lines, args=(lines,))
        sender.start()
        for n in range(1, 4):
            wait_until(lambda: len(self.destination.messages()) >= 300 * n, "records before the outage")
            self.destination.stop()
            self.wait_for_log(LINK_DOWN, n)
            self.destination.start()
            self.wait_for_log(LINK_UP, n + 1)
        sender.join()
        self.wait_for_messages(lines)
        self.assertEqual(self.stop_host(), 0)
        self.assert_nothing_rejected()

    def test_a_port_that_is_closed_is_told(self):
        self.destination.stop()
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertIn(f"127.0.0.1 port {self.destination.port}", self.log_text("qmhost"))
