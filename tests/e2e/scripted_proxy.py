"""A TCP proxy between the daemon and a real broker. It holds packets back and cuts connections."""

import contextlib
import fcntl
import selectors
import socket
import struct
import termios
import threading
import time

from harness import DEADLINE, wait_until
from scripted_proc import unread_bytes

DAEMON = "daemon"
BROKER = "broker"
ANY = "any"

_KINDS = ("", "CONNECT", "CONNACK", "PUBLISH", "PUBACK", "PUBREC", "PUBREL", "PUBCOMP",
          "SUBSCRIBE", "SUBACK", "UNSUBSCRIBE", "UNSUBACK", "PINGREQ", "PINGRESP", "DISCONNECT", "")


def first_packet_length(raw):
    """The length of the packet that `raw` begins with, or None as long as its end is missing."""
    length = 0
    for at, digit in enumerate(raw[1:5], start=1):
        length |= (digit & 0x7f) << 7 * (at - 1)
        if digit < 0x80:
            length += at + 1
            return length if length <= len(raw) else None
    return None


class Flow:
    """One direction of one connection."""

    def __init__(self, sender, source, target):
        self.sender = sender
        self.source = source
        self.target = target
        self.unparsed = b""
        self.waiting = []  # a packet that is held back, and those behind it
        self.slow_bytes = b""  # what passes byte by byte


class Hold:
    """An order to the proxy to keep one packet back, with all that follows it the same way."""

    def __init__(self, proxy, sender, kind):
        self.sender = sender
        self.packet = None
        self._proxy = proxy
        self._kind = kind
        self._flow = None
        self._caught = threading.Event()

    def matches(self, sender, kind):
        return sender == self.sender and self._kind in (kind, ANY)

    def catch(self, flow, packet):
        self._flow = flow
        self.packet = packet
        self._caught.set()

    def wait(self):
        assert self._caught.wait(DEADLINE), f"no {self._kind} of the {self.sender} came"
        return self

    def release(self):
        """Lets everything go on; nothing if the connection has ended."""
        self._proxy.release(self._flow, self.packet)

    def cut(self, size):
        """The other side gets so many bytes of the packet, and then a reset."""
        self._proxy.pass_and_cut(self._flow, self.packet[:size])


class Proxy:
    """Forwards every connection to `broker`, packet by packet, in a thread of its own.

    cut() resets the connections of this moment on both sides; later ones are forwarded again.
    limit(n) lets n more bytes of the daemon through and then cuts, once. hold() keeps a packet
    back. slow() passes so many bytes a second each way. From shut() to open(), a new connection is
    taken and nothing else: to the broker, the daemon is away.
    """

    def __init__(self, broker):
        self.host = broker.host
        self._target = (broker.host, broker.port)
        self._listener = socket.create_server((self.host, 0))
        self.port = self._listener.getsockname()[1]
        self._flows = {}  # by the socket that they come from
        self._holds = []
        self._passed = []
        self._bytes_left = None
        self._pause = None  # between two bytes
        self._lock = threading.RLock()
        self._selector = selectors.DefaultSelector()
        self._wake, waker = socket.socketpair()
        self._selector.register(waker, selectors.EVENT_READ, self._woken)
        self._stopping = False
        self.open()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def cut(self):
        with self._lock:
            self._cut_all()

    def limit(self, bytes_of_the_daemon):
        with self._lock:
            self._bytes_left = bytes_of_the_daemon

    def hold(self, sender, kind):
        """Holds back the next packet of this kind, such as "PUBREL", that `sender` sends."""
        with self._lock:
            self._holds.append(Hold(self, sender, kind))
            return self._holds[-1]

    def slow(self, bytes_a_second):
        with self._lock:
            self._pause = 1 / bytes_a_second
        self._wake.send(b"x")

    def shut(self):
        with self._lock:
            self._selector.unregister(self._listener)

    def open(self):
        with self._lock:
            self._selector.register(self._listener, selectors.EVENT_READ, self._accept)

    def wait_until_empty(self):
        wait_until(lambda: not self._flows, "the end of the connection")

    def wait_until_passed(self, sender, kind, count=1):
        """Waits until so many of these packets are with the other side, read or not."""
        wait_until(lambda: self.has_passed(sender, kind, count), f"{count} {kind} of the {sender}")

    def has_passed(self, sender, kind, count):
        with self._lock:
            return self._passed.count((sender, kind)) >= count and not any(
                has_bytes_on_their_way(flow.target) for flow in self._flows.values()
                if flow.sender == sender)

    def release(self, flow, packet):
        """Lets `packet` pass, and those behind it, if it is still held back."""
        with self._lock:
            if self._flows.get(flow.source) is not flow or packet not in flow.waiting[:1]:
                return
            packets, flow.waiting = flow.waiting, []
            self._pass(flow, packets[0])
            for packet in packets[1:]:
                self._arrived(flow, packet)

    def pass_and_cut(self, flow, raw):
        with self._lock:
            # Whatever else is sent from here on is lost, in both directions.
            for sock in (flow.source, flow.target):
                self._selector.unregister(sock)
                del self._flows[sock]
            flow.target.sendall(raw)
        wait_until(lambda: is_read(flow.target), "the bytes before the cut to be read")
        for sock in (flow.source, flow.target):
            reset(sock)

    def close(self):
        self._stopping = True
        self._wake.send(b"x")
        self._thread.join()
        self._cut_all()
        self._listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _run(self):
        next_byte = 0
        while not self._stopping:
            events = self._selector.select(self._pause)
            with self._lock:
                for key, _ in events:
                    key.data(key.fileobj)
                if self._pause is not None and time.monotonic() >= next_byte:
                    next_byte = time.monotonic() + self._pause
                    self._pass_one_byte_each()

    def _woken(self, waker):
        waker.recv(1)

    def _accept(self, listener):
        daemon, _ = listener.accept()
        try:
            broker = socket.create_connection(self._target)
        except OSError:
            daemon.close()
            return
        for sender, source, target in ((DAEMON, daemon, broker), (BROKER, broker, daemon)):
            source.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._flows[source] = Flow(sender, source, target)
            self._selector.register(source, selectors.EVENT_READ, self._read)

    def _read(self, sock):
        flow = self._flows.get(sock)
        if flow is None:  # cut in the same round of the selector
            return
        chunk = b""
        with contextlib.suppress(OSError):
            chunk = sock.recv(65536)
        if not chunk:  # the end of this side ends the other side, too
            self._drop(flow.target)
            self._drop(sock)
            return
        flow.unparsed += chunk
        while length := first_packet_length(flow.unparsed):
            packet, flow.unparsed = flow.unparsed[:length], flow.unparsed[length:]
            self._arrived(flow, packet)

    def _arrived(self, flow, packet):
        if flow.waiting:
            flow.waiting.append(packet)
            return
        for hold in self._holds:
            if hold.matches(flow.sender, _KINDS[packet[0] >> 4]):
                self._holds.remove(hold)
                flow.waiting.append(packet)
                hold.catch(flow, packet)
                return
        self._pass(flow, packet)

    def _pass(self, flow, packet):
        if self._flows.get(flow.source) is not flow:  # cut within what was read at once
            return
        if self._pause is not None:
            flow.slow_bytes += packet
            return
        if flow.sender == DAEMON and self._bytes_left is not None:
            packet = packet[:self._bytes_left]
            self._bytes_left -= len(packet)
        with contextlib.suppress(OSError):  # the target's end will be read, too
            flow.target.sendall(packet)
        self._passed.append((flow.sender, _KINDS[packet[0] >> 4]))
        if self._bytes_left == 0:
            self._bytes_left = None
            self._cut_all()

    def _pass_one_byte_each(self):
        for flow in self._flows.values():
            if flow.slow_bytes:
                with contextlib.suppress(OSError):
                    flow.target.sendall(flow.slow_bytes[:1])
                flow.slow_bytes = flow.slow_bytes[1:]

    def _cut_all(self):
        for sock in list(self._flows):
            self._selector.unregister(sock)
            del self._flows[sock]
            reset(sock)

    def _drop(self, sock):
        self._selector.unregister(sock)
        del self._flows[sock]
        sock.close()


def is_read(sock):
    """Whether the other side has read all that was sent."""
    return not (has_bytes_on_their_way(sock) or
                unread_bytes(sock.getpeername()[1], sock.getsockname()[1]))


def has_bytes_on_their_way(sock):
    """Whether the other side's kernel has not confirmed all that was sent."""
    return fcntl.ioctl(sock, termios.TIOCOUTQ, bytes(4)) != bytes(4)


def reset(sock):
    """RST."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()
