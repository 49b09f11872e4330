"""What a figure depends on beside the source: the machine, its software, and how busy it was."""

import os
import pathlib
import platform
import re
import sqlite3
import subprocess
import time

BUSY_SHARE = 0.10


def _output(*command, cwd=None):
    """The command's standard output, which may be empty; "unknown" where it failed."""
    try:
        finished = subprocess.run(command, cwd=cwd, text=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                  timeout=30, check=True)
        return finished.stdout.strip()
    except (OSError, subprocess.SubprocessError):
        return "unknown"


def _field(path, pattern):
    try:
        found = re.search(pattern, pathlib.Path(path).read_text(), re.MULTILINE)
    except OSError:
        return "unknown"
    return found.group(1).strip(' "') if found else "unknown"


def _is_virtual():
    return " hypervisor " in _field("/proc/cpuinfo", r"^flags\s*:(.*)$") + " "


def describe(build, directory):
    """Words for a table. build: the build directory; directory: where the benchmarks' files go."""
    compiler = _field(build / "CMakeCache.txt", r"^CMAKE_CXX_COMPILER:[A-Z]+=(.*)$")
    memory = _field("/proc/meminfo", r"^MemTotal:\s+(\d+)")
    return {
        "processor": _field("/proc/cpuinfo", r"^model name\s*:(.*)$"),
        "processors": f"{os.cpu_count()}" + (" of a virtual machine" if _is_virtual() else ""),
        "memory": f"{int(memory) / 2**20:.1f} GiB" if memory.isdigit() else memory,
        "system": f"{_field('/etc/os-release', r'^PRETTY_NAME=(.*)$')}, kernel "
        + re.match(r"[\d.]*\d|", platform.release()).group(0),
        "file system": _output("findmnt", "-n", "-o", "FSTYPE", "-T", str(directory)) or "unknown",
        "compiler": (_output(compiler, "--version") or "unknown").splitlines()[0] + ", "
        + _field(build / "CMakeCache.txt", r"^CMAKE_BUILD_TYPE:[A-Z]+=(.*)$"),
        "SQLite": sqlite3.sqlite_version,
    }


def commit(root):
    """The commit that is checked out, and whether anything differs from it."""
    head = _output("git", "rev-parse", "--short=10", "HEAD", cwd=root)
    return head, _output("git", "status", "--porcelain", cwd=root) != ""


def _processor_times():
    fields = [int(field) for field in pathlib.Path("/proc/stat").read_text().split("\n", 1)[0].split()[1:9]]
    idle = fields[3] + fields[4]
    return sum(fields), idle


def busy_share(seconds=1.0):
    """The share of the processors that others use, looked at for some time while this process does nothing."""
    before_all, before_idle = _processor_times()
    time.sleep(seconds)
    after_all, after_idle = _processor_times()
    ticks = after_all - before_all
    return 1 - (after_idle - before_idle) / ticks if ticks else 0.0
