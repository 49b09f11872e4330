"""The http link and servers that refuse records, are slow, broken, malicious or somebody else."""

import collections
import itertools
import pathlib
import re
import ssl
import subprocess
import threading

from certificates import make_authority, make_certificate
from host_fixture import LINK_DOWN, SANITIZED, wait_until
from http_destination import Destination
from http_link_case import HttpLinkTestCase


class RefusalTest(HttpLinkTestCase):
    def test_a_refused_batch_is_halved_until_the_bad_records_stand_alone(self):
        statuses = {"bad-400": 400, "bad-413": 413, "bad-422": 422}

        def answer(request, _):
            found = [statuses[r["message"]] for r in request.records if r["message"] in statuses]
            return found[0] if found else 200

        self.destination.answer = answer
        self.start_up()
        good = [f"good {n}" for n in range(300)]
        lines = good[:70] + ["bad-400"] + good[70:71] + ["bad-413"] + good[71:200] + ["bad-422"] + good[200:]
        self.send_lines(lines)
        self.wait_for_messages(good)
        # Perhaps the last of them was refused after all good ones had been sent.
        good += self.send_until_rejected(3)
        self.wait_for_messages(good)
        self.assertEqual(self.stop_host(), 0)
        self.assertEqual(len(self.destination.arrived), len(good))
        errors = self.log_text("qmlogcacheerror")
        self.assertEqual(sorted(re.findall(r"msg=(bad-\d+)", errors)), sorted(statuses))
        self.assertEqual(errors.count("a0020002"), 3)
        for status in statuses.values():
            self.assertEqual(self.count_log(f"HTTP status {status}\n"), 1)
        self.assertEqual(self.count_log(LINK_DOWN), 0)

    def refuse(self, *messages):
        """The server takes everything else."""
        self.destination.answer = lambda request, _: 413 if self.is_sent(request, *messages) else 200

    @staticmethod
    def is_sent(request, *messages):
        return any(record["message"] in messages for record in request.records)

    def wait_until_sent(self, message, beside=()):
        """beside: the requests that do not count."""
        wait_until(lambda: any(self.is_sent(request, message) for request in self.destination.seen()[len(beside):]),
                   f"{message!r} to be sent")

    def test_a_lone_record_is_rejected_once_the_server_has_taken_later_ones(self):
        self.refuse("bad")
        self.start_up()
        self.send_lines(["before"])
        self.wait_for_messages(["before"])
        self.send_lines(["bad"])
        self.wait_until_sent("bad")
        self.assert_nothing_rejected()
        self.send_until_rejected(1)
        sent = [[record["message"] for record in request.records] for request in self.destination.seen()]
        self.assertEqual(sent[:3], [[], ["before"], ["bad"]])
        self.assertEqual(sent.count(["bad"]), 2)
        self.assertGreater(sent.index(["bad"], 3), 3)
        self.assertEqual(self.count_log(LINK_DOWN), 0)

    def test_a_refused_record_is_sent_again_after_a_restart_and_rejected_as_before(self):
        self.refuse("bad")
        self.start_up()
        self.send_lines(["bad"])
        self.wait_until_sent("bad")
        self.assertEqual(self.stop_host(), 0)
        self.assertIn("held 1", self.host_said())
        before = self.destination.seen()
        self.start_host()
        self.wait_until_sent("bad", before)
        self.assert_nothing_rejected()
        self.send_until_rejected(1)
        ids = {id for request in self.destination.seen() if self.is_sent(request, "bad") for id in request.ids}
        self.assertEqual(len(ids), 1)

    def test_a_refused_record_holds_up_none_that_come_later_even_of_a_sender_that_sends_one_at_a_time(self):
        self.configure(timeout_ms=1000)
        self.start_up()
        # The results of an outage make the component wait for the outcome of each record.
        self.destination.answer = lambda request, _: 503
        self.send_lines(["bad"])
        self.wait_for_log(LINK_DOWN)
        self.refuse("bad")
        refusals = "the server refuses records and has accepted none since: HTTP status 413"
        self.wait_for_log(f"{LINK_DOWN}: {refusals}")
        lines = [f"line {n}" for n in range(100)]
        self.send_lines(lines)
        self.wait_for_messages(lines)
        self.send_until_rejected(1)
        # It came back some times before anything was accepted, and not with each of the others.
        self.assertLessEqual(self.count_log(refusals), 5)

    def test_a_server_that_refuses_everything_makes_no_record_be_rejected(self):
        self.start_up()
        lines = [f"line {n}" for n in range(100)]
        reason = self.go_through_outage(lambda request, _: 400, lines)
        self.assertEqual(reason, ": the server refuses records and has accepted none since: HTTP status 400")
        self.wait_for_messages(lines)
        self.assert_nothing_rejected()

    def test_nor_does_a_server_that_accepted_others_before_and_empty_batches_still(self):
        self.start_up()
        lines = ["before"]
        self.send_lines(lines)
        self.wait_for_messages(lines)
        self.destination.answer = lambda request, _: 400 if request.records else 200
        lines += [f"line {n}" for n in range(300)]
        self.send_lines(lines[1:])
        wait_until(lambda: sum(not request.records for request in self.destination.seen()) >= 8, "attempts")
        self.assert_nothing_rejected()
        self.assertLessEqual(self.count_log(LINK_DOWN), 2)
        self.destination.answer = lambda request, _: 200
        self.wait_for_messages(lines)
        self.assert_nothing_rejected()


class TimeoutTest(HttpLinkTestCase):
    def setUp(self):
        super().setUp()
        self.release = threading.Event()
        self.addCleanup(self.release.set)

    def never(self, _request, _handler):
        """The server's answer, which does not come before the test releases it."""
        self.release.wait(300)
        return 200

    def test_an_answer_that_does_not_come_in_time_makes_the_records_be_sent_again(self):
        self.configure(timeout_ms=15000)  # within which a busy machine answers all the others
        self.start_up()
        slow = threading.Event()

        def answer(request, handler):
            if not request.records or slow.is_set():
                return 200
            slow.set()
            return self.never(request, handler)

        self.destination.answer = answer
        lines = ["slow"]
        self.send_lines(lines)
        self.assertTrue(slow.wait(60))
        lines += [f"line {n}" for n in range(20)]
        self.send_lines(lines[1:])
        self.wait_for_messages(lines)
        self.assertEqual(self.count_log("no answer in time"), 1)
        self.assertEqual(self.count_log(LINK_DOWN), 0)
        # Sent twice under one id.
        sent = collections.Counter(id for request in self.destination.seen() for id in request.ids)
        self.assertEqual(max(sent.values()), 2)
        self.assertIn("e0010019", self.log_text("qmlogcache"))
        self.assert_nothing_rejected()

    def test_a_server_that_never_answers_takes_the_link_down(self):
        self.configure(timeout_ms=300)
        self.start_up()
        lines = [f"line {n}" for n in range(50)]
        reason = self.go_through_outage(self.never, lines)
        self.assertEqual(reason, ": no answer in time")
        self.wait_for_messages(lines)
        self.assert_nothing_rejected()

    def test_a_server_that_goes_silent_under_a_full_window_makes_at_most_twenty_results(self):
        self.configure(timeout_ms=3000)
        self.start_up()
        lines = [f"line {n}" for n in range(4000)]
        sender = threading.Thread(target=self.send_lines, args=(lines, "--no-save"))
        sender.start()
        self.addCleanup(sender.join)
        wait_until(lambda: len(self.destination.messages()) >= 500, "records before the outage")
        self.destination.answer = self.never
        sender.join()
        self.wait_for_log(LINK_DOWN)
        # Asked again and again, it stays silent.
        asked = len(self.destination.seen())
        wait_until(lambda: len(self.destination.seen()) >= asked + 2, "attempts")
        results = self.log_text("qmlogcache").count("result[e0010019]")
        self.assertEqual(self.count_log(LINK_DOWN), 1)
        # Ten minutes are what the component waits after 148 in a row.
        self.assertLessEqual(results, 20)
        self.assertGreater(results, 0)
        self.destination.answer = lambda request, _: 200
        self.wait_for_messages(lines)
        self.assertEqual(self.count_log(LINK_DOWN), 1)
        self.assertEqual(self.log_text("qmlogcache").count("result[e0010019]"), results)
        self.assertEqual(self.stop_host(), 0)
        self.assert_nothing_rejected()

    def test_a_stop_does_not_wait_for_a_server_that_never_answers(self):
        self.configure(timeout_ms=600000)
        self.start_up()
        self.destination.answer = self.never
        self.send_lines(["one"])
        wait_until(lambda: any(request.records for request in self.destination.seen()), "the record to be sent")
        self.assertEqual(self.stop_host(), 0)
        self.assertIn("held 1", self.host_said())
        # It is in its cache file, and sent with the next start.
        self.destination.answer = lambda request, _: 200
        self.start_host()
        self.wait_for_messages(["one"])


def close(_, handler):
    handler.connection.close()


def raw(*pieces, forever=b""):
    """Writes these bytes instead of an answer, and the last ones without end."""

    def answer(_, handler):
        for piece in itertools.chain(pieces, itertools.repeat(forever) if forever else ()):
            handler.wfile.write(piece)

    return answer


class HostileServerTest(HttpLinkTestCase):
    def test_whatever_a_server_sends_the_host_lives_and_loses_nothing(self):
        self.configure(timeout_ms=1000)
        self.start_up()
        filler = b"x" * 65536
        answers = {
            "closes": close,
            "garbage": raw(b"\0\xff garbage\r\n\r\n" + filler),
            "no status": raw(b"HTTP/1.1 \r\n\r\n"),
            "status is no number": raw(b"HTTP/1.1 two hundred\r\n\r\n"),
            "status 999": raw(b"HTTP/1.1 999 What\r\nContent-Length: 0\r\n\r\n"),
            "switching protocols": raw(b"HTTP/1.1 101 Come\r\nUpgrade: other\r\n\r\n"),
            "old protocol": raw(b"<html>"),
            "header without end": raw(b"HTTP/1.1 200 OK\r\n", forever=b"X-Filler: " + filler[:8000] + b"\r\n"),
            "one header line without end": raw(b"HTTP/1.1 200 OK\r\nX-Filler: ", forever=filler),
            "interim answers without end": raw(forever=b"HTTP/1.1 100 Continue\r\n\r\n" * 100),
            "body without end": raw(b"HTTP/1.1 200 OK\r\n\r\n", forever=filler),
            "chunks without end": raw(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
                                      forever=b"10000\r\n" + filler + b"\r\n"),
            "bad chunk": raw(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nnonsense\r\n"),
            "body cut short": raw(b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nhalf"),
        }
        lines = []
        for name, answer in answers.items():
            with self.subTest(name):
                lines.append(name)
                self.go_through_outage(answer, [name])
                self.wait_for_messages(lines)
        self.assert_nothing_rejected()
        peak = int(re.search(r"VmHWM:\s+(\d+) kB", pathlib.Path(f"/proc/{self.host.pid}/status").read_text())[1])
        if not SANITIZED:
            self.assertLess(peak, 200_000)

    def test_a_bad_status_counts_even_if_the_server_closes_behind_it(self):
        def answer(request, handler):
            if any(record["message"] == "large" for record in request.records):
                handler.wfile.write(b"HTTP/1.1 413 Too Large\r\nContent-Length: 1000\r\n\r\n")
                return None
            return 200

        self.destination.answer = answer
        self.start_up()
        self.send_lines(["small", "large", "small, too"])
        later = self.send_until_rejected(1)
        self.wait_for_messages(["small", "small, too", *later])
        self.assertEqual(self.count_log(LINK_DOWN), 0)


class TlsTest(HttpLinkTestCase):
    def setUp(self):
        super().setUp()
        self.destination.stop()
        self.authority = make_authority(self.dir, "authority")
        self.other = make_authority(self.dir, "other")
        self.certificate = make_certificate(self.dir, "agent", self.authority)

    def serve(self, authority, alternative_name="IP:127.0.0.1", clients=None):
        name = f"server-{authority[0].stem}"
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*make_certificate(self.dir, name, authority, alternative_name))
        if clients is not None:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(clients)
        self.destination = Destination(context)
        self.destination.start()

    def expect_down(self, reason):
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertRegex(self.log_text("qmhost"), f"{LINK_DOWN}: .*{reason}")
        self.assertEqual(self.destination.seen(), [])

    def test_a_server_of_the_configured_authority_gets_records_certificate_and_token(self):
        self.serve(self.authority, clients=self.authority[0])
        token = self.dir / "token"
        token.touch(0o600)
        token.write_text("secret-one\n")
        self.configure("https", ca_file=self.authority[0], client_cert=self.certificate[0],
                       client_key=self.certificate[1], token_file=token)
        self.start_up()
        self.send_lines(["one"])
        self.wait_for_messages(["one"])
        token.write_text("secret-two\n")
        self.send_lines(["two"])
        self.wait_for_messages(["one", "two"])
        tokens = [request.headers["Authorization"] for request in self.destination.seen()]
        self.assertEqual(tokens, ["Bearer secret-one", "Bearer secret-one", "Bearer secret-two"])
        subject = dict(field for name in self.destination.seen()[0].peer_certificate["subject"] for field in name)
        self.assertEqual(subject["commonName"], "agent")
        token.chmod(0o644)
        self.send_lines(["three"])
        self.wait_for_log("is open to other users")
        token.chmod(0o600)
        self.wait_for_messages(["one", "two", "three"])
        self.assertEqual(self.stop_host(), 0)
        for file in self.log_dir.iterdir():
            self.assertNotIn("secret-", file.read_text(errors="replace"), file)
        self.assert_nothing_rejected()

    def test_a_server_of_another_authority_gets_nothing(self):
        self.serve(self.other)
        self.configure("https", ca_file=self.authority[0])
        self.expect_down("certificate")

    def test_a_server_of_no_authority_the_system_knows_gets_nothing(self):
        self.serve(self.authority)
        self.configure("https")
        self.expect_down("certificate")

    def test_a_server_of_another_name_gets_nothing(self):
        self.serve(self.authority, alternative_name="IP:127.0.0.2,DNS:other.example")
        self.configure("https", ca_file=self.authority[0])
        self.expect_down("does not match|no alternative certificate subject name matches")

    def test_an_authority_file_that_is_missing_is_told(self):
        self.serve(self.authority)
        self.configure("https", ca_file=self.dir / "nowhere.pem")
        self.expect_down("nowhere.pem")

    def test_a_key_that_is_encrypted_is_told_and_nobody_is_asked(self):
        self.serve(self.authority, clients=self.authority[0])
        encrypted = self.dir / "encrypted.key"
        subprocess.run(["openssl", "pkey", "-aes256", "-passout", "pass:x", "-in", self.certificate[1], "-out",
                        encrypted], check=True, capture_output=True)
        self.configure("https", ca_file=self.authority[0], client_cert=self.certificate[0], client_key=encrypted)
        self.expect_down("encrypted.key")
