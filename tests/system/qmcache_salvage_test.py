"""qmcache brings records out of damaged files and of their backups: never fewer than the sqlite3 shell's .dump gives."""

import gzip
import json
import os
import random
import re
import shutil
import sqlite3
import subprocess
import threading
import unittest

from cache_files import read_file, tagged
from host_fixture import BIN, PATIENCE
from qmcache_case import DAMAGE, FAILED, WELL, CacheToolTestCase

SENDER = "11111111-1111-1111-1111-111111111111"
PAGE = 4096
COUNT = 1200


class Writer(threading.Thread):
    """Writes records to a file and truncates its log, without a pause. So many are added; then the last one is written
    over, so that a slow reader has no more to read."""

    MOST = 3000

    def __init__(self, path):
        super().__init__()
        self._path = path
        self._stopping = threading.Event()
        self.committed = 0

    def stop(self):
        self._stopping.set()
        self.join()

    def run(self):
        connection = sqlite3.connect(self._path, isolation_level=None, timeout=PATIENCE)
        connection.execute("PRAGMA journal_mode=WAL")
        connection.execute("PRAGMA synchronous=OFF")
        writes = 0
        while not self._stopping.is_set():
            number = min(self.committed + 1, self.MOST)
            text = tagged(number, 0, 1, SENDER.encode(), b"", b"", b"x" * 300).decode()
            if number > self.committed:
                connection.execute("INSERT INTO logcache VALUES (?, 0, 1, '', '', 0, ?, NULL, NULL)", (number, text))
                self.committed = number
            else:
                connection.execute("UPDATE logcache SET data = ? WHERE dataid = ?", (text, number))
            writes += 1
            if writes % 20 == 0:
                connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        connection.close()


class SalvageTestCase(CacheToolTestCase):
    host_wrote = None  # a sound file as the host wrote it, and its records; one for all tests

    def setUp(self):
        super().setUp()
        self.sound = self.cache_dir / f"{SENDER}.db"
        if SalvageTestCase.host_wrote is None:
            self.let_host_write()
            SalvageTestCase.host_wrote = self.sound.read_bytes(), self.records("cat", "--json")
            shutil.rmtree(self.cache_dir)
        data, self.whole = SalvageTestCase.host_wrote
        self.assertEqual(len(self.whole), COUNT)
        self.cache_dir.mkdir(parents=True)
        self.sound.write_bytes(data)
        self.work = self.dir / "work"
        self.work.mkdir()
        self.damaged = self.work / f"{SENDER}.db"

    def let_host_write(self):
        self.write_config(storage={"sync": "normal"})
        self.start_without_destination()
        source = random.Random(5)
        lines = [f"{n} " + "x" * source.choice((10, 100, 300, 3000, 9000)) for n in range(COUNT)]
        self.put("--sender", SENDER, "--product", "p", "--combo", "c", lines=lines)
        self.assertEqual(self.stop_host(), 0)
        connection = sqlite3.connect(self.sound)
        connection.execute("PRAGMA wal_checkpoint(TRUNCATE)")
        connection.close()
        self.out.mkdir()
        self.write_config()

    def start_with_link_down(self):
        """From the beginning: what is in the cache stays there."""
        self.write_config(link={"driver": "http"}, http={"url": "http://127.0.0.1:1"})
        self.start_host()

    def damage(self, change):
        """A copy of the sound file, changed by change(bytes), alone."""
        data = bytearray(self.sound.read_bytes())
        data = change(data) or data
        self.damaged.write_bytes(data)

    def salvage(self, *arguments, path=None, status=DAMAGE):
        """The records that come out, and the summary."""
        output = self.work / "out.jsonl"
        said = self.output("salvage", "--json", "--output", output, *arguments, path or self.damaged, status=status)
        return [json.loads(line) for line in output.read_bytes().splitlines()], json.loads(said)

    def dumped_by_shell(self, path=None):
        """How many whole records the sqlite3 shell's .dump brings out, which reads a damaged table from both ends. (Its .recover
        needs an SQLite library that is built for it, and Debian's is not.)"""
        done = subprocess.run(["sqlite3", path or self.damaged, ".dump"], capture_output=True, timeout=PATIENCE,
                              check=False)
        return len(set(re.findall(rb"'<version=1><dataid=([0-9a-f]+)>[^']*>'", done.stdout)))

    def check_against_shell(self, lost_at_most):
        """What comes out is right, and is at least what the shell brings out."""
        found, summary = self.salvage()
        known = {record["dataid"]: record for record in self.whole}
        for record in found:
            self.assertEqual(record, known[record["dataid"]])
        self.assertEqual(len({record["dataid"] for record in found}), len(found))
        self.assertEqual(summary["records"], len(found))
        self.assertFalse(summary["whole"])
        self.assertGreaterEqual(len(found), COUNT - lost_at_most)
        self.assertGreaterEqual(len(found), self.dumped_by_shell())
        return found, summary

    def pages(self, kind):
        """Numbers (from 0) of the pages whose first byte is that."""
        data = self.sound.read_bytes()
        return [at // PAGE for at in range(PAGE, len(data), PAGE) if data[at] == kind]


class DamageTest(SalvageTestCase):
    def test_a_sound_file_comes_out_whole(self):
        found, summary = self.salvage(path=self.sound, status=WELL)
        self.assertEqual(sorted(found, key=lambda record: record["dataid"]), self.whole)
        self.assertTrue(summary["whole"])
        self.assertEqual((summary["broken_rows"], summary["lost_pages"]), (0, 0))
        self.assertEqual(self.dumped_by_shell(self.sound), COUNT)

    def test_a_leaf_of_zeros_costs_its_own_rows(self):
        leaves = self.pages(0x0D)
        on_them = 0  # rows: a leaf tells their number in its bytes 3 and 4

        def change(data):
            nonlocal on_them
            for leaf in (leaves[3], leaves[10]):
                on_them += int.from_bytes(data[leaf * PAGE + 3 : leaf * PAGE + 5], "big")
                data[leaf * PAGE : (leaf + 1) * PAGE] = bytes(PAGE)

        self.damage(change)
        found, summary = self.check_against_shell(lost_at_most=on_them)
        self.assertGreater(on_them, 0)
        self.assertEqual(len(found), COUNT - on_them)
        self.assertGreaterEqual(summary["lost_pages"], 2)
        self.assertFalse(summary["header_damaged"])

    def test_a_damaged_header_costs_nothing(self):
        self.damage(lambda data: data.__setitem__(slice(0, 100), os.urandom(100)))
        found, summary = self.check_against_shell(lost_at_most=0)
        self.assertEqual(len(found), COUNT)
        self.assertTrue(summary["header_damaged"])

    def test_lost_pages_above_the_leaves_cost_nothing(self):
        interior = self.pages(0x05)
        self.assertGreater(len(interior), 0)

        def change(data):
            for page in interior:
                data[page * PAGE : (page + 1) * PAGE] = bytes(PAGE)

        self.damage(change)
        found, _ = self.check_against_shell(lost_at_most=0)
        self.assertEqual(len(found), COUNT)

    def test_half_a_file_gives_what_stands_in_it(self):
        self.damage(lambda data: data[: len(data) // 2 // PAGE * PAGE + 1000])
        found, summary = self.check_against_shell(lost_at_most=COUNT * 6 // 10)
        self.assertGreater(summary["missing_pages"], 0)
        self.assertLess(len(found), COUNT)

    def test_a_broken_chain_costs_its_own_row(self):
        chained = [page for page in self.pages(0x00)][5]  # the first byte of a chain's page is its next page's highest
        self.damage(lambda data: data.__setitem__(slice(chained * PAGE, (chained + 1) * PAGE), b"\xff" * PAGE))
        found, summary = self.check_against_shell(lost_at_most=1)
        self.assertEqual(summary["broken_rows"], 1)

    def test_random_damage_gives_right_records_and_at_least_what_the_shell_finds(self):
        for seed in range(4):
            source = random.Random(seed)

            def change(data):
                for _ in range(40):
                    at = source.randrange(len(data) - 64)
                    data[at : at + 64] = source.randbytes(64)

            self.damage(change)
            self.check_records_are_right()

    def check_records_are_right(self):
        """As check_against_shell, where damage may stand inside of a record."""
        found, _ = self.salvage()
        known = {record["dataid"] for record in self.whole}
        found_ids = {record["dataid"] for record in found}
        self.assertLessEqual(found_ids, known)
        self.assertGreaterEqual(len(found_ids), self.dumped_by_shell())

    def test_deleted_rows_stay_deleted(self):
        shutil.copy2(self.sound, self.damaged)
        connection = sqlite3.connect(self.damaged)
        connection.execute("PRAGMA journal_mode=DELETE")
        connection.execute("PRAGMA secure_delete=OFF")
        connection.execute("DELETE FROM logcache WHERE dataid % 1000 > 100 OR dataid % 1000 < 20")
        connection.commit()
        left = {f"{dataid:x}" for (dataid,) in connection.execute("SELECT dataid FROM logcache")}
        connection.close()
        self.assertLess(len(left), COUNT)
        found, summary = self.salvage(status=WELL)
        self.assertEqual({record["dataid"] for record in found}, left)
        self.assertTrue(summary["whole"])

    def test_a_list_of_free_pages_that_names_pages_in_use_costs_nothing(self):
        leaves = self.pages(0x0D)
        number = lambda page: (page + 1).to_bytes(4, "big")

        def head_is_a_leaf(data):
            data[32:40] = number(leaves[3]) + (1).to_bytes(4, "big")

        def list_of_leaves(data):
            """At the end of the file a page that names leaves, in a list that is well-formed."""
            data[32:40] = number(len(data) // PAGE) + (4).to_bytes(4, "big")
            data[28:32] = number(len(data) // PAGE)
            named = b"".join(number(leaf) for leaf in leaves[3:6])
            return data + (bytes(4) + (3).to_bytes(4, "big") + named).ljust(PAGE, b"\0")

        def list_that_ends_in_nonsense(data):
            data = list_of_leaves(data)
            data[-PAGE + 4 : -PAGE + 8] = (4).to_bytes(4, "big")
            data[-PAGE + 20 : -PAGE + 24] = b"\xff" * 4
            data[36:40] = (5).to_bytes(4, "big")
            return data

        def root_is_free(data):
            root = self.pages(0x05)[0]
            data = list_of_leaves(data)
            data[-PAGE + 8 : -PAGE + 20] = number(root) + b"".join(number(leaf) for leaf in leaves[:2])
            return data

        for change in (head_is_a_leaf, list_of_leaves, list_that_ends_in_nonsense, root_is_free):
            with self.subTest(change.__name__):
                self.damage(change)
                found, summary = self.salvage()
                self.assertEqual(sorted(found, key=lambda record: record["dataid"]), self.whole)
                self.assertTrue(summary["free_list_damaged"])

    def test_the_damaged_file_is_not_written_over(self):
        self.damage(lambda data: None)
        before = self.damaged.read_bytes()
        os.link(self.damaged, self.work / "same")
        for name in (self.damaged, self.work / "same"):
            self.output("salvage", self.damaged, "--output", name, status=FAILED)
            self.assertEqual(self.damaged.read_bytes(), before)

    def test_nonsense_gives_nothing_and_is_survived(self):
        source = random.Random(9)
        for size in (0, 1, 99, 100, 511, 4096, 100000):
            self.damaged.write_bytes(source.randbytes(size))
            found, summary = self.salvage()
            self.assertEqual((found, summary["records"]), ([], 0))
        data = self.sound.read_bytes()
        for seed in range(30):  # pages in disorder: chains that lead anywhere, in circles, and out of the file
            source = random.Random(seed)
            pages = [data[at : at + PAGE] for at in range(0, 60 * PAGE, PAGE)]
            source.shuffle(pages)
            self.damaged.write_bytes(data[:100] + pages[0][100:] + b"".join(pages[1:]))
            self.tool("salvage", "--output", self.work / "out.jsonl", self.damaged)
            done = self.tool("salvage", self.damaged)
            self.assertIn(done.returncode, (WELL, DAMAGE), done.stderr)

    def test_what_is_no_file_is_refused(self):
        os.mkfifo(self.work / "fifo.db")
        (self.work / "link.db").symlink_to(self.sound)
        for name in ("fifo.db", "link.db", "none.db", "."):
            self.output("salvage", self.work / name, status=FAILED)


class BackupTest(SalvageTestCase):
    def break_file(self):
        """Damage by which a write fails, so that the host makes a backup of the file."""
        leaves = self.pages(0x0D)

        def change(data):
            for leaf in leaves[-3:]:
                data[leaf * PAGE : (leaf + 1) * PAGE] = b"\xee" * PAGE

        self.damage(change)
        shutil.copy2(self.damaged, self.sound)

    def make_backup(self):
        """The host's own backup of the damaged file, with one new record in a new file."""
        self.break_file()
        self.start_with_link_down()
        self.put("--sender", SENDER, lines=["after the damage"])
        backup = self.cache_dir / f"{SENDER}1.db.zip"
        self.assertTrue(backup.exists(), self.log_text("qmlogcache")[-3000:])
        return backup

    def test_records_go_from_the_hosts_backup_back_into_the_cache(self):
        backup = self.make_backup()
        refused = self.tool("salvage", "--into-cache", backup)
        self.assertEqual(refused.returncode, FAILED)
        self.assertIn(b"qmhost", refused.stderr)
        self.assertEqual(self.stop_host(), 0)
        self.assertEqual(len(read_file(self.sound)), 1)
        expected, _ = self.salvage(path=backup)
        self.assertGreater(len(expected), COUNT - 200)
        said = json.loads(self.output("salvage", "--json", "--into-cache", backup, status=DAMAGE))
        self.assertEqual((said["written"], said["already_there"]), (len(expected), 0))
        in_cache = self.records("cat", "--json")
        self.assertEqual(in_cache[-1]["message"], "after the damage")
        self.assertEqual(in_cache[:-1], sorted(expected, key=lambda record: record["dataid"]))
        # A second time nothing is written over.
        said = json.loads(self.output("salvage", "--json", "--into-cache", backup, status=DAMAGE))
        self.assertEqual((said["written"], said["already_there"]), (0, len(expected)))
        self.assertEqual(self.records("cat", "--json"), in_cache)
        self.output("verify")
        # And the host sends them.
        self.write_config()
        self.start_host()
        arrived = {record["dataid"] for record in self.wait_for_records(len(in_cache))}
        self.assertEqual(arrived, {record["dataid"] for record in in_cache})

    def test_a_row_that_is_there_is_not_written_over(self):
        shutil.copy2(self.sound, self.damaged)
        connection = sqlite3.connect(self.sound)
        connection.execute("UPDATE logcache SET combo = 'changed'")
        connection.execute("DELETE FROM logcache WHERE dataid = (SELECT max(dataid) FROM logcache)")
        connection.commit()
        connection.close()
        self.output("salvage", "--into-cache", self.damaged)
        rows = read_file(self.sound)
        self.assertEqual(len(rows), COUNT)
        self.assertEqual([row["combo"] for row in rows], [b"changed"] * (COUNT - 1) + [b"c"])

    def test_a_column_that_is_no_number_comes_back_as_the_text_has_it(self):
        (dataid,) = [record["dataid"] for record in self.whole[:1]]
        before = read_file(self.sound)[0]
        shutil.copy2(self.sound, self.damaged)
        self.sound.unlink()
        connection = sqlite3.connect(self.damaged)
        connection.execute("UPDATE logcache SET priv = 'x', msgtype = x'00', datatype = 7 WHERE dataid = ?",
                           (int(dataid, 16),))
        connection.commit()
        connection.close()
        self.output("salvage", "--into-cache", self.damaged)
        self.assertEqual(read_file(self.sound)[0], before)
        self.assertNotEqual((before["priv"], before["msgtype"]), (0, 0))

    def test_a_file_that_is_damaged_itself_is_not_written_to(self):
        self.break_file()
        done = self.tool("salvage", "--into-cache", self.sound)
        self.assertEqual(done.returncode, FAILED)
        self.assertIn(b"move it away first", done.stderr)
        self.assertEqual(self.sound.read_bytes(), self.damaged.read_bytes())
        self.sound.unlink()
        for side in ("-wal", "-shm"):
            self.sound.with_name(self.sound.name + side).unlink(missing_ok=True)
        self.output("salvage", "--into-cache", self.damaged, status=DAMAGE)
        self.output("verify")

    def test_half_a_backup_gives_its_records(self):
        packed = gzip.compress(self.sound.read_bytes())
        backup = self.work / f"{SENDER}2.db.zip"
        backup.write_bytes(packed[: len(packed) // 2])
        found, summary = self.salvage(path=backup)
        self.assertTrue(summary["backup_cut_short"])
        self.assertGreater(len(found), COUNT // 4)
        known = {record["dataid"]: record for record in self.whole}
        for record in found:
            self.assertEqual(record, known[record["dataid"]])

    def test_a_backup_that_unpacks_without_an_end_leaves_room(self):
        bomb = self.work / f"{SENDER}3.db.zip"
        bomb.write_bytes(gzip.compress(bytes(200 << 20)))
        small = self.dir / "small"
        small.mkdir()
        script = ('mount -t tmpfs -o size=60m tmpfs "$TMPDIR"; "$0" "$@"; status=$?; ls -A "$TMPDIR"; exit $status')
        command = ["unshare", "--map-root-user", "--mount", "sh", "-c", script, BIN / "qmcache", "salvage", bomb]
        done = subprocess.run(command, capture_output=True, timeout=PATIENCE, check=False,
                              env={**os.environ, "TMPDIR": str(small)})
        self.assertEqual((done.returncode, done.stdout), (FAILED, b""))
        self.assertIn(b"not enough room", done.stderr)

    def test_rows_in_the_log_are_brought_in(self):
        self.start_with_link_down()
        self.put("--sender", SENDER, lines=["in the log"])
        self.host.kill()
        self.host.wait()
        self.assertGreater(self.sound.with_name(self.sound.name + "-wal").stat().st_size, 0)
        before = self.footprint()
        found, summary = self.salvage(path=self.sound, status=WELL)
        self.assertIn("in the log", [record["message"] for record in found])
        self.assertFalse(summary["log_left_out"])
        self.assertEqual(self.footprint(), before)

    def leave_log(self):
        """A file and its log as a killed host leaves them, with 20 records in the log; where the log is, and its frames."""
        self.start_with_link_down()
        for n in range(20):
            self.put("--sender", SENDER, lines=[f"in the log {n} " + "y" * 1500])
        self.host.kill()
        self.host.wait()
        log = self.sound.with_name(self.sound.name + "-wal")
        return log, (log.stat().st_size - 32) // (24 + PAGE)

    def in_log(self, records):
        return sum(record["message"].startswith("in the log") for record in records)

    def test_damage_in_the_log_is_told_and_its_rows_are_brought_out(self):
        log, frames = self.leave_log()
        self.assertGreater(frames, 10)
        whole = log.read_bytes()
        found, _ = self.salvage(path=self.sound, status=WELL)
        self.assertEqual(self.in_log(found), 20)
        everywhere = {"header": 9, "first frame": 32 + 24 + 2000, "its head": 32 + 1, "its salt": 32 + 9,
                      "in between": 32 + (frames // 2) * (24 + PAGE) + 24 + PAGE - 1}
        for name, at in everywhere.items():
            with self.subTest(name):
                data = bytearray(whole)
                data[at] ^= 1
                log.write_bytes(data)
                before = self.footprint()
                verdict = json.loads(self.output("verify", "--json", status=DAMAGE))[0]
                self.assertEqual(verdict["state"], "damaged")
                self.assertIn("write-ahead log is damaged", verdict["problems"][0])
                found, summary = self.salvage(path=self.sound)
                self.assertTrue(summary["log_left_out"])
                self.assertFalse(summary["whole"])
                self.assertGreaterEqual(self.in_log(found), 18)  # but for a row in which the damage stands
                self.assertEqual(len({record["dataid"] for record in found}), len(found))
                self.assertEqual(summary["records"], len(found))
                self.assertEqual(self.footprint(), before)

    def test_a_log_that_simply_ends_is_sound(self):
        log, frames = self.leave_log()
        whole = log.read_bytes()
        frame = 24 + PAGE
        last = bytearray(whole[32 : 32 + frame])  # of a log before this one
        last[8:16] = os.urandom(8)
        rolled_back = bytearray(whole[32 : 32 + frame])  # of this one, without the end of its transaction
        rolled_back[4:8] = bytes(4)
        for name, data in (("older frames", whole + bytes(last) * 3), ("cut", whole[:-100]), ("empty", b""),
                           ("a header alone", whole[:32]), ("zeros", bytes(10000)),
                           ("rolled back", whole + bytes(rolled_back) * 2)):
            with self.subTest(name):
                log.write_bytes(data)
                self.output("verify")
                _, summary = self.salvage(path=self.sound, status=WELL)
                self.assertTrue(summary["whole"])

    def test_a_file_that_is_written_to_gives_all_that_was_there_before(self):
        shutil.copy2(self.sound, self.damaged)
        writer = Writer(self.damaged)
        writer.start()
        try:
            for _ in range(5):
                before = writer.committed + COUNT
                found, summary = self.salvage(status=WELL)
                self.assertGreaterEqual(len(found), before)
                self.assertTrue(summary["whole"])
        finally:
            writer.stop()

    def test_the_hosts_data_directory_is_held_while_records_are_written_back(self):
        self.write_config(ingress={"socket": self.dir / "other"})
        self.start_host()
        # A host of another installation that uses the same data directory.
        other = self.dir / "elsewhere"
        shutil.copytree(self.cache_dir, other)
        done = self.tool("salvage", "--config", self.config, "--into-cache", other / self.sound.name, directory=other)
        self.assertEqual(done.returncode, FAILED)
        self.assertIn(b"another qmhost", done.stderr)


if __name__ == "__main__":
    unittest.main()
