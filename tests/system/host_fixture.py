"""A qmhost of its own for a test: installation, configuration, data and socket in a temporary directory."""

import base64
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

BIN = pathlib.Path(os.environ["QMLOGCACHE_BIN"])
LIB = pathlib.Path(os.environ["QMLOGCACHE_LIB"])
SANITIZED = bool(os.environ.get("QMLOGCACHE_SANITIZE"))
# A hang guard, not a bound: sanitized builds on a busy machine are slow.
PATIENCE = 300
# The host's word that the link's destination cannot be reached.
LINK_DOWN = "server link down"


def wait_until(condition, what):
    """Polls until condition() is true; fails after PATIENCE seconds."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(0.02)


def message_bytes(record):
    """The data of a delivered record as it was sent."""
    if "message_base64" in record:
        return base64.b64decode(record["message_base64"])
    return record["message"].encode()


class HostTestCase(unittest.TestCase):
    """Gives each test a directory, and takes everything down after it."""

    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="qmlogcache-"))
        self.out = self.dir / "out"
        self.out.mkdir()
        self.records_file = self.out / "records.jsonl"
        self.log_dir = self.dir / "log"
        self.data_dir = self.dir / "data"
        self.socket = self.dir / "s"
        self.config = self.dir / "qmhost.conf"
        self.prefix = self.dir / "prefix"
        self.cache_dir = self.prefix / "data" / "qmlogcache"
        self.host = None
        self.install()
        self.write_config()

    def tearDown(self):
        if self.host is not None and self.host.poll() is None:
            self.host.kill()
            self.host.wait()
        shutil.rmtree(self.dir, ignore_errors=True)

    def install(self):
        """An installation of this test's own: the component finds its files from the directory of the program."""
        (self.prefix / "bin").mkdir(parents=True)
        program = self.prefix / "bin" / "qmhost"
        try:
            os.link(BIN / "qmhost", program)
        except OSError:  # another file system, or another owner
            shutil.copy2(BIN / "qmhost", program)
        (self.prefix / "lib").symlink_to(LIB)
        self.write_cache_config()

    def write_cache_config(self, **keys):
        """Writes the component's configuration. How much room the disk has is no matter of the tests."""
        file = self.prefix / "etc" / "qmlogcache" / "qmlogcache.conf"
        file.parent.mkdir(parents=True, exist_ok=True)
        lines = [f"{key} = {value}\n" for key, value in {"diskfreesize": 0, **keys}.items()]
        file.write_text("[logcache]\n" + "".join(lines))

    def write_config(self, **sections):
        """Writes a whole configuration; keyword arguments add keys to a section ("log", "link", ...)."""
        config = {
            "host": {"data_dir": self.data_dir},
            "log": {"dir": self.log_dir},
            "ingress": {"socket": self.socket},
            "link": {"driver": "file", "path": self.records_file},
            "plugin logcache": {},
        }
        for section, keys in sections.items():
            config.setdefault(section, {}).update(keys)
        text = ""
        for section, keys in config.items():
            text += f"[{section}]\n" + "".join(f"{key} = {value}\n" for key, value in keys.items())
        self.config.write_text(text)

    def host_command(self):
        return [self.prefix / "bin" / "qmhost", "--config", self.config]

    def launch_host(self):
        """Starts the host; returns a function that tells whether it is ready."""
        output = self.dir / "host.out"
        output.touch()
        started = output.read_bytes().count(b"qmhost ready")
        with output.open("ab") as stream:
            self.host = subprocess.Popen(self.host_command(), stdout=stream, stderr=subprocess.STDOUT)

        def ready():
            self.assertIsNone(self.host.poll(), self.host_said())
            return output.read_bytes().count(b"qmhost ready") > started

        return ready

    def start_host(self):
        wait_until(self.launch_host(), "the host to be ready")

    def take_link_down(self):
        """The link's directory goes, so that no file can be made; returns where it is now. Waits for the outage."""
        outages = self.log_text("qmhost").count(LINK_DOWN)
        away = self.dir / f"away-{outages}"
        self.out.rename(away)
        self.host.send_signal(signal.SIGHUP)
        wait_until(lambda: self.log_text("qmhost").count(LINK_DOWN) > outages, "the link to be down")
        return away

    def host_said(self):
        return (self.dir / "host.out").read_text(errors="replace")

    def stop_host(self, how=signal.SIGTERM):
        self.host.send_signal(how)
        status = self.host.wait(timeout=PATIENCE)
        self.host = None
        if status != 0:  # a sanitizer's report stands there
            print(self.host_said(), file=sys.stderr)
        return status

    def send(self, *arguments, data=b"", **options):
        """Runs qmsend on data; returns the finished process."""
        return subprocess.run(
            [BIN / "qmsend", "--socket", self.socket, *arguments],
            input=data,
            capture_output=True,
            timeout=PATIENCE,
            check=False,
            **options,
        )

    def delivered(self):
        """What has arrived, one dictionary a record; a line that is still being written is not counted."""
        if not self.records_file.exists():
            return []
        whole = self.records_file.read_bytes().rpartition(b"\n")[0]
        return [json.loads(line) for line in whole.split(b"\n") if line]

    def wait_for_records(self, count):
        def arrived():  # counted only: reading them all again and again would take the host's time
            return self.records_file.exists() and self.records_file.read_bytes().count(b"\n") >= count

        wait_until(arrived, f"{count} records")
        return self.delivered()

    def log_text(self, channel):
        path = self.log_dir / f"{channel}.log"
        return path.read_text(errors="replace") if path.exists() else ""
