"""The nats link and a cluster of three servers with a replicated stream."""

import sys
import threading
import time

from host_fixture import LINK_DOWN, wait_until
from nats_link_case import LINK_UP, NatsLinkTestCase
from nats_proxy import NatsProxy
from nats_server import NatsServer


class ClusterTest(NatsLinkTestCase):
    NAMES = ("one", "two", "three")

    def setUp(self):
        super().setUp()
        self.servers = {name: NatsServer(self.dir, name) for name in self.NAMES}
        routes = ", ".join(f'"nats://127.0.0.1:{server.cluster_port}"' for server in self.servers.values())
        for server in self.servers.values():
            self.addCleanup(server.stop)
            own = f"127.0.0.1:{server.cluster_port}"
            server.configure(f'cluster {{ name: fleet, listen: "{own}", routes: [{routes}] }}')
            server.launch()
        for server in self.servers.values():
            wait_until(server.is_healthy, f"nats-server {server.name}")
        wait_until(self.has_meta_leader, "the cluster to have a leader")
        self.proxies = [NatsProxy(server) for server in self.servers.values()]
        for proxy in self.proxies:
            self.addCleanup(proxy.close)
        self.configure(", ".join(proxy.url for proxy in self.proxies), timeout_ms=3000)

    def has_meta_leader(self):
        found = [server.ask("jsz") for server in self.servers.values()]
        return all(one and one.get("meta_cluster", {}).get("leader") for one in found)

    def leader(self):
        """Which server leads the stream, by the monitoring port of one that runs; None while there is none."""
        for server in self.servers.values():
            if server.process is None:
                continue
            found = server.ask("jsz?streams=true") or {}
            for account in found.get("account_details", []):
                for stream in account.get("stream_detail", []):
                    leader = stream.get("cluster", {}).get("leader")
                    if stream["name"] == "qmlogcache" and leader in self.servers:
                        return leader
        return None

    def held_by(self, server):
        """How many messages of the stream a server holds itself."""
        found = server.ask("jsz?streams=true") or {}
        return sum(stream["state"]["messages"] for account in found.get("account_details", [])
                   for stream in account.get("stream_detail", []))

    def duplicates(self):
        return sum(proxy.duplicates for proxy in self.proxies)

    def withhold_acknowledgements(self, lines):
        """Sends the lines, and waits until the stream has taken records that the host takes for unanswered."""
        withheld = sum(proxy.withheld for proxy in self.proxies)
        for proxy in self.proxies:
            proxy.withhold()
        self.send_lines(lines)
        wait_until(lambda: sum(proxy.withheld for proxy in self.proxies) > withheld, "acknowledgements to withhold")

    def test_servers_killed_and_restarted_under_load_lose_nothing_and_repeats_are_dropped(self):
        self.connect(self.servers["one"]).make_stream(num_replicas=3)
        self.start_up()
        lines = [f"line {n}" for n in range(3000)]
        sender = threading.Thread(target=self.send_lines, args=(lines,))
        sender.start()
        for share in (0.2, 0.5):
            wait_until(lambda share=share: max(self.held_by(server) for server in self.servers.values()
                                               if server.process) >= share * len(lines), "messages before the kill")
            wait_until(self.leader, "a leader of the stream")
            name, dropped = self.leader(), self.duplicates()
            more = [f"repeat {share} {n}" for n in range(50)]
            self.withhold_acknowledgements(more)
            lines = lines + more
            self.servers[name].kill()
            killed = time.monotonic()
            for proxy in self.proxies:
                proxy.cut()
            # Two of three go on without it.
            wait_until(lambda name=name: self.leader() not in (None, name), "another leader")
            elected = time.monotonic() - killed
            wait_until(lambda dropped=dropped: self.duplicates() > dropped, "repeats that the stream has dropped")
            print(f"leader killed: another one after {elected:.1f} s, "
                  f"the first repeat dropped after {time.monotonic() - killed:.1f} s", file=sys.stderr)
            self.servers[name].start()
        sender.join()
        client = self.connect(self.servers[name])
        found = self.wait_for_messages(client, lines)
        self.assertEqual(len({headers["Nats-Msg-Id"] for _, headers, _ in found}), len(lines))
        # Every server has them all in the end, those that were killed too.
        wait_until(lambda: all(self.held_by(server) == len(lines) for server in self.servers.values()),
                   "every replica to be complete")
        self.assertGreaterEqual(self.count_log(LINK_UP), self.count_log(LINK_DOWN))
        self.assertEqual(self.stop_host(), 0)
        self.assertIn("held 0", self.host_said())
        self.assert_nothing_rejected()
        print(f"records {len(lines)}, in the stream {len(found)}, repeats dropped {self.duplicates()}, "
              f"outages of the link {self.count_log(LINK_DOWN)}", file=sys.stderr)
