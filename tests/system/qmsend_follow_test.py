"""qmsend --follow against the real host: rotations, restarts, kills; no line is lost, and repeats are counted."""

import collections
import gzip
import os
import pathlib
import random
import secrets
import shutil
import signal
import subprocess
import sys
import threading
import time

from deliveries import Deliveries
from host_fixture import BIN, HostTestCase, PATIENCE, SANITIZED, wait_until

WINDOW = 64


class FollowTestCase(HostTestCase):
    def setUp(self):
        super().setUp()
        self.logs = self.dir / "logs"
        self.logs.mkdir()
        self.log = self.logs / "app.log"
        self.position = self.dir / "position"
        self.said_file = self.dir / "qmsend.err"
        self.said_file.touch()
        self.deliveries = Deliveries(self.dir)
        self.follower = None
        self.written = 0
        self.write_config(ingress={"window": WINDOW})

    def tearDown(self):
        if self.follower is not None:
            self.follower.kill()
            self.follower.wait()
        super().tearDown()

    def command(self, *arguments):
        return [BIN / "qmsend", "--socket", self.socket, "--follow", self.log, "--position", self.position, *arguments]

    def follow(self, *arguments):
        with self.said_file.open("ab") as stream:
            self.follower = subprocess.Popen(self.command(*arguments), stderr=stream, stdin=subprocess.DEVNULL)

    def refused(self, *arguments, command=None):
        """Runs a follower that is expected to end by itself; returns what it says."""
        result = subprocess.run(command or self.command(*arguments), capture_output=True, text=True,
                                timeout=PATIENCE, check=False)
        self.assertEqual(result.returncode, 2, result.stderr)
        return result.stderr

    def end_follower(self, how=signal.SIGTERM):
        self.follower.send_signal(how)
        status = self.follower.wait(timeout=PATIENCE)
        self.follower = None
        return status

    def said(self):
        return self.said_file.read_text(errors="replace")

    def wait_said(self, text):
        wait_until(lambda: text in self.said(), f"'{text}' to be said")

    def append(self, *lines, path=None):
        with (path or self.log).open("ab") as stream:
            stream.write(b"".join(line + b"\n" for line in lines))

    def lines(self, count):
        """New lines, each unlike any other."""
        first = self.written
        self.written += count
        return [b"line %d of the log" % number for number in range(first, self.written)]

    def arrived(self):
        return [record for record, _ in self.deliveries.read()]

    def distinct_ids(self):
        """As often as each line was accepted: what the component sends again has the same data id."""
        return collections.Counter(record for record, _ in set(self.deliveries.read()))

    def wait_arrived(self, lines):
        wanted = set(lines)
        wait_until(lambda: wanted <= set(self.arrived()), f"{len(wanted)} lines to arrive: {self.said()}")

    def check_once(self, lines):
        """These have arrived, each once, and nothing else."""
        self.assertEqual(self.distinct_ids(), collections.Counter(lines), self.said())

    def noted_offset(self):
        try:
            fields = dict(line.split(" ", 1) for line in self.position.read_text().split("\n") if " " in line)
            return int(fields["offset"]) if int(fields["inode"]) != 0 else None  # there was no log
        except FileNotFoundError:
            return None

    def wait_noted(self, offset):
        wait_until(lambda: self.noted_offset() == offset, f"byte {offset} to be noted, not {self.noted_offset()}")

    def read_position(self):
        """Up to where the follower has read the log."""
        process = pathlib.Path("/proc") / str(self.follower.pid)
        for link in (process / "fd").iterdir():
            if os.readlink(link) == str(self.log):
                return int((process / "fdinfo" / link.name).read_text().split()[1])
        return self.fail("the log is not open")

    def age(self, path, seconds):
        """Makes a file's last write older, as if the rotation had been some time ago."""
        when = time.time() - seconds
        os.utime(path, (when, when))


class AppendedLinesTest(FollowTestCase):
    def test_lines_arrive_as_they_are_appended_and_a_partial_one_waits_for_its_newline(self):
        self.start_host()
        lines = self.lines(3)
        self.append(*lines)
        self.follow()
        self.wait_arrived(lines)
        with self.log.open("ab") as stream:
            stream.write(b"begun ")
        wait_until(lambda: self.read_position() == self.log.stat().st_size, "the partial line to be read")
        with self.log.open("ab") as stream:
            stream.write(b"and ended\n")
        more = self.lines(1)
        self.append(*more)
        self.wait_arrived([b"begun and ended", *more])
        self.check_once([*lines, b"begun and ended", *more])

    def test_a_log_that_is_not_there_is_waited_for(self):
        self.start_host()
        self.follow()
        self.wait_said("No such file or directory; it is waited for")
        lines = self.lines(2)
        self.append(*lines)
        self.wait_arrived(lines)
        self.assertEqual(self.end_follower(), 0)

    def test_the_options_of_a_message_hold_for_a_log_too(self):
        self.start_host()
        self.append(b"x")
        self.follow("--priority", "high", "--product", "prod", "--kind", "epp")
        record = self.wait_for_records(1)[0]
        self.assertEqual((record["priority"], record["product"], record["kind"]), ("high", "prod", "epp"))

    def test_a_line_that_can_never_be_sent_is_named_and_passed_over_for_good(self):
        self.write_config(ingress={"window": WINDOW, "max_frame": 4096})
        self.start_host()
        lines = self.lines(2)
        self.append(lines[0], b"l" * 5000, b"with a \0 byte", b"", lines[1])
        self.follow()
        self.wait_arrived(lines)
        self.wait_noted(self.log.stat().st_size)
        self.assertEqual(self.end_follower(), 0)
        said = self.said()
        self.assertIn(f"{self.log}, line up to byte {len(lines[0]) + 1 + 5001}: not sent, longer than the host takes: "
                      f'"{"l" * 48}"...', said)
        self.assertIn('not sent, it holds a zero byte, where the component would cut it: "with a \\x00 byte"', said)
        self.assertIn("accepted 2, passed over 2, sent and not settled 0", said)
        self.follow()
        more = self.lines(1)
        self.append(*more)
        self.wait_arrived(more)
        self.check_once(lines + more)
        self.assertEqual(self.said().count("longer than the host takes"), 1)


    def test_of_many_lines_that_cannot_be_sent_a_hundred_are_named_and_the_others_counted(self):
        self.start_host()
        self.append(*[b"zero \0 byte"] * 250, b"good")
        self.follow()
        self.wait_arrived([b"good"])
        self.assertEqual(self.end_follower(), 0)
        self.assertEqual(self.said().count("it holds a zero byte"), 100)
        self.assertIn("150 more lines that cannot be sent were passed over", self.said())
        self.assertIn("accepted 1, passed over 250", self.said())


class RotationTest(FollowTestCase):
    def test_a_renamed_log_is_read_to_its_end_and_then_the_new_one(self):
        self.start_host()
        lines = self.lines(5)
        self.append(*lines)
        self.follow()
        self.wait_arrived(lines)
        rotated = self.logs / "app.log.1"
        self.log.rename(rotated)
        self.log.touch()
        late = self.lines(3)
        self.append(*late, path=rotated)  # a writer that has it open still
        with rotated.open("ab") as stream:
            stream.write(b"no newline comes here any more")
        self.wait_arrived(late)
        new = self.lines(4)
        self.append(*new)
        self.wait_arrived(new)
        self.check_once(lines + late + [b"no newline comes here any more"] + new)
        self.wait_noted(self.log.stat().st_size)

    def test_a_log_that_is_copied_and_truncated_goes_on(self):
        self.start_host()
        lines = self.lines(50)
        self.append(*lines)
        self.follow()
        self.wait_arrived(lines)
        unread = self.lines(200)
        self.follower.send_signal(signal.SIGSTOP)
        self.append(*unread)
        shutil.copyfile(self.log, self.logs / "app.log.1")
        os.truncate(self.log, 0)
        new = self.lines(3)
        self.append(*new)
        self.follower.send_signal(signal.SIGCONT)
        self.wait_arrived(lines + unread + new)
        self.check_once(lines + unread + new)
        self.assertIn("was truncated", self.said())
        self.assertIn("goes on in its copy", self.said())

    def test_a_truncated_log_is_sent_from_its_beginning_with_a_warning(self):
        self.start_host()
        lines = self.lines(50)
        self.append(*lines)
        self.follow()
        self.wait_arrived(lines)
        os.truncate(self.log, 0)
        self.wait_said("warning: ")
        new = self.lines(60)
        self.append(*new)
        self.wait_arrived(new)
        self.check_once(lines + new)
        self.assertIn("starts at its beginning", self.said())

    def grow_again(self, head):
        """Truncates a log with that head and writes more than was read before, all between two looks at it."""
        self.start_host()
        lines = self.lines(20)
        self.append(*head, *lines)
        self.follow()
        self.wait_arrived(head + lines)
        self.follower.send_signal(signal.SIGSTOP)
        os.truncate(self.log, 0)
        new = self.lines(100)
        self.append(*head, *new)
        self.follower.send_signal(signal.SIGCONT)
        self.wait_arrived(new)
        self.check_once(head + lines + head + new)

    def test_a_log_that_was_truncated_and_has_grown_again_is_noticed(self):
        self.grow_again([])

    def test_a_log_that_begins_with_the_same_banner_again_is_noticed(self):
        self.grow_again([b"#" * 300])

    def rotations_while_away(self, names):
        """Rotates once for each name while nobody follows; the oldest first. Returns all lines."""
        self.start_host()
        lines = self.lines(10)
        self.append(*lines)
        self.follow()
        self.wait_arrived(lines)
        self.assertEqual(self.end_follower(), 0)
        for number, name in enumerate(names):
            lines += self.lines(5)
            self.append(*lines[-5:])
            self.log.rename(self.logs / name)
            self.age(self.logs / name, 600 - number)
        lines += self.lines(5)
        self.append(*lines[-5:])
        return lines

    def test_several_rotations_by_number_while_nobody_followed(self):
        lines = self.rotations_while_away(["app.log.3", "app.log.2", "app.log.1"])
        # Neither an older one nor a file of another kind is the log's next.
        (self.logs / "app.log.4").write_bytes(b"older\n")
        (self.logs / "app.log.errors").write_bytes(b"another\n")
        self.follow()
        self.wait_arrived(lines)
        self.check_once(lines)
        self.assertIn(f"goes on in {self.logs}/app.log.3 at byte", self.said())
        arrived = self.arrived()
        self.assertEqual([line for line in dict.fromkeys(arrived)], lines)

    def test_several_rotations_by_date_while_nobody_followed(self):
        (self.logs / "app.log-20260101").write_bytes(b"older\n")
        self.age(self.logs / "app.log-20260101", 100_000)
        lines = self.rotations_while_away(["app.log-20260102", "app.log-20260103-1767398400"])
        self.follow()
        self.wait_arrived(lines)
        self.check_once(lines)

    def test_a_copy_made_while_nobody_followed_is_read_on(self):
        lines = self.rotations_while_away([])
        shutil.copyfile(self.log, self.logs / "app.log.1")
        self.age(self.logs / "app.log.1", 60)
        os.truncate(self.log, 0)
        new = self.lines(3)
        self.append(*new)
        self.follow()
        self.wait_arrived(lines + new)
        self.check_once(lines + new)

    def test_a_compressed_file_is_said_not_to_be_read_and_what_follows_it_is_sent(self):
        lines = self.rotations_while_away(["app.log.2", "app.log.1"])
        for name in ("app.log.2", "app.log.1"):
            content = (self.logs / name).read_bytes()
            (self.logs / (name + ".gz")).write_bytes(gzip.compress(content))
            (self.logs / name).unlink()
        self.follow()
        self.wait_arrived(lines[-5:])
        self.check_once(lines[:10] + lines[-5:])
        self.assertIn("is not there any more: truncated, removed or compressed", self.said())
        self.assertIn(f"{self.logs}/app.log.1.gz is compressed and is not read", self.said())

    def test_a_compressed_file_between_two_others_is_said(self):
        lines = self.rotations_while_away(["app.log.3", "app.log.2", "app.log.1"])
        (self.logs / "app.log.2.gz").write_bytes(gzip.compress((self.logs / "app.log.2").read_bytes()))
        (self.logs / "app.log.2").unlink()
        self.follow()
        self.wait_arrived(lines[:15] + lines[20:])
        self.check_once(lines[:15] + lines[20:])
        self.assertIn(f"warning: {self.logs}/app.log.2.gz is compressed and is not read", self.said())

    def test_a_restart_without_a_host_forgets_no_rotated_file(self):
        lines = self.rotations_while_away(["app.log.2", "app.log.1"])
        self.age(self.position, 900)
        self.assertEqual(self.stop_host(), 0)
        self.follow()
        self.wait_said(f"goes on in {self.logs}/app.log.2 at byte")
        self.assertEqual(self.end_follower(), 0)
        # What it was in is compressed before the host is back.
        (self.logs / "app.log.2").unlink()
        self.start_host()
        self.follow()
        self.wait_arrived(lines[:10] + lines[15:])
        self.check_once(lines[:10] + lines[15:])


class RestartTest(FollowTestCase):
    def test_an_orderly_end_notes_the_position_and_nothing_is_repeated(self):
        self.start_host()
        lines = []
        for _ in range(4):
            self.follow()
            lines += self.lines(300)
            self.append(*lines[-300:])
            wait_until(lambda: len(self.arrived()) > len(lines) - 200, "some of them")
            self.assertEqual(self.end_follower(), 0, self.said())
        self.follow()
        self.wait_arrived(lines)
        self.check_once(lines)

    def test_a_host_that_is_away_is_waited_out_and_no_more_is_read(self):
        self.start_host()
        lines = self.lines(10)
        self.append(*lines)
        self.follow()
        self.wait_arrived(lines)
        self.wait_noted(self.log.stat().st_size)
        read = self.read_position()
        self.assertEqual(self.stop_host(), 0)
        self.wait_said("the host is waited for")
        lines += self.lines(500)
        for start in range(10, 510, 100):
            self.append(*lines[start:start + 100])
        time.sleep(1)  # time in which a follower that goes on reading would do so
        self.assertEqual(self.read_position(), read)
        self.start_host()
        self.wait_arrived(lines)
        self.check_once(lines)

    def test_what_is_rotated_before_the_first_host_is_there_is_sent(self):
        lines = self.lines(3)
        self.append(*lines)
        self.follow()
        self.wait_said("the host is waited for")
        self.wait_noted(0)
        self.log.rename(self.logs / "app.log.1")
        self.age(self.logs / "app.log.1", 60)
        lines += self.lines(2)
        self.append(*lines[3:])
        self.start_host()
        self.wait_arrived(lines)
        self.check_once(lines)

    def make_rotated(self, lines):
        """A log that is there and rotated already when it is first seen."""
        for name, part in (("app.log.1", lines[:3]), ("app.log", lines[3:])):
            (self.dir / name).write_bytes(b"".join(line + b"\n" for line in part))
        for name in ("app.log.1", "app.log"):
            (self.dir / name).rename(self.logs / name)

    def test_a_log_that_is_rotated_before_it_is_first_seen_is_sent_whole(self):
        self.start_host()
        self.follow()
        self.wait_said("it is waited for")
        lines = self.lines(5)
        self.make_rotated(lines)
        self.wait_arrived(lines)
        self.check_once(lines)

    def test_a_log_that_is_rotated_before_any_run_has_seen_it_is_sent_whole(self):
        self.follow()
        self.wait_said("it is waited for")
        self.assertEqual(self.end_follower(signal.SIGKILL), -signal.SIGKILL)
        lines = self.lines(5)
        self.make_rotated(lines)
        self.start_host()
        self.follow()
        self.wait_arrived(lines)
        self.check_once(lines)

    def test_what_is_removed_before_the_first_host_is_there_is_sent_too(self):
        self.follow()
        self.wait_said("it is waited for")
        lines = self.lines(3)
        self.append(*lines)
        self.wait_noted(0)
        self.log.unlink()
        lines += self.lines(2)
        self.append(*lines[3:])
        self.start_host()
        self.wait_arrived(lines)
        self.check_once(lines)

    def test_a_run_that_never_met_a_host_has_noted_where_the_log_began(self):
        lines = self.lines(3)
        self.append(*lines)
        self.follow()
        self.wait_noted(0)
        self.assertEqual(self.end_follower(signal.SIGKILL), -signal.SIGKILL)
        self.log.rename(self.logs / "app.log.1")
        self.age(self.logs / "app.log.1", 60)
        lines += self.lines(2)
        self.append(*lines[3:])
        self.start_host()
        self.follow()
        self.wait_arrived(lines)
        self.check_once(lines)

    def test_another_host_may_take_longer_lines(self):
        self.write_config(ingress={"window": WINDOW, "max_frame": 4096})
        self.start_host()
        lines = [b"x" * 3000]
        self.append(*lines)
        self.follow()
        self.wait_arrived(lines)
        self.stop_host()
        self.wait_said("the host is waited for")
        self.write_config(ingress={"window": WINDOW, "max_frame": 65536})
        self.append(b"y" * 30000)
        self.start_host()
        self.wait_arrived([b"y" * 30000])
        self.assertNotIn("longer than the host takes", self.said())

    def test_it_ends_in_order_while_the_host_is_away(self):
        self.append(*self.lines(1))
        self.follow()
        self.wait_said("the host is waited for")
        self.assertEqual(self.end_follower(), 0)
        self.start_host()
        self.follow()
        self.wait_arrived([b"line 0 of the log"])
        self.stop_host()
        self.assertEqual(self.end_follower(), 0)

    def test_a_second_follower_with_the_same_position_is_refused(self):
        self.start_host()
        self.append(*self.lines(1))
        self.follow()
        self.wait_arrived([b"line 0 of the log"])
        said = self.refused()
        self.assertIn(f"another qmsend, process {self.follower.pid}, follows with the position file {self.position}",
                      said)
        self.assertEqual(self.end_follower(signal.SIGKILL), -signal.SIGKILL)
        self.follow()  # the lock is gone with its holder
        self.append(*self.lines(1))
        self.wait_arrived([b"line 1 of the log"])

    def test_the_position_stands_beside_the_hosts_data_unless_told_otherwise(self):
        program = self.prefix / "bin" / "qmsend"
        shutil.copy2(BIN / "qmsend", program)
        (self.prefix / "data").mkdir(exist_ok=True)
        self.start_host()
        self.append(*self.lines(2))
        self.follower = subprocess.Popen([program, "--socket", self.socket, "--follow", self.log, "--quiet"])
        name = str(self.log).lstrip("/").replace("/", "-") + ".position"
        self.position = self.prefix / "data" / "qmsend" / name
        self.wait_noted(self.log.stat().st_size)
        self.assertEqual(self.position.stat().st_mode & 0o777, 0o600)
        self.assertEqual(self.end_follower(), 0)

    def test_a_position_that_is_none_of_this_log_is_refused_and_kept(self):
        self.start_host()
        self.append(b"x")
        self.follow()
        self.wait_arrived([b"x"])
        self.assertEqual(self.end_follower(), 0)
        good = self.position.read_bytes()
        for bad in (b"", b"nonsense\n", good[:-1], good.replace(b"inode ", b"inode x"), good[:len(good) // 2],
                    good.replace(b"offset 2", b"offset 99999999999999999999"), os.urandom(1 << 17)):
            self.position.write_bytes(bad)
            self.assertIn("makes no sense", self.refused())
            self.assertEqual(self.position.read_bytes(), bad)
        self.position.write_bytes(good)
        other = self.logs / "other.log"
        other.touch()
        self.assertIn(f"belongs to {self.log}",
                      self.refused(command=self.command()[:4] + [other, "--position", self.position]))
        self.assertIn("cannot make the directory", self.refused(command=self.command()[:5] + [
            "--position", self.dir / "no" / "such" / "file"]))

    def test_what_cannot_be_followed_is_refused(self):
        os.mkfifo(self.log)
        self.assertIn("it is not a regular file", self.refused())
        self.log.unlink()
        self.log.mkdir()
        self.assertIn("cannot", self.refused())
        for wrong in (["--retry", "1"], ["--whole-file"], ["--summary", "x"], [self.dir / "file"]):
            self.assertIn("xclude", self.refused(*wrong))
        self.assertIn("--follow", self.refused(command=[BIN / "qmsend", "--position", "x"]))


class KillTest(FollowTestCase):
    """QMLOGCACHE_CRASH_SEED repeats the moments of a run, as far as the machine does."""

    KILLS = 6 if SANITIZED else 16
    LINES = 1_500 if SANITIZED else 4_000
    PAUSE = 0.025 if SANITIZED else 0.01  # so that the kills fall into the writing

    def setUp(self):
        super().setUp()
        self.seed = int(os.environ.get("QMLOGCACHE_CRASH_SEED") or secrets.randbits(32))
        self.random = random.Random(self.seed)
        self.ending = threading.Event()

    def write_and_rotate(self, lines):
        """A service's log with logrotate on it; the names move up as they do there."""
        chance = random.Random(self.seed)
        start = 0
        while start < len(lines) and not self.ending.is_set():
            count = chance.randrange(1, 60)
            self.append(*lines[start:start + count])
            start += count
            if chance.random() < 0.05:
                for number in range(30, 0, -1):
                    old = self.logs / f"app.log.{number}"
                    if old.exists():
                        old.rename(self.logs / f"app.log.{number + 1}")
                self.log.rename(self.logs / "app.log.1")
                self.log.touch()
            time.sleep(self.PAUSE)

    def test_no_line_is_lost_by_kills_of_either_program_under_load_and_rotations(self):
        self.start_host()
        self.follow("--quiet")
        wait_until(self.position.exists, "the first follower to have begun")  # before that it can promise nothing
        lines = self.lines(self.LINES)
        writer = threading.Thread(target=self.write_and_rotate, args=(lines,))
        writer.start()
        try:
            kills = 0
            for _ in range(self.KILLS):
                time.sleep(self.random.uniform(0.05, 0.6))
                if self.random.random() < 0.5:
                    self.end_follower(signal.SIGKILL)
                    self.follow("--quiet")
                else:
                    self.stop_host(signal.SIGKILL)
                    self.start_host()
                kills += 1
        except BaseException:
            self.ending.set()
            raise
        finally:
            writer.join()
        self.wait_arrived(lines)
        accepted = self.distinct_ids()
        self.assertEqual(set(accepted), set(lines), f"seed {self.seed}")
        repeats = sum(accepted.values()) - len(lines)
        print(f"\n  seed {self.seed}, {kills} kills, {len(lines)} lines, {repeats} repeats", file=sys.stderr)
        self.assertLessEqual(repeats, kills * WINDOW, f"seed {self.seed}")
        self.assertEqual(self.end_follower(), 0)
        self.assertEqual(self.stop_host(), 0)
