"""A TCP proxy between the daemon and a real broker, whose connections a test can cut."""

import contextlib
import selectors
import socket
import struct
import threading


class Proxy:
    """Forwards every connection to `broker`, in a thread of its own.

    cut() resets the connections of this moment on both sides; later ones are forwarded again.
    limit(n) lets n more bytes of the daemon through and then cuts, once.
    """

    host = "127.0.0.1"

    def __init__(self, broker):
        self._target = (broker.host, broker.port)
        self._listener = socket.create_server((self.host, 0))
        self.port = self._listener.getsockname()[1]
        self._peers = {}  # each socket's other side
        self._bytes_left = None
        self._lock = threading.Lock()
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._listener, selectors.EVENT_READ, self._accept)
        self._wake, waker = socket.socketpair()
        self._selector.register(waker, selectors.EVENT_READ, None)
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def cut(self):
        with self._lock:
            self._cut_all()

    def limit(self, bytes_of_the_daemon):
        with self._lock:
            self._bytes_left = bytes_of_the_daemon

    def close(self):
        self._wake.send(b"x")
        self._thread.join()
        self._cut_all()
        self._listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _run(self):
        while True:
            for key, _ in self._selector.select():
                if key.data is None:
                    return
                with self._lock:
                    key.data(key.fileobj)

    def _accept(self, listener):
        daemon, _ = listener.accept()
        try:
            broker = socket.create_connection(self._target)
        except OSError:
            daemon.close()
            return
        self._peers[daemon], self._peers[broker] = broker, daemon
        for sock, forward in ((daemon, self._from_daemon), (broker, self._from_broker)):
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._selector.register(sock, selectors.EVENT_READ, forward)

    def _from_daemon(self, sock):
        chunk = self._read(sock)
        if self._bytes_left is not None and len(chunk) >= self._bytes_left:
            chunk, cut = chunk[:self._bytes_left], True
            self._bytes_left = None
        else:
            cut = False
            if self._bytes_left is not None:
                self._bytes_left -= len(chunk)
        if chunk:
            self._peers[sock].sendall(chunk)
        if cut:
            self._cut_all()

    def _from_broker(self, sock):
        chunk = self._read(sock)
        if chunk:
            self._peers[sock].sendall(chunk)

    def _read(self, sock):
        """What came from this side; nothing if it has ended, which ends the other side too."""
        if sock not in self._peers:  # cut in the same round of the selector
            return b""
        chunk = b""
        with contextlib.suppress(OSError):
            chunk = sock.recv(65536)
        if not chunk:
            self._drop(self._peers[sock])
            self._drop(sock)
        return chunk

    def _cut_all(self):
        for sock in list(self._peers):
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self._drop(sock)

    def _drop(self, sock):
        self._selector.unregister(sock)
        del self._peers[sock]
        sock.close()
