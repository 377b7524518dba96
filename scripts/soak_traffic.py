"""The traffic of a soak: jobs whose answers are known beforehand, the connection that sends and
receives, and the ledger that accounts for every one of them.
"""

import collections
import random
import select
import socket
import string
import time

import msgpack

RIGHT, AFTER_LOSS, REDELIVERED, REPUBLISHED, SENT_AGAIN, WRONG, MISSING = OUTCOMES = (
    "right", "after a loss", "redelivered", "republished", "sent again", "wrong", "missing")
COPIES = (REDELIVERED, REPUBLISHED)  # the broker sent an answer twice, or the service did

SCRIPTS = {
    "echo": "return args",
    "nested": 'return args.list[2].b[3].c .. "/" .. args.job .. "/" .. #args.list',
    "compute": 'local sum = 0 for i = 1, args.n do sum = sum + i end return args.job .. ":" .. sum',
    "repeat": 'return args.job .. ":" .. ("y"):rep(args.size)',
    "fails": 'error("no such device " .. args)',
    "broken": "return return",
    "silent": "leftover = args",
}
_NOISE = "".join(random.Random("noise").choices(string.ascii_letters, k=1 << 20))
_MALFORMED = [
    (b"\xc1", "parse error"),
    (b"\x82\xa4", "insufficient bytes"),
    (b"\xc0", "Expected the command request dictionary with args and lua_script entries"),
    (b"\x81\x01\x02", "std::bad_cast"),
    (b"\x82\xaalua_script\x01\xa4args\xc0", "std::bad_cast"),
    (b"\x81\xa4args\xc0", "Can't decipher message. Expected the command request dictionary with "
                          "args and lua_script entries"),
    (b"\x82\xaalua_script\xa0\xa4args\xc0", "Can't decipher message. Expected the command request "
                                            "dictionary with args and lua_script entries"),
]


def _request(script, args):
    return msgpack.packb({"lua_script": script, "args": args})


def _failure(reason):
    return msgpack.packb({"status": False, "reason": reason})


def _small(number, dice):
    args = number if dice % 2 else f"job {number}"
    return _request("echo", args), str(args).encode()


def _text(number, size):
    text = f"{number}:{_NOISE[:size]}"
    return _request("echo", text), text.encode()


def _nested(number, dice):
    tree = {"job": number, "more": [[[[dice % 99]]], {"": None}, True, 1.5],
            "list": [{"a": 1}, {"b": [1, 2, {"c": f"deep {dice % 99}"}]}]}
    return _request("nested", tree), f"deep {dice % 99}/{number}/2".encode()


def _compute(number, dice):
    count = dice % 5000
    return (_request("compute", {"job": number, "n": count}),
            f"{number}:{count * (count + 1) // 2}".encode())


def _repeat(number, dice):
    size = dice % 20000
    return _request("repeat", {"job": number, "size": size}), b"%d:" % number + b"y" * size


def _malformed(number, dice):
    payload, reason = _MALFORMED[dice % len(_MALFORMED)]
    return payload, _failure(reason)


# Of 1000 jobs so many are of the kind: (name, share, what makes request and answer)
_KINDS = [
    ("small values", 330, _small),
    ("text up to 2 KB", 250, lambda number, dice: _text(number, 100 + dice % 1900)),
    ("text up to 100 KB", 50, lambda number, dice: _text(number, 2000 + dice % 98000)),
    ("text of 1 MB", 1, lambda number, dice: _text(number, len(_NOISE))),
    ("nested maps", 120, _nested),
    ("computing", 80, _compute),
    ("long answers", 49, _repeat),
    ("fail at run time", 40, lambda number, dice: (_request("fails", number), _failure(
        "Dock command service error. Command script failure, please consult pex-command logs."))),
    ("do not load", 20, lambda number, dice: (_request("broken", number), _failure(
        "Dock command service error. Failed to load command script."))),
    ("do not exist", 20, lambda number, dice: (_request(f"none-{number}", number), _failure(
        f'Cannot run job. Script not found "none-{number}.lua"'))),
    ("malformed", 20, _malformed),
    ("empty answers", 15, lambda number, dice: (_request("silent", number), b"")),
    ("withdrawn unseen", 5, lambda number, dice: (b"", b"")),
]
KINDS = [name for name, _, _ in _KINDS]
_DRAWN = [(name, make) for name, share, make in _KINDS for _ in range(share)]
FENCE = "fence"


def _dice(number, seed):
    """64 bits that depend on both: the finalizer of splitmix64."""
    bits = (seed * 0x632be59bd9b4e019 + number * 0x9e3779b97f4a7c15) & 0xffffffffffffffff
    bits = (bits ^ bits >> 30) * 0xbf58476d1ce4e5b9 & 0xffffffffffffffff
    bits = (bits ^ bits >> 27) * 0x94d049bb133111eb & 0xffffffffffffffff
    return bits ^ bits >> 31


class Job:
    """One request, the bytes that must come back, and what has become of it.

    Numbers from 1 to the number of kinds have one kind each, so that even a short soak has all.
    """

    __slots__ = ("number", "kind", "payload", "expected", "is_kept", "outcome")

    def __init__(self, number, seed):
        dice = _dice(number, seed)
        self.number = number
        if number < 0:  # a fence: see Ledger
            self.kind, (self.payload, self.expected) = FENCE, _malformed(number, 0)
        else:
            self.kind, make = (_DRAWN[dice % 1000] if number > len(_KINDS)
                               else _KINDS[number - 1][::2])
            self.payload, self.expected = make(number, dice >> 10)
        # A fence is withdrawn as well. Nothing is kept of an empty answer.
        self.is_kept = not self.expected or (number > 0 and self.kind == KINDS[0]
                                             and (dice >> 40) % 300 == 0)
        self.outcome = None


class Step:
    """One message to the service, a request or a withdrawal: each is answered by one message."""

    __slots__ = ("job", "is_request", "sequence", "sent_at", "at_broker", "loss", "copies")

    def __init__(self, job, is_request):
        self.job, self.is_request = job, is_request
        self.copies = set()  # how the answer came once more

    @property
    def expected(self):
        return self.job.expected if self.is_request else b""

    def __str__(self):
        return "request" if self.is_request else "withdrawal"


class Loss:
    """A time without the connection between broker and service, and what it has cost."""

    def __init__(self, what, opened_at, broker_forgets):
        self.what, self.opened_at = what, opened_at
        self.closed_at = None
        self.broker_forgets = broker_forgets  # what came after its last save
        self.fence = None   # the request that was sent when all was up again
        self.missed = []    # steps that were not answered
        self.answered_late = 0
        self.copies = dict.fromkeys(COPIES, 0)
        self.copy = REPUBLISHED  # how a second copy that comes now was made


class Ledger:
    """Accounts for each step, by the order of things alone and without a time limit.

    The service answers in the order of the requests. So an answer that comes tells that the steps
    sent before it, and not answered, will never be. That is right only for those that a loss of
    the connection has touched, and each loss is followed by a fence: the answer to a request sent
    when all was up again. Then the missed steps are sent again.

    An answer may come twice. The service publishes it again if it lost the connection before it
    had read the broker's acknowledgement. The broker sends that before it can pass on a request
    which was sent after the answer had come. So an answer counts as acknowledged once such a
    request was answered.

    A broker that was killed delivers again what was acknowledged to it since its last save. The
    packets do not tell whose a copy is: one by the service may even have the packet id of the
    first. So the caller keeps the service from publishing until the broker has delivered what it
    kept, and says where that ends.

    `publish(number, payload)` sends and returns the packet's id; `tell(text)` gets each anomaly.
    """

    def __init__(self, seed, publish, tell):
        self._seed, self._publish, self._tell = seed, publish, tell
        self._open = collections.deque()        # the steps that wait for their answer
        self._unconfirmed = collections.deque()  # those answered, perhaps not acknowledged
        self._packets = {}                      # steps by the id of their packet
        self._sequence = self._fences = 0
        self._history = collections.deque(maxlen=200000)
        self._is_held = False
        self.loss = None
        self.counts = {kind: dict.fromkeys(OUTCOMES, 0) for kind in [*KINDS, FENCE]}
        self.answers = collections.Counter()    # results of each kind that came
        self.forgotten = collections.Counter()  # and those that the broker may have lost
        self.withdrawals = collections.Counter()
        self.kept = {}                          # what the broker must still have
        self.latencies = []                     # since somebody has last emptied it
        self.done = 0                           # requests that are accounted for
        self.moves = 0                          # messages that came

    @property
    def waiting(self):
        return len(self._open)

    def request(self, number):
        self._send(Step(Job(number, self._seed), True))

    def fence(self):
        self._fences += 1
        self.request(-self._fences)

    def withdraw_kept(self):
        for number in list(self.kept):
            self._send(Step(Job(number, self._seed), False))

    def open_loss(self, what, broker_forgets=False):
        """To be called before the connection is cut."""
        self.loss = Loss(what, time.monotonic(), broker_forgets)
        self._is_held = broker_forgets
        for step in self._open:
            step.loss = self.loss
        self._history.append((time.monotonic(), None, what))

    def forget_packets(self):
        """To be called when the own connection has ended: nothing more is acknowledged."""
        self._packets.clear()

    def session_returns(self):
        """To be called before the next connection: what comes first is what the broker kept."""
        self.loss.copy = REDELIVERED

    def session_is_back(self):
        """To be called when all of that has come. Before this the service must not publish."""
        self.loss.copy = REPUBLISHED

    def close_loss(self):
        """To be called when the service is subscribed again."""
        self.loss.closed_at = time.monotonic()
        self._history.append((time.monotonic(), None, "the service is subscribed again"))
        self.fence()
        self.loss.fence = self._open[-1]

    def acknowledged(self, packet):
        step = self._packets.pop(packet, None)
        if step:
            step.at_broker = self.loss is None  # while the service was there to take it

    def received(self, topic, payload):
        """A message on out/cmd/+."""
        try:
            number = int(topic[8:])
        except ValueError:
            self._tell(f"a result that nobody asked for: {topic!r}")
            return
        self.moves += 1
        self._history.append((time.monotonic(), number, f"{len(payload)} bytes came"))
        step = self._open[0] if self._open else None
        if step and step.job.number == number and step.expected == payload:
            self._open.popleft()
            self._settle(step)
        elif not (self.loss and self._is_surplus(number, payload)):
            self._out_of_order(number, payload)

    def history(self, number):
        """What is still known about a job, for people."""
        kind = Job(number, self._seed).kind
        events = [f"{at - self._history[0][0]:.4f} s {text}"
                  for at, owner, text in self._history if owner in (number, None)]
        return f"job {number} ({kind}): " + "; ".join(events[-40:])

    def give_up(self):
        """Accounts for what has no answer."""
        while self._open:
            self._miss(self._open.popleft(), "was never answered")

    def _send(self, step):
        step.sequence = self._sequence = self._sequence + 1
        step.sent_at = time.monotonic()
        step.at_broker = False
        step.loss = self.loss if self.loss and not self.loss.closed_at else None
        job = step.job
        self._open.append(step)
        self._packets[self._publish(job.number, job.payload if step.is_request else b"")] = step
        self._history.append((step.sent_at, job.number, str(step)))

    def _settle(self, step):
        """The answer of a step has come, and is right."""
        sequence, job = step.sequence, step.job
        unconfirmed = self._unconfirmed
        while unconfirmed and not self._is_held and unconfirmed[0][0] <= sequence:
            unconfirmed.popleft()
        unconfirmed.append((self._sequence + 1, step))
        self.latencies.append(time.monotonic() - step.sent_at)
        if step.loss:
            step.loss.answered_late += 1
        if step.is_request:
            self.answers[job.kind] += 1
            self._count(job, job.outcome or (AFTER_LOSS if step.loss else RIGHT))
            if not job.is_kept:
                self._send(Step(job, False))
            elif job.expected:
                self.kept[job.number] = job.expected
        else:
            self.withdrawals["confirmed"] += job.number > 0
            self.kept.pop(job.number, None)
        if self.loss and step is self.loss.fence:
            self._end_loss()

    def _count(self, job, outcome):
        counts = self.counts[job.kind]
        if job.outcome in counts and job.outcome != SENT_AGAIN:
            counts[job.outcome] -= 1
            self.done -= job.number > 0
        job.outcome = outcome
        counts[outcome] += 1
        self.done += job.number > 0

    def _is_surplus(self, number, payload):
        """Whether the message is an answer that may come once more, and counts it: one from the
        service, and one from a broker that has forgotten the first."""
        copy = self.loss.copy
        if copy == REDELIVERED and not self.loss.broker_forgets:
            return False
        for _, step in self._unconfirmed:
            if (step.job.number == number and step.expected == payload
                    and copy not in step.copies):
                step.copies.add(copy)
                self.loss.copies[copy] += 1
                if not step.is_request:
                    self.withdrawals["confirmed twice"] += 1
                elif step.job.outcome in (RIGHT, AFTER_LOSS):
                    self._count(step.job, copy)
                return True
        return False

    def _out_of_order(self, number, payload):
        """An answer that is not the next one."""
        step = next((step for step in self._open
                     if step.job.number == number and step.expected == payload), None)
        if step:
            self._skip_to(step)
            self._open.popleft()
            self._settle(step)
            return
        step = next((step for step in self._open if step.job.number == number), None)
        is_second = step and not step.is_request and payload == step.job.expected
        if step is None or is_second:
            self._tell(f"a message without a reason, {payload[:80]!r}: {self.history(number)}")
            return
        self._tell(f"the {step} has a wrong answer, {payload[:80]!r}: {self.history(number)}")
        self._open.remove(step)
        if step.is_request:
            self._count(step.job, WRONG)

    def _skip_to(self, answered):
        """The steps before `answered` will have no answer."""
        while self._open[0] is not answered:
            step = self._open.popleft()
            if step.loss is None:
                self._miss(step, "was not answered, but a later one was")
            elif (step.loss is answered.loss and step.at_broker and answered.at_broker
                  and not step.loss.broker_forgets):
                # Both were with the service before the cut, in this order, and it kept the later.
                self._miss(step, "was run before the connection was lost, and its answer is lost")
            else:
                step.loss.missed.append(step)

    def _miss(self, step, text):
        self._tell(f"the {step} {text}: {self.history(step.job.number)}")
        if step.is_request:
            self._count(step.job, MISSING)

    def _end_loss(self):
        """All that the loss could cost is known."""
        loss, self.loss, self._is_held = self.loss, None, False
        for step in loss.missed:
            if step.is_request:
                step.job.outcome = SENT_AGAIN
                self.forgotten[step.job.kind] += loss.broker_forgets
            else:
                self.withdrawals["sent again"] += 1
            self._send(Step(step.job, step.is_request))
        if loss.broker_forgets:
            self._withdraw_again()

    def _withdraw_again(self):
        """A broker that was killed has the retained messages that it had when it last saved."""
        jobs = {step.job.number: step.job for _, step in self._unconfirmed
                if step.job.expected and (step.job.is_kept or not step.is_request)}
        for job in jobs.values():
            self.withdrawals["repeated after a kill"] += job.number > 0 and not job.is_kept
            self._send(Step(job, False))


class Connection:
    """A lean MQTT 3.1.1 client: publishes with QoS 1, receives with QoS 2.

    `on_message(topic, payload)` and `on_acknowledged(packet)` are called inside exchange(). With
    `clean` false the session outlives the connection; nothing is published again by itself.
    """

    def __init__(self, address, client_id, clean, on_message, on_acknowledged=lambda packet: None):
        self._address, self._id, self._clean = address, client_id.encode(), clean
        self._on_message, self._on_acknowledged = on_message, on_acknowledged
        self._taken = {}    # messages that were taken and not yet released, by their packets' ids
        self._earlier = {}  # the same, of the connection before
        self._packet = 0
        self._socket = None
        self.is_subscribed = False

    def connect(self):
        """Returns whether the broker still has the session."""
        self._in, self._out = bytearray(), bytearray()
        self._earlier, self._taken = self._taken, {}
        self._socket = socket.create_connection(self._address, 60)
        self._socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        body = (b"\0\4MQTT\4" + bytes([2 * self._clean]) + b"\0\0"
                + len(self._id).to_bytes(2, "big") + self._id)
        self._socket.sendall(bytes([0x10, len(body)]) + body)
        answer = self._socket.recv(4, socket.MSG_WAITALL)
        if len(answer) < 4 or answer[3]:
            raise ConnectionError(f"the broker does not take the connection: {answer!r}")
        self._socket.setblocking(False)
        self._poll = select.poll()
        return bool(answer[2])

    def subscribe(self, *filters):
        """is_subscribed tells later that the broker has done it."""
        body = b"\0\1" + b"".join(len(text).to_bytes(2, "big") + text.encode() + b"\2"
                                  for text in filters)
        self._out += bytes([0x82, len(body)]) + body

    def publish(self, topic, payload):
        """Takes a message to be sent, and returns the id of its packet."""
        self._packet = self._packet % 65535 + 1
        length, head = 4 + len(topic) + len(payload), bytearray(b"\x32")
        while length > 127:
            head.append(length & 127 | 128)
            length >>= 7
        head.append(length)
        self._out += b"%b%b%b%b%b" % (head, len(topic).to_bytes(2, "big"), topic,
                                      self._packet.to_bytes(2, "big"), payload)
        return self._packet

    def exchange(self, timeout):
        """Sends and receives, for at most `timeout` seconds if there is nothing. Raises
        ConnectionError when the connection has ended and all that came was handled."""
        self._flush()
        self._poll.register(self._socket,
                            select.POLLIN | (select.POLLOUT if self._out else 0))
        if not self._poll.poll(1000 * timeout):
            return
        try:
            chunk = self._socket.recv(1 << 18)
        except BlockingIOError:
            return
        if not chunk:
            raise ConnectionError("the broker has closed the connection")
        self._in += chunk
        self._take_packets()
        self._flush()

    def drain(self):
        """Handles what came before the connection ended, and closes it."""
        try:
            while True:
                self.exchange(60)
        except OSError:
            self.close()

    def close(self):
        if self._socket:
            self._socket.close()

    def forget_earlier(self):
        """To be called when the broker has delivered what it kept from the connection before."""
        self._earlier.clear()

    def _flush(self):
        try:
            while self._out:
                del self._out[:self._socket.send(self._out[:1 << 18])]
        except BlockingIOError:
            pass
        except OSError:  # reading tells, too, and what came before is still to be read
            self._out.clear()

    def _take_packets(self):
        data, at, end = self._in, 0, len(self._in)
        while end - at >= 2:
            length, start, shift = data[at + 1] & 127, at + 2, 7
            while data[start - 1] & 128 and start < end:
                length |= (data[start] & 127) << shift
                start, shift = start + 1, shift + 7
            if data[start - 1] & 128 or end - start < length:
                break
            self._handle(data[at], bytes(data[start:start + length]))
            at = start + length
        del data[:at]

    def _handle(self, first, body):
        kind = first >> 4
        if kind == 3:
            self._handle_publish(first, body)
        elif kind == 4:
            self._on_acknowledged(body[0] << 8 | body[1])
        elif kind == 6:
            self._taken.pop(body, None)
            self._earlier.pop(body, None)
            self._out += b"\x70\2" + body
        elif kind == 9:
            self.is_subscribed = 0x80 not in body[2:]

    def _handle_publish(self, first, body):
        start = 2 + (body[0] << 8 | body[1])
        if first & 6:
            packet = body[start:start + 2]
            # Whatever the DUP flag: a broker that was killed does not set it if it last saved
            # before the first delivery. It also gives the ids since then to other messages.
            is_known = self._earlier.get(packet) == body
            self._out += b"\x50\2" + packet if first & 4 else b"\x40\2" + packet
            if first & 4:
                self._taken[packet] = body
            if is_known:
                return
            start, topic = start + 2, body[2:start]
        else:
            topic = body[2:start]
        self._on_message(topic.decode(), body[start:])
