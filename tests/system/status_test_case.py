"""What the tests of the status share: a host that serves its status, and questions to it."""

import json
import signal
import urllib.error
import urllib.request

from host_fixture import HostTestCase, wait_until
from ports import free_ports

SENDER = "0a1b2c3d-0000-4000-8000-000000000001"


class StatusTestCase(HostTestCase):
    """A host that serves its status."""

    def setUp(self):
        super().setUp()
        (self.port,) = free_ports(1)
        self.configure()

    def configure(self, **sections):
        self.write_config(status={"listen": f"127.0.0.1:{self.port}"}, **sections)

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}"

    def get(self, path, **headers):
        """Status, headers and body of an answer."""
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(urllib.request.Request(self.url + path, headers=headers), timeout=60) as answer:
                return answer.status, answer.headers, answer.read().decode()
        except urllib.error.HTTPError as error:
            with error:
                return error.code, error.headers, error.read().decode()

    def status(self):
        return json.loads(self.get("/api/status")[2])

    def send_records(self, priority, count, sender=SENDER):
        lines = "".join(f"{priority} {number}\n" for number in range(count)).encode()
        sent = self.send("--priority", priority, "--sender", sender, data=lines)
        self.assertEqual(sent.returncode, 0, sent.stderr)

    def bring_link_up(self, away):
        away.rename(self.out)
        self.host.send_signal(signal.SIGHUP)

    def wait_for_status(self, condition, what):
        wait_until(lambda: condition(self.status()), what)
        return self.status()
