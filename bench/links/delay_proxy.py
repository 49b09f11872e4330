"""A TCP proxy on loopback that stands for a long way: what it passes on arrives half a round trip later, in either
direction. The bandwidth has no bound. Closed, it stands for a server that is away."""

import asyncio
import collections
import selectors
import threading

PATIENCE = 30
# What follows the last byte of a connection's one direction, and of both.
END, CLOSED = object(), object()


class Loop:
    """An event loop in a thread of its own. Its waits are as fine as the clock; epoll's end at whole milliseconds."""

    def __init__(self):
        self.loop = asyncio.SelectorEventLoop(selectors.SelectSelector())
        self._thread = threading.Thread(target=self.loop.run_forever, daemon=True)
        self._thread.start()

    def run(self, coroutine):
        """Runs it there to its end; for other threads."""
        return asyncio.run_coroutine_threadsafe(coroutine, self.loop).result(PATIENCE)

    def stop(self):
        self.loop.call_soon_threadsafe(self.loop.stop)
        self._thread.join(PATIENCE)
        self.loop.close()


class DelayProxy:
    def __init__(self, loop, behind):
        """behind: the port of the real server."""
        self.port = 0  # the same whenever it is opened again
        self.round_trip = 0.0  # seconds; changed only while nothing is on its way
        self.behind = behind
        self.ends = set()
        self._loop = loop
        self._server = None

    def open(self):
        self._loop.run(self._open())

    def close(self):
        """Nobody listens any more, and every connection ends without what was on its way."""
        self._loop.run(self._close())

    async def _open(self):
        self._server = await self._loop.loop.create_server(lambda: _NearEnd(self), "127.0.0.1", self.port, backlog=1024)
        self.port = self._server.sockets[0].getsockname()[1]

    async def _close(self):
        if self._server is not None:
            self._server.close()
            self._server = None
        for end in list(self.ends):
            end.transport.abort()


class _End(asyncio.Protocol):
    """One of a connection's two ends."""

    def __init__(self, proxy):
        self.proxy = proxy
        self.transport = None
        self.other = None
        self.ended = False  # all that was read here has arrived at the other end
        self._under_way = collections.deque()  # what was read here, and when it is due at the other end

    def connection_made(self, transport):
        self.transport = transport
        self.proxy.ends.add(self)

    def data_received(self, data):
        self._send(data)

    def eof_received(self):
        self._send(END)
        return True  # the other direction goes on

    def connection_lost(self, _):
        self.proxy.ends.discard(self)
        self._send(CLOSED)

    def _send(self, data):
        loop = asyncio.get_running_loop()
        if not self.proxy.round_trip and not self._under_way:
            self._arrive(data)
            return
        due = loop.time() + self.proxy.round_trip / 2
        self._under_way.append((due, data))
        if len(self._under_way) == 1:
            loop.call_at(due, self._arrive_due)

    def _arrive_due(self):
        loop = asyncio.get_running_loop()
        while self._under_way:
            due, data = self._under_way[0]
            if due > loop.time():
                loop.call_at(due, self._arrive_due)
                return
            self._under_way.popleft()
            self._arrive(data)

    def _arrive(self, data):
        end = self.other.transport if self.other is not None else None
        if end is None or end.is_closing():
            return
        if data is END:
            self.ended = True
            try:
                end.write_eof()
            except OSError:  # it has been reset, and nobody has looked yet
                end.abort()
        if data is CLOSED or (data is END and self.other.ended):
            end.close()
            self.transport.close()
        elif data is not END:
            end.write(data)


class _NearEnd(_End):
    """Towards the client. It is not read before the server's end is there."""

    def connection_made(self, transport):
        super().connection_made(transport)
        transport.pause_reading()
        self._connecting = asyncio.ensure_future(self._connect())

    async def _connect(self):
        far = _End(self.proxy)
        far.other, self.other = self, far
        try:
            await asyncio.get_running_loop().create_connection(lambda: far, "127.0.0.1", self.proxy.behind)
        except OSError:
            self.transport.abort()
            return
        if self.transport.is_closing():
            far.transport.abort()
        else:
            self.transport.resume_reading()
