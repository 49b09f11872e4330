"""A proxy on loopback between a host and a nats-server, which can keep the server's answers from the host."""

import re
import socket
import threading

DUPLICATE = re.compile(rb'"duplicate": ?true')
ACKNOWLEDGEMENT = re.compile(rb'"seq":')
# Longer than what the patterns find.
OVERLAP = 32


class _Connection:
    def __init__(self, client, server):
        self.client, self.server = client, server
        self.withheld = False

    def close(self):
        for one in (self.client, self.server):
            try:
                one.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


class NatsProxy:
    def __init__(self, server):
        self._port = server.port
        self._lock = threading.Lock()
        self._connections = []
        # Acknowledgements that were withheld; repeats that the stream has dropped, by its word.
        self.withheld = 0
        self.duplicates = 0
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"nats://127.0.0.1:{self._listener.getsockname()[1]}"
        threading.Thread(target=self._accept, daemon=True).start()

    def close(self):
        self._listener.close()
        self.cut()

    def withhold(self):
        """Nothing more reaches the clients that are connected now."""
        with self._lock:
            for connection in self._connections:
                connection.withheld = True

    def cut(self):
        """Ends the connections that there are now."""
        with self._lock:
            for connection in self._connections:
                connection.close()

    def _accept(self):
        while True:
            try:
                client = self._listener.accept()[0]
            except OSError:
                return
            try:
                connection = _Connection(client, socket.create_connection(("127.0.0.1", self._port)))
            except OSError:
                client.close()
                continue
            with self._lock:
                self._connections.append(connection)
            for pump in (self._to_server, self._to_client):
                threading.Thread(target=self._run, args=(connection, pump), daemon=True).start()

    @staticmethod
    def _run(connection, pump):
        try:
            pump(connection)
        except OSError:
            pass
        connection.close()

    @staticmethod
    def _to_server(connection):
        while data := connection.client.recv(65536):
            connection.server.sendall(data)

    def _to_client(self, connection):
        """What is found at the end of one piece is found again with the next one, and counted there only."""
        tail = b""
        while data := connection.server.recv(65536):
            text = tail + data
            with self._lock:
                withheld = connection.withheld
                known = len(ACKNOWLEDGEMENT.findall(tail)), len(DUPLICATE.findall(tail))
                if withheld:
                    self.withheld += len(ACKNOWLEDGEMENT.findall(text)) - known[0]
                else:
                    self.duplicates += len(DUPLICATE.findall(text)) - known[1]
            tail = text[-OVERLAP:]
            if not withheld:
                connection.client.sendall(data)
