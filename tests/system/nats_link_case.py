"""What the tests of the nats link share: a host whose records go to servers of the test's own."""

import json

from host_fixture import HostTestCase, LINK_DOWN, wait_until
from nats_server import NatsServer

LINK_UP = "server link up"
REJECTED = "for good"


class NatsLinkTestCase(HostTestCase):
    def configure(self, servers, **keys):
        # The longest pause is short, so that no test waits long for one to end; and no test cuts the power, so that
        # records need not wait for the disk.
        self.write_config(link={"driver": "nats"}, storage={"sync": "normal"},
                          nats={"servers": servers, "retry_max_ms": 200, **keys})

    def count_log(self, text):
        return self.log_text("qmhost").count(text)

    def wait_for_log(self, text, count=1):
        wait_until(lambda: self.count_log(text) >= count, f"{count} times {text!r} in the log")

    def down_reason(self, number=0):
        return self.log_text("qmhost").split(LINK_DOWN + ": ")[number + 1].splitlines()[0]

    def start_up(self):
        self.start_host()
        self.wait_for_log(LINK_UP)

    def send_lines(self, lines, *arguments):
        sent = self.send("--combo", "nats", *arguments, data=b"\n".join(line.encode() for line in lines) + b"\n")
        self.assertEqual(sent.returncode, 0, sent.stderr)

    def connect(self, server, **connect):
        client = server.client(**connect)
        self.addCleanup(client.close)
        return client

    def wait_for_messages(self, client, lines):
        """Waits until the stream holds as many, and compares: each line once, whatever was sent twice."""
        wait_until(lambda: client.count() >= len(lines), f"{len(lines)} messages")
        found = client.messages()
        self.assertEqual(sorted(json.loads(data)["message"] for _, _, data in found), sorted(lines))
        return found

    def assert_refused_by(self, whose, most):
        self.assertRegex(self.log_text("qmhost"), f"nats link: {whose} refused record [0-9a-f]+ for good: "
                         f"[0-9]+ bytes, and the bound is {most}\n")

    def assert_nothing_rejected(self):
        self.assertEqual(self.log_text("qmlogcacheerror"), "")
        self.assertEqual(self.count_log(REJECTED), 0)


class OneServerTestCase(NatsLinkTestCase):
    def setUp(self):
        super().setUp()
        self.server = NatsServer(self.dir)
        self.addCleanup(lambda: self.server.stop())
        self.server.start()
        self.configure(self.server.url)

    def make_stream(self, **config):
        client = self.connect(self.server)
        client.make_stream(**config)
        return client
