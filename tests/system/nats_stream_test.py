"""The nats link and streams that would lose records, and answers that are not the stream's."""

import threading

from host_fixture import LINK_DOWN, wait_until
from nats_link_case import LINK_UP, OneServerTestCase

WARNING = "nats link: what is acknowledged may be lost: "


class StreamTest(OneServerTestCase):
    def test_a_stream_that_acknowledges_nothing_is_not_used(self):
        client = self.make_stream(no_ack=True)
        self.start_host()
        self.wait_for_log(LINK_DOWN)
        self.assertIn("the stream qmlogcache acknowledges nothing (no_ack)", self.down_reason())
        self.send_lines(["one"])
        self.assertEqual(self.count_log(LINK_UP), 0)
        client.change_stream(no_ack=False)
        self.wait_for_messages(client, ["one"])
        self.assertEqual(self.count_log(LINK_DOWN), 1)
        self.assert_nothing_rejected()

    def test_a_stream_that_drops_old_records_at_its_limit_is_used_with_one_warning(self):
        client = self.make_stream(discard="old", max_msgs=2)
        self.start_up()
        self.send_lines(["one", "two", "three"])
        wait_until(lambda: client.stream()["state"]["last_seq"] == 3, "the records")
        self.assertEqual(client.count(), 2)
        # A new connection says nothing new.
        self.server.kill()
        self.wait_for_log(LINK_DOWN)
        self.server.start()
        self.wait_for_log(LINK_UP, 2)
        self.assertEqual(self.count_log(WARNING), 1)
        self.assertEqual(self.count_log(WARNING + "the stream qmlogcache drops its oldest records at its limits "
                                        "(discard old)"), 1)

    def test_a_stream_without_limits_may_discard_what_it_likes(self):
        client = self.make_stream(discard="old")
        self.start_up()
        self.send_lines(["one"])
        self.wait_for_messages(client, ["one"])
        self.assertEqual(self.count_log(WARNING), 0)

    def test_another_streams_acknowledgement_is_no_delivery(self):
        self.make_stream()
        self.server.kill()
        self.server.configure('mappings { "qmlogcache.>": "elsewhere.>" }')
        self.server.start()
        impostor = self.connect(self.server)
        subscribed = threading.Event()
        threading.Thread(target=impostor.acknowledge_as, args=("OTHER", "elsewhere.>", subscribed),
                         daemon=True).start()
        self.assertTrue(subscribed.wait(60))
        self.start_up()
        self.send_lines(["one"])
        self.wait_for_log(LINK_DOWN)
        self.assertIn("another stream has acknowledged a record (OTHER)", self.down_reason())
        self.server.kill()
        self.server.configure()
        self.server.start()
        client = self.connect(self.server)
        self.wait_for_messages(client, ["one"])
        self.assertEqual(self.stop_host(), 0)
        self.assertIn("delivered 1,", self.host_said())
        self.assert_nothing_rejected()
