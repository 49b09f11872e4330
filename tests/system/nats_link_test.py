"""The nats link and one server: delivery, repeats, and what makes an outage."""

import json
import pathlib
import signal
import threading
import time
import uuid

from host_fixture import LINK_DOWN, wait_until
from nats_link_case import LINK_UP, OneServerTestCase


class DeliveryTest(OneServerTestCase):
    def test_a_record_is_one_message_with_a_stable_id_under_a_subject_of_its_own(self):
        client = self.make_stream()
        self.start_up()
        lines = [f"line {n} äöü \"quoted\"" for n in range(500)]
        self.send_lines(lines)
        self.send_lines(["alarm"], "--priority", "high", "--kind", "epp")
        found = self.wait_for_messages(client, lines + ["alarm"])
        self.assertEqual(self.stop_host(), 0)
        agent = (self.data_dir / "agent_id").read_text().strip()
        uuid.UUID(agent)
        for subject, headers, data in found:
            record = json.loads(data)
            self.assertEqual(record["id"], f"{agent}/{record['dataid']}")
            self.assertEqual(headers["Nats-Msg-Id"], record["id"])
            self.assertEqual(headers["Nats-Expected-Stream"], "qmlogcache")
            self.assertEqual(subject, f"qmlogcache.{agent}.{record['kind']}.{record['priority']}")
            self.assertFalse(data.endswith(b"\n"))
        self.assertIn(f"qmlogcache.{agent}.epp.high", {subject for subject, _, _ in found})
        self.assertEqual(self.count_log(LINK_DOWN), 0)
        self.assert_nothing_rejected()

    def test_prefix_and_stream_can_be_configured(self):
        client = self.connect(self.server)
        client.make_stream(name="LOGS", subjects=("fleet.berlin.>",))
        self.configure(self.server.url, stream="LOGS", subject="fleet.berlin")
        self.start_up()
        self.send_lines(["one"])
        wait_until(lambda: client.count("LOGS") == 1, "the record")
        self.assertTrue(client.messages("LOGS")[0][0].startswith("fleet.berlin."))

    def test_sighup_makes_a_new_connection_without_an_outage(self):
        client = self.make_stream()
        self.start_up()
        self.send_lines(["before"])
        self.wait_for_messages(client, ["before"])
        made = self.connections_made()
        self.host.send_signal(signal.SIGHUP)
        wait_until(lambda: self.connections_made() > made, "the new connection")
        self.send_lines(["after"])
        self.wait_for_messages(client, ["before", "after"])
        self.assertEqual(self.count_log(LINK_DOWN), 0)

    def test_every_record_is_settled_when_connections_are_renewed_in_the_middle_of_the_stream(self):
        client = self.make_stream()
        self.configure(self.server.url, timeout_ms=60000)  # however long the server is frozen on a busy machine
        self.start_up()
        lines = [f"line {n}" for n in range(3000)]
        sender = threading.Thread(target=self.send_lines, args=(lines, "--no-save"))
        sender.start()
        for n in range(5):
            wait_until(lambda n=n: client.count() > 500 * n, "messages before the renewal")
            # Records wait for their acknowledgement at the moment of the renewal.
            made = self.connections_made()
            self.server.freeze()
            more = [f"more {n} {m}" for m in range(5)]
            self.send_lines(more)
            lines = lines + more
            wait_until(lambda: self.server.unread() > 0, "records on their way")
            self.host.send_signal(signal.SIGHUP)
            wait_until(self.has_taken_signals, "the host to take the signal")
            time.sleep(0.3)  # longer than the renewal is put off here
            self.server.thaw()
            wait_until(lambda made=made: self.connections_made() > made, "the new connection")
        sender.join()
        self.wait_for_messages(client, lines)
        # A record whose outcome went astray would be held for good, and shut the window one by one.
        self.assertEqual(self.stop_host(), 0)
        self.assertIn("held 0", self.host_said())
        self.assertEqual(self.count_log(LINK_DOWN), 0)

    def connections_made(self):
        return self.server.ask("varz")["total_connections"]

    def has_taken_signals(self):
        status = pathlib.Path(f"/proc/{self.host.pid}/status").read_text()
        return all(int(line.split()[1], 16) == 0 for line in status.splitlines() if line.startswith("ShdPnd:"))


class OutageTest(OneServerTestCase):
    def test_a_server_that_is_killed_in_the_middle_of_the_stream_loses_nothing(self):
        client = self.make_stream()
        self.start_up()
        lines = [f"line {n}" for n in range(2000)]
        sender = threading.Thread(target=self.send_lines, args=(lines,))
        sender.start()
        for n in range(1, 3):
            wait_until(lambda n=n: client.count() >= 400 * n, "messages before the outage")
            self.server.kill()
            self.wait_for_log(LINK_DOWN, n)
            self.server.start()
            self.wait_for_log(LINK_UP, n + 1)
            client = self.connect(self.server)
        sender.join()
        found = self.wait_for_messages(client, lines)
        self.assertEqual(len({headers["Nats-Msg-Id"] for _, headers, _ in found}), len(lines))
        self.assertEqual(self.stop_host(), 0)
        self.assert_nothing_rejected()

    def test_what_a_killed_host_sends_again_is_dropped_by_the_window(self):
        client = self.make_stream()
        self.start_up()
        lines = [f"line {n}" for n in range(1000)]
        self.send_lines(lines[:500])
        wait_until(lambda: client.count() == 500, "the records before")
        # The stream takes what is on its way, and the host learns nothing of it.
        self.server.freeze()
        self.send_lines(lines[500:])
        wait_until(lambda: self.server.unread() > 10000, "records on their way")
        self.host.send_signal(signal.SIGSTOP)
        self.server.thaw()
        wait_until(lambda: client.count() > 500, "the records on their way")
        self.stop_host(signal.SIGKILL)
        self.start_host()
        self.wait_for_log(LINK_UP, 2)
        self.wait_for_messages(client, lines)
        self.assertEqual(self.stop_host(), 0)
        # It did send some twice.
        wait_until(lambda: self.server.published() > len(lines), "the count of what the host published")
        self.assert_nothing_rejected()

    def test_a_server_that_stops_answering_is_an_outage_and_a_stop_does_not_wait_for_it(self):
        client = self.make_stream()
        self.configure(self.server.url, timeout_ms=300, connect_timeout_ms=300)
        self.start_up()
        downs, ups = self.count_log(LINK_DOWN), self.count_log(LINK_UP)  # a busy machine may not connect in time
        self.server.freeze()
        self.send_lines(["one"])
        self.wait_for_log("no acknowledgement in time")
        self.assertEqual(self.count_log(LINK_DOWN), downs + 1)
        self.server.thaw()
        self.wait_for_log(LINK_UP, ups + 1)
        self.wait_for_messages(client, ["one"])
        self.server.freeze()
        self.send_lines(["two"])
        self.assertEqual(self.stop_host(), 0)
        self.server.thaw()
        self.start_host()
        self.wait_for_messages(client, ["one", "two"])
        self.assert_nothing_rejected()

    def test_a_stream_that_is_missing_is_an_outage_before_and_in_the_middle(self):
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertIn("asked for the stream qmlogcache, the server says: there is none", self.down_reason())
        self.send_lines(["before"])
        client = self.make_stream()
        self.wait_for_log(LINK_UP)
        self.wait_for_messages(client, ["before"])
        client.api("STREAM.DELETE.qmlogcache")
        self.send_lines(["in the middle"])
        self.wait_for_log(LINK_DOWN, 2)
        self.assertIn("no stream takes the records' subjects", self.down_reason(1))
        client.make_stream()
        self.wait_for_messages(client, ["in the middle"])
        self.assertEqual(self.count_log(LINK_DOWN), 2)
        self.assert_nothing_rejected()

    def test_a_stream_of_other_subjects_and_a_stream_that_is_full_are_told(self):
        client = self.connect(self.server)
        client.make_stream(subjects=("qmlogcache.*.edr.>",))
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertRegex(self.down_reason(), r"the stream qmlogcache does not take the subject qmlogcache\.\S+epp\.low")
        client.change_stream(subjects=["qmlogcache.>"], max_msgs=2)
        self.wait_for_log(LINK_UP)
        self.send_lines(["one", "two", "three"])
        self.wait_for_log(LINK_DOWN, 2)
        self.assertIn("maximum messages exceeded", self.down_reason(1))
        client.change_stream(max_msgs=-1)
        self.wait_for_messages(client, ["one", "two", "three"])
        self.assert_nothing_rejected()
