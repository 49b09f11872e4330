"""What the sides of the comparison are made of: processes, what they used, and how long a file took to be whole."""

import os
import pathlib
import signal
import subprocess
import threading
import time

# Hang guards, in seconds: for one step, and for an output that does not grow any more.
PATIENCE = 120
STANDSTILL = 30
TICKS = os.sysconf("SC_CLK_TCK")
MIB = 1 << 20


class Failed(Exception):
    """Something could not be measured; says why."""


def wait_until(condition, what, patience=PATIENCE):
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            raise Failed(f"waited in vain for {what}")
        time.sleep(0.01)


class Daemon:
    """A process that runs until it is stopped. Its words go to a file."""

    def __init__(self, command, words, environment=None):
        self.words = pathlib.Path(words)
        with self.words.open("wb") as stream:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=stream, stderr=subprocess.STDOUT,
                                            env={**os.environ, **(environment or {})})
        self.name = pathlib.Path(command[0]).name

    def said(self):
        return self.words.read_text(errors="replace")

    def wait_ready(self, condition):
        def ready():
            if self.process.poll() is not None:
                raise Failed(f"{self.name} ended with {self.process.returncode}: {self.said()[-2000:]}")
            return condition()

        wait_until(ready, f"{self.name} to be ready")

    def cpu_seconds(self):
        """User and system time so far, of all threads."""
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def resident_bytes(self):
        for line in pathlib.Path(f"/proc/{self.process.pid}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
        raise Failed(f"{self.name} has no resident size")

    def wait_idle(self):
        """Returns when the process has used next to nothing for a moment."""
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            before = self.cpu_seconds()
            time.sleep(0.3)
            if self.cpu_seconds() - before <= 0.01:
                return
        raise Failed(f"{self.name} does not come to rest")

    def stop(self, how=signal.SIGTERM):
        """Ends the process, by force when it does not end by itself."""
        if self.process.poll() is None:
            self.process.send_signal(how)
            try:
                self.process.wait(timeout=PATIENCE)
            except subprocess.TimeoutExpired:
                self.process.kill()
        self.process.wait()


def finish(process, what):
    """Waits for a process of ours that ends by itself; its user and system time in seconds."""
    guard = threading.Timer(PATIENCE, process.kill)
    guard.start()
    try:
        _, status, usage = os.wait4(process.pid, 0)
    finally:
        guard.cancel()
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise Failed(f"{what} ended with {process.returncode}")
    return usage.ru_utime + usage.ru_stime


def wait_whole(path, is_whole):
    """Waits until the file is whole. When that was, in seconds since the epoch: the time of its last write, so that the
    waiting can be so rare that it does not disturb."""
    size, since = -1, time.monotonic()
    while True:
        now = path.stat() if path.exists() else None
        if now is not None and now.st_size == size and size > 0 and time.monotonic() - since > 0.3:
            if is_whole():
                return path.stat().st_mtime_ns / 1e9
            if time.monotonic() - since > STANDSTILL:
                raise Failed(f"{path.name} does not become whole")
            time.sleep(0.5)
        elif now is not None and now.st_size != size:
            size, since = now.st_size, time.monotonic()
        elif time.monotonic() - since > STANDSTILL:
            raise Failed(f"nothing arrives in {path.name}")
        time.sleep(0.05)
