#!/usr/bin/env python3
"""Writes the hand-made part of the corpora: one input for each kind of thing that a target reads. What else lies in the
corpora was found by the fuzzer and kept for the code it reaches.

    make_corpus.py [DIRECTORY]      default: corpus, beside this script
"""
import base64
import os
import sqlite3
import struct
import sys
import tempfile

DIRECTORY = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


class Choices:
    """An input whose consumer (libFuzzer's FuzzedDataProvider) makes just these choices, in this order."""

    def __init__(self):
        self.front = b""
        self.back = b""

    def number(self, value, least, most):
        width = 0
        while (most - least) >> (8 * width):
            width += 1
        # Taken from the end, the byte taken first is the highest.
        self.back = ((value - least).to_bytes(width, "big")[::-1]) + self.back
        return self

    def flag(self, value):
        return self.number(int(value), 0, 1)

    def text(self, value, most):
        self.front += value.replace(b"\\", b"\\\\")
        if len(value) < most:
            self.front += b"\\\0"
        return self

    def rest(self, value):
        self.front += value
        return self

    def bytes(self):
        return self.front + self.back


def write(target, name, data):
    folder = os.path.join(DIRECTORY, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as file:
        file.write(data)


U32 = 2**32 - 1
I32 = (-2**31, 2**31 - 1)
I64 = (-2**63, 2**63 - 1)


def make_base64():
    write("base64", "empty", b"")
    for name, data in {"one": b"a", "two": b"ab", "three": b"abc", "bytes": bytes(range(256))}.items():
        write("base64", "plain_" + name, data)
        write("base64", "encoded_" + name, base64.b64encode(data))
    write("base64", "stray_bits", b"QR==")
    write("base64", "white_space", b"QUJD\nQUJD")
    write("base64", "no_padding", b"QUI")
    write("base64", "padding_inside", b"QQ==QUJD")


def make_connect_reply():
    deep = b'{"onlineflag":' + b"[" * 511 + b"]" * 511 + b"}"
    texts = {
        "number_1": b'{"onlineflag":1}', "text_1": b'{"onlineflag":"1"}', "number_0": b'{"onlineflag":0}',
        "true": b'{"onlineflag":true}', "null": b'{"onlineflag":null}', "real": b'{"onlineflag":1.0}',
        "object": b'{"onlineflag":{"onlineflag":1},"other":[1,2.5e3,"\\u00e4\\ud83d\\ude00"]}',
        "missing": b'{"online":1}', "twice": b'{"onlineflag":0,"onlineflag":1}', "array": b'["onlineflag",1]',
        "terminated": b'{"onlineflag":"1"}\0', "zero_inside": b'{"onlineflag":"1"}\0}', "cut": b'{"onlineflag":',
        "deep": deep, "too_deep": b"[" + deep + b"]", "bad_utf8": b'{"onlineflag":"\xff"}', "nothing": b"",
    }
    for name, text in texts.items():
        write("connect_reply", name, b"\0" + text)
    for how in (1, 2, 3):
        write("connect_reply", "not_answered_%d" % how, bytes([how]) + texts["number_1"])


def make_ini():
    write("ini", "component", b"""; the cache
[logcache]
logcachepath = ../data/qmlogcache/
logcachesize = 524288000
logcachetotalsize=0x80000000
DiskFreeSize : 524288000
dataflowflag = 1
datacountlimit = -1
localdatacountlimit = many
datacoverflag = 1 ; yes
""")
    write("ini", "host", b"""# every key
[host]
data_dir = /dev/shm
[log]
dir = /dev/shm
levels = 1, 2,3 ,6
max_file_size = 4K
max_files = 2
[storage]
sync = normal
[router]
completion_threads = 64
reply_timeout_ms = 1
[ingress]
socket = /dev/shm/qmhost.sock
allowed_users = root, 1000
max_frame = 1G
window = 1048576
stall_timeout_ms = 100
max_connections = 1
threads = 256
[link]
driver = file
path = /dev/shm/records.jsonl
[plugin cache]
path = /bin/sh
guid = 5d3b1a07-8e24-4c91-b6f0-2a7c9e41d358
enabled = yes
[plugin other]
enabled = off
""")
    write("ini", "mistakes", b"""\xef\xbb\xbfkey = before
[host
data_dir = x
[hots]
[plugin]
[log]
dri = log
levels = 0,7
levels = 3
no equals sign
[]
= value
[ingress]
max_frame = 18446744073709551616G
socket = """ + b"x" * 120 + b"\n\tindented = 1\r\n[link] ; comment\n  driver=none\n")
    write("ini", "long_line", b"[logcache]\nlogcachepath = " + b"a/" * 1800 + b"\ndataflowflag=2\n")
    for name, length in (("longest_section", 49), ("too_long_section", 50)):
        write("ini", name, b"[host]\nkey = 0\n[" + b"s" * length + b"]\nkey = 1\n")
    write("ini", "long_section", b"[" + b"s" * 60 + b"]\nkey = 1\n[logcache]\ndataflowflag = 2")
    value = b"x" * (8191 - len(b"logcachepath="))
    write("ini", "longest_line", b"[logcache]\n    logcachepath=" + value + b"\nlogcachepath=" + value + b"y\n")
    write("ini", "byte_order_mark", b"\xef\xbb\xbf \t[logcache]\n\xef\xbb\xbf[host]\ndataflowflag = 1\n")
    write("ini", "zero_byte", b"[logcache]\ndataflow\0flag = 2\nlogcachesize = 1\n")


def frame(kind, body):
    return struct.pack("<IB3x", 4 + len(body), kind) + body


HELLO = frame(1, b"QMIN" + struct.pack("<I", 1))


def message(msg_type, request, payload):
    return frame(3, struct.pack("<IQ", msg_type, request) + bytes(range(16)) + payload)


def connection(stream, max_frame=8192, window=8, manner=0, cuts=()):
    choices = Choices().number(3, 0, 7).number(max_frame, 64, 8192).number(window, 1, 8).number(manner, 0, 2)
    choices.number(len(cuts), 0, 6)
    for cut in cuts:
        choices.number(cut, 0, 200)
    return choices.rest(stream).bytes()


def make_ingress():
    messages = HELLO + b"".join(message(10100 + i, i, b"payload %d" % i) for i in range(4))
    for manner, name in enumerate(("answered", "refused", "late")):
        write("ingress", name, connection(messages, manner=manner))
    write("ingress", "in_pieces", connection(messages, cuts=(1, 3, 12, 5, 40, 2)))
    write("ingress", "window_full", connection(messages, window=2, manner=2))
    write("ingress", "too_long", connection(HELLO + message(10100, 1, b"x" * 200), max_frame=100))
    many = HELLO + b"".join(message(10100, i, b"") for i in range(440))
    write("ingress", "many", connection(many, window=7))
    write("ingress", "many_taken_late", connection(many, window=8))
    # The largest choice stands for a limit of 1 GiB; the announced rest never comes.
    announced = struct.pack("<IB3x", 1 << 30, 3) + bytes(12000)
    write("ingress", "announced", connection(HELLO + announced, cuts=(16, 100)))
    write("ingress", "no_hello", connection(message(10100, 1, b"x")))
    write("ingress", "other_version", connection(frame(1, b"QMIN" + struct.pack("<I", 2))))
    write("ingress", "empty_frame", connection(HELLO + struct.pack("<I", 0)))
    write("ingress", "cut_short", connection(messages[:-3]))
    write("ingress", "second_hello", connection(HELLO + HELLO))
    write("ingress", "empty_payload", connection(HELLO + message(20003, 2**64 - 1, b"")))
    for name, body in {"hello": HELLO, "message": message(1, 2, b"x"), "answer": frame(4, bytes(12) + b"success"),
                       "welcome": frame(2, b"QMIN" + bytes(12)), "failure": frame(5, bytes(4) + b"why")}.items():
        write("ingress", "frame_" + name, Choices().number(0, 0, 7).rest(body[4:]).bytes())
    buffer = Choices().number(1, 0, 7).flag(True).text(b"block", 64)
    for size in (5000, 70000, 131072, 131072):
        buffer.flag(True).number(size, 0, 128 << 10).flag(False).number(3000, 0, U32)
    write("ingress", "read_buffer", buffer.bytes())
    combo = Choices().number(2, 0, 7).text(b"product", 80).text(b"c" * 63, 80).number(2, *I32).rest(b"data")
    write("ingress", "combo", combo.bytes())


def make_tagged_text():
    def as_it_stands(text):
        return Choices().flag(False).number(1700000000000000, *I64).rest(text).bytes()

    def written(product, combo, data):
        choices = Choices().flag(True).number(0x6553f10000000001, 1, 2**64 - 1).number(13, *I32).number(1, *I32)
        choices.front += bytes(range(16))
        return choices.text(product, 64).text(combo, 64).rest(data).bytes()

    text = (b"<version=1><dataid=6553f10000000001><priv=1><msgtype=2><guid=01234567-89AB-CDEF-0123-456789ABCDEF>"
            b"<product=prod><combo=combo><end=1><msg=data>")
    write("tagged_text", "whole", as_it_stands(text))
    write("tagged_text", "cut", as_it_stands(text[:-1]))
    write("tagged_text", "no_names", as_it_stands(text.replace(b"prod>", b">").replace(b"=combo>", b"=>")))
    write("tagged_text", "bytes", as_it_stands(text.replace(b"data>", bytes(range(256)) + b">")))
    write("tagged_text", "negative", as_it_stands(text.replace(b"priv=1", b"priv=-2147483648")))
    for name, old, new in (("zero_priv", b"priv=1", b"priv=0"), ("leading_zero_priv", b"priv=1", b"priv=01"),
                           ("minus_zero_priv", b"priv=1", b"priv=-0"), ("plus_msgtype", b"type=2", b"type=+2"),
                           ("leading_zero_msgtype", b"type=2", b"type=-02"), ("too_large_msgtype", b"type=2",
                           b"type=2147483648"), ("leading_zero_dataid", b"dataid=6", b"dataid=06"),
                           ("upper_case_dataid", b"dataid=6", b"dataid=A"), ("long_dataid", b"dataid=6", b"dataid=16")):
        write("tagged_text", name, as_it_stands(text.replace(old, new)))
    write("tagged_text", "tags_in_message", as_it_stands(text.replace(b"data>", b"><combo=x><end=1><msg=y>")))
    write("tagged_text", "written", written(b"prod", b"combo", b"data"))
    write("tagged_text", "written_long_names", written(b"p" * 64, b"c" * 64, b""))
    names = (b"a><combo=b", b"c><end=1><msg=d")
    write("tagged_text", "written_tags_in_names", written(*names, b"><combo=e><end=1><msg=f"))
    write("tagged_text", "written_utf8", written("ä\u2028".encode(), b"\xff\xfe", "\U0001f600\x01\x7f".encode()))
    write("tagged_text", "written_zero", written(b"p\0q", b"c", b"data\0more"))


def make_receive():
    types = 20 + 7  # the last of the targets' numbers for a message type
    combo, combo_async, result, broadcast = 16, 17, 18, 19

    def receive(choices, msg_type, how=0):
        choices.number(9, 0, 9).number(1, 0, 15).number(msg_type, 0, types).number(7, 0, 255).number(how, 0, 255)
        return choices.number(1, 0, 7)

    def record(choices, msg_type=0, data=b"data"):
        return receive(choices, msg_type).text(data, 200)

    def combo_record(choices, msg_type, priv, length=None, off=0):
        receive(choices, msg_type).flag(True).number(2, 1, 3).flag(True).number(priv, 0, 13).number(0, 0, 3)
        choices.text(b"prod", 64).text(b"c" * 64, 64).text(b"some data", 100)
        if length is not None:
            return choices.number(0, 0, 3).number(length, *I32)
        return choices.number(3, 0, 3).number(off, -2, 2)

    def settled(choices, code, completion=False):
        if completion:
            choices.number(1, 0, 9).number(1, 0, 7)
        else:
            receive(choices, result)
        # The result comes first in a message and last in a completion.
        code_choice = (lambda: choices.flag(True).number(code, 0, 3))
        if not completion:
            code_choice()
        choices.number(1, 0, 3).number(0, 0, 0)
        if completion:
            code_choice()
        return choices

    def send(choices, refused=False):
        return choices.number(0, 0, 9).number(0 if refused else 1, 0, 7)

    for msg_type in range(types + 1):
        if msg_type not in (combo, combo_async, result):
            write("receive", "type_%02d" % msg_type, record(Choices(), msg_type).bytes())
    for base in range(3):
        for offset in (-1, 4, 9, 14):
            near = Choices().number(9, 0, 9).number(15, 0, 15).number(base, 0, 2).number(offset, -1, 20)
            near.number(7, 0, 255).number(0, 0, 255).number(1, 0, 7).text(b"data", 200)
            write("receive", "near_base_%d_%d" % (base, offset), near.bytes())
    write("receive", "combo", combo_record(Choices(), combo, 13).bytes())
    write("receive", "combo_async", combo_record(Choices(), combo_async, 0).bytes())
    write("receive", "combo_cut_short", combo_record(Choices(), combo, 1, off=1).bytes())
    write("receive", "combo_more_follows", combo_record(Choices(), combo, 1, off=-1).bytes())
    write("receive", "combo_length", combo_record(Choices(), combo, 1, length=-1).bytes())
    for code, name in enumerate(("delivered", "timeout", "busy", "failed")):
        write("receive", "result_" + name, settled(send(record(Choices())), code).bytes())
        write("receive", "completed_" + name, settled(send(record(Choices())), code, True).bytes())
    write("receive", "refused", send(record(record(Choices(), 3)), True).bytes())
    write("receive", "retried", send(settled(send(record(Choices())), 1)).number(2, 0, 9).bytes())
    write("receive", "no_data", receive(Choices(), 0, 1).text(b"x", 200).bytes())
    write("receive", "no_handle", receive(Choices(), broadcast, 2).text(b"x", 200).bytes())


TABLE = ("CREATE TABLE [logcache] ([dataid] INTEGER NOT NULL PRIMARY KEY, [priv] INTEGER NOT NULL, [msgtype] INTEGER "
         "NOT NULL, [product] VARCHAR(128) NOT NULL, [combo] VARCHAR(128) NOT NULL, [datatype] INTEGER NOT NULL, "
         "[data] longtext NOT NULL, [reserved1] INTEGER NULL, [reserved2] VARCHAR(256) NULL);")
INSERT = "insert into logcache (dataid, priv, msgtype, product, combo, datatype, data) values (?, 1, 2, 'p', 'c', ?, ?)"


PAGE = 1024


def with_fixed_salts(log):
    """The same write-ahead log with salts of ours in place of random ones, and checksums to match."""
    def add(sums, data):
        for first, second in struct.iter_unpack("<II", data):
            sums[0] = (sums[0] + first + sums[1]) % 2**32
            sums[1] = (sums[1] + second + sums[0]) % 2**32
        return struct.pack(">II", *sums)

    sums = [0, 0]
    salts = struct.pack(">II", 1, 2)
    out = log[:16] + salts
    out += add(sums, out)
    for at in range(32, len(log), 24 + PAGE):
        head, page = log[at:at + 8], log[at + 24:at + 24 + PAGE]
        out += head + salts + add(sums, head + page) + page
    return out


def database(rows, logged_rows=(), schema=TABLE):
    """The bytes of a file with the first rows, and of a write-ahead log with the others."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "x.db")
        db = sqlite3.connect(path)
        db.executescript("PRAGMA page_size = %d;" % PAGE + schema)
        db.executemany(INSERT, rows)
        db.commit()
        log = b""
        if logged_rows:
            db.execute("PRAGMA journal_mode=WAL")
            db.executemany(INSERT, logged_rows)
            db.commit()
            with open(path + "-wal", "rb") as file:
                log = with_fixed_salts(file.read())
        with open(path, "rb") as file:
            data = file.read()
        db.close()
        return data, log


def make_cache_file():
    def order(data, manner=0, side=b"", cook=0):
        return struct.pack("<BBHHBB", cook, manner, len(side), 5000, 20, ord("d")) + data + side

    rows = [(i, 0, "data %d" % i) for i in range(1, 4)]
    sound, _ = database(rows)
    write("cache_file", "empty", order(b""))
    write("cache_file", "no_database", order(b"no database " * 100))
    write("cache_file", "sound", order(sound))
    write("cache_file", "sound_cover", order(sound, manner=1))
    write("cache_file", "sound_batch_vacuum", order(sound, manner=2 | 4))
    write("cache_file", "sound_stray_entries", order(sound, manner=64))
    write("cache_file", "no_database_backup_is_link", order(b"no database " * 100, manner=32 | 64))
    write("cache_file", "sound_zero_byte", order(sound, manner=16))
    damaged = bytearray(sound)
    damaged[-PAGE:100 - PAGE] = b"\x5a" * 100
    write("cache_file", "damaged_rows", order(bytes(damaged)))
    write("cache_file", "cut_short", order(sound[:len(sound) - 100]))
    encoded, _ = database([(1, 1, base64.b64encode(b"data").decode()), (2, 1, "no base64")])
    write("cache_file", "encoded", order(encoded))
    wal, log = database(rows[:1], rows[1:2])
    write("cache_file", "write_ahead_log", order(wal, side=log))
    write("cache_file", "log_cut_short", order(wal, side=log[:-1]))
    write("cache_file", "stray_journal", order(sound, manner=8, side=bytes.fromhex("d9d505f920a163d7") + bytes(504)))
    trigger, _ = database([], schema=TABLE + "insert into logcache values (1, 1, 1, 'p', 'c', 0, 'd', null, null);"
                          "CREATE TRIGGER t BEFORE INSERT ON logcache BEGIN DELETE FROM logcache; END;")
    write("cache_file", "trigger", order(trigger))


for function in (make_base64, make_connect_reply, make_ini, make_ingress, make_tagged_text, make_receive,
                 make_cache_file):
    function()
