"""The broker side of MQTT 3.1.1, spoken by a test byte for byte on a raw loopback socket.

A test says what the broker expects and what it sends; nothing happens on its own. Every wait has a
deadline, and what comes instead of the expected bytes is shown in full.
"""

import contextlib
import socket
import struct
import threading
import time

from harness import DEADLINE, wait_until
from scripted_proc import unread_bytes

HOST = "127.0.0.1"
ACCEPTED = 0
NOT_AUTHORISED = 5
REFUSED_SUBSCRIPTION = 0x80


def utf8(text):
    raw = text if isinstance(text, bytes) else text.encode()
    return struct.pack("!H", len(raw)) + raw


def packet(first_byte, body=b""):
    length = len(body)
    coded = b""
    while True:
        length, digit = divmod(length, 128)
        coded += bytes([digit | (0x80 if length else 0)])
        if not length:
            return bytes([first_byte]) + coded + body


def connect(client_id="command_service", clean_session=True, keepalive=0):
    flags = 0x02 if clean_session else 0x00
    return packet(0x10, utf8("MQTT") + bytes([4, flags]) + struct.pack("!H", keepalive)
                  + utf8(client_id))


def connack(code=ACCEPTED):
    return packet(0x20, bytes([0, code]))


def subscribe(mid, topic_filter="in/cmd/+", qos=1):
    return packet(0x82, struct.pack("!H", mid) + utf8(topic_filter) + bytes([qos]))


def suback(mid, *granted):
    return packet(0x90, struct.pack("!H", mid) + bytes(granted))


def publish(topic, payload, qos=0, mid=None, retain=False, dup=False):
    first_byte = 0x30 | (0x08 if dup else 0) | qos << 1 | (0x01 if retain else 0)
    mid_bytes = b"" if mid is None else struct.pack("!H", mid)
    return packet(first_byte, utf8(topic) + mid_bytes + payload)


def puback(mid):
    return packet(0x40, struct.pack("!H", mid))


def pubrec(mid):
    return packet(0x50, struct.pack("!H", mid))


def pubrel(mid):
    return packet(0x62, struct.pack("!H", mid))


def pubcomp(mid):
    return packet(0x70, struct.pack("!H", mid))


DISCONNECT = packet(0xe0)


def options_to(listener):
    """pexctl's options that lead to whatever listens on `listener.port`."""
    return ["-h", HOST, "-p", str(listener.port)]


def connection_records(service):
    """(priority, message) of what the log tells about the connection: all of the category behind
    the two records of the start."""
    records = [record for record in service.records() if record.category == "server_comms"]
    assert records[0].message == "server comms service starting"
    assert records[1].message.startswith("Server comms config: ")
    return [(record.priority, record.message) for record in records[2:]]


class ScriptedBroker:
    """A listening socket; each accept() is the next connection of the client under test."""

    def __init__(self):
        self._listener = socket.create_server((HOST, 0))
        self.port = self._listener.getsockname()[1]
        self.name = f"{HOST}:{self.port}"  # as the daemon's log has it
        self._connections = []

    def accept(self, timeout=DEADLINE):
        self._listener.settimeout(timeout)
        sock, _ = self._listener.accept()
        connection = Connection(sock)
        self._connections.append(connection)
        return connection

    def accept_and_serve(self, timeout=DEADLINE):
        """The whole opening of a good connection: it is up and subscribed afterwards."""
        connection = self.accept(timeout)
        connection.expect(connect())
        connection.send(connack())
        connection.subscribed()
        return connection

    def refuse(self):
        """From here on attempts are refused, until listen(). What is connected stays connected."""
        self._listener.close()
        self._listener = socket.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind((HOST, self.port))  # so that nobody else takes the port

    def listen(self):
        self._listener.listen()

    def expect_no_connection(self):
        """For a daemon that has ended: it did not connect again before that."""
        self._listener.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            self._listener.accept()
            raise AssertionError("a connection came")

    def close(self):
        for connection in self._connections:
            connection.close()
        self._listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Connection:
    def __init__(self, sock):
        self._sock = sock
        self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def send(self, *packets):
        self._sock.sendall(b"".join(packets))

    def expect(self, *packets, timeout=DEADLINE):
        """The next bytes of the client are exactly these."""
        expected = b"".join(packets)
        received = self._receive(len(expected), timeout)
        assert received == expected, f"expected {expected!r}, received {received!r}"

    def expect_packet(self, timeout=DEADLINE):
        """The client's next packet, whatever it is."""
        deadline = time.monotonic() + timeout
        header = self._receive(2, timeout)
        while header[-1:] >= b"\x80":
            header += self._receive(1, deadline - time.monotonic())
        assert len(header) >= 2, f"expected a packet, received the end after {header!r}"
        length = sum((digit & 0x7f) << 7 * i for i, digit in enumerate(header[1:]))
        body = self._receive(length, deadline - time.monotonic())
        assert len(body) == length, f"expected a packet, received the end after {header + body!r}"
        return header + body

    def subscribed(self, granted=1):
        """Answers the subscription, whose message id is the client's own affair."""
        raw = self.expect_packet()
        mid = struct.unpack("!H", raw[2:4])[0]
        assert raw == subscribe(mid), f"not the subscription: {raw!r}"
        self.send(suback(mid, granted))
        return mid

    def result(self, topic, payload, dup=False):
        """Expects a QoS 2 result and returns its message id; acknowledges nothing."""
        raw = self.expect_packet()
        at = 2 + 2 + len(topic)  # holds for the short packets of these tests
        mid = struct.unpack("!H", raw[at:at + 2])[0]
        expected = publish(topic, payload, qos=2, mid=mid, retain=True, dup=dup)
        assert raw == expected, f"expected {expected!r}, received {raw!r}"
        return mid

    def acknowledge(self, mid):
        """The broker's half of QoS 2 for a result that has arrived."""
        self.send(pubrec(mid))
        self.expect(pubrel(mid))
        self.send(pubcomp(mid))

    def expect_end(self, timeout=DEADLINE):
        """The client closes the connection and sends nothing more before that."""
        received = self._receive(1, timeout)
        assert received == b"", f"expected the end, received {received!r}"

    def expect_silence(self, seconds):
        """For a wait that is itself the behaviour under test: nothing comes, not even an end."""
        self._sock.settimeout(seconds)
        with contextlib.suppress(socket.timeout):
            received = self._sock.recv(64)
            raise AssertionError(f"expected silence, received {received!r}")

    def flood(self, repeated):
        """Sends and sends; returns True once the client has gone."""
        self._sock.settimeout(DEADLINE)
        try:
            self._sock.sendall(repeated * 100)
        except ConnectionError:
            return True
        return False

    def wait_until_read(self):
        """Waits until the client has read everything that was sent."""
        local, remote = self._sock.getsockname()[1], self._sock.getpeername()[1]
        wait_until(lambda: not unread_bytes(remote, local), "the client to read")

    def half_close(self):
        """FIN, without a wait for the client's, who may have been quicker."""
        with contextlib.suppress(OSError):
            self._sock.shutdown(socket.SHUT_WR)

    def finish(self):
        """FIN; then whatever the client had still sent, up to its own end."""
        self.half_close()
        self._sock.settimeout(DEADLINE)
        with contextlib.suppress(ConnectionResetError):
            while self._sock.recv(4096):
                pass
        self._sock.close()

    def close(self):
        """FIN, or RST if the client sent something that was not read."""
        self._sock.close()

    def reset(self):
        """RST."""
        self._sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._sock.close()

    def _receive(self, count, timeout):
        deadline = time.monotonic() + timeout
        received = b""
        while len(received) < count:
            self._sock.settimeout(max(0.001, deadline - time.monotonic()))
            try:
                chunk = self._sock.recv(count - len(received))
            except ConnectionResetError:
                chunk = b""
            except socket.timeout:
                raise AssertionError(f"nothing more after {received!r}") from None
            if not chunk:
                break
            received += chunk
        return received


class TreatingBroker:
    """Treats every connection alike, in a thread of its own, and counts them."""

    def __init__(self, treatment):
        self._treatment = treatment
        self._broker = ScriptedBroker()
        self.port = self._broker.port
        self.attempts = 0
        self._stopping = False
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def close(self):
        self._stopping = True
        with contextlib.suppress(OSError):
            socket.create_connection((HOST, self.port)).close()
        self._thread.join()
        self._broker.close()

    def _run(self):
        while not self._stopping:
            with contextlib.suppress(socket.timeout):
                connection = self._broker.accept(timeout=1)
                if self._stopping:
                    return
                self.attempts += 1
                self._treatment(connection)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
