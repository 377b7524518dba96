"""One job, one fault at a chosen moment, and what came of the job.

A Scene is a broker, a proxy, a daemon behind it and an independent server straight at the broker.
A moment brings the job to where the proxy holds a packet back; a fault is then applied. What is
held back when a connection ends is lost; where the connection lives, it arrives. Then all is made
well, and the service must do one more job. The verdict says what came of the first one. It is
computed from what the server received, how often the script ran, and what the broker retains.
"""

import contextlib
import signal
import socket
import threading
from typing import Callable, NamedTuple

from harness import Broker, Scripts, Server, Service, request
from scripted_broker import connack, connect
from scripted_job import GatedJob
from scripted_network import Cable, on_host
from scripted_proxy import ANY, BROKER, DAEMON, Proxy

DATABASE = """
persistence true
autosave_on_changes true
autosave_interval 1
"""

# Why something is lost that the server has sent.
AWAY = "lost: away"
UNACKNOWLEDGED = "lost: unacknowledged"
NO_DATABASE = "lost: no database"
KILLED = "lost: killed"


class CountedJob(GatedJob):
    """A script that answers how often it has run. Waits for open(), too, until abandon()."""

    def __init__(self, scripts):
        self._runs = scripts.directory / "runs"
        self._text = f"""
            local file = io.open("{self._runs}", "a")
            file:write("x")
            local runs = file:seek()
            file:close()
            local gate, reason
            repeat
                gate, reason = io.open(args)
            until gate or not reason:find("Interrupted")
            if gate then
                repeat until gate:read("*a")
                gate:close()
            end
            return "run " .. runs
        """
        super().__init__(scripts)

    def runs(self):
        return len(self._runs.read_bytes()) if self._runs.exists() else 0


class Scene:
    """`retain` is the request's flag. With a `cable`, the daemon is at its far end."""

    def __init__(self, directory, endings, retain, database=False, cable=None):
        directory.mkdir(exist_ok=True)
        self.retain = retain
        self.database = database
        self._cable = cable
        self.endings = endings
        self.hold = None
        self._is_sent = self._is_withdrawn = self._was_killed = False
        self._live = []  # what the server has received of the job
        scripts = Scripts(directory / "scripts")
        scripts.add("fresh", "return 'fresh'")
        self.job = CountedJob(scripts)
        self.broker = Broker(directory, DATABASE if database else "")
        if cable:
            self.broker.host = cable.broker_address
        endings.callback(self.broker.kill)
        self.broker.start()
        self.server = Server(self.broker)
        endings.callback(lambda: self.server.close())
        self.proxy = endings.enter_context(Proxy(self.broker))
        self.service = Service(directory / "service", self.broker, {
            "script.search_dirs": scripts.directory,
            "server_comms.host": self.proxy.host,
            "server_comms.port": self.proxy.port,
        })
        endings.callback(self.service.finish)
        self.job_waits = True
        endings.callback(self.let_the_job_go_on)

    # The way to the moment.

    def start_service(self):
        with on_host(self._cable.daemon_side) if self._cable else contextlib.nullcontext():
            self.service.start()

    def start_up(self):
        self.start_service()
        self.proxy.wait_until_passed(BROKER, "SUBACK")

    def hold_back(self, sender, kind):
        self.hold = self.proxy.hold(sender, kind)

    def send(self):
        self.server.publish("1", self.job.request, retain=self.retain)
        self._is_sent = True

    def finish_job(self):
        """To the last acknowledgement."""
        self.send()
        result = self.server.result()
        assert (result.topic, result.payload) == ("out/cmd/1", b"run 1")
        self.proxy.wait_until_passed(BROKER, "PUBCOMP")

    def withdraw(self):
        self.server.publish("1", b"", retain=self.retain)
        self._is_withdrawn = True

    # What faults are made of.

    def go_on(self):
        """All that the fault does not keep from happening."""
        if self.hold:
            self.hold.release()
        self.let_the_job_go_on()
        if not self._is_sent:
            self.send()

    def let_the_job_go_on(self):
        if self.job_waits:
            self.job_waits = False
            self.job.abandon()

    def kill_service(self):
        self.service.signal(signal.SIGKILL)
        assert self.service.wait() == -signal.SIGKILL
        self._was_killed = True

    def restart_broker(self, end):
        """Ends it by `end` of Broker's operations."""
        if self.database and self.retain and self._is_sent:
            self._wait_until_saved()
        self._drain()
        self.server.close()
        end(self.broker)
        self.proxy.wait_until_empty()
        self.broker.start()
        self.server = Server(self.broker)

    def _wait_until_saved(self):
        """The broker has one thread, so a new client is served after the save that began before."""
        log = self.broker.log()
        self.broker.wait_for("Saving in-memory database", log.rindex("'in/cmd/1'"))
        Server(self.broker).close()

    def believes_in_its_connection(self):
        """The daemon's host, that is."""
        return [row[3] for row in self.service.tcp_table()] == ["01"]  # established

    # What came of it.

    def end_well(self, alive):
        """Makes all well and returns the verdict. `alive`: the daemon has its first connection."""
        self.go_on()
        self._drain()
        early = len(self._live)
        mark = 0
        if not alive:
            mark = self.broker.mark()
            self.proxy.open()
        if self.service.process.poll() is not None:
            self.start_service()
        self.service.wait_until_subscribed(since=mark)
        self.server.publish("fresh", request("fresh"))
        self._receive_until("out/cmd/fresh")
        if alive:
            assert len(self.broker.lines(" as command_service ")) == 1
        return self._verdict(early or alive)

    def _drain(self):
        """Receives what is on its way to the server."""
        self.server.publish_to("out/cmd/fence", b"", qos=2)
        self._receive_until("out/cmd/fence")

    def _receive_until(self, topic):
        while (message := self.server.result()).topic != topic:
            assert message.topic == "out/cmd/1", message.topic
            if not message.retain:  # or a new subscription has shown what was there already
                self._live.append(message.payload)

    def _verdict(self, early):
        retained = {message.topic: message.payload for message in self.server.all_retained("#")}
        if not self._live:
            return self._loss(retained)
        assert retained.get("out/cmd/1", b"") == self._live[-1], retained
        assert self._live[-1] or "in/cmd/1" not in retained, retained
        verdicts = {
            (1, b""): "withdrawn",
            (1, b"", b""): "withdrawn twice",
            (1, b"run 1"): "once" if early else "later",
            (1, b"run 1", b"run 1"): "twice",
            (2, b"run 1", b"run 2"): "again",
            (2, b"run 2"): "again only",
            (2, b"run 1", b"run 1", b"run 2"): "twice, again",
        }
        seen = (self.job.runs(), *self._live)
        return verdicts.get(seen, f"unforeseen: {seen}")

    def _loss(self, retained):
        """Which of the losses it is that cannot be avoided."""
        asked_for = "server has deregistered 1 job" if self._is_withdrawn else "job_id: 1"
        if any(asked_for in record.message for record in self.service.records()):
            assert self._was_killed, "lost by a daemon that has stopped well or runs"
            return KILLED
        if self.retain and not self._is_withdrawn:
            assert not self.database and "in/cmd/1" not in retained, retained
            return NO_DATABASE
        sent = [line for line in self.broker.lines("Sending PUBLISH to command_service")
                if "'in/cmd/1'" in line]
        return UNACKNOWLEDGED if len(sent) > self._is_withdrawn else AWAY


def idle(scene):
    """The request is sent while the fault lasts."""
    scene.let_the_job_go_on()
    scene.start_up()


def job_running(scene):
    scene.start_up()
    scene.send()
    scene.job.wait_until_running()


def held_opening(sender, kind):
    """A packet that opens the connection; the request is sent meanwhile."""
    def reach(scene):
        scene.let_the_job_go_on()
        scene.hold_back(sender, kind)
        scene.start_service()
        scene.hold.wait()
        scene.send()

    return reach


def held_job(sender, kind):
    """A packet of the job."""
    def reach(scene):
        scene.let_the_job_go_on()
        scene.start_up()
        scene.hold_back(sender, kind)
        scene.send()
        scene.hold.wait()

    return reach


def held_withdrawal(sender, kind):
    """A packet of the withdrawal of a job that is done."""
    def reach(scene):
        scene.let_the_job_go_on()
        scene.start_up()
        scene.finish_job()
        scene.hold_back(sender, kind)
        scene.withdraw()
        scene.hold.wait()

    return reach


MOMENTS = {
    "idle": idle,
    "connecting": held_opening(BROKER, "CONNACK"),
    "request on its way": held_job(BROKER, "PUBLISH"),
    "job running": job_running,
    "result handed over": held_job(DAEMON, "PUBLISH"),
    "PUBREC pending": held_job(BROKER, "PUBREC"),
    "PUBREL pending": held_job(DAEMON, "PUBREL"),
    "withdrawal": held_withdrawal(DAEMON, "PUBLISH"),
}


class Fault(NamedTuple):
    strike: Callable[[Scene], None]
    alive: bool = False  # the connection outlives it
    database: bool = False  # the broker has one


def restart_broker(end):
    def strike(scene):
        scene.proxy.shut()
        scene.restart_broker(end)

    return strike


def freeze_broker(scene):
    """For a while, which is what this is about."""
    scene.broker.signal(signal.SIGSTOP)
    thaw = threading.Timer(0.2, scene.broker.signal, [signal.SIGCONT])
    thaw.start()
    scene.go_on()
    thaw.join()


def reset(scene):
    scene.proxy.shut()
    scene.proxy.cut()


def slow_down(scene):
    scene.proxy.slow(1024)


def cut_within_next(sender):
    """The next packet of `sender`, which may be the one that is held."""
    def strike(scene):
        hold = scene.hold
        if not hold or hold.sender != sender:
            hold = scene.proxy.hold(sender, ANY)
            scene.go_on()
            hold.wait()
        scene.proxy.shut()
        hold.cut(len(hold.packet) // 2)

    return strike


def take_client_id(scene):
    """Another client connects with the daemon's id, and stays."""
    scene.proxy.shut()
    other = scene.endings.enter_context(
        socket.create_connection((scene.broker.host, scene.broker.port)))
    other.sendall(connect())
    assert other.recv(4) == connack()
    scene.proxy.wait_until_empty()


def stop_daemon(number):
    def strike(scene):
        scene.service.signal(number)
        if not scene.job_waits:
            scene.service.wait_for_record("Closing server comms service")
        if scene.hold:
            scene.hold.release()
        scene.let_the_job_go_on()
        assert scene.service.wait() == 0
        scene.proxy.wait_until_empty()
        scene.proxy.shut()

    return strike


def kill_daemon(scene):
    scene.proxy.shut()
    scene.kill_service()
    scene.proxy.wait_until_empty()


FAULTS = {
    "broker killed": Fault(restart_broker(Broker.kill)),
    "broker killed, with its database": Fault(restart_broker(Broker.kill), database=True),
    "broker stopped": Fault(restart_broker(Broker.stop)),
    "broker stopped, with its database": Fault(restart_broker(Broker.stop), database=True),
    "broker frozen": Fault(freeze_broker, alive=True),
    "connection reset": Fault(reset),
    "connection slow": Fault(slow_down, alive=True),
    "cut within a packet to the broker": Fault(cut_within_next(DAEMON)),
    "cut within a packet to the daemon": Fault(cut_within_next(BROKER)),
    "client id taken": Fault(take_client_id),
    "daemon stopped by SIGTERM": Fault(stop_daemon(signal.SIGTERM)),
    "daemon stopped by SIGINT": Fault(stop_daemon(signal.SIGINT)),
    "daemon killed": Fault(kill_daemon),
}

PACKETS = {
    "CONNECT": held_opening(DAEMON, "CONNECT"),
    "CONNACK": held_opening(BROKER, "CONNACK"),
    "SUBSCRIBE": held_opening(DAEMON, "SUBSCRIBE"),
    "SUBACK": held_opening(BROKER, "SUBACK"),
    "PUBLISH (request)": held_job(BROKER, "PUBLISH"),
    "PUBACK (request)": held_job(DAEMON, "PUBACK"),
    "PUBLISH (result)": held_job(DAEMON, "PUBLISH"),
    "PUBREC (result)": held_job(BROKER, "PUBREC"),
    "PUBREL (result)": held_job(DAEMON, "PUBREL"),
    "PUBCOMP (result)": held_job(BROKER, "PUBCOMP"),
    "PUBLISH (withdrawal)": held_withdrawal(BROKER, "PUBLISH"),
    "PUBACK (withdrawal)": held_withdrawal(DAEMON, "PUBACK"),
    "PUBLISH (end of transaction)": held_withdrawal(DAEMON, "PUBLISH"),
    "PUBREC (end of transaction)": held_withdrawal(BROKER, "PUBREC"),
    "PUBREL (end of transaction)": held_withdrawal(DAEMON, "PUBREL"),
    "PUBCOMP (end of transaction)": held_withdrawal(BROKER, "PUBCOMP"),
}

PLACES = {
    "before its first byte": lambda length: 0,
    "after its first byte": lambda length: 1,
    "in its middle": lambda length: length // 2,
    "before its last byte": lambda length: length - 1,
    "after its last byte": lambda length: length,
}


def verdict_of_fault(directory, fault, moment, retain):
    fault = FAULTS[fault]
    with contextlib.ExitStack() as endings:
        scene = Scene(directory, endings, retain, fault.database)
        MOMENTS[moment](scene)
        fault.strike(scene)
        return scene.end_well(fault.alive)


def verdict_of_cut(directory, packet, place, retain):
    with contextlib.ExitStack() as endings:
        scene = Scene(directory, endings, retain)
        PACKETS[packet](scene)
        scene.proxy.shut()
        scene.hold.cut(PLACES[place](len(scene.hold.packet)))
        return scene.end_well(alive=False)


def verdicts_of_half_open(directory):
    """The broker is killed and restarted while the cable to the daemon is out. The daemon's host
    still believes in the connection, and no one on the other host knows it. What the daemon sends
    next is answered by a reset; where it has nothing to send, the kernel's probe finds out, after
    20 s. So all moments share one time, with a daemon each. By moment and retain flag."""
    with contextlib.ExitStack() as endings:
        cable = Cable()
        endings.callback(cable.remove)
        endings.enter_context(on_host(cable.broker_side))
        cells = [(moment, retain) for moment in MOMENTS for retain in (False, True)]
        scenes = {
            (moment, retain): Scene(directory / str(number), endings, retain, True, cable)
            for number, (moment, retain) in enumerate(cells)}
        for (moment, _), scene in scenes.items():
            MOMENTS[moment](scene)
        cable.unplug()
        for scene in scenes.values():
            reset(scene)  # which does not get through
            scene.restart_broker(Broker.kill)
        cable.plug_in()
        assert all(scene.believes_in_its_connection() for scene in scenes.values())
        for scene in scenes.values():
            scene.go_on()
        return {cell: scene.end_well(alive=False) for cell, scene in scenes.items()}
