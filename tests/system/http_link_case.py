"""What the tests of the http link share: a host whose records go to a server of the test's own."""

import signal
import time

from host_fixture import HostTestCase, LINK_DOWN, wait_until
from http_destination import Destination

LINK_UP = "server link up"
REJECTED = "for good"


class HttpLinkTestCase(HostTestCase):
    def setUp(self):
        super().setUp()
        self.destination = Destination()
        self.addCleanup(lambda: self.destination.stop())
        self.destination.start()
        self.configure()

    def configure(self, scheme="http", host="127.0.0.1", **keys):
        # The longest pause is short; where a test waits for a pause to end, it does not wait long.
        http = {"url": f"{scheme}://{host}:{self.destination.port}/records", "retry_max_ms": 200, **keys}
        self.write_config(link={"driver": "http"}, http=http)

    def count_log(self, text):
        return self.log_text("qmhost").count(text)

    def wait_for_log(self, text, count=1):
        wait_until(lambda: self.count_log(text) >= count, f"{count} times {text!r} in the log")

    def start_up(self):
        self.start_host()
        self.wait_for_log(LINK_UP)

    def send_lines(self, lines, *options):
        sent = self.send("--combo", "http", *options, data=b"\n".join(line.encode() for line in lines) + b"\n")
        self.assertEqual(sent.returncode, 0, sent.stderr)

    def wait_for_messages(self, lines):
        wait_until(lambda: len(self.destination.messages()) >= len(lines), f"{len(lines)} records")
        self.assertEqual(sorted(self.destination.messages().values()), sorted(lines))

    def send_until_rejected(self, count):
        """Good records, one after the other, until the server has told so many refused ones from them; returns them."""
        lines = []
        while self.count_log(REJECTED) < count:
            self.assertLess(len(lines), 100)
            before = len(self.destination.messages())
            lines.append(f"later {len(lines)}")
            self.send_lines(lines[-1:])
            wait_until(lambda: len(self.destination.messages()) > before, lines[-1])
            time.sleep(0.1)
        self.assertEqual(self.count_log(REJECTED), count)
        return lines

    def assert_nothing_rejected(self):
        self.assertEqual(self.log_text("qmlogcacheerror"), "")
        self.assertEqual(self.count_log(REJECTED), 0)

    def go_through_outage(self, answer, lines):
        """The server does something that is the link's trouble, records come, and the server is well again."""
        downs, ups = self.count_log(LINK_DOWN), self.count_log(LINK_UP)
        self.destination.answer = answer
        self.send_lines(lines)
        self.wait_for_log(LINK_DOWN, downs + 1)
        self.destination.answer = lambda request, handler: 200
        self.host.send_signal(signal.SIGHUP)  # no pause
        self.wait_for_log(LINK_UP, ups + 1)
        return self.log_text("qmhost").split(LINK_DOWN)[downs + 1].splitlines()[0]
