"""qmcache reads what the host has written: every record, beside the host and after it, and changes nothing."""

import gzip
import json
import os
import pty
import re
import select
import shutil
import signal
import sqlite3
import stat
import struct
import subprocess
import time
import unittest
import uuid

from cache_files import read_file, tagged
from host_fixture import BIN, PATIENCE, message_bytes, wait_until
from ingress_client import COMBO, Connection, combo_payload
from qmcache_case import DAMAGE, FAILED, NOTHING, USAGE, WELL, CacheToolTestCase, without_id
from readback_test import all_records

FIRST = "11111111-1111-1111-1111-111111111111"
SECOND = "22222222-2222-2222-2222-222222222222"


def make_file(path, rows, schema=None):
    """A cache file of the test's own; rows: dataid, priv, msgtype, product, combo, datatype, data."""
    connection = sqlite3.connect(path)
    connection.execute(schema or "CREATE TABLE logcache (dataid INTEGER NOT NULL PRIMARY KEY, priv, msgtype, product, "
                                 "combo, datatype, data, reserved1, reserved2)")
    connection.executemany("INSERT INTO logcache VALUES (?, ?, ?, ?, ?, ?, ?, NULL, NULL)", rows)
    connection.commit()
    connection.close()


def row(dataid, sender=FIRST, priv=0, msgtype=1, product="", combo="", record=b"record"):
    text = tagged(dataid, priv, msgtype, sender.encode(), product.encode(), combo.encode(), record)
    return [dataid, priv, msgtype, product, combo, 0, text.decode()]


def journal_naming(named, path):
    """A rollback journal for the file that undoes nothing and says at its end that another file belongs to it."""
    magic, sector, page = bytes.fromhex("d9d505f920a163d7"), 512, 4096
    head = magic + struct.pack(">IIIII", 0, 1, path.stat().st_size // page, sector, page)
    name = os.fsencode(named)
    end = struct.pack(">I", 0x40000000 // page + 1) + name + struct.pack(">II", len(name), sum(name))
    return head.ljust(sector, b"\0") + end + magic


class ReadTest(CacheToolTestCase):
    def test_every_record_is_there_byte_by_byte(self):
        self.start_without_destination()
        records = [record for record in all_records() if b"\n" not in record]
        self.put("--sender", FIRST, "--product", "prod'uct", "--combo", "][><combo=", lines=records)
        found = self.records("cat", "--json")
        self.assertEqual([message_bytes(record) for record in found], records)
        for record in found:
            self.assertEqual((record["guid"], record["product"], record["combo"]), (FIRST, "prod'uct", "][><combo="))
        self.assertEqual(self.output("export", "-"), self.output("cat", "--json"))

    def test_files_are_listed_with_their_rows_by_priority(self):
        self.start_without_destination()
        for count, priority in enumerate(("low", "normal", "high", "real"), start=1):
            self.put("--sender", FIRST, "--priority", priority, lines=[f"{priority} {n}" for n in range(count)])
        self.put("--sender", FIRST, "--priority", "high", "--public", lines=["public"])
        self.put("--sender", SECOND, lines=["a", "b"])
        listed = self.listed()
        self.assertEqual(sorted(listed), [FIRST, SECOND])
        first = listed[FIRST]
        self.assertEqual(first["rows"], 11)
        self.assertEqual(first["by_priority"], {"real": 4, "high": 4, "normal": 2, "low": 1, "other": 0})
        path = self.cache_dir / f"{FIRST}.db"
        self.assertEqual((first["file"], first["state"]), (str(path), "readable"))
        self.assertEqual(first["bytes"], path.stat().st_size)
        self.assertEqual(first["log_bytes"], path.with_name(path.name + "-wal").stat().st_size)
        ids = [entry["dataid"] for entry in read_file(path)]
        self.assertEqual(first["oldest"]["dataid"], f"{ids[0]:x}")
        self.assertEqual(first["newest"]["dataid"], f"{ids[-1]:x}")
        table = self.output("ls").decode().splitlines()
        self.assertEqual(table[0].split(), "SENDER ROWS BYTES REAL HIGH NORMAL LOW OLDEST NEWEST".split())
        self.assertEqual(table[1].split()[:2], [FIRST, "11"])
        self.assertEqual(table[1].split()[4:8], ["4", "4", "2", "1"])
        self.assertEqual(table[3].split()[:3], ["2", "files", "13"])

    def test_one_record_is_shown(self):
        self.start_without_destination()
        self.put("--sender", FIRST, "--priority", "high", "--public", "--product", "p", lines=["one \x1b[31m"])
        dataid = self.records("cat", "--json")[0]["dataid"]
        shown = self.records("show", "--json", dataid)[0]
        self.assertEqual((shown["dataid"], shown["message"], shown["priv"]), (dataid, "one \x1b[31m", 12))
        self.assertEqual((shown["decoded"], shown["faults"]), (True, []))
        text = self.output("show", "0x" + dataid).decode()
        self.assertIn("priority high, public (12)\n", text)
        self.assertIn("message  one \\x1b[31m\n", text)
        self.output("show", "1", status=NOTHING)
        self.output("show", "xyz", status=USAGE)

    def test_filters_take_what_they_name(self):
        self.start_without_destination()
        self.put("--sender", "a service", "--priority", "high", lines=["high"])
        self.put("--sender", "a service", "--priority", "low", lines=["low"])
        self.put("--sender", SECOND, "--priority", "high", lines=["other"])
        messages = lambda *arguments: [record["message"] for record in self.records("cat", "--json", *arguments)]
        self.assertEqual(messages("--sender", "a service"), ["high", "low"])
        self.assertEqual(messages("--sender", SECOND.lower()), ["other"])
        self.assertEqual(messages("--sender", "a service", "--priority", "high"), ["high"])
        self.assertEqual(sorted(messages("--priority", "high", "--priority", "low")), ["high", "low", "other"])
        self.assertEqual(sorted(messages("--sender", "a service", "--sender", SECOND)), ["high", "low", "other"])
        self.output("cat", "--priority", "real", status=NOTHING)
        self.output("cat", "--priority", "urgent", status=USAGE)
        self.output("cat", "--since", "yesterday", status=USAGE)
        self.output("cat", "--since", "", status=USAGE)
        self.output("show", "", status=USAGE)

    def test_since_takes_the_run_that_was_under_way_and_later_ones(self):
        self.cache_dir.mkdir(parents=True)
        starts = (1000000000, 1000003600, 1000007200)  # 2001-09-09T01:46:40Z, an hour apart
        make_file(self.cache_dir / f"{FIRST}.db",
                  [row((start << 32) + n, record=b"%d" % start) for start in starts for n in (1, 2)])
        runs = lambda since: sorted({int(r["message"]) for r in self.records("cat", "--json", "--since", since)})
        self.assertEqual(runs("2001-09-09T01:46:39Z"), list(starts))
        self.assertEqual(runs("2001-09-09T02:46:39Z"), list(starts))  # the first run was under way
        self.assertEqual(runs("2001-09-09T02:46:40Z"), list(starts[1:]))
        self.assertEqual(runs("2001-09-09T05:46:41+02:00"), list(starts[2:]))
        self.assertEqual(runs("1h"), list(starts[2:]))

    def test_text_for_people_holds_no_control_character(self):
        self.start_without_destination()
        self.put("--sender", FIRST, "--product", "\x1b]0;x\x07",
                 lines=[record for record in all_records() if b"\n" not in record])
        for arguments in (["cat"], ["ls"], ["verify"]):
            output = self.output(*arguments).decode()  # strictly: all of it is text
            bad = [c for c in output if c != "\n" and (ord(c) < 32 or 127 <= ord(c) < 160 or c in "\u202e\u2066\u2028")]
            self.assertEqual(bad, [])
        self.put("--sender", FIRST, lines=["\x7f \u0085 \u009b \u202e \u2028 \ufeff \u061c \u20ac \u00e4 \u0639"])
        raw = self.output("cat", "--json").decode()
        self.assertEqual([c for c in "\x7f\u0085\u009b\u202e\u2028\ufeff\u061c" if c in raw], [])
        self.assertEqual(self.records("cat", "--json")[-1]["message"],
                         "\x7f \u0085 \u009b \u202e \u2028 \ufeff \u061c \u20ac \u00e4 \u0639")
        self.assertEqual(len(self.output("cat").splitlines()), len(self.records("cat", "--json")))

    def test_a_sound_directory_is_verified(self):
        self.start_without_destination()
        self.put("--sender", FIRST, lines=[f"line {n}" for n in range(50)])
        verdict = json.loads(self.output("verify", "--json"))
        self.assertEqual([(file["state"], file["rows"], file["faulty_rows"], file["problems"]) for file in verdict],
                         [("sound", 50, 0, [])])

    def test_verify_names_what_is_wrong_with_a_row(self):
        self.cache_dir.mkdir(parents=True)
        good = row(1)
        wrong = [
            (2, [2, "x", 1, "", "", 0, good[6]], "priv is no number"),
            (3, [3, 0, 1, "", "", 7, good[6]], "datatype is neither"),
            (4, [4, 0, 1, "", "", 1, "!"], "not base64"),
            (5, [5, 0, 1, "", "", 0, "free text"], "no tagged text"),
            (6, row(6, sender=SECOND), "sender is " + SECOND),
            (7, [7, 3] + row(7)[2:], "priv is 0, the row's 3"),
            (8, [8, 0, 2] + row(8)[3:], "msgtype is 1, the row's 2"),
            (9, [9] + row(8)[1:], "dataid is 8"),
            (10, row(10)[:6] + [b"\x00\x01"], "data is no text"),
            (11, row(11, product="a")[:3] + ["b"] + row(11, product="a")[4:], "product and combo"),
        ]
        make_file(self.cache_dir / f"{FIRST}.db", [good] + [bad for _, bad, _ in wrong])
        verdict = json.loads(self.output("verify", "--json", status=DAMAGE))[0]
        self.assertEqual((verdict["state"], verdict["rows"], verdict["faulty_rows"]), ("damaged", 11, 10))
        self.assertEqual(len(verdict["problems"]), 10)
        for (number, _, words), problem in zip(wrong, verdict["problems"]):
            self.assertTrue(problem.startswith(f"row {number:x}:"), problem)
            self.assertIn(words, problem)

    def test_what_lies_there_besides_is_told_and_not_opened(self):
        self.cache_dir.mkdir(parents=True)
        outside = self.dir / "outside.db"
        make_file(outside, [row(1)])
        (self.cache_dir / "a.db").symlink_to(outside)
        os.mkfifo(self.cache_dir / "b.db")
        (self.cache_dir / "c.db").touch()
        (self.cache_dir / "d.db").write_bytes(b"no database at all" * 100)
        (self.cache_dir / "e.db").mkdir()
        make_file(self.cache_dir / "f\x1b[2J.db", [row(2)])
        os.mkfifo(self.cache_dir / f"f\x1b[2J.db-journal")
        make_file(self.cache_dir / "g.db", [row(3)])
        listed = self.listed(status=FAILED)
        states = {name: file["state"] for name, file in listed.items()}
        self.assertEqual(states, {"a": "unreadable", "b": "unreadable", "c": "empty", "d": "damaged",
                                  "f\x1b[2J": "unreadable", "g": "readable"})
        self.assertEqual([r["dataid"] for r in self.records("cat", "--json", status=FAILED)], ["3"])
        self.assertNotIn(b"\x1b", self.output("ls", status=FAILED))
        self.output("verify", status=FAILED)

    def test_a_hostile_schema_runs_nothing(self):
        self.cache_dir.mkdir(parents=True)
        columns = "dataid, priv, msgtype, product, combo, datatype, data"
        endless = "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT x"
        schemas = {
            "view": f"CREATE VIEW logcache AS {endless} AS dataid, 1 AS priv, 1 AS msgtype, 1 AS product, 1 AS combo, "
                    "1 AS datatype, 1 AS data FROM c",
            "virtual": f"CREATE VIRTUAL TABLE logcache USING fts5({columns})",
            "keyless": f"CREATE TABLE logcache ({columns}, PRIMARY KEY (dataid)) WITHOUT ROWID",
            "narrow": "CREATE TABLE logcache (dataid INTEGER PRIMARY KEY)",
            "other": "CREATE TABLE another (x)",
        }
        for name, schema in schemas.items():
            connection = sqlite3.connect(self.cache_dir / f"{name}.db")
            connection.execute(schema)
            connection.commit()
            connection.close()
        listed = self.listed(status=DAMAGE)
        self.assertEqual({name: file["state"] for name, file in listed.items()}, dict.fromkeys(schemas, "damaged"))
        self.output("cat", status=DAMAGE)
        self.output("verify", status=DAMAGE)

    def test_a_row_that_is_too_large_is_named_and_the_others_are_read(self):
        self.cache_dir.mkdir(parents=True)
        path = self.cache_dir / f"{FIRST}.db"
        make_file(path, [row(1), row(3)])
        connection = sqlite3.connect(path)
        connection.execute("INSERT INTO logcache VALUES (2, 0, 1, '', '', 0, zeroblob(300000000), NULL, NULL)")
        connection.commit()
        connection.close()
        done = self.tool("cat", "--json")
        self.assertEqual(done.returncode, DAMAGE)
        self.assertEqual([json.loads(line)["dataid"] for line in done.stdout.splitlines()], ["1", "3"])
        self.assertIn(b"row 2", done.stderr)

    def test_the_installation_is_found_and_its_configuration_obeyed(self):
        self.start_without_destination()
        self.put("--sender", FIRST, lines=["one"])
        self.assertEqual(self.stop_host(), 0)
        program = self.prefix / "bin" / "qmcache"
        shutil.copy2(BIN / "qmcache", program)
        cat = lambda: subprocess.run([program, "cat", "--json"], capture_output=True, timeout=PATIENCE, check=False)
        self.assertEqual(json.loads(cat().stdout)["message"], "one")
        self.write_cache_config(logcachepath="../elsewhere/")
        self.assertEqual(cat().returncode, FAILED)
        self.cache_dir.rename(self.prefix / "elsewhere")
        self.assertEqual(json.loads(cat().stdout)["message"], "one")

    def make_more_than_a_pipe_takes(self):
        self.cache_dir.mkdir(parents=True)
        make_file(self.cache_dir / f"{FIRST}.db", [row(n, record=b"x" * 1000) for n in range(1, 2001)])

    def test_a_reader_that_goes_away_is_no_error(self):
        self.make_more_than_a_pipe_takes()
        command = [BIN / "qmcache", "--directory", self.cache_dir, "cat"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            process.stdout.readline()
            process.stdout.close()
            self.assertEqual(process.wait(PATIENCE), 128 + signal.SIGPIPE)
            self.assertEqual(process.stderr.read(), b"")

    def test_an_interrupt_ends_it_while_it_waits_for_its_reader(self):
        self.make_more_than_a_pipe_takes()
        command = [BIN / "qmcache", "--directory", self.cache_dir, "cat"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            process.stdout.readline()
            process.send_signal(signal.SIGINT)
            self.assertEqual(process.wait(PATIENCE), 128 + signal.SIGINT)
            process.stdout.close()
            self.assertEqual(process.stderr.read(), b"")

    def test_a_terminal_that_is_closed_ends_it(self):
        self.make_more_than_a_pipe_takes()
        command = [BIN / "qmcache", "--directory", self.cache_dir, "cat"]
        with subprocess.Popen(command, stdout=subprocess.PIPE) as process:
            process.stdout.readline()
            process.send_signal(signal.SIGHUP)
            self.assertEqual(process.wait(PATIENCE), 128 + signal.SIGHUP)  # itself, not by the signal

    def test_a_full_disk_is_an_error(self):
        self.start_without_destination()
        self.put("--sender", FIRST, lines=["one"])
        with open("/dev/full", "wb") as full:
            command = [BIN / "qmcache", "--directory", self.cache_dir, "cat"]
            done = subprocess.run(command, stdout=full, stderr=subprocess.PIPE, timeout=PATIENCE, check=False)
        self.assertEqual(done.returncode, FAILED)
        self.assertIn(b"No space left", done.stderr)

    def test_exported_records_come_back_the_same_by_qmsend(self):
        self.start_without_destination()
        records = [record for record in all_records() if b"\n" not in record]
        self.put("--sender", FIRST, "--product", "p>q", "--combo", "\"c\"", lines=records)
        for priority in ("low", "normal", "high", "real"):
            for kind in ("edr", "epp", "tag"):
                self.put("--sender", SECOND, "--priority", priority, "--kind", kind, lines=[f"{priority} {kind}"])
                self.put("--sender", SECOND, "--priority", priority, "--kind", kind, "--public", lines=["public"])
        # What only a producer of its own can say: an odd priority and kind, line breaks, an empty record.
        payloads = [combo_payload(9, 7, b"odd", b"", b"with\nbreaks\r\n"), combo_payload(1, 0, b"", b"", b"")]
        connection = Connection(self.socket)
        try:
            for number, payload in enumerate(payloads):
                connection.send(COMBO, number, uuid.UUID(SECOND), payload)
                self.assertEqual(connection.answer()[1], 0)
        finally:
            connection.close()
        exported = self.dir / "exported.jsonl"
        said = self.output("export", exported)
        self.assertEqual(said.decode(), f"{len(records) + 26} records written to {exported}\n")
        self.assertEqual(stat.S_IMODE(exported.stat().st_mode), 0o600)
        before = self.records("cat", "--json")
        self.assertEqual(self.stop_host(), 0)
        shutil.rmtree(self.cache_dir)
        self.start_without_destination_again()
        sent = self.send("--records", exported)
        self.assertEqual(sent.returncode, 0, sent.stderr)
        after = self.records("cat", "--json")
        self.assertEqual(without_id(after), without_id(before))
        self.assertEqual([r["message"] for r in self.records("cat", "--json", "--sender", SECOND)],
                         [r["message"] for r in before if r["guid"] == SECOND])

    def test_what_is_read_is_not_written_over(self):
        self.cache_dir.mkdir(parents=True)
        path = self.cache_dir / f"{FIRST}.db"
        make_file(path, [row(1)])
        for suffix in ("-wal", "-shm", "-journal"):
            path.with_name(path.name + suffix).touch()
        backup = self.cache_dir / f"{FIRST}1.db.zip"
        backup.write_bytes(gzip.compress(b"backup"))
        elsewhere = {"copy.db": path.read_bytes(), "copy.zip": b"PK\x03\x04", "copy.gz": backup.read_bytes(),
                     "copy.db-wal": b"\x37\x7f\x06\x82" + bytes(100),
                     "copy.db-journal": bytes.fromhex("d9d505f920a163d7")}
        for name, data in elsewhere.items():
            (self.dir / name).write_bytes(data)
        os.link(path.with_name(path.name + "-wal"), self.dir / "link")
        (self.dir / "there").symlink_to(self.cache_dir)
        before = self.footprint()
        names = [*self.cache_dir.iterdir(), self.cache_dir / "new.jsonl", self.dir / "link",
                 self.dir / "there" / path.name, *(self.dir / name for name in elsewhere)]
        for name in names:
            with self.subTest(name.name):
                self.output("export", name, status=FAILED)
                self.output("salvage", self.dir / "copy.db", "--output", name, status=FAILED)
        self.assertEqual(self.footprint(), before)
        self.assertEqual({name: (self.dir / name).read_bytes() for name in elsewhere}, elsewhere)

    def test_an_earlier_export_stays_until_the_new_one_is_whole(self):
        exported = self.dir / "exported.jsonl"
        exported.write_bytes(b"earlier")
        self.output("export", exported, status=FAILED)  # there is no directory
        self.cache_dir.mkdir(parents=True)
        damaged = self.cache_dir / f"{SECOND}.db"
        damaged.write_bytes(b"no database" * 100)
        said = self.output("export", exported, status=DAMAGE)
        self.assertEqual(said.decode(), f"0 records, {exported} is left as it was\n")
        self.assertEqual(exported.read_bytes(), b"earlier")
        make_file(self.cache_dir / f"{FIRST}.db", [row(n, record=b"x" * 1000) for n in range(1, 1000)])
        make_file(self.cache_dir / "z.db", [])
        lock = sqlite3.connect(self.cache_dir / "z.db", isolation_level=None)
        lock.execute("BEGIN EXCLUSIVE")  # the last file is waited for
        command = [BIN / "qmcache", "--directory", self.cache_dir, "export", exported]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as process:
            wait_until(lambda: any(path.stat().st_size for path in self.dir.glob("exported.jsonl.*")), "the export")
            process.send_signal(signal.SIGTERM)
            self.assertEqual(process.wait(PATIENCE), 128 + signal.SIGTERM)
        lock.close()
        self.assertEqual(exported.read_bytes(), b"earlier")
        self.assertEqual(list(self.dir.glob("exported*")), [exported])
        self.output("export", exported, status=DAMAGE)
        self.assertEqual(exported.read_bytes().count(b"\n"), 999)
        self.assertEqual(list(self.dir.glob("exported*")), [exported])
        self.output("export", "--sender", "nobody", exported, status=NOTHING)
        self.assertEqual(exported.read_bytes(), b"")

    def test_a_pipe_and_a_device_are_written_directly(self):
        self.cache_dir.mkdir(parents=True)
        make_file(self.cache_dir / f"{FIRST}.db", [row(1)])
        expected = self.output("export", "-")
        self.assertEqual(self.output("export", "/dev/stdout"), expected)
        with (self.dir / "redirected").open("wb") as file:
            subprocess.run([BIN / "qmcache", "--directory", self.cache_dir, "export", "/dev/stdout"], stdout=file,
                           timeout=PATIENCE, check=True)
        self.assertEqual((self.dir / "redirected").read_bytes(), expected)
        fifo = self.dir / "fifo"
        os.mkfifo(fifo)
        with subprocess.Popen(["cat", fifo], stdout=subprocess.PIPE) as reader:
            self.assertEqual(self.output("export", fifo).decode(), f"1 records written to {fifo}\n")
            self.assertEqual(reader.communicate(timeout=PATIENCE)[0], expected)
        self.output("export", "/dev/null")
        self.output("export", "/dev/full", status=FAILED)
        self.output("export", self.dir, status=FAILED)
        (self.dir / "link").symlink_to(self.dir / "redirected")
        self.output("export", self.dir / "link", status=FAILED)

    def start_without_destination_again(self):
        self.out.mkdir(exist_ok=True)
        self.start_without_destination()

    def test_progress_is_shown_on_a_terminal_alone(self):
        self.cache_dir.mkdir(parents=True)
        path = self.cache_dir / f"{FIRST}.db"
        make_file(path, [row(n, record=b"x" * 2000) for n in range(1, 60000)])
        terminal, child = pty.openpty()
        os.set_blocking(terminal, False)
        shown = b""
        command = [BIN / "qmcache", "--directory", self.cache_dir, "cat", "--json"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=child) as process:
            while process.stdout.read1(65536):
                if not shown:
                    time.sleep(0.001)  # a reader for whom it takes long
                if select.select([terminal], [], [], 0)[0]:
                    shown += os.read(terminal, 65536)
            self.assertEqual(process.wait(PATIENCE), WELL)
            while select.select([terminal], [], [], 0)[0]:
                shown += os.read(terminal, 65536)
        os.close(child)
        os.close(terminal)
        self.assertRegex(shown, rb"% +\d+s " + re.escape(path.name.encode()))
        self.assertTrue(shown.endswith(b"\r\x1b[K"), shown[-100:])  # taken away again
        self.assertEqual(self.tool("export", self.dir / "out.jsonl").stderr, b"")


class HarmlessTest(CacheToolTestCase):
    READING = (["ls"], ["cat"], ["verify"], ["export", "-"], ["show", "1"], ["ls", "--json"])

    def read_all(self, directory):
        for arguments in self.READING:
            self.tool(*arguments, directory=directory)

    def check_unchanged(self, directory):
        before = self.footprint(directory)
        self.read_all(directory)
        for path in directory.glob("*.db"):
            self.tool("salvage", path, directory=directory)
        self.assertEqual(self.footprint(directory), before)

    def test_nothing_is_made_changed_or_removed_whatever_lies_beside_the_file(self):
        self.start_without_destination()
        self.put("--sender", FIRST, lines=[f"line {n}" for n in range(30)])
        self.check_unchanged(self.cache_dir)
        self.host.kill()
        self.host.wait()
        expected = len(self.records("cat", "--json"))
        self.assertEqual(expected, 30)
        self.check_unchanged(self.cache_dir)
        # The log without its index, and neither; the rows of the log must be seen all the same.
        for kept, rows in ((("", "-wal"), expected), (("",), None), (("", "-shm"), None)):
            copy = self.dir / ("copy" + "".join(kept))
            copy.mkdir()
            for suffix in kept:
                shutil.copy2(self.cache_dir / f"{FIRST}.db{suffix}", copy / f"{FIRST}.db{suffix}")
            self.check_unchanged(copy)
            found = self.records("cat", "--json", directory=copy)
            if rows is not None:
                self.assertEqual(len(found), rows)

    def test_an_interrupted_transaction_is_left_to_the_host(self):
        self.cache_dir.mkdir(parents=True)
        path = self.cache_dir / f"{FIRST}.db"
        make_file(path, [row(n) for n in range(1, 50)])
        # A process that ends in the middle of a large change leaves the file changed, and a journal that undoes it.
        script = (
            "import os, sqlite3, sys\n"
            "c = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
            "c.execute('PRAGMA cache_size=1'); c.execute('PRAGMA synchronous=FULL'); c.execute('BEGIN')\n"
            "c.execute(\"UPDATE logcache SET data = printf('%5000d', dataid)\")\n"
            "os._exit(0)\n"
        )
        subprocess.run(["python3", "-c", script, path], check=True, timeout=PATIENCE)
        self.assertTrue(path.with_name(path.name + "-journal").exists())
        self.check_unchanged(self.cache_dir)
        self.assertEqual(len(self.records("cat", "--json")), 49)
        self.output("verify")

    def test_a_file_that_a_journal_names_is_neither_opened_nor_deleted(self):
        self.cache_dir.mkdir(parents=True)
        precious = self.dir / "precious"
        precious.write_bytes(b"precious\0")
        fifo = self.dir / "fifo"
        os.mkfifo(fifo)
        for sender, named in ((FIRST, precious), (SECOND, fifo)):
            path = self.cache_dir / f"{sender}.db"
            make_file(path, [row(n, sender) for n in range(1, 50)])
            path.with_name(path.name + "-journal").write_bytes(journal_naming(named, path))
        self.check_unchanged(self.cache_dir)
        self.assertEqual(precious.read_bytes(), b"precious\0")
        self.assertTrue(fifo.is_fifo())
        self.assertEqual(len(self.records("cat", "--json")), 98)
        self.output("verify")
        for sender in (FIRST, SECOND):
            self.assertEqual(len(self.records("salvage", self.cache_dir / f"{sender}.db")), 49)


if __name__ == "__main__":
    unittest.main()
