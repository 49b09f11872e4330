"""Cache files as another SQLite program sees them."""

import base64
import pathlib
import shutil
import sqlite3
import tempfile

COLUMNS = ("dataid", "priv", "msgtype", "product", "combo", "datatype", "data", "reserved1", "reserved2")


def tagged(dataid, priv, msgtype, guid, product, combo, record):
    """The text in which a record is kept; texts are bytes."""
    return (
        b"<version=1><dataid=%x><priv=%d><msgtype=%d><guid=%s><product=%s><combo=%s><end=1><msg=%s>"
        % (dataid, priv, msgtype, guid, product, combo, record)
    )


def record_of(row):
    """The record in a row's tagged text."""
    text = base64.b64decode(row["data"]) if row["datatype"] == 1 else row["data"]
    return text.partition(b"<end=1><msg=")[2][:-1]


def read_file(path):
    """The rows of one file, a dictionary each, texts as bytes; checks that the file is sound."""
    connection = sqlite3.connect(path)
    connection.text_factory = bytes
    try:
        check = connection.execute("PRAGMA integrity_check").fetchall()
        if check != [(b"ok",)]:
            raise AssertionError(f"{path} is damaged: {check}")
        # A file whose creation was cut short has no table yet, and no rows.
        if not connection.execute("SELECT 1 FROM sqlite_master WHERE name = 'logcache'").fetchall():
            return []
        rows = connection.execute(f"SELECT {', '.join(COLUMNS)} FROM logcache ORDER BY dataid").fetchall()
    finally:
        connection.close()
    return [dict(zip(COLUMNS, row)) for row in rows]


def read_copy(cache_dir):
    """The rows of all cache files. They are read in a copy, with their logs: opening a file that a crash left behind
    repairs it, which is to be left to the host. No host may be running."""
    rows = []
    if not cache_dir.exists():
        return rows
    with tempfile.TemporaryDirectory(prefix="qmlogcache-") as copy:
        copied = pathlib.Path(copy) / "cache"
        shutil.copytree(cache_dir, copied)
        for path in sorted(copied.glob("*.db")):
            rows += read_file(path)
    return rows
