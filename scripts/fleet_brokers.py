"""The parts of a fleet on one machine: the central broker, docks, and the links between them.

Each takes the files of examples/mosquitto with paths, ports and names filled in, so that what runs
here is what is installed elsewhere. Everything is on the loopback interface and in directories of
the caller. PEX_COMMAND and PEXCTL name other binaries than those of the release build, and
PEX_COMMAND_WRAPPER a command to put before both.
"""

import asyncio
import contextlib
import itertools
import os
import pathlib
import random
import re
import shlex
import socket
import ssl
import struct
import subprocess
import threading
import time
import uuid

import paho.mqtt.client as mqtt

# A loopback address of our own, where nobody else takes a port between free_port() and its use.
HOST = "127." + ".".join(str(random.randint(1, 254)) for _ in range(3))
PORTS = itertools.count(10000)
REPOSITORY = pathlib.Path(__file__).resolve().parents[1]
EXAMPLES = REPOSITORY / "examples"
WRAPPER = shlex.split(os.environ.get("PEX_COMMAND_WRAPPER", ""))


class Failure(Exception):
    """Something that ends the run. The text is for the user."""


def binary(variable, name):
    return os.path.abspath(os.environ.get(variable, REPOSITORY / "build/release" / name))


def filled(example, replacements):
    """The text of an example file with each key of `replacements` replaced. All must be there."""
    text = (EXAMPLES / example).read_text()
    for old, new in replacements.items():
        if old not in text:
            raise Failure(f"{EXAMPLES / example} has no {old!r}")
        text = text.replace(old, str(new))
    return text


def configured(settings):
    """The text of the daemon's example configuration with other values."""
    text = (EXAMPLES / "pex-command.properties").read_text()
    for key, value in settings.items():
        text, hits = re.subn(f"^{re.escape(key)}=.*$", f"{key}={value}", text, flags=re.MULTILINE)
        if hits != 1:
            raise Failure(f"{EXAMPLES}/pex-command.properties has {hits} lines for {key}")
    return text


def start(command, log):
    # A session of its own, so that Ctrl-C here does not reach it.
    with open(log, "ab") as out:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                start_new_session=True,
                                env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})


def tail(log):
    return "\n".join(pathlib.Path(log).read_text(errors="replace").splitlines()[-5:])


def free_port():
    """A port of HOST that nobody uses and that is given out only once."""
    for port in PORTS:
        with contextlib.suppress(OSError), socket.socket() as probe:
            probe.bind((HOST, port))
            return port


def make_certificates(directory, name="centre.example.net"):
    """A test CA, and the centre's certificate for a host's name."""
    def openssl(subject, key, out, *options):
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "3", "-subj", f"/CN={subject}", "-keyout", directory / key,
             "-out", directory / out, *options], check=True, capture_output=True)

    openssl("Test CA", "ca.key", "centre-ca.crt")
    openssl("centre", "centre.key", "centre.crt", "-CA", directory / "centre-ca.crt",
            "-CAkey", directory / "ca.key", "-addext", "basicConstraints=critical,CA:FALSE",
            "-addext", f"subjectAltName=DNS:{name},IP:{HOST}")


class Broker:
    """A mosquitto with a configuration like Debian's, and drop-ins beside it."""

    def __init__(self, directory, drop_ins):
        self.directory = directory
        self.log = directory / "mosquitto.log"
        self.process = None
        (directory / "conf.d").mkdir(parents=True)
        (directory / "db").mkdir()
        self.log.touch()
        for name, text in drop_ins.items():
            (directory / "conf.d" / name).write_text(text)
        (directory / "mosquitto.conf").write_text(
            # Without a user, mosquitto would give up root's rights, and with them the directory.
            f"user {'root' if os.geteuid() == 0 else 'mosquitto'}\n"
            f"pid_file {directory}/mosquitto.pid\n"
            "persistence true\n"
            f"persistence_location {directory}/db/\n"
            f"log_dest file {self.log}\n"
            "log_type error\nlog_type warning\nlog_type notice\nlog_type information\n"
            "log_type subscribe\n"  # tells when the daemon is ready
            f"include_dir {directory}/conf.d\n")

    def start(self):
        self.process = start(["mosquitto", "-c", self.directory / "mosquitto.conf"],
                             self.directory / "mosquitto.out")

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process = None


class Centre(Broker):
    """The central broker, with a password for each dock and for the users "server" and "operator".

    Its certificates must be in `directory` already.
    """

    def __init__(self, directory, dock_ids):
        self.port = free_port()
        self.cafile = directory / "centre-ca.crt"
        self.passwords = {name: uuid.uuid4().hex for name in ["server", "operator", *dock_ids]}
        super().__init__(directory, {"pex-command-centre.conf": filled("mosquitto/centre.conf", {
            "listener 8883": f"listener {self.port} {HOST}",
            "/etc/mosquitto/pex-command-centre.acl": EXAMPLES / "mosquitto/centre.acl",
            "/etc/mosquitto": directory})})
        (directory / "certs").symlink_to(directory)
        self._write_passwords(directory / "pex-command-centre.passwd")

    def start(self):
        super().start()
        while not self._listens():
            if self.process.poll() is not None:
                raise Failure(f"The central broker does not start:\n{tail(self.log)}")
            time.sleep(0.02)

    def client(self, user="server", password=None, client_id="any", **options):
        """A client with the password of `user`, not connected. It ends the connection of another one
        with this name: the centre makes the name its client id."""
        # paho 2 wants to be told which callbacks it is to call; paho 1 knows one kind.
        kinds = getattr(mqtt, "CallbackAPIVersion", None)
        client = mqtt.Client(*[kinds.VERSION2] if kinds else [], client_id=client_id, **options)
        if user:
            client.username_pw_set(user, password or self.passwords[user])
        client.tls_set(self.cafile, tls_version=ssl.PROTOCOL_TLS_CLIENT)
        client.max_inflight_messages_set(0)
        client.reconnect_delay_set(0.2, 0.2)
        client.on_socket_open = lambda client, data, sock: sock.setsockopt(
            socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        client.connect_async(HOST, self.port)
        return client

    def retained(self, *filters):
        """What the centre keeps, by topic, as a new subscription of "operator" gets it."""
        found, done = {}, threading.Event()
        fence = "docks/fence/in/cmd/" + uuid.uuid4().hex

        def on_connect(client, *rest):
            # Retained messages come first, then what is published after the subscription.
            client.subscribe([(topic, 1) for topic in [*filters, fence]])
            client.publish(fence, b"", 1)

        def on_message(client, data, message):
            if message.topic == fence:
                done.set()
            elif message.retain:
                found[message.topic] = message.payload

        client = self.client("operator")
        client.on_connect, client.on_message = on_connect, on_message
        client.loop_start()
        complete = done.wait(60)
        client.disconnect()
        client.loop_stop()
        if not complete:
            raise Failure("The central broker does not answer")
        return found

    def subscriptions(self, dock_id):
        """How often the bridge of a dock has subscribed to requests."""
        return self.log.read_text(errors="replace").count(f"{dock_id} 1 docks/{dock_id}/in/cmd/+")

    def _listens(self):
        with socket.socket() as probe:
            return probe.connect_ex((HOST, self.port)) == 0

    def _write_passwords(self, path):
        path.touch(0o600)
        path.write_text("".join(f"{user}:{word}\n" for user, word in self.passwords.items()))
        subprocess.run(["mosquitto_passwd", "-U", path], check=True)


class Link:
    """The road from one dock's bridge to the centre: a TCP relay that can be cut."""

    _loop = asyncio.new_event_loop()
    threading.Thread(target=_loop.run_forever, daemon=True).start()

    def __init__(self, target):
        self._target = target
        self._writers = set()
        self._is_cut = False
        self._passing = asyncio.Event()
        self.port = self._in_loop(self._listen())

    def cut(self):
        """Resets the connection, and each new one."""
        self._in_loop(self._cut())

    def silence(self):
        """Lets nothing through any more, the end of a connection neither."""
        self._loop.call_soon_threadsafe(self._passing.clear)

    def restore(self):
        self._is_cut = False
        self._loop.call_soon_threadsafe(self._passing.set)

    def _in_loop(self, coroutine):
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result()

    async def _listen(self):
        self._passing.set()
        self._listener = await asyncio.start_server(self._join, HOST, 0)
        return self._listener.sockets[0].getsockname()[1]

    async def _cut(self):
        self._is_cut = True
        for writer in list(self._writers):
            self._reset(writer)

    def _reset(self, writer):
        self._writers.discard(writer)
        with contextlib.suppress(OSError):  # closed already
            writer.get_extra_info("socket").setsockopt(
                socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        writer.transport.abort()

    async def _join(self, reader, writer):
        await self._passing.wait()
        try:
            if self._is_cut:
                raise ConnectionError
            far_reader, far_writer = await asyncio.open_connection(HOST, self._target)
        except OSError:
            self._reset(writer)
            return
        self._writers |= {writer, far_writer}
        await asyncio.gather(self._pass(reader, far_writer), self._pass(far_reader, writer))

    async def _pass(self, reader, writer):
        with contextlib.suppress(OSError):
            while chunk := await reader.read(65536):
                await self._passing.wait()
                writer.write(chunk)
                await writer.drain()
        await self._passing.wait()
        self._writers.discard(writer)
        writer.close()


class Dock(Broker):
    """One dock: its broker with the bridge to the centre, stunnel for the bridge, and its daemon.

    `port` is that of a Link; without it stunnel goes straight to the centre. `replacements` are
    further ones for the bridge's drop-in.
    """

    def __init__(self, directory, dock_id, centre, scripts, port=None, replacements=()):
        self.id = dock_id
        self.tunnel = self.daemon = None
        self.socket = directory / "broker.sock"
        self.daemon_log = directory / "pex-command.log"
        self.tunnel_log = directory / "stunnel.log"
        entrance = f"{HOST}:{free_port()}"
        super().__init__(directory, {
            "pex-command.conf": filled("mosquitto/dock.conf", {
                "/run/pex-command/broker.sock": self.socket,
                "/etc/mosquitto/pex-command.acl": EXAMPLES / "mosquitto/dock.acl"}),
            "pex-command-bridge.conf": filled("mosquitto/bridge.conf", {
                "DOCK-ID": dock_id,
                "DOCK-PASSWORD": centre.passwords[dock_id],
                "address 127.0.0.1:884": f"address {entrance}",
                # Shorter waits, for the impatient.
                "keepalive_interval 60": "keepalive_interval 5",
                "restart_timeout 5 60": "restart_timeout 1 1", **dict(replacements)})})
        (directory / "stunnel.conf").write_text(filled("mosquitto/stunnel.conf", {
            "accept = 127.0.0.1:884": f"accept = {entrance}",
            "connect = centre.example.net:8883": f"connect = {HOST}:{port or centre.port}",
            "/etc/stunnel/centre-ca.crt": centre.cafile,
            # Only root can become somebody else.
            **({} if os.geteuid() == 0 else {"setuid =": ";setuid =", "setgid =": ";setgid ="})}))
        (directory / "staging").mkdir()
        self.configuration = directory / "pex-command.properties"
        self.configuration.write_text(configured({
            "server_comms.host": self.socket,
            "server_comms.port": 0,
            "script.search_dirs": scripts,
            "script.staging_dir": directory / "staging"}))

    def start(self):
        """Starts stunnel, the first time, and then the broker."""
        if self.tunnel is None:
            self.tunnel = start(["stunnel4", self.directory / "stunnel.conf"], self.tunnel_log)
            while "Configuration successful" not in self.tunnel_log.read_text(errors="replace"):
                self.check_alive()
                time.sleep(0.002)
        super().start()

    def start_daemon(self):
        self.daemon = start([*WRAPPER, binary("PEX_COMMAND", "pex-command"), self.configuration],
                            self.daemon_log)

    def kill_daemon(self):
        self.daemon.kill()
        self.daemon.wait()
        self.daemon = None

    def subscriptions(self):
        """How often the daemon has subscribed to requests."""
        return self.log.read_text(errors="replace").count("command_service 1 in/cmd/+")

    def check_alive(self):
        for name, process, log in (("stunnel", self.tunnel, self.tunnel_log),
                                   ("the broker", self.process, self.log),
                                   ("the daemon", self.daemon, self.daemon_log)):
            if process is not None and process.poll() is not None:
                raise Failure(f"{self.id}: {name} has ended:\n{tail(log)}")

    def listed_jobs(self):
        """What `pexctl list` shows at the dock's own broker, without the line of titles."""
        run = subprocess.run([*WRAPPER, binary("PEXCTL", "pexctl"), "list", "-h", self.socket],
                             capture_output=True, text=True, timeout=120)
        return run.stdout.splitlines()[1:] if run.returncode == 0 else [run.stderr.strip()]
