"""Cache files that the host wrote, read by other SQLite programs: every byte is there, nothing else happens to them."""

import random
import stat
import subprocess
import unittest
import uuid

from cache_files import read_file, record_of, tagged
from host_fixture import HostTestCase, PATIENCE, wait_until
from ingress_client import COMBO, EDR, Connection, combo_payload
from road_test import TEST_DATA, message_bytes

SENDER = uuid.UUID("01234567-89ab-cdef-0123-456789abcdef")
SENDER_TEXT = str(SENDER).upper()
LARGE = 16 * 1024 * 1024
UNANSWERED = 64

NAUGHTY = [
    "'", "''", "'''", '"', '""', "`", "\u2018\u2019\u201c\u201d\u00ab\u00bb\u02bc\uff07", "\\", "\\'", "'\\", "\\\\'",
    "'; DROP TABLE logcache; --", "' OR '1'='1", "'); DELETE FROM logcache; --", "x' || (SELECT 1) || '", "/* */", "--",
    "x'00'", "?1 :a @b $c", "NULL", "null", "0", "-0", "1e309", "0x10", "010", "true", " ", "  lead", "trail  ", "\t",
    "\n", "\r\n", "a\nb\n", "\x0b\x0c", "\x1b[31m", "\x7f", "\u0085", "\u00a0", "\u2028", "\u2029", "\ufeff", "\ufffe",
    "%s%n%d%x", "%", "%%", "{}", "${HOME}", "$(id)", "<end=1><msg=x>", ">", "<", "<version=1><dataid=1>", "\u202e",
    "e\u0301", "\u00e9", "\U0001f469\u200d\U0001f469\u200d\U0001f467", "\u0130\u0131", "\U000e0001",
]  # fmt: skip
# One character from each end and the middle of every plane, and the borders between lengths.
ALL_PLANES = "".join(
    chr(plane * 0x10000 + offset) for plane in range(17) for offset in (0x20, 0x8000 - 1, 0xE000, 0xFFFD, 0xFFFF)
) + "\u007f\u0080\u07ff\u0800\ud7ff\ue000"
INVALID_UTF8 = [
    b"\x80", b"\xbf", b"\xc0\xaf", b"\xc1\xbf", b"\xe0\x80\xaf", b"\xed\xa0\x80", b"\xed\xbf\xbf", b"\xf4\x90\x80\x80",
    b"\xf8\x88\x80\x80\x80", b"\xfe", b"\xff", b"\xff\xfe", b"\xc3", b"\xe2\x82", b"\xf0\x9f\x98", b"a\xffb", b"'\xff'",
    b"\xe2'\x82\xac",
]  # fmt: skip


def all_records():
    records = [bytes([byte]) for byte in range(1, 256)]
    records += [bytes(range(1, 256)), bytes(range(255, 0, -1)) * 300]
    records += [text.encode() for text in NAUGHTY] + [ALL_PLANES.encode()] + INVALID_UTF8
    records += [b"'" * 5000, b"\\" * 5000]
    source = random.Random(3)
    records += [source.randbytes(source.randint(1, 5000)).replace(b"\0", b"'") for _ in range(20)]
    naughty = TEST_DATA / "naughty-strings.txt"
    if naughty.exists():
        records += [line.replace(b"\0", b"") for line in naughty.read_bytes().split(b"\n")]
    for path in sorted(TEST_DATA.glob("*.jsonl")) + sorted(TEST_DATA.glob("syslog/*.log")):
        with path.open("rb") as stream:
            records += [line.rstrip(b"\n") for line, _ in zip(stream, range(40))]
    return [record for record in records if record]


class ReadbackTestCase(HostTestCase):
    def setUp(self):
        super().setUp()
        self.file = self.cache_dir / f"{SENDER_TEXT}.db"

    def put(self, payloads, message_type=EDR, sender=SENDER):
        """Hands the payloads in, in this order; a pair is a message type and a payload. All must be accepted."""
        connection = Connection(self.socket)
        try:
            for number, payload in enumerate(payloads):
                kind, payload = payload if isinstance(payload, tuple) else (message_type, payload)
                connection.send(kind, number, sender, payload)
                if number >= UNANSWERED:
                    self.assertEqual(connection.answer()[1], 0)
            for _ in range(min(len(payloads), UNANSWERED)):
                self.assertEqual(connection.answer()[1], 0)
        finally:
            connection.close()

    def shell(self, sql, path):
        """What the sqlite3 shell prints for the statement, line by line."""
        done = subprocess.run(
            ["sqlite3", "-bail", path, sql], capture_output=True, timeout=PATIENCE, check=False, text=True
        )
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.splitlines()

    def rows_by_shell(self, path):
        """The rows as the sqlite3 shell has them, in the form of read_file."""
        names = ("dataid", "priv", "msgtype", "product", "combo", "datatype", "data")
        columns = "dataid, priv, msgtype, hex(product), hex(combo), datatype, hex(data)"
        rows = []
        for line in self.shell(f"SELECT {columns}, reserved1 IS NULL AND reserved2 IS NULL FROM logcache ORDER BY 1",
                               path):
            *values, nothing_reserved = line.split("|")
            self.assertEqual(nothing_reserved, "1")
            row = dict(zip(names, values))
            for name in ("dataid", "priv", "msgtype", "datatype"):
                row[name] = int(row[name])
            for name in ("product", "combo", "data"):
                row[name] = bytes.fromhex(row[name])
            rows.append({**row, "reserved1": None, "reserved2": None})
        return rows

    def check_rows(self, expected):
        """expected: priv, msgtype, product, combo, record, in the order in which they were put."""
        by_shell = self.rows_by_shell(self.file)
        by_python = read_file(self.file)
        self.assertEqual(len(by_python), len(expected))
        for row, other, (priv, msgtype, product, combo, record) in zip(by_python, by_shell, expected):
            self.assertEqual(row["dataid"].bit_length() > 32, True)  # the second of the start stands in the upper half
            wanted = {
                "dataid": row["dataid"], "priv": priv, "msgtype": msgtype, "product": product, "combo": combo,
                "datatype": 0, "reserved1": None, "reserved2": None,
                "data": tagged(row["dataid"], priv, msgtype, SENDER_TEXT.encode(), product, combo, record),
            }  # fmt: skip
            # Not assertEqual: its report on sixteen megabytes would take longer than the test.
            self.assertTrue(row == wanted, f"read by Python: {str(row)[:500]}, wanted {str(wanted)[:500]}")
            self.assertTrue(other == wanted, f"read by the shell: {str(other)[:500]}, wanted {str(wanted)[:500]}")
        self.assertEqual(self.shell("PRAGMA integrity_check", self.file), ["ok"])
        self.assertEqual(stat.S_IMODE(self.file.stat().st_mode), 0o600)

    def backups(self):
        return sorted(path.name for path in self.cache_dir.glob("*.zip"))


class ReadbackTest(ReadbackTestCase):
    def start_without_destination(self):
        self.start_host()
        return self.take_link_down()

    def test_every_byte_stands_in_the_row(self):
        self.start_without_destination()
        records = all_records()
        self.put(records)
        self.check_rows([(0, 1, b"", b"", record) for record in records])
        self.assertEqual(self.stop_host(), 0)
        self.check_rows([(0, 1, b"", b"", record) for record in records])

    def test_a_record_of_sixteen_mebibytes_stands_in_its_row(self):
        self.write_config(ingress={"max_frame": "64M"})
        self.start_without_destination()
        source = random.Random(4)
        record = source.randbytes(LARGE).replace(b"\0", b"'")
        self.put([record, b"'" * LARGE])
        self.check_rows([(0, 1, b"", b"", record), (0, 1, b"", b"", b"'" * LARGE)])

    def test_kinds_priorities_products_and_combos_stand_in_their_columns(self):
        self.start_without_destination()
        names = [b"", b"p", b"'", b"it's", b"''\"`", b"'); DROP TABLE logcache; --", "\u20ac\U0001f600'".encode(),
                 b"\xff'\xfe", b"x" * 63, b"'" * 63, b"><combo=b><end=1><msg=m"]  # fmt: skip
        payloads, expected = [], []
        for number, product in enumerate(names):
            combo = names[-1 - number]
            for kind, priv in ((1, 0), (2, 11), (3, 13)):
                payloads.append((COMBO, combo_payload(kind, priv, product, combo, b"it's %d" % number)))
                expected.append((priv, kind, product, combo, b"it's %d" % number))
        for message_type, priv, kind in ((10100, 0, 1), (10103, 3, 1), (10112, 12, 1), (10201, 1, 2), (10213, 13, 2)):
            payloads.append((message_type, b"plain"))
            expected.append((priv, kind, b"", b"", b"plain"))
        # An empty record is possible with a combo header.
        payloads.append((COMBO, combo_payload(1, 2, b"p", b"c", b"")))
        expected.append((2, 1, b"p", b"c", b""))
        # The flag 2 keeps a record off the disk.
        self.put([*payloads, (COMBO, combo_payload(1, 2, b"p", b"c", b"never on disk", flags=2))])
        self.check_rows(expected)
        for path in self.cache_dir.iterdir():
            self.assertNotIn(b"never on disk", path.read_bytes(), path)

    def test_rows_that_waited_arrive_unchanged_after_a_restart(self):
        self.start_without_destination()
        records = all_records()
        self.put(records)
        self.assertEqual(self.stop_host(), 0)
        self.start_host()
        arrived = [message_bytes(record) for record in self.wait_for_records(len(records))]
        self.assertEqual(sorted(arrived), sorted(records))
        # A row goes once its record's delivery has been confirmed.
        wait_until(lambda: read_file(self.file) == [], "the rows to be deleted")


class OperatorTest(ReadbackTestCase):
    """Somebody looks into a cache file while the host works on it."""

    def test_an_idle_shell_on_the_file_costs_nothing(self):
        self.start_host()
        away = self.take_link_down()
        sent = [b"before %d" % n for n in range(150)]
        self.put(sent)
        shell = subprocess.Popen(
            ["sqlite3", "-bail", self.file], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
        )
        self.addCleanup(shell.wait)
        self.addCleanup(shell.stdout.close)
        self.addCleanup(shell.stdin.close)

        def ask(sql):
            shell.stdin.write(sql.encode() + b"\n")
            shell.stdin.flush()
            return shell.stdout.readline().strip()

        # With a read transaction open: records are delivered, deleted, compacted and written anew beneath it.
        self.assertEqual(ask("BEGIN; SELECT count(*) FROM logcache;"), b"150")
        away.rename(self.out)
        self.check_deliveries(sent, [b"during %d" % n for n in range(200)])
        self.assertEqual(ask("SELECT count(*) FROM logcache;"), b"150")
        # And idle without one.
        self.assertEqual(ask("COMMIT; SELECT 'done';"), b"done")
        self.check_deliveries(sent, [b"idle %d" % n for n in range(200)])
        self.assertEqual(ask("SELECT 'still there';"), b"still there")
        wait_until(lambda: ask("SELECT count(*) FROM logcache;") == b"0", "the rows to be deleted")
        self.assertEqual(self.stop_host(), 0)
        self.assertEqual(self.backups(), [])
        self.assertEqual(self.log_text("qmlogcacheerror"), "")
        self.assertNotIn("*qmlogcache CLogCacheDb", self.log_text("qmlogcache"))

    def check_deliveries(self, sent, more):
        self.put(more)
        sent += more
        arrived = [message_bytes(record) for record in self.wait_for_records(len(sent))]
        self.assertEqual(sorted(arrived), sorted(sent))

    def test_a_file_of_garbage_is_set_aside_whole_and_the_sender_goes_on(self):
        self.start_host()
        self.take_link_down()
        other = uuid.UUID("fedcba98-7654-3210-fedc-ba9876543210")
        self.put([b"lost with the file"])
        self.put([b"in another file"], sender=other)
        self.assertEqual(self.stop_host(), 0)
        read_file(self.file)  # a program that closes the file last brings its log in and removes it
        garbage = random.Random(5).randbytes(1_000_003)
        self.file.write_bytes(garbage)

        self.start_host()
        # The other sender's records are not held up by it.
        wait_until(lambda: [message_bytes(r) for r in self.delivered()] == [b"in another file"], "the other sender")
        self.take_link_down()
        self.put([b"new %d" % n for n in range(10)])
        backup = self.cache_dir / f"{SENDER_TEXT}1.db.zip"
        self.assertEqual(self.backups(), [backup.name])
        unpacked = subprocess.run(["gzip", "-dc"], input=backup.read_bytes(), capture_output=True, check=True).stdout
        self.assertTrue(unpacked == garbage)
        self.assertEqual(stat.S_IMODE(backup.stat().st_mode), 0o600)
        self.assertEqual([record_of(row) for row in read_file(self.file)], [b"new %d" % n for n in range(10)])
        self.assertEqual(self.stop_host(), 0)
        log = self.log_text("qmlogcache")
        name = rf"\S*/{SENDER_TEXT}"
        self.assertRegex(
            log, rf" L6 qmlogcache CLogCacheDb::BackupDbFile strDbFile\[{name}\.db\] strZipName\[{name}\]\n"
        )


if __name__ == "__main__":
    unittest.main()
