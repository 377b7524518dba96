"""The clients of a siege: what they send, and how. See scripts/siege."""

import contextlib
import itertools
import multiprocessing
import signal
import socket
import struct
import threading
import time

LIMIT = 1 << 20  # message_size_limit of examples/mosquitto/dock.conf
HEAD = b"\x82\xaalua_script\xa1x\xa4args"
ROOM = LIMIT - len(HEAD)
CONNECTIONS = 100  # of each kind of bursts
MOST_BURSTS = 12


def string(content):
    return b"\xdb" + len(content).to_bytes(4, "big") + content


def request(name, text):
    return b"\x82\xaalua_script" + string(name.encode()) + b"\xa4args" + string(text.encode())


def filled_with(start, unit, room=ROOM):
    """An array or a map of as many units as fit."""
    count = (room - 5) // len(unit)
    return start + count.to_bytes(4, "big") + count * unit


def colliding(count):
    """A map whose keys are too small to change 1 by being added: Lua's hash is the same for all,
    so each further key takes longer."""
    keys = (b"\xca" + key.to_bytes(4, "big") + b"\x01" for key in range(1, count + 1))
    return b"\xdf" + count.to_bytes(4, "big") + b"".join(keys)


DEEP = b"\x91" * 999000 + b"\x90"  # nearly as deep as Lua's stack lets it be
LARGEST = [HEAD + args for args in (
    string(b"x" * (ROOM - 5)),
    filled_with(b"\xdd", b"\x01"),
    filled_with(b"\xdd", b"\xa0"),
    filled_with(b"\xdd", b"\x90"),
    filled_with(b"\xdd", b"\x91\x91\x91\x90"),
    filled_with(b"\xdf", b"\x90\x90"),
    b"\x81\x01" * 499000 + b"\x90",
    b"\x81" * 499000 + b"\x90" + b"\x01" * 499000,
    b"\x92" + DEEP + filled_with(b"\xdd", b"\x90", ROOM - len(DEEP) - 1),
    b"\x91" * (ROOM - 1) + b"\x90",  # too deep
    colliding(2000),
)]
# The reason repeats the name, so the answer is larger than the request, and the broker drops it.
LONG_NAME = b"\x82\xaalua_script" + string(b"n" * (LIMIT - 23)) + b"\xa4args\xc0"
assert len(LONG_NAME) == LIMIT
PROMISES = [b"\xdf\xff\xff\xff\xff", b"\xdd\xff\xff\xff\xff", b"\xdb\xff\xff\xff\xff",
            b"\xc9\xff\xff\xff\xff", HEAD + b"\xdf\xff\xff\xff\xff\x01",
            HEAD + b"\xdd\xff\xff\xff\xff" + b"\x90" * 1000, b"\xc1", b"\x82\xaalua_script"]
NAMES = [b"\x82\xaalua_script" + string(name) + b"\xa4args\xc0" for name in (
    b"../../../etc/passwd", b"/etc/passwd", b"x.lua\0../../x", b"\0", b".", b"..", b"",
    b"a\nb", b"\xff\xfe", b"%s%n", b"x" * 100000)]
# Map keys that Lua cannot hold: nil, NaN in both widths, and nil within other values.
KEYS = [HEAD + args for args in (b"\x81\xc0\x01", b"\x81\xcb\x7f\xf8\0\0\0\0\0\0\x01",
                                 b"\x81\xca\x7f\xc0\0\0\x01", b"\x91\x81\x01\x81\xc0\xc0")]


def text(content):
    return struct.pack(">H", len(content)) + content


def packet(kind, body):
    """An MQTT packet: type and flags, the length of the rest in groups of 7 bits, the rest."""
    size, length = len(body), b""
    while True:
        size, digit = divmod(size, 128)
        length += bytes([digit | (128 if size else 0)])
        if not size:
            return bytes([kind]) + length + body


def publish_packet(topic, payload, qos, retain=False):
    topic = topic.encode() if isinstance(topic, str) else topic
    mid = b"\0\x01" if qos else b""  # the broker minds no reused number with QoS 1
    return packet(0x30 | qos << 1 | retain, text(topic) + mid + payload)


def connect_packet(client_id=b""):
    return packet(0x10, text(b"MQTT") + b"\x04\x02\0\0" + text(client_id))


class Peer:
    """A bare MQTT client, which can do what a library would not. A thread of its own reads, and
    acknowledges what comes with QoS 1, unless `deaf`."""

    def __init__(self, path, on_message=lambda topic, payload: None, deaf=False):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(str(path))
        self._socket.sendall(connect_packet())
        self._on_message = on_message
        self._lock = threading.Lock()
        if not deaf:
            threading.Thread(target=self._read, daemon=True).start()

    def publish(self, topic, payload, qos, retain=False):
        self.send(publish_packet(topic, payload, qos, retain))

    def send(self, data):
        with self._lock:
            self._socket.sendall(data)

    def subscribe(self, topic_filter, qos=0):
        """What is published on this connection from now on finds the subscription there."""
        self.send(packet(0x82, b"\0\x01" + text(topic_filter.encode()) + bytes([qos])))

    def unsubscribe(self, topic_filter):
        self.send(packet(0xa2, b"\0\x01" + text(topic_filter.encode())))

    def await_broker(self):
        """Returns when the broker has taken all that was sent. For the `deaf`, who have no other
        use for what comes."""
        self.send(b"\xc0\0")
        end = b""
        while end != b"\xd0\0":  # the answer to the ping; nothing else that comes ends like that
            data = self._socket.recv(1 << 16)
            if not data:
                raise OSError("the broker ended the connection")
            end = (end + data)[-2:]

    def close(self):
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()

    def _read(self):
        with contextlib.suppress(OSError, IndexError), self._socket.makefile("rb") as stream:
            while True:
                kind, size, shift, digit = stream.read(1)[0], 0, 0, 128
                while digit & 128:
                    digit = stream.read(1)[0]
                    size |= (digit & 127) << shift
                    shift += 7
                self._take(kind, stream.read(size))

    def _take(self, kind, body):
        if kind & 0xf0 != 0x30:
            return
        end = 2 + struct.unpack(">H", body[:2])[0]
        topic, rest = body[2:end], body[end:]
        if kind & 0x06:
            self.send(b"\x40\x02" + rest[:2])
            rest = rest[2:]
        self._on_message(topic, rest)


class Attack:
    """What an attack has at hand: the broker's socket, and a count of what was sent."""

    def __init__(self, path, burst, count):
        self.path, self.burst, self._count = path, burst, count

    def peer(self, **options):
        return contextlib.closing(Peer(self.path, **options))

    def sent(self, number=1):
        self._count.value += number

    def total(self):
        return self._count.value

    def publish(self, peer, topic, payload, retain=False):
        """With QoS 1: the broker bounds what it queues of that by its size, too."""
        peer.publish(topic, payload, 1, retain)
        self.sent()


def send_in_turn(attack, payloads, job):
    """One request at a time, each when the one before is answered, as it takes much to handle."""
    answered = threading.Event()

    def on_message(topic, payload):
        if payload:
            answered.set()

    with attack.peer(on_message=on_message) as peer:
        peer.subscribe("out/cmd/" + job)
        for payload in itertools.cycle(payloads):
            answered.clear()
            attack.publish(peer, "in/cmd/" + job, payload)
            answered.wait(10)  # it may have been dropped


def largest(attack):
    send_in_turn(attack, LARGEST, "largest")


def long_names(attack):
    with attack.peer() as peer:
        while True:
            for _ in range(max(1, attack.burst // 2500)):
                attack.publish(peer, "in/cmd/name", LONG_NAME)
            time.sleep(10)


def promises(attack):
    send_in_turn(attack, PROMISES, "promises")


def names(attack):
    send_in_turn(attack, NAMES, "names")


def send_bursts(attack, qos):
    """Many requests at once, as small as they can be, from a hundred connections: the broker takes
    one packet from each in turn.

    With QoS 0 what reaches the daemon has no bound over time: it keeps each result until the broker
    has taken it, so the number of bursts has an end. Worse, while more than max_queued_messages
    packets wait for the daemon, mosquitto drops its acknowledgements to it as well.
    """
    share = attack.burst // CONNECTIONS
    chunk = share * publish_packet(f"in/cmd/{qos}", HEAD + b"\xc0", qos)
    with contextlib.ExitStack() as peers:
        senders = [peers.enter_context(attack.peer(deaf=True)) for _ in range(CONNECTIONS)]
        while attack.total() < MOST_BURSTS * attack.burst:
            for peer in senders:
                peer.send(chunk)
                attack.sent(share)
            for peer in senders:
                peer.await_broker()  # so no burst but the last is counted that it has not read
            time.sleep(1.5)
        while True:
            time.sleep(60)


def bursts_QoS_0(attack):
    send_bursts(attack, 0)


def bursts_QoS_1(attack):
    send_bursts(attack, 1)


def topics(attack):
    """Job ids that are too long for a result, as long as they may be, and of odd bytes."""
    long = [b"t" * size for size in (65528, 65527, 60000)]
    odd = [b"", b" ", b"%s%n", b"<0>", b"a\x7f", b"\xf0\x9f\x92\xa3", b"\xef\xbf\xbd", b"$SYS"]
    with attack.peer() as peer:
        for job in itertools.cycle(long + odd):
            for payload in (HEAD + b"\xc0", b""):
                attack.publish(peer, b"in/cmd/" + job, payload)
            time.sleep(0.2)


def broken_topics(attack):
    """Topics that the broker ends the connection for."""
    for topic in itertools.cycle([b"in/cmd/\xff", b"in/cmd/a\0b", b"in/cmd/+", b"in/cmd/#", b""]):
        with contextlib.suppress(OSError), attack.peer() as peer:
            attack.publish(peer, topic, HEAD + b"\xc0")
        time.sleep(0.005)


def retained(attack):
    with attack.peer() as peer:
        for number in itertools.count():
            payload = HEAD + b"\xc0" if number % 100 < 50 else b""
            attack.publish(peer, f"in/cmd/retained-{number % 50}", payload, retain=True)
            time.sleep(0.02)


def follow(attack, strike):
    """Calls strike(peer, job) for each job of the honest client as soon as it is seen."""
    def on_message(topic, payload):
        if topic.startswith(b"in/cmd/honest-") and payload:
            strike(peer, topic.removeprefix(b"in/cmd/"))

    with attack.peer(on_message=on_message) as peer:
        peer.subscribe("in/cmd/+")
        while True:
            peer.send(b"\xc0\0")  # fails when the broker has ended the connection
            time.sleep(1)


def withdrawals(attack):
    follow(attack, lambda peer, job: attack.publish(peer, b"in/cmd/" + job, b""))


def forged(attack):
    def strike(peer, job):
        for payload in (b"forged", b""):
            attack.publish(peer, b"out/cmd/" + job, payload, retain=True)

    follow(attack, strike)


def deaf(attack):
    """Subscribes to everything, and reads nothing."""
    with contextlib.ExitStack() as peers:
        for number in range(30):
            peer = peers.enter_context(attack.peer(deaf=True))
            peer.subscribe(("#", "in/cmd/+", "out/cmd/+")[number % 3], number // 3 % 3)
            attack.sent()
        while True:
            peer.send(b"\xc0\0")  # and asks whether the broker is there
            time.sleep(0.1)


def halves(attack):
    """Packets that never end, left open a while, and cut off."""
    begun = [connect_packet()[:5], connect_packet() + b"\x32\xff\xff\x3f\0\x08in/cmd/7",
             connect_packet() + publish_packet("in/cmd/7", HEAD + b"\xc0", 1)[:-3],
             connect_packet() + b"\x32\xff\xff\xff\x7f", b"\xff" * 100, b"GET / HTTP/1.1\r\n\r\n"]
    held = []
    for data in itertools.cycle(begun):
        peer = socket.socket(socket.AF_UNIX)
        peer.connect(str(attack.path))
        peer.sendall(data)
        attack.sent()
        held.append(peer)
        if len(held) > 50:
            held.pop(0).close()
        time.sleep(0.005)


def connections(attack):
    for number in itertools.count():
        with socket.socket(socket.AF_UNIX) as peer:
            peer.connect(str(attack.path))
            if number % 2:
                peer.sendall(connect_packet())
            attack.sent()
        time.sleep(0.02)


def named(*attacks):
    return {attack.__name__.replace("_", " "): attack for attack in attacks}


# The quiet ones leave room in the broker's queue for the daemon, the loud ones do not.
QUIET = named(promises, names, topics, broken_topics, retained, withdrawals, forged, deaf, halves,
              connections)
LOUD = named(bursts_QoS_0, bursts_QoS_1, largest, long_names)
ATTACKS = {**QUIET, **LOUD}


def run(attack_function, attack):
    """In a process of its own. Begins again after what the broker answers by a disconnect."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # Ctrl-C is for who started it
    while True:
        with contextlib.suppress(OSError):
            attack_function(attack)
        time.sleep(0.02)


class Attackers:
    """One process for each attack that is under way."""

    def __init__(self, path, burst):
        self._counts = {name: multiprocessing.Value("q", 0, lock=False) for name in ATTACKS}
        self._path, self._burst = path, burst
        self._processes = []

    def start(self, attacks):
        for name in attacks:
            attack = Attack(self._path, self._burst, self._counts[name])
            process = multiprocessing.Process(target=run, args=(ATTACKS[name], attack),
                                              daemon=True)
            process.start()
            self._processes.append(process)

    def stop(self):
        for process in self._processes:
            process.kill()
            process.join()
        self._processes = []

    def have_sent(self, attacks):
        return all(self._counts[name].value for name in attacks)

    def counts(self):
        return {name: count.value for name, count in self._counts.items()}
