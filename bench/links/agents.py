"""Hosts of their own whose links lead to a destination, perhaps by way of a proxy."""

import os
import shutil
import subprocess
import uuid

from processes import PATIENCE, Daemon, Failed, wait_until

# More than any run holds, so that nothing is refused for want of room.
ROOM = 1_200_000


class Agent:
    def __init__(self, build, directory, destination, port):
        """port: where the link finds the destination."""
        self.identifier = str(uuid.uuid4())
        self.directory = directory
        self._sender = build / "bin" / "qmsend"
        self._socket = directory / "s"
        self._log = directory / "log" / "qmhost.log"
        (directory / "bin").mkdir(parents=True)
        (directory / "data").mkdir()
        self._program = directory / "bin" / "qmhost"
        # Under a path of its own: from there it finds its configuration.
        try:
            os.link(build / "bin" / "qmhost", self._program)
        except OSError:  # another file system, or another owner
            shutil.copy2(build / "bin" / "qmhost", self._program)
        (directory / "lib").symlink_to(build / "lib")
        component = directory / "etc" / "qmlogcache"
        component.mkdir(parents=True)
        (component / "qmlogcache.conf").write_text(
            f"[logcache]\ndataflowflag = 2\ndatacountlimit = {ROOM}\ndiskfreesize = 0\n")
        link = destination.configuration(port).replace("[link]\n", f"[link]\nagent_id = {self.identifier}\n")
        self._config = directory / "etc" / "qmhost.conf"
        self._config.write_text(f"[storage]\nsync = normal\n[ingress]\nsocket = {self._socket}\n{link}"
                                "[plugin logcache]\n")
        self._daemon = None

    def start(self):
        self._daemon = Daemon([self._program, "--config", self._config], self.directory / "words")
        self._daemon.wait_ready(lambda: "qmhost ready" in self._daemon.said())
        self.wait_for_log("server link up")

    def stop(self):
        if self._daemon is not None:
            self._daemon.stop()
            self._daemon = None

    def wait_for_log(self, text):
        wait_until(lambda: self._log.exists() and text in self._log.read_text(errors="replace"), f"{text!r} in the log")

    def send(self, lines):
        """Starts to send a file's lines."""
        return subprocess.Popen([self._sender, "--socket", self._socket, "--quiet", lines], stdin=subprocess.DEVNULL)

    def send_all(self, lines):
        """Returns when they are all accepted."""
        finish_sender(self.send(lines))


def finish_sender(sender):
    try:
        status = sender.wait(PATIENCE)
    finally:
        sender.kill()
    if status != 0:
        raise Failed("qmsend's records were not all accepted")
