"""nats-server processes on loopback for the tests of the nats link."""

import json
import pathlib
import shutil
import signal
import subprocess
import urllib.request

from host_fixture import wait_until
from nats_client import NatsClient
from ports import free_ports


class NatsServer:
    """One server with a store of its own, which stays when the server is killed."""

    def __init__(self, directory, name="one", extra=""):
        self.program = shutil.which("nats-server") or shutil.which("/usr/sbin/nats-server")
        if self.program is None:
            raise AssertionError("nats-server is not installed: scripts/install-deps test installs it")
        self.directory = pathlib.Path(directory) / f"nats-{name}"
        self.directory.mkdir()
        self.name = name
        self.port, self.monitor, self.cluster_port = free_ports(3)
        self.process = None
        self.configure(extra)

    def configure(self, extra=""):
        """Takes effect with the next start."""
        (self.directory / "server.conf").write_text(
            f'host: "127.0.0.1"\nport: {self.port}\nhttp: "127.0.0.1:{self.monitor}"\nserver_name: "{self.name}"\n'
            f'jetstream {{ store_dir: "{self.directory}/store", max_mem: 64M, max_file: 1G }}\n{extra}\n')

    @property
    def url(self):
        return f"nats://127.0.0.1:{self.port}"

    def launch(self):
        output = (self.directory / "output").open("ab")
        with output:
            self.process = subprocess.Popen([self.program, "-c", self.directory / "server.conf"], stdout=output,
                                            stderr=subprocess.STDOUT)

    def start(self):
        self.launch()
        wait_until(self.is_healthy, f"nats-server {self.name}")

    def is_healthy(self):
        if self.process.poll() is not None:
            raise AssertionError("nats-server ended: " + (self.directory / "output").read_text())
        return self.ask("healthz") == {"status": "ok"}

    def ask(self, path):
        """What the monitoring port says; None while it does not."""
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self.monitor}/{path}", timeout=5) as answer:
                return json.load(answer)
        except (OSError, ValueError):
            return None

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process = None

    def freeze(self):
        self.process.send_signal(signal.SIGSTOP)

    def thaw(self):
        self.process.send_signal(signal.SIGCONT)

    def stop(self):
        if self.process is not None:
            self.kill()

    def unread(self):
        """How many bytes clients have sent that the server has not read, which it does not while it is frozen."""
        total = 0
        for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
            _, local, _, _, queues = line.split()[:5]
            if int(local.split(":")[1], 16) == self.port:
                total += int(queues.split(":")[1], 16)
        return total

    def published(self):
        """How many records hosts have sent, repeats included; each connection has asked for the stream once besides."""
        found = (self.ask("connz?state=any&limit=1024") or {}).get("connections", [])
        return sum(one["in_msgs"] - 1 for one in found if one.get("name", "").startswith("qmhost "))

    def client(self, **connect):
        return NatsClient(self.port, **connect)
