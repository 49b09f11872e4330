"""The host as an operator meets it: start, stop, signals, configuration, outages of the link, who may connect."""

import os
import signal
import stat
import subprocess
import unittest

from host_fixture import BIN, HostTestCase, PATIENCE, wait_until


class HostTest(HostTestCase):
    def check_config(self):
        return subprocess.run(
            [*self.host_command(), "--check-config"], capture_output=True, text=True, check=False
        )

    def test_a_good_configuration_is_said_to_be_ok(self):
        result = self.check_config()
        self.assertEqual((result.returncode, result.stdout), (0, f"{self.config}: OK\n"), result.stderr)

    def test_every_fault_of_a_configuration_is_named_with_its_line(self):
        self.config.write_text("[host]\ndata_dirr = x\n[log]\nlevels = 3,9\n[nonsense]\na = 1\n")
        result = self.check_config()
        self.assertEqual(result.returncode, 2)
        for line in (2, 4):
            self.assertIn(f"{self.config}:{line}: ", result.stderr)
        self.assertIn("data_dir", result.stderr)
        self.assertIn("nonsense", result.stderr)

    def test_a_host_with_a_faulty_configuration_does_not_start(self):
        self.write_config(storage={"sync": "sometimes"})
        result = subprocess.run(self.host_command(), capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 2)
        self.assertIn("sometimes", result.stderr)

    def have_sigint(self, handler):
        """What a host started from now on inherits: the default when this process handles the signal."""
        self.addCleanup(signal.signal, signal.SIGINT, signal.signal(signal.SIGINT, handler))

    def test_a_host_started_to_ignore_sigint_goes_on_ignoring_it(self):
        self.have_sigint(signal.SIG_IGN)
        self.start_host()
        self.host.send_signal(signal.SIGINT)
        self.assertEqual(self.send(data=b"x\n").returncode, 0)
        self.host.send_signal(signal.SIGHUP)
        wait_until(lambda: "qmhost reopens the link" in self.log_text("qmhost"), "the host to serve on")
        self.assertEqual(self.stop_host(), 0)

    def test_several_stop_signals_at_once_are_one(self):
        self.have_sigint(signal.default_int_handler)
        self.start_host()
        self.host.send_signal(signal.SIGINT)
        self.assertEqual(self.stop_host(), 0)
        self.assertIn("qmhost stopped", self.host_said())

    def test_sigterm_and_sigint_stop_in_order(self):
        self.have_sigint(signal.default_int_handler)
        for how in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(how=how):
                self.start_host()
                self.assertEqual(self.send(data=b"x\n").returncode, 0)
                self.assertEqual(self.stop_host(how), 0)
                self.assertFalse(self.socket.exists())
                log = self.log_text("qmlogcache")
                self.assertIn("qmlogcache CLogCachePluginObj::Stop End Stop OK", log)
                self.assertIn("qmlogcache CLogCachePluginObj::Uninitialize End", log)
                self.assertNotIn("need kill", log)

    def test_a_second_host_on_the_same_data_is_kept_out(self):
        self.start_host()
        second = subprocess.run(
            self.host_command(), capture_output=True, text=True, timeout=PATIENCE, check=False
        )
        self.assertEqual(second.returncode, 1)
        self.assertIn(str(self.host.pid), second.stderr)
        self.assertEqual(self.send(data=b"still here\n").returncode, 0)

    def test_a_host_killed_with_sigkill_leaves_nothing_that_stops_the_next(self):
        self.start_host()
        self.assertEqual(self.stop_host(signal.SIGKILL), -signal.SIGKILL)
        self.start_host()
        self.assertEqual(self.send(data=b"x\n").returncode, 0)

    def test_sighup_goes_on_in_a_new_file_after_rotation(self):
        self.start_host()
        self.assertEqual(self.send(data=b"before\n").returncode, 0)
        self.wait_for_records(1)
        rotated = self.out / "records.1"
        self.records_file.rename(rotated)
        self.host.send_signal(signal.SIGHUP)
        wait_until(self.records_file.exists, "the new file")
        self.assertEqual(self.send(data=b"after\n").returncode, 0)
        self.assertEqual(self.wait_for_records(1)[0]["message"], "after")
        self.assertEqual(rotated.read_bytes().count(b"\n"), 1)

    def test_records_wait_while_the_link_is_down_and_arrive_when_it_is_up(self):
        self.start_host()
        self.assertEqual(self.send(data=b"first\n").returncode, 0)
        self.wait_for_records(1)
        away = self.take_link_down()
        lines = [b"%d" % n for n in range(500)]
        sent = self.send(data=b"\n".join(lines) + b"\n")
        self.assertEqual(sent.returncode, 0, sent.stderr)
        away.rename(self.out)
        records = self.wait_for_records(501)
        self.assertEqual(sorted(record["message"].encode() for record in records), sorted(lines + [b"first"]))
        # Nobody was told that a record is rejected: the error channel is empty.
        self.assertEqual(self.log_text("qmlogcacheerror"), "")

    def test_files_that_hold_records_are_the_owners_alone(self):
        self.start_host()
        self.assertEqual(self.send(data=b"x\n").returncode, 0)
        self.wait_for_records(1)
        for path in [self.records_file, *self.log_dir.iterdir()]:
            self.assertEqual(stat.S_IMODE(path.stat().st_mode), 0o600, path)

    def test_a_plug_in_that_cannot_be_loaded_is_named(self):
        self.write_config(**{"plugin logcache": {"guid": "00000000-0000-0000-0000-000000000000"}})
        result = subprocess.run(
            self.host_command(), capture_output=True, text=True, timeout=PATIENCE, check=False
        )
        self.assertEqual(result.returncode, 1)
        self.assertIn("00000000-0000-0000-0000-000000000000", result.stderr)


if os.geteuid() == 0:

    class OtherUserTest(HostTestCase):
        """Only root can run the producer as another user."""

        def test_users_who_are_not_allowed_are_turned_away(self):
            self.dir.chmod(0o755)
            nobody = 65534
            self.start_host()
            refused = self.send(data=b"x\n", user=nobody)
            self.assertEqual(refused.returncode, 2, refused.stderr)
            self.stop_host()
            self.write_config(ingress={"allowed_users": nobody})
            self.start_host()
            taken = self.send(data=b"x\n", user=nobody)
            self.assertEqual(taken.returncode, 0, taken.stderr)


class ProducerTest(HostTestCase):
    def test_without_a_host_the_producer_says_so_at_once(self):
        sent = self.send(data=b"x\n")
        self.assertEqual(sent.returncode, 2)
        self.assertIn(str(self.socket).encode(), sent.stderr)

    def test_retry_waits_for_the_host(self):
        producer = subprocess.Popen(
            [BIN / "qmsend", "--socket", self.socket, "--retry", str(PATIENCE)],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
        )
        producer.stdin.write(b"patient\n")
        producer.stdin.close()
        self.start_host()
        stderr = producer.stderr.read()
        producer.stderr.close()
        self.assertEqual(producer.wait(timeout=PATIENCE), 0, stderr)
        self.assertEqual(self.wait_for_records(1)[0]["message"], "patient")


if __name__ == "__main__":
    unittest.main()
