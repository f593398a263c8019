"""Stands between a daemon and its database server: lets the answers through, late, or not at all."""

import contextlib
import selectors
import socket
import threading
import time


class _Link:
    """One connection of a daemon, and ours to the server."""

    def __init__(self, client, server):
        self.client = client
        self.server = server
        self.held = []  # (when it may go, bytes) of what the server has answered


class Proxy:
    """`port` is where the daemon connects. One thread; end it by close().

    delay = seconds    each piece of an answer goes on so much later
    stall(after)       so many pieces of answers go on, and then none any more; questions still reach the server
    release()          what was held goes on
    """

    def __init__(self, server_port):
        self._server_port = server_port
        self.delay = 0
        self._allowed = None  # pieces that still go on; None: all
        self._links = []
        self.given_up = 0  # connections that the daemon has closed while an answer was held
        self.passed = 0  # pieces of answers
        self._lock = threading.Lock()  # of all of the above
        self._ending = False
        self._selector = selectors.DefaultSelector()
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=100)
        self._listener.setblocking(False)
        self.port = self._listener.getsockname()[1]
        self._selector.register(self._listener, selectors.EVENT_READ, None)
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def close(self):
        self._ending = True
        self._thread.join()
        for link in list(self._links):
            self._drop(link)
        self._listener.close()

    def stall(self, after=0):
        with self._lock:
            self._allowed = after

    def release(self):
        with self._lock:
            self._allowed = None

    def held(self):
        """Connections of the daemon that wait for an answer which the server has given."""
        with self._lock:
            return sum(bool(link.held) for link in self._links) if self._allowed == 0 else 0

    def _run(self):
        while not self._ending:
            for key, _ in self._selector.select(0.005):
                with self._lock:
                    if key.data is None:
                        self._accept()
                    else:
                        self._read(*key.data)
            with self._lock:
                self._pass_on()

    def _accept(self):
        client, _ = self._listener.accept()
        try:
            server = socket.create_connection(("127.0.0.1", self._server_port), 10)
        except OSError:
            client.close()
            return
        link = _Link(client, server)
        self._links.append(link)
        for side in (client, server):
            side.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._selector.register(side, selectors.EVENT_READ, (link, side))

    def _read(self, link, side):
        if link not in self._links:
            return
        try:
            read = side.recv(65536)
        except OSError:
            read = b""
        if side is link.server:
            if read:
                link.held.append((time.monotonic() + self.delay, read))
            else:
                self._drop(link)
        elif read:
            with contextlib.suppress(OSError):
                link.server.sendall(read)
        else:
            self.given_up += bool(link.held)
            self._drop(link)

    def _pass_on(self):
        now = time.monotonic()
        for link in list(self._links):
            while link.held and self._allowed != 0 and link.held[0][0] <= now:
                if self._allowed is not None:
                    self._allowed -= 1
                try:
                    link.client.sendall(link.held.pop(0)[1])
                    self.passed += 1
                except OSError:
                    self._drop(link)
                    break

    def _drop(self, link):
        if link in self._links:
            self._links.remove(link)
            for side in (link.client, link.server):
                self._selector.unregister(side)
                side.close()


__all__ = ["Proxy"]
