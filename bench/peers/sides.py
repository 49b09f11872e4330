"""The sides of the comparison: how each is configured, started and fed. All get the same lines of the same loader."""

import signal
import socket
import subprocess
import threading
import time

from processes import PATIENCE, Daemon, Failed, finish, wait_until

# More than any run holds: no side may refuse or block for want of room.
QUEUE_ROOM = 1_200_000


class Side:
    """One daemon with a directory of its own. The sink is a file in sink_directory."""

    name = ""
    form = "plain"

    def __init__(self, tools, directory):
        self.tools = tools
        self.directory = directory
        self.sink_directory = directory / "out"
        self.output = self.sink_directory / "lines"
        self.socket = directory / "s"
        self.daemon = None
        directory.mkdir(parents=True)

    def start(self, on_disk=False):
        """on_disk: every line is on disk, synced, before it counts as taken, and the sink syncs too."""
        self.sink_directory.mkdir()
        self.launch(on_disk)

    def start_without_sink(self):
        """In memory, and what is taken stays there until raise_sink."""
        self.launch(on_disk=False)

    def raise_sink(self):
        self.sink_directory.mkdir()

    def launch(self, on_disk):
        raise NotImplementedError

    def stop(self):
        if self.daemon is not None:
            self.daemon.stop()
            self.daemon = None

    def loader(self, count, *arguments, **options):
        return subprocess.Popen([self.tools.loader, "send", str(count), *arguments], **options)

    def feed(self, count):
        """Sends so many lines. CPU seconds of what belongs to this side and is no daemon, and when the last line was
        acknowledged, in seconds since the epoch: 0 for a side that acknowledges nothing."""
        finish(self.loader(count, self.socket), "the loader")
        return 0.0, 0.0

    def is_whole(self, count):
        done = subprocess.run([self.tools.loader, "check", str(count), self.form, self.output], text=True,
                              capture_output=True, check=False)
        counts = dict(zip(done.stdout.split()[::2], map(int, done.stdout.split()[1::2])))
        # A last line that is still being written looks foreign.
        if not counts or counts["repeated"] or counts["foreign"] > (1 if counts["lines"] <= count else 0):
            raise Failed(f"{self.name} delivered something else: {done.stdout}{done.stderr}")
        return done.returncode == 0


class QmLogCache(Side):
    """qmsend, qmhost, the component and the file link."""

    name = "qmlogcache"
    form = "json"

    def launch(self, on_disk):
        prefix = self.directory / "prefix"
        (prefix / "bin").mkdir(parents=True)
        (prefix / "data").mkdir()
        program = prefix / "bin" / "qmhost"
        # A copy: the component finds its configuration from the program's own place.
        program.write_bytes(self.tools.host.read_bytes())
        program.chmod(0o755)
        (prefix / "lib").symlink_to(self.tools.libraries)
        component = prefix / "etc" / "qmlogcache"
        component.mkdir(parents=True)
        (component / "qmlogcache.conf").write_text(
            f"[logcache]\ndataflowflag = {0 if on_disk else 2}\ndatacountlimit = {QUEUE_ROOM}\ndiskfreesize = 0\n")
        config = prefix / "etc" / "qmhost.conf"
        config.write_text(f"[storage]\nsync = {'full' if on_disk else 'normal'}\n"
                          f"[ingress]\nsocket = {self.socket}\n"
                          f"[link]\npath = {self.output}\n[plugin logcache]\n")
        self.daemon = Daemon([program, "--config", config], self.directory / "words")
        self.daemon.wait_ready(lambda: "qmhost ready" in self.daemon.said())
        # Until it knows of a connection, the component's work thread looks for one once a second, and says nothing.
        time.sleep(1.2)

    def start_without_sink(self):
        # The host makes the directory when it starts; a link that reopens its file does not.
        super().start()
        self.sink_directory.rename(self.directory / "away")
        self.daemon.process.send_signal(signal.SIGHUP)
        log = self.directory / "prefix" / "log" / "qmhost.log"
        wait_until(lambda: log.exists() and "server link down" in log.read_text(), "the link to be down")

    def feed(self, count):
        summary = self.directory / "summary"
        loader = self.loader(count, stdout=subprocess.PIPE)
        sender = subprocess.Popen([self.tools.sender, "--socket", self.socket, "--quiet", "--summary", summary],
                                  stdin=loader.stdout)
        loader.stdout.close()
        cpu = finish(sender, "qmsend")
        acknowledged = time.time()
        finish(loader, "the loader")
        if f"accepted {count}\n" not in summary.read_text():
            raise Failed(f"qmsend's records were not all accepted: {summary.read_text()}")
        return cpu, acknowledged


class SocketSide(Side):
    """A side whose sink, where it has to be down, is a loopback port at which nobody listens yet. A file that cannot be
    opened would not do: it has no queue at syslog-ng, and rsyslog loses what it has buffered for the file."""

    def __init__(self, tools, directory):
        super().__init__(tools, directory)
        self.listener = None
        self.copier = None

    def start_without_sink(self):
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.sink_directory.mkdir()
        self.launch(on_disk=False)

    def port(self):
        """Of the sink that is no file; None when it is one."""
        return self.listener.getsockname()[1] if self.listener is not None else None

    def raise_sink(self):
        self.listener.listen()
        self.listener.settimeout(PATIENCE)
        self.copier = threading.Thread(target=self.copy, daemon=True)
        self.copier.start()

    def copy(self):
        connection, _ = self.listener.accept()
        with connection, self.output.open("wb", buffering=0) as stream:
            while piece := connection.recv(1 << 20):
                stream.write(piece)

    def stop(self):
        super().stop()  # ends the connection, and with it the copier
        if self.copier is not None:
            self.copier.join(PATIENCE)
        if self.listener is not None:
            self.listener.close()


class RSyslog(SocketSide):
    name = "rsyslog"
    batched = False

    def launch(self, on_disk):
        work = self.directory / "work"
        work.mkdir()
        config = self.directory / "rsyslog.conf"
        # The queue holds what the sink does not take: in memory the main one, on disk the action's, which saves its
        # state for every message. The main one would save it once for all that a read of the socket brought.
        room = (f'queue.size="{QUEUE_ROOM}" queue.highWatermark="{QUEUE_ROOM - 1}" '
                f'queue.lowWatermark="{QUEUE_ROOM // 2}" queue.dequeueBatchSize="1024" queue.timeoutEnqueue="1000000"')
        memory = f'queue.type="LinkedList" {room}'
        disk = ('queue.type="Disk" queue.filename="queue" queue.maxFileSize="100m" queue.checkpointInterval="1" '
                f'queue.syncqueuefiles="on" {room}')
        direct = 'queue.type="Direct"'
        sink = (f'type="omfwd" target="127.0.0.1" port="{self.port()}" protocol="tcp"' if self.port() else
                f'type="omfile" file="{self.output}" ioBufferSize="64k" sync="{"on" if on_disk else "off"}"')
        main, action = (memory, direct) if not on_disk else (disk, direct) if self.batched else (direct, disk)
        config.write_text(f"""
global(workDirectory="{work}")
module(load="imptcp" threads="1")
main_queue({main})
template(name="line" type="string" string="%rawmsg%\\n")
input(type="imptcp" path="{self.socket}")
action({sink} template="line" action.resumeRetryCount="-1" action.resumeInterval="1"
       {action})
""")
        root = self.tools.peers
        modules = root / "usr/lib/x86_64-linux-gnu/rsyslog"
        self.daemon = Daemon([root / "usr/sbin/rsyslogd", "-n", "-f", config, "-i", self.directory / "pid", "-M",
                              modules], self.directory / "words", self.tools.peer_environment())
        self.daemon.wait_ready(self.socket.exists)


class RSyslogBatched(RSyslog):
    """On disk, every message is synced, but the queue's state once for all that a read of the socket brought."""

    name = "rsyslog_batched"
    batched = True


class SyslogNg(SocketSide):
    name = "syslog_ng"

    def launch(self, on_disk):
        if on_disk:
            raise Failed("syslog-ng's disk buffer knows no sync")
        sink = f'network("127.0.0.1" port({self.port()})' if self.port() else f'file("{self.output}" fsync(no)'
        config = self.directory / "syslog-ng.conf"
        config.write_text(f"""
@version: 3.38
options {{ threaded(yes); stats-freq(0); keep-hostname(yes); use-dns(no); chain-hostnames(no); time-reopen(1);
          create-dirs(no); flush-lines(1000); }};
source input {{ unix-stream("{self.socket}" flags(no-parse) log-fetch-limit(1000) max-connections(1)
                            log-iw-size({QUEUE_ROOM})); }};
destination sink {{ {sink} template("$MSG\\n") log-fifo-size({QUEUE_ROOM})); }};
log {{ source(input); destination(sink); flags(flow-control); }};
""")
        root = self.tools.peers
        self.daemon = Daemon([root / "usr/sbin/syslog-ng", "-F", "--no-caps", "-f", config,
                              f"--module-path={root / 'usr/lib/syslog-ng/3.38'}", "-R", self.directory / "persist",
                              "-c", self.directory / "control", "-p", self.directory / "pid"],
                             self.directory / "words", self.tools.peer_environment())
        self.daemon.wait_ready(self.socket.exists)


SIDES = {side.name: side for side in (QmLogCache, RSyslog, RSyslogBatched, SyslogNg)}
