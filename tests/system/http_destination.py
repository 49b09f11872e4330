"""An HTTP server on loopback for the tests of the http link: takes batches, and does what the test tells it to."""

import gzip
import http.server
import json
import socket
import ssl
import threading
import time


class Request:
    """One request as it came: its time, headers and records."""

    def __init__(self, handler, body):
        self.time = time.monotonic()
        self.path = handler.path
        self.headers = handler.headers
        self.connection = handler.client_address
        self.peer_certificate = handler.peer_certificate
        self.records = [json.loads(line) for line in gzip.decompress(body).splitlines()]
        self.ids = [record["id"] for record in self.records]


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def setup(self):
        super().setup()
        is_tls = isinstance(self.request, ssl.SSLSocket)
        self.peer_certificate = self.request.getpeercert() if is_tls else None
        self.server.destination.opened(self.request)

    def do_POST(self):
        self.server.destination.take(self, self.rfile.read(int(self.headers["Content-Length"])))

    def do_GET(self):  # nobody should
        self.server.destination.foreign.append(self.path)
        self.reply(200)

    def reply(self, status, headers=None, body=b""):
        self.send_response(status)
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class _Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    context = None

    def finish_request(self, request, client_address):
        if self.context is not None:  # on the connection's own thread
            request.settimeout(30)
            with self.context.wrap_socket(request, server_side=True) as connection:
                super().finish_request(connection, client_address)
        else:
            super().finish_request(request, client_address)

    def handle_error(self, request, client_address):
        pass  # hosts that hang up, and handshakes that fail, are part of the tests


class Destination:
    """answer(request, handler) says what becomes of a request: a status, a status with headers, or None when it has
    dealt with the connection itself. What is answered with 2xx counts as arrived."""

    def __init__(self, context=None):
        self._lock = threading.Lock()
        self._server = None
        self._sockets = set()
        self._context = context
        self.port = 0
        self.answer = lambda request, handler: 200
        self.requests = []
        self.arrived = []  # records, repeats included
        self.foreign = []
        self.connections = 0

    def start(self):
        """On the port of the last start, if there was one."""
        self._server = _Server(("127.0.0.1", self.port), _Handler)
        self._server.destination = self
        self._server.context = self._context
        self.port = self._server.server_address[1]
        threading.Thread(target=self._server.serve_forever, args=(0.02,), daemon=True).start()

    def stop(self):
        """No connection is left, and none is taken."""
        if self._server is None:
            return
        self._server.shutdown()
        self._server.server_close()
        self._server = None
        with self._lock:
            sockets, self._sockets = self._sockets, set()
        for connection in sockets:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def opened(self, connection):
        with self._lock:
            self._sockets.add(connection)
            self.connections += 1

    def take(self, handler, body):
        request = Request(handler, body)
        with self._lock:
            self.requests.append(request)
        answer = self.answer(request, handler)
        if answer is None:
            handler.close_connection = True
            return
        status, headers = answer if isinstance(answer, tuple) else (answer, None)
        if 200 <= status < 300:
            with self._lock:
                self.arrived.extend(request.records)
        handler.reply(status, headers)

    def messages(self):
        """What has arrived, each record once."""
        with self._lock:
            return {record["id"]: record.get("message") for record in self.arrived}

    def seen(self):
        with self._lock:
            return list(self.requests)
