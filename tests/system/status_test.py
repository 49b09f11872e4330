"""The status page's server and the metrics of a real host: what they say is held against what was sent."""

import json
import re
import socket
import subprocess
import time
import uuid

from host_fixture import wait_until
from http_destination import Destination
from ingress_client import EDR, Connection
from status_test_case import SENDER, StatusTestCase

LABELS = r'\{[a-z]+="(?:[^"\\\n]|\\.)*"(?:,[a-z]+="(?:[^"\\\n]|\\.)*")*\}'
SAMPLE = re.compile(rf"([a-z][a-z0-9_]*)({LABELS})? ([0-9.eE+-]+)")


def parse_metrics(test, text):
    """Reads the text format strictly: HELP and TYPE before the samples of a family, no family and no sample twice."""
    samples, types, family = {}, {}, None
    test.assertTrue(text.endswith("\n"))
    for line in text.splitlines():
        if line.startswith("# HELP "):
            family = line.split(" ")[2]
            test.assertNotIn(family, types)
            test.assertGreater(len(line.split(" ", 3)[3]), 10, line)
            continue
        if line.startswith("# TYPE "):
            _, _, name, kind = line.split(" ")
            test.assertEqual(name, family)
            test.assertIn(kind, ("counter", "gauge"))
            test.assertEqual(kind == "counter", name.endswith("_total"), line)
            types[name] = kind
            continue
        found = SAMPLE.fullmatch(line)
        test.assertIsNotNone(found, line)
        test.assertEqual(found[1], family)
        test.assertIn(family, types)
        key = found[1] + (found[2] or "")
        test.assertNotIn(key, samples)
        samples[key] = float(found[3])
    return samples


def read_metrics(test):
    """Every sample by its name with labels, as it stands in the text."""
    code, headers, text = test.get("/metrics")
    test.assertEqual(code, 200)
    test.assertTrue(headers["Content-Type"].startswith("text/plain; version=0.0.4"))
    return parse_metrics(test, text)


class StatusTest(StatusTestCase):
    def metrics(self):
        return read_metrics(self)

    def test_without_an_address_nothing_is_served(self):
        self.write_config()
        self.start_host()
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", self.port), timeout=10)

    def test_a_port_that_is_taken_is_told_at_the_start(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", self.port))
            taken.listen()
            self.start_host()
            told = f"the status cannot be served on 127.0.0.1 port {self.port} for now: Address already in use"
            wait_until(lambda: told in self.log_text("qmhost"), "the log to tell it")
            self.send_records("low", 3)
            self.wait_for_records(3)
        wait_until(self.is_served, "the page, now that the port is free")
        self.assertEqual(self.status()["records"]["accepted"]["low"], 3)
        self.assertEqual(self.log_text("qmhost").count(told), 1)

    def is_served(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def test_an_address_of_the_network_is_refused(self):
        self.write_config(status={"listen": f"0.0.0.0:{self.port}"})
        self.assertEqual(self.run_to_its_end(), 2)
        self.assertIn("can be reached from elsewhere", self.host_said())

    def run_to_its_end(self):
        with (self.dir / "host.out").open("ab") as stream:
            ended = subprocess.run(self.host_command(), stdout=stream, stderr=stream, timeout=120, check=False)
        return ended.returncode

    def test_tells_what_came_in_and_what_was_delivered(self):
        self.start_host()
        fresh = self.status()
        self.assertRegex(fresh["summary"], r"^Link (up|down) for \d+ s, no records yet(, 0 bytes of 2 GiB)?\.$")
        self.send_records("low", 30)
        self.send_records("high", 7)
        self.wait_for_records(37)
        status = self.wait_for_status(lambda now: sum(now["records"]["delivered"].values()) == 37, "37 deliveries")
        self.assertEqual(
            status["records"]["accepted"], {"low": 30, "normal": 0, "high": 7, "real": 0, "other": 0}
        )
        self.assertEqual(status["records"]["delivered"], status["records"]["accepted"])
        self.assertEqual(status["held"]["total"], 0)
        self.assertEqual(status["link"]["destination"], f"file {self.records_file}")
        samples = self.metrics()
        self.assertEqual(samples['qmhost_records_accepted_total{priority="low"}'], 30)
        self.assertEqual(samples['qmhost_records_delivered_total{priority="high"}'], 7)
        self.assertEqual(samples["qmhost_link_up"], 1)
        self.assertEqual(samples["qmhost_link_in_flight_records"], 0)
        self.assertAlmostEqual(samples["qmhost_start_time_seconds"], status["started"], places=2)

    def test_tells_of_an_outage_and_of_its_end(self):
        self.start_host()
        self.wait_for_status(lambda now: now["link"]["up"], "the link to be up")
        away = self.take_link_down()
        self.send_records("normal", 60)
        self.send_records("real", 5)
        status = self.wait_for_status(lambda now: now["held"]["oldest_seconds"] is not None, "the oldest record's age")
        self.assertFalse(status["link"]["up"])
        self.assertIn(str(self.records_file), status["link"]["reason"])
        self.assertEqual(status["held"]["total"], 65)
        self.assertEqual(status["held"]["by_priority"], {"low": 0, "normal": 60, "high": 0, "real": 5, "other": 0})
        self.assertRegex(
            status["summary"], r"^Link down for \d+ (s|min), 65 records held, oldest \d+ (s|min), \d+ KiB of 2 GiB\.$"
        )
        samples = self.metrics()
        self.assertEqual(samples["qmhost_link_up"], 0)
        self.assertEqual(samples['qmhost_held_records{priority="normal"}'], 60)
        wait_until(lambda: self.metrics()["qmhost_link_retried_total"] > 0, "a record to be given back")
        self.bring_link_up(away)
        self.wait_for_records(65)
        status = self.wait_for_status(lambda now: now["held"]["total"] == 0, "nothing to be held")
        self.assertTrue(status["link"]["up"])
        self.assertIsNone(status["link"]["reason"])
        self.assertEqual(status["records"]["delivered"]["real"], 5)
        history = json.loads(self.get("/api/history")[2])
        self.assertIn(False, history["link_up"])
        self.assertEqual({len(history[name]) for name in ("age_seconds", "accepted", "delivered", "link_up")},
                         {len(history["cache_bytes"])})
        self.assertEqual(json.loads(self.get("/api/history?span=day")[2])["step_seconds"], 60)

    def start_without_destination(self):
        """Starts the host; returns the destination, which is to be started."""
        destination = Destination()
        destination.start()
        self.addCleanup(destination.stop)
        destination.stop()
        url = f"http://127.0.0.1:{destination.port}/records"
        self.configure(link={"driver": "http"}, http={"url": url, "retry_max_ms": 200})
        self.start_host()
        return destination

    def test_what_an_earlier_run_left_counts_as_held(self):
        destination = self.start_without_destination()
        self.send_records("low", 40)
        self.assertEqual(self.stop_host(), 0)
        self.start_host()
        status = self.status()
        self.assertEqual(status["held"]["of_earlier_runs"], 40)
        self.assertEqual(status["held"]["of_this_run"], 0)
        self.assertIn("40 records held", status["summary"])
        self.send_records("high", 2)
        self.assertEqual(self.status()["held"]["total"], 42)
        destination.start()
        status = self.wait_for_status(lambda now: now["held"]["total"] == 0, "nothing to be held")
        self.assertEqual(status["records"]["delivered"], {"low": 40, "normal": 0, "high": 2, "real": 0, "other": 0})
        self.assertEqual(len(destination.messages()), 42)

    def test_a_backlog_too_large_to_count_is_known_again_when_it_is_gone(self):
        destination = self.start_without_destination()
        lines = b"".join(b"%d " % number + b"x" * 60000 + b"\n" for number in range(350))
        sent = self.send("--sender", SENDER, data=lines)
        self.assertEqual(sent.returncode, 0, sent.stderr)
        self.assertEqual(self.stop_host(), 0)
        (file,) = self.cache_dir.glob("*.db")
        self.assertGreater(file.stat().st_size, 16 << 20)
        self.start_host()
        self.send_records("high", 2)
        status = self.status()
        self.assertIsNone(status["held"]["total"])
        self.assertIn("2 records of this run held, beside what earlier runs may have left", status["summary"])
        destination.start()
        status = self.wait_for_status(lambda now: now["held"]["total"] == 0, "nothing to be held")
        self.assertIn("no records held", status["summary"])
        self.assertEqual(sum(status["records"]["delivered"].values()), 352)

    def test_many_senders_are_all_counted_at_the_start(self):
        self.start_host()
        connection = Connection(self.socket)
        self.addCleanup(connection.close)
        for number in range(205):
            connection.send(EDR, number, uuid.UUID(int=number + 1), b"x")
            self.assertEqual(connection.answer(), (number, 0))
        self.wait_for_records(205)
        self.wait_for_status(lambda now: sum(now["records"]["delivered"].values()) == 205, "205 deliveries")
        self.assertEqual(self.stop_host(), 0)
        self.assertEqual(len(list(self.cache_dir.glob("*.db"))), 205)
        self.start_host()
        status = self.wait_for_status(lambda now: now["held"]["total"] == 0, "nothing to be held")
        self.assertIn("no records", status["summary"])

    def test_tells_the_sizes_and_rows_of_cache_files(self):
        self.start_host()
        self.take_link_down()
        self.send_records("low", 25)
        name = SENDER.upper()
        status = self.wait_for_status(
            lambda now: now["cache"] and any(file["rows"] == 25 for file in now["cache"]["files"]),
            "the rows to be counted",
        )
        self.assertEqual([file["sender"] for file in status["cache"]["files"]], [name])
        on_disk = sum(path.stat().st_size for path in self.cache_dir.iterdir())
        wait_until(lambda: self.metrics()["qmhost_cache_bytes"] == on_disk, "the sizes to be told")
        samples = self.metrics()
        self.assertEqual(samples["qmhost_cache_bytes"], on_disk)
        self.assertEqual(samples[f'qmhost_cache_file_bytes{{sender="{name}"}}'], on_disk)
        self.assertEqual(samples[f'qmhost_cache_file_rows{{sender="{name}"}}'], 25)
        self.assertEqual(samples["qmhost_cache_limit_bytes"], 2 << 30)

    def test_counts_refusals_by_their_code(self):
        self.start_host()
        connection = Connection(self.socket)
        self.addCleanup(connection.close)
        for number, message_type in enumerate((77, 20002, 77)):
            connection.send(message_type, number, uuid.UUID(SENDER), b"x")
            self.assertNotEqual(connection.answer()[1], 0)
        connection.send(EDR + 3, 9, uuid.UUID(SENDER), b"x")
        self.assertEqual(connection.answer(), (9, 0))
        samples = self.metrics()
        self.assertEqual(samples['qmhost_messages_refused_total{code="0xE0020001"}'], 2)
        self.assertEqual(samples['qmhost_messages_refused_total{code="0xE0020002"}'], 1)
        self.assertEqual(samples['qmhost_records_accepted_total{priority="real"}'], 1)

    def test_no_record_is_shown(self):
        self.start_host()
        self.take_link_down()
        secret = "a-secret-of-the-record"
        sent = self.send("--product", secret, "--combo", secret, data=f"{secret}\n".encode())
        self.assertEqual(sent.returncode, 0, sent.stderr)
        self.wait_for_status(lambda now: now["held"]["total"] == 1, "the record to be held")
        for path in ("/", "/metrics", "/api/status", "/api/history", "/status.js", "/status.css"):
            code, _, text = self.get(path)
            self.assertEqual(code, 200, path)
            self.assertNotIn(secret, text, path)


class HostileClientsTest(StatusTestCase):
    def setUp(self):
        super().setUp()
        self.start_host()

    def connect(self):
        connection = socket.create_connection(("127.0.0.1", self.port), timeout=120)
        self.addCleanup(connection.close)
        return connection

    def test_a_web_page_of_another_name_gets_nothing(self):
        for host in ("evil.example", f"evil.example:{self.port}", "127.0.0.1:1"):
            code, headers, text = self.get("/api/status", Host=host)
            self.assertEqual(code, 421)
            self.assertNotIn("records", text)
            self.assertIsNone(headers["Access-Control-Allow-Origin"])
        code, headers, _ = self.get("/api/status", Origin="http://evil.example")
        self.assertEqual(code, 200)
        self.assertIsNone(headers["Access-Control-Allow-Origin"])
        self.assertEqual(headers["Cross-Origin-Resource-Policy"], "same-origin")

    def test_clients_that_hold_connections_or_send_slowly_harm_nobody(self):
        holders = [self.connect() for _ in range(200)]
        for holder in holders[::2]:
            holder.sendall(b"GET /metrics HTTP/1.1\r\nX-")
        self.send_records("low", 20)
        self.wait_for_records(20)
        self.assertEqual(read_metrics(self)['qmhost_records_accepted_total{priority="low"}'], 20)
        # All of them are given up by the host, whatever they do.
        for holder in holders:
            try:
                while holder.recv(4096):
                    pass
            except ConnectionResetError:
                pass
        self.assertEqual(self.get("/")[0], 200)

    def test_headers_without_end_are_cut_off(self):
        connection = self.connect()
        connection.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\n")
        received = b""
        try:
            for _ in range(10000):
                connection.sendall(b"X-Filler: " + b"a" * 1000 + b"\r\n")
        except OSError:  # hung up on
            pass
        try:
            received = connection.recv(4096)
        except OSError:
            pass
        self.assertTrue(received == b"" or received.startswith(b"HTTP/1.1 431"), received)
        self.assertEqual(self.get("/")[0], 200)

    def test_stops_in_order_with_clients_connected(self):
        for _ in range(20):
            self.connect().sendall(b"GET /")
        started = self.status()["started"]
        self.assertGreater(time.time(), started)
        self.assertEqual(self.stop_host(), 0)
