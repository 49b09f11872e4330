"""The nats link and records that are too large for a server, for all servers, or for the stream."""

import json

from host_fixture import LINK_DOWN, wait_until
from nats_link_case import LINK_UP, NatsLinkTestCase, OneServerTestCase, REJECTED
from nats_server import NatsServer


class TooLargeTest(OneServerTestCase):
    def expect_one_rejected(self, client, whose, most):
        self.start_up()
        large = "L" * (most + 1)
        self.send_lines(["small", large, "small, too"])
        self.wait_for_log(REJECTED)
        self.wait_for_messages(client, ["small", "small, too"])
        self.assert_refused_by(whose, most)
        wait_until(lambda: large in self.log_text("qmlogcacheerror"), "the rejected record in the error log")
        self.assertIn("a0020002", self.log_text("qmlogcacheerror"))
        self.assertEqual(self.count_log(LINK_DOWN), 0)

    def test_a_record_beyond_the_servers_bound_is_rejected_and_no_other(self):
        self.server.kill()
        self.server.configure("max_payload: 100000")
        self.server.start()
        self.expect_one_rejected(self.make_stream(), "the server", 100000)

    def test_a_record_beyond_the_streams_bound_is_rejected_and_no_other(self):
        self.expect_one_rejected(self.make_stream(max_msg_size=80000), "the stream", 80000)

    def test_bounds_that_must_be_a_mistake_reject_nothing(self):
        client = self.make_stream()
        self.start_up()
        client.change_stream(max_msg_size=10)
        self.send_lines(["one"])
        self.wait_for_log(LINK_DOWN)
        self.assertIn("the stream takes messages of 10 bytes only (max_msg_size)", self.down_reason())
        client.change_stream(max_msg_size=-1)
        self.wait_for_messages(client, ["one"])
        self.stop_host()
        self.server.kill()
        self.server.configure("max_payload: 1000")
        self.server.start()
        downs = self.count_log(LINK_DOWN)
        self.start_host()
        self.wait_for_log(LINK_DOWN, downs + 1)
        self.assertIn("the server takes messages of 1000 bytes only (max_payload)", self.down_reason(downs))
        self.assert_nothing_rejected()


class SeveralBoundsTest(NatsLinkTestCase):
    """Servers that differ in what they take."""

    DIFFER = "nats link: the servers differ in max_payload"

    def serve(self, *bounds):
        self.servers = [NatsServer(self.dir, f"s{number}") for number in range(len(bounds))]
        for server, bound in zip(self.servers, bounds):
            self.addCleanup(server.stop)
            server.configure(f"max_payload: {bound}")
            server.start()
            self.connect(server).make_stream()
        self.configure(", ".join(server.url for server in self.servers))

    def messages_of(self, number):
        return [json.loads(data)["message"] for _, _, data in self.connect(self.servers[number]).messages()]

    def total(self):
        return sum(self.connect(server).count() for server in self.servers if server.process)

    def assert_balance(self, delivered, rejected):
        self.assertEqual(self.stop_host(), 0)
        self.assertRegex(self.host_said(), f"delivered {delivered}, rejected {rejected}, .*held 0")

    def test_a_record_that_one_server_takes_reaches_it_from_wherever_the_link_is(self):
        self.serve(100000, 100000, "64MB")
        self.start_up()
        large = "\\" * 15000000  # twice as much as JSON
        self.send_lines(["small", large, "small, too"])
        client = self.connect(self.servers[2])
        # The link moves once: what comes after the large record follows it.
        wait_until(lambda: client.count() >= 2, "the records at the server that takes them")
        self.assertIn(large, self.messages_of(2))
        self.assert_balance(delivered=3, rejected=0)
        self.assertEqual(self.count_log(LINK_DOWN), 0)
        self.assert_nothing_rejected()

    def test_a_list_that_starts_small_says_that_its_servers_differ(self):
        self.serve(100000, 3000000)
        # The link begins where it can.
        self.servers[1].kill()
        self.start_up()
        self.servers[1].start()
        self.send_lines(["L" * 2000000])
        client = self.connect(self.servers[1])
        wait_until(lambda: client.count() == 1, "the record at the server that takes it")
        self.wait_for_log(self.DIFFER)
        self.assertEqual(self.count_log(self.DIFFER), 1)
        self.assertIn(f"{self.servers[1].url} takes 3000000 bytes, {self.servers[0].url} 100000",
                      self.log_text("qmhost"))
        self.assertEqual(self.count_log(LINK_DOWN), 0)
        self.assert_nothing_rejected()

    def test_a_record_that_no_server_takes_is_rejected_and_does_not_hold_up_the_others(self):
        self.serve(100000, 200000)
        self.start_up()
        large = "L" * 300000
        self.send_lines(["one", large, "two"])
        self.wait_for_log(REJECTED)
        wait_until(lambda: large in self.log_text("qmlogcacheerror"), "the rejected record in the error log")
        self.assert_refused_by("every server", 200000)
        self.assertEqual(self.count_log(REJECTED), 1)
        wait_until(lambda: self.total() == 2, "the other records")
        self.assert_balance(delivered=2, rejected=1)

    def test_a_server_that_was_never_there_has_no_say(self):
        self.serve(100000, 200000)
        self.servers[1].kill()
        self.start_up()
        self.send_lines(["one", "L" * 300000, "two"])
        self.wait_for_log(REJECTED)
        wait_until(lambda: self.total() == 2, "the other records")
        self.assert_balance(delivered=2, rejected=1)

    def test_a_record_waits_for_the_server_that_takes_it_while_the_others_go_on(self):
        self.serve(100000, 3000000)
        self.servers[0].kill()
        self.start_up()
        self.send_lines(["one"])
        client = self.connect(self.servers[1])
        self.wait_for_messages(client, ["one"])
        self.servers[0].start()
        self.servers[1].kill()
        self.wait_for_log(LINK_UP, 2)
        large = "L" * 2000000
        self.send_lines([large, "two", "three"])
        self.wait_for_log("is too large for all servers but some that are away: to be sent again")
        client = self.connect(self.servers[0])
        self.wait_for_messages(client, ["two", "three"])
        self.servers[1].start()
        client = self.connect(self.servers[1])
        self.wait_for_messages(client, ["one", large])
        self.assert_balance(delivered=4, rejected=0)
        self.assert_nothing_rejected()
