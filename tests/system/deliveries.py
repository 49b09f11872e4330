"""What has arrived in the files of the link, also of hosts that were killed in the middle of a line."""

import base64
import json
import os


def key_of(record):
    return record.partition(b" ")[0]


class Deliveries:
    """What has arrived in the files of the link, read on from where the last look ended, also in renamed files."""

    def __init__(self, directory):
        self._directory = directory
        self._offsets = {}
        self.records = []  # (record, data id)
        self.keys = set()
        self.torn = 0

    def read(self):
        for path in self._directory.glob("*/records.jsonl"):
            with path.open("rb") as stream:
                file = os.fstat(stream.fileno()).st_ino
                stream.seek(self._offsets.get(file, 0))
                whole = stream.read().rpartition(b"\n")[0]
                if whole:
                    self._offsets[file] = self._offsets.get(file, 0) + len(whole) + 1
            for line in whole.split(b"\n"):
                if line:
                    self._take(line)
        return self.records

    def _take(self, line):
        try:
            fields = json.loads(line)
        except ValueError:
            self.torn += 1  # the host was killed in the middle of the line
            return
        text = fields.get("message")
        record = base64.b64decode(fields["message_base64"]) if text is None else text.encode()
        self.records.append((record, int(fields["dataid"], 16)))
        self.keys.add(key_of(record))
