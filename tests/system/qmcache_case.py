"""What the tests of qmcache share: a host with cache files, and the tool run on them."""

import json
import os
import subprocess

from host_fixture import BIN, PATIENCE, HostTestCase

WELL, DAMAGE, USAGE, NOTHING, FAILED = range(5)


class CacheToolTestCase(HostTestCase):
    def tool(self, *arguments, directory=None, **options):
        """Runs qmcache on the host's cache directory; returns the finished process. Standard output is bytes."""
        command = [BIN / "qmcache", "--directory", directory or self.cache_dir, *arguments]
        return subprocess.run(command, capture_output=True, timeout=PATIENCE, check=False, **options)

    def output(self, *arguments, status=WELL, **options):
        """What qmcache prints; it must end with the status."""
        done = self.tool(*arguments, **options)
        self.assertEqual(done.returncode, status, done.stdout[-2000:] + done.stderr)
        return done.stdout

    def records(self, *arguments, **options):
        """What qmcache prints as lines of JSON."""
        return [json.loads(line) for line in self.output(*arguments, **options).splitlines()]

    def listed(self, **options):
        """The files that ls knows, by sender."""
        return {file["sender"]: file for file in json.loads(self.output("ls", "--json", **options))["files"]}

    def put(self, *arguments, lines, **options):
        """Hands the lines in by qmsend; all must be accepted."""
        data = b"\n".join(line if isinstance(line, bytes) else line.encode() for line in lines) + b"\n"
        sent = self.send(*arguments, data=data, **options)
        self.assertEqual(sent.returncode, 0, sent.stderr)

    def start_without_destination(self):
        self.start_host()
        return self.take_link_down()

    def cache_files(self):
        return sorted(self.cache_dir.glob("*.db"))

    def footprint(self, directory=None):
        """All that can be told of the files without opening one: opening must not change it."""
        directory = directory or self.cache_dir
        seen = {}
        for path in sorted(directory.rglob("*")):
            status = os.lstat(path)
            seen[path.name] = (status.st_ino, status.st_size, status.st_mtime_ns, status.st_mode, status.st_nlink)
        return seen


def without_id(records):
    """The records but for their ids, which are new when a record is sent again; in no order."""
    return sorted(json.dumps({name: value for name, value in record.items() if name != "dataid"}, sort_keys=True)
                  for record in records)
