"""As much of a NATS client as tests need, on the protocol itself: requests to the API of JetStream, and subscriptions
to look at what a stream holds."""

import json
import os
import socket
import time

TIMEOUT = 60


class NatsError(Exception):
    pass


class NatsClient:
    """One connection. Not for several threads at a time."""

    def __init__(self, port, tls=None, user_key=None, **connect):
        self._socket = socket.create_connection(("127.0.0.1", port), timeout=TIMEOUT)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._file = self._socket.makefile("rb")
        self.info = json.loads(self._line().partition(b" ")[2])
        if tls is not None:
            self._socket = tls.wrap_socket(self._socket, server_hostname="127.0.0.1")
            self._file = self._socket.makefile("rb")
        options = {"verbose": False, "headers": True, "no_responders": True, "lang": "test", "version": "1", **connect}
        if user_key is not None:
            options["sig"] = user_key.sign(self.info["nonce"].encode())
        self._send(b"CONNECT " + json.dumps(options).encode() + b"\r\nPING\r\n")
        while self._line() != b"PONG":
            pass
        self._subscriptions = 0

    def close(self):
        self._file.close()
        self._socket.close()

    def _send(self, data):
        self._socket.sendall(data)

    def _line(self):
        line = self._file.readline()
        if not line.endswith(b"\r\n"):
            raise NatsError("the server closed the connection")
        if line.startswith(b"-ERR"):
            raise NatsError(line.decode().strip())
        return line[:-2]

    def follow(self, name, sequence):
        """Sequence and payload of each message of a stream from that sequence on, without end. A sequence that is gone is
        left out."""
        self._subscriptions += 1
        inbox = f"_DELIVER.test.{os.getpid()}.{time.monotonic_ns()}"
        self._send(f"SUB {inbox} {self._subscriptions}\r\n".encode())
        config = {"deliver_subject": inbox, "deliver_policy": "by_start_sequence", "opt_start_seq": sequence,
                  "ack_policy": "none", "replay_policy": "instant"}
        found = []
        self.api(f"CONSUMER.CREATE.{name}", found, stream_name=name, config=config)
        self._socket.settimeout(None)
        while True:
            for _, _, _, data, reply in found:
                # $JS.ACK.[domain.account.]stream.consumer.deliveries.SEQUENCE.of the consumer.time.pending[.token]
                words = reply.split(".")
                yield int(words[5 if len(words) == 9 else 7]), data
            found = [self._message()]

    def _message(self):
        """The next message: subject, subscription, header, payload, and where it wants its reply."""
        while True:
            words = self._line().split()
            if words[:1] == [b"PING"]:
                self._send(b"PONG\r\n")
            elif words[:1] in ([b"MSG"], [b"HMSG"]):
                data = self._file.read(int(words[-1]) + 2)[:-2]
                header = int(words[-2]) if words[0] == b"HMSG" else 0
                reply = words[3].decode() if len(words) == (6 if words[0] == b"HMSG" else 5) else None
                return words[1].decode(), int(words[2]), data[:header], data[header:], reply

    def acknowledge_as(self, stream, subject, subscribed):
        """Answers each message of a subject as that stream would, until the server closes the connection. Sets an event
        when it has told the server so."""
        self._subscriptions += 1
        self._send(f"SUB {subject} {self._subscriptions}\r\n".encode())
        subscribed.set()
        self._socket.settimeout(None)
        answer = json.dumps({"stream": stream, "seq": 1}).encode()
        try:
            while True:
                reply = self._message()[4]
                self._send(f"PUB {reply} {len(answer)}\r\n".encode() + answer + b"\r\n")
        except (NatsError, OSError):
            pass

    def request(self, subject, payload=b"", others=None):
        """The reply's payload; None when nobody takes the subject. Messages to other subscriptions go to a list."""
        self._subscriptions += 1
        number, inbox = self._subscriptions, f"_INBOX.test.{id(self)}.{self._subscriptions}"
        self._send(f"SUB {inbox} {number}\r\nPUB {subject} {inbox} {len(payload)}\r\n".encode() + payload + b"\r\n")
        while True:
            message = self._message()
            if message[1] == number:
                self._send(f"UNSUB {number}\r\n".encode())
                return None if message[2].startswith(b"NATS/1.0 503") else message[3]
            if others is not None:
                others.append(message)

    def api(self, api_name, others=None, **arguments):
        """A request to the API of JetStream."""
        payload = json.dumps(arguments).encode() if arguments else b""
        reply = self.request(f"$JS.API.{api_name}", payload, others)
        if reply is None:
            raise NatsError(f"nobody answers {api_name}")
        answer = json.loads(reply)
        if "error" in answer:
            raise NatsError(str(answer["error"]))
        return answer

    def make_stream(self, name="qmlogcache", subjects=("qmlogcache.>",), **config):
        return self.api(f"STREAM.CREATE.{name}", **{
            "name": name, "subjects": list(subjects), "retention": "limits", "storage": "file", "num_replicas": 1,
            "discard": "new", "max_msgs": -1, "max_bytes": -1, "duplicate_window": 600 * 10**9, **config})

    def change_stream(self, name="qmlogcache", **changes):
        config = self.api(f"STREAM.INFO.{name}")["config"]
        return self.api(f"STREAM.UPDATE.{name}", **{**config, **changes})

    def stream(self, name="qmlogcache"):
        return self.api(f"STREAM.INFO.{name}")

    def count(self, name="qmlogcache"):
        return self.stream(name)["state"]["messages"]

    def messages(self, name="qmlogcache"):
        """Subject, headers and payload of every message that the stream holds now."""
        count = self.count(name)
        self._subscriptions += 1
        number, inbox = self._subscriptions, f"_DELIVER.test.{id(self)}.{self._subscriptions}"
        self._send(f"SUB {inbox} {number}\r\n".encode())
        config = {"deliver_subject": inbox, "deliver_policy": "all", "ack_policy": "none", "replay_policy": "instant"}
        kept = []
        self.api(f"CONSUMER.CREATE.{name}", kept, stream_name=name, config=config)
        while len(kept) < count:
            kept.append(self._message())
        self._send(f"UNSUB {number}\r\n".encode())
        found = []
        for subject, _, header, data, _ in kept[:count]:
            lines = header.decode().split("\r\n")
            found.append((subject, dict(line.split(": ", 1) for line in lines[1:] if line), data))
        return found
