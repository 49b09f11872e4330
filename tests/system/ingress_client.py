"""A producer in Python, by docs/ingress-protocol.md: for what a test must know of each single record."""

import random
import socket
import struct
import threading
import uuid

KIND_WELCOME, KIND_ANSWER = 2, 4
EDR = 10100
COMBO = 10300


def combo_payload(kind, privilege, product, combo, record, flags=0):
    """The payload of a combo record; product and combo are bytes."""
    return struct.pack("<iiii64s64sI", kind, privilege, flags, 0, product, combo, len(record)) + record


class Connection:
    """One connection to the host. OSError when it is lost."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX)
        try:
            self._socket.connect(str(path))
            self._send(struct.pack("<B3x4sI", 1, b"QMIN", 1))
            welcome = self._frame()
        except BaseException:
            self._socket.close()
            raise
        if welcome[0] != KIND_WELCOME:
            raise AssertionError(f"no welcome but {welcome!r}")
        self.max_frame, self.window = struct.unpack_from("<II", welcome, 12)

    def close(self):
        self._socket.close()

    def send(self, message_type, request_id, sender, payload):
        """sender: a uuid.UUID."""
        self._send(struct.pack("<B3xIQ", 3, message_type, request_id) + sender.bytes_le + payload)

    def answer(self):
        """The next answer: request id and status."""
        frame = self._frame()
        if frame[0] != KIND_ANSWER:
            raise ConnectionError(f"the host ends the connection: {frame[8:]!r}")
        status, request_id = struct.unpack_from("<IQ", frame, 4)
        return request_id, status

    def _send(self, frame):
        self._socket.sendall(struct.pack("<I", len(frame)) + frame)

    def _frame(self):
        return self._bytes(*struct.unpack("<I", self._bytes(4)))

    def _bytes(self, count):
        chunks = []
        while count:
            chunk = self._socket.recv(count)
            if not chunk:
                raise ConnectionError("the host is gone")
            chunks.append(chunk)
            count -= len(chunk)
        return b"".join(chunks)


class LoadProducer(threading.Thread):
    """Sends numbered records, at most so many, until told to stop, connecting again whenever the host is there;
    remembers what became of each. A record is never sent twice: one whose answer was lost with the host may have been
    taken or not."""

    WINDOW = 24

    def __init__(self, path, name, seed, limit):
        super().__init__(name=name)
        self._limit = limit
        self._path = path
        self._random = random.Random(seed)
        self._sender = uuid.UUID(int=self._random.getrandbits(128))
        self._stopping = threading.Event()
        self._in_flight = {}
        self._lock = threading.Lock()
        self._sent = {}
        self._accepted = set()
        self.refused = 0
        self.unanswered = 0
        self.fault = None

    def sent(self):
        """All records that have ever left, by their key."""
        with self._lock:
            return dict(self._sent)

    def accepted(self):
        """The keys of the records that the host has said it has taken."""
        with self._lock:
            return set(self._accepted)

    def stop(self):
        self._stopping.set()
        self.join()

    def run(self):
        try:
            while not self._done():
                try:
                    connection = Connection(self._path)
                except OSError:
                    self._stopping.wait(0.01)
                    continue
                try:
                    self._serve(connection)
                except OSError:
                    self.unanswered += len(self._in_flight)
                    self._in_flight.clear()
                finally:
                    connection.close()
        except BaseException as fault:  # told by the test, which would otherwise only see too few records
            self.fault = fault

    def _done(self):
        return self._stopping.is_set() or len(self._sent) >= self._limit

    def _serve(self, connection):
        while self._in_flight or not self._done():
            if len(self._in_flight) < self.WINDOW and not self._done():
                self._send_one(connection)
                continue
            request_id, status = connection.answer()
            key = self._in_flight.pop(request_id)
            if status == 0:
                with self._lock:
                    self._accepted.add(key)
            else:
                self.refused += 1

    def _send_one(self, connection):
        number = len(self._sent)
        key = f"{self.name}-{number}".encode()
        size = 6000 if number % 100 == 0 else self._random.choice((0, 20, 60, 200, 400))
        record = key + b" " + self._random.randbytes(size).replace(b"\0", b"'")
        with self._lock:
            self._sent[key] = record
        self._in_flight[number] = key
        connection.send(EDR + self._random.randrange(4), number, self._sender, record)
