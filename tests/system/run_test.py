"""./run with the servers of the links: its own word on what was delivered while the server was killed on the way."""

import os
import pathlib
import shutil
import subprocess
import unittest

from host_fixture import BIN, HostTestCase, PATIENCE

RUN = pathlib.Path(__file__).resolve().parents[2] / "run"


class RunTest(HostTestCase):
    def run_with(self, link, lines):
        """The programs under test are the installed ones; returns what it said."""
        shutil.copy2(BIN / "qmsend", self.prefix / "bin" / "qmsend")
        file = self.dir / "lines"
        file.write_text("".join(line + "\n" for line in lines))
        process = subprocess.Popen([RUN, "--link", link, file], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   text=True, env={**os.environ, "QMLOGCACHE_STAGE": str(self.prefix)})
        try:
            said = process.communicate(timeout=2 * PATIENCE)[0]
        except subprocess.TimeoutExpired:
            process.terminate()  # it takes its servers along
            self.fail(process.communicate()[0])
        self.assertEqual(process.returncode, 0, said)
        return said

    def expect_everything(self, link):
        # Of the long one each byte becomes two as JSON, and the host takes it.
        lines = [f"line {n}" for n in range(500)] + ['"' * (12 << 20)] + [f"line {n}" for n in range(500, 1000)]
        said = self.run_with(link, lines)
        self.assertIn("Killed the server with SIGKILL", said)
        for balance in ("lines read   1001", "accepted     1001 ", "delivered  1001 ", "missing    0 "):
            self.assertIn(balance, said)

    def test_the_http_link_delivers_everything(self):
        self.expect_everything("http")

    def test_the_nats_link_delivers_everything(self):
        self.expect_everything("nats")


if __name__ == "__main__":
    unittest.main()
