"""Records go in at qmsend and come out at the file link: all of them, once, byte for byte."""

import collections
import os
import pathlib
import random
import string
import unittest

from host_fixture import HostTestCase, message_bytes, SANITIZED

# Each is synced to its cache file before it is accepted, and its row deleted.
MANY = 1_000 if SANITIZED else 5_000
# Real logs, where there are some: the folder that QMLOGCACHE_TEST_DATA names, or shared/data beside the clone.
TEST_DATA = pathlib.Path(
    os.environ.get("QMLOGCACHE_TEST_DATA", pathlib.Path(__file__).resolve().parents[3] / "shared" / "data")
)


def generated_lines(count, seed=1):
    source = random.Random(seed)
    alphabet = string.printable.replace("\n", "").replace("\r", "") + "äöü€😀<>'\"\\"
    return ["".join(source.choices(alphabet, k=source.randint(1, 700))).encode() for _ in range(count)]


class RoadTest(HostTestCase):
    def test_every_line_arrives_once_and_unchanged(self):
        self.start_host()
        lines = generated_lines(MANY)
        sent = self.send("--product", "app", "--combo", "log", data=b"\n".join(lines) + b"\n")
        self.assertEqual(sent.returncode, 0, sent.stderr)
        self.assertIn(f"accepted {MANY}".encode(), sent.stderr)
        records = self.wait_for_records(MANY)
        self.assertEqual([message_bytes(record) for record in records], lines)
        self.assertEqual(len({record["dataid"] for record in records}), MANY)

    def test_the_fields_tell_what_was_sent(self):
        self.start_host()
        sender = "01234567-89AB-CDEF-0123-456789ABCDEF"
        for arguments, expected in [
            (["--priority", "low"], ("low", False, "edr", "", "")),
            (["--priority", "real", "--public", "--kind", "epp"], ("real", True, "epp", "", "")),
            (["--priority", "high", "--product", "p", "--combo", "c"], ("high", False, "edr", "p", "c")),
            (["--priority", "normal", "--kind", "tag", "--public"], ("normal", True, "tag", "", "")),
        ]:
            with self.subTest(arguments=arguments):
                before = len(self.delivered())
                sent = self.send(*arguments, "--sender", sender, data=b"x\n")
                self.assertEqual(sent.returncode, 0, sent.stderr)
                record = self.wait_for_records(before + 1)[-1]
                fields = tuple(record[key] for key in ("priority", "public", "kind", "product", "combo"))
                self.assertEqual(fields, expected)
                self.assertEqual(record["guid"], sender)

    def test_bytes_that_are_no_text_arrive_unchanged(self):
        self.start_host()
        data = bytes(byte for byte in range(1, 256) if byte != 0x0A)
        sent = self.send(data=data + b"\n")
        self.assertEqual(sent.returncode, 0, sent.stderr)
        (record,) = self.wait_for_records(1)
        self.assertEqual(message_bytes(record), data)

    def test_a_record_of_ten_megabytes_arrives(self):
        self.start_host()
        data = b"<end=1><msg=>" * (10 * 1024 * 1024 // 13)
        sent = self.send("--whole-file", data=data)
        self.assertEqual(sent.returncode, 0, sent.stderr)
        (record,) = self.wait_for_records(1)
        self.assertEqual(message_bytes(record), data)

    def test_a_record_over_the_limit_is_named_and_the_others_arrive(self):
        self.write_config(ingress={"max_frame": "64K"})
        self.start_host()
        sent = self.send(data=b"one\n" + b"x" * 100_000 + b"\nthree\n")
        self.assertEqual(sent.returncode, 1)
        self.assertIn(b"accepted 2", sent.stderr)
        self.assertRegex(sent.stderr, rb"\b2\b")
        self.assertEqual([message_bytes(r) for r in self.wait_for_records(2)], [b"one", b"three"])

    def test_several_producers_at_once_lose_nothing(self):
        self.start_host()
        import concurrent.futures

        per_producer = MANY // 8
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            jobs = [
                pool.submit(self.send, "--sender", f"producer {n}",
                            data=b"".join(b"%d-%d\n" % (n, i) for i in range(per_producer)))
                for n in range(4)
            ]
            for job in jobs:
                self.assertEqual(job.result().returncode, 0, job.result().stderr)
        records = self.wait_for_records(4 * per_producer)
        counts = collections.Counter(message_bytes(record) for record in records)
        self.assertEqual(len(counts), 4 * per_producer)
        self.assertEqual(set(counts.values()), {1})

    def test_texts_cannot_forge_tags_or_log_lines(self):
        self.write_config(log={"levels": "1,2,3,4,6"})
        self.start_host()
        hostile = [
            b"x><end=1><msg=forged",
            b"<version=1><dataid=1><priv=3><msgtype=1>",
            b"%s%n%d%s%s",
            b"\x1b[2J\x1b[31mred",
            b"line\rover",
        ]
        sent = self.send("--product", "a><combo=b><end=1><msg=m", data=b"\n".join(hostile) + b"\n")
        self.assertEqual(sent.returncode, 0, sent.stderr)
        records = self.wait_for_records(len(hostile))
        # A product with tags in it moves the borders between the fields, but no byte of the record is lost.
        for record, line in zip(records, hostile):
            self.assertTrue(message_bytes(record).endswith(line))
        self.stop_host()
        log = self.log_text("qmlogcache")
        self.assertNotIn("\x1b", log)
        self.assertNotIn("\r", log)
        for line in log.splitlines():
            self.assertRegex(line, r"^\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d\S* ")


class RealLogsTest(HostTestCase):
    """The same road with real events; with generated ones where there are none."""

    def files(self):
        found = sorted(TEST_DATA.glob("*.jsonl")) + sorted(TEST_DATA.glob("syslog/*.log"))
        found += sorted(TEST_DATA.glob("naughty-strings.txt"))
        if not found:
            generated = self.dir / "generated.log"
            generated.write_bytes(b"\n".join(generated_lines(3_000, seed=2)) + b"\n")
            found = [generated]
        return found

    def test_real_logs_arrive_line_by_line(self):
        self.start_host()
        expected = collections.Counter()
        for path in self.files():
            lines = [line for line in path.read_bytes().split(b"\n") if line]
            sent = self.send("--product", "logs", "--combo", path.stem[:60], str(path))
            self.assertEqual(sent.returncode, 0, sent.stderr)
            expected.update(lines)
        records = self.wait_for_records(sum(expected.values()))
        arrived = collections.Counter(message_bytes(record) for record in records)
        self.assertEqual(sum((arrived - expected).values()), 0, "records that nobody sent")
        self.assertEqual(sum((expected - arrived).values()), 0, "records that did not arrive")


if __name__ == "__main__":
    unittest.main()
