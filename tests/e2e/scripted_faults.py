"""One job, one fault at a chosen moment, and what came of the job. Or several jobs, sent at once.

A Scene is a broker, a proxy, a daemon behind it and an independent server straight at the broker.
A moment brings the job to where the proxy holds a packet back; a fault is then applied. What is
held back when a connection ends is lost; where the connection lives, it arrives. Then all is made
well, and the service must do one more job. The verdict says what came of the first ones. It is
computed from what the server received, how often each script ran, and what the broker retains.

While requests wait, the daemon gives a result a twentieth of its job's time to be acknowledged. If
that is too short for a busy machine, the moment of the fault is Missed, and the cell is tried again
with longer jobs. A daemon that misses it with the longest ones, too, fails the test.
"""

import concurrent.futures
import contextlib
import re
import signal
import socket
import threading
import time
from typing import Callable, NamedTuple

from harness import DEADLINE, Broker, Scripts, Server, Service, request, wait_until
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
DROPPED = "lost: dropped"

JOB_LENGTHS = (1, 4, 16)  # seconds, one attempt each


class Missed(Exception):
    """The daemon went on to its next job, so that the fault met another moment."""


class CountedJob(GatedJob):
    """A script that answers how often it has run. Waits for the first let_go(), too."""

    def __init__(self, scripts, job_id):
        self.id = job_id
        self.waits = True
        self.received = []  # by the server
        self._runs = scripts.directory / (job_id + ".runs")
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
        super().__init__(scripts, "job-" + job_id)

    def let_go(self):
        if self.waits:
            self.waits = False
            self.abandon()

    def runs(self):
        return len(self._runs.read_bytes()) if self._runs.exists() else 0


class Scene:
    """`retain` is the requests' flag. With a `cable`, the daemon is at its far end. `job_length`,
    in seconds, is that of the jobs whose results are to be acknowledged while others wait.

    The verdict is that of `watched`: groups of jobs, whose verdicts stand between semicolons. The
    requests of `waiting` are in the daemon, behind another job.
    """

    def __init__(self, directory, endings, retain, database=False, cable=None, job_length=1):
        directory.mkdir(parents=True, exist_ok=True)
        self.retain = retain
        self.database = database
        self._cable = cable
        self.endings = endings
        self.job_length = job_length
        self.hold = None
        self._is_sent = self._is_withdrawn = self._was_killed = self._was_broker_restarted = False
        scripts = Scripts(directory / "scripts")
        scripts.add("fresh", "return 'fresh'")
        self.jobs = [CountedJob(scripts, str(number)) for number in range(1, 6)]
        self.job = self.jobs[0]
        self.sent = self.jobs[:1]
        self.watched = [self.jobs[:1]]
        self.waiting = []
        self._saved = []  # topics whose messages are in the broker's database
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
        endings.callback(self.let_the_jobs_go_on)

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
        for job in self.sent:
            self.server.publish(job.id, job.request, retain=self.retain)
        self._is_sent = True

    def finish_job(self):
        """To the last acknowledgement."""
        self.send()
        result = self.server.result()
        assert (result.topic, result.payload) == ("out/cmd/1", b"run 1")
        self.proxy.wait_until_passed(BROKER, "PUBCOMP")

    def have_requests_wait(self, count):
        """Sends so many at once. The first job has run then, and the second one runs."""
        self.sent = first, second, *_ = self.jobs[:count]
        self.start_up()
        self.send()
        first.wait_until_running()
        self.proxy.wait_until_passed(BROKER, "PUBLISH", count)
        first.let_go()
        second.wait_until_running()
        self.proxy.wait_until_passed(DAEMON, "PUBACK", count)

    def finish_slowly(self, job):
        """Ends a running job after its length, so that its result has time."""
        time.sleep(self.job_length)
        job.let_go()

    def receive_acknowledged(self, jobs):
        """The results of all jobs that have returned, while the next one runs."""
        unread = [row for row in self.service.tcp_table() if not row[4].endswith(":00000000")]
        if unread or not self.proxy.has_passed(BROKER, "PUBCOMP", len(jobs)):
            raise Missed("a result was not acknowledged when the next job began")
        for job in jobs:
            self._receive()
            assert job.received == [b"run 1"], job.received

    def withdraw(self):
        self.server.publish("1", b"", retain=self.retain)
        self._is_withdrawn = True

    # What faults are made of.

    def go_on(self):
        """All that the fault does not keep from happening."""
        if self.hold:
            self.hold.release()
        self.let_the_jobs_go_on()
        if not self._is_sent:
            self.send()

    def let_the_jobs_go_on(self):
        for job in self.jobs:
            job.let_go()

    def is_a_job_held(self):
        return any(job.waits for job in self.sent)

    def run_all_that_waits(self):
        """What the daemon does when a result is not acknowledged in its time."""
        if self.hold:
            for job in self.waiting:
                wait_until(job.runs, "the end of the result's time")
            self.waiting = []

    def kill_service(self):
        self.service.signal(signal.SIGKILL)
        assert self.service.wait() == -signal.SIGKILL
        self._was_killed = True
        if any(self._has_begun(job) for job in self.waiting):
            raise Missed("a job that was to wait began before the daemon was killed")

    def restart_broker(self, end):
        """Ends it by `end` of Broker's operations."""
        self.wait_until_saved()
        self._drain()
        self.server.close()
        end(self.broker)
        self._was_broker_restarted = True
        self.proxy.wait_until_empty()
        self.broker.start()
        self.server = Server(self.broker)

    def wait_until_saved(self):
        """The broker has one thread, so a new client is served after the save that began before."""
        retained = [f"'in/cmd/{job.id}'" for job in self.sent if self.retain and self._is_sent]
        retained += [f"'out/cmd/{job.id}'" for job in self.sent if job.received]
        if self.database and retained != self._saved:
            log = self.broker.log()
            self.broker.wait_for("Saving in-memory database", max(map(log.rindex, retained)))
            Server(self.broker).close()
            self._saved = retained

    def believes_in_its_connection(self):
        """The daemon's host, that is."""
        return [row[3] for row in self.service.tcp_table()] == ["01"]  # established

    # What came of it.

    def end_well(self, alive):
        """Makes all well and returns the verdict. `alive`: the daemon has its first connection."""
        self.go_on()
        self._drain()
        early = {job for job in self.sent if job.received or alive}
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
        elif not self._was_killed:
            self._expect_records_of_the_dropped()
        return self._verdict(early)

    def _drain(self):
        """Receives what is on its way to the server."""
        self.server.publish_to("out/cmd/fence", b"", qos=2)
        self._receive_until("out/cmd/fence")

    def _receive_until(self, topic):
        while self._receive() != topic:
            pass

    def _receive(self):
        message = self.server.result()
        jobs = {"out/cmd/" + job.id: job for job in self.sent}
        assert message.topic in (*jobs, "out/cmd/fence", "out/cmd/fresh"), message.topic
        # Or a new subscription has shown what was there already.
        if message.topic in jobs and not message.retain:
            jobs[message.topic].received.append(message.payload)
        return message.topic

    def _has_begun(self, job):
        return self._is_recorded("job_id: " + job.id)

    def _is_acted_on(self, job):
        if self._is_withdrawn:
            return self._is_recorded(f"server has deregistered {job.id} job")
        return self._has_begun(job)

    def _is_recorded(self, text):
        return any(record.message.endswith(text) for record in self.service.records())

    def _sent_to_daemon(self, job):
        """What the broker's log says of it."""
        text = rf"Sending PUBLISH to command_service \(.*, m(\d+), 'in/cmd/{job.id}'"
        return list(re.finditer(text, self.broker.log()))

    def _is_acknowledged(self, job):
        """What the broker has sent of it last."""
        sent = self._sent_to_daemon(job)
        if not sent:
            return False
        connection = self.broker.log(sent[-1].end()).partition(" as command_service ")[0]
        return f"PUBACK from command_service (Mid: {sent[-1][1]}," in connection

    def _dropped(self, job):
        text = f"so the message on in/cmd/{job.id} is not handled"
        return [record for record in self.service.records("ERROR") if text in record.message]

    def _expect_records_of_the_dropped(self):
        dropped = [job for job in self.sent if self._dropped(job)]
        if self.hold and dropped != self.waiting:
            raise Missed("a job that was to wait began before the connection ended")
        assert dropped == self.waiting
        assert all(len(self._dropped(job)) == 1 for job in dropped)

    def _verdict(self, early):
        retained = {message.topic: message.payload for message in self.server.all_retained("#")}
        groups = [{self._verdict_of(job, job in early, retained) for job in jobs}
                  for jobs in self.watched]
        return "; ".join(" and ".join(sorted(verdicts)) for verdicts in groups)

    def _verdict_of(self, job, early, retained):
        if not job.received:
            return self._loss(job, retained)
        request_topic, topic = "in/cmd/" + job.id, "out/cmd/" + job.id
        forgotten = self._was_broker_restarted and not self.database and topic not in retained
        assert forgotten or retained.get(topic, b"") == job.received[-1], retained
        assert job.received[-1] or request_topic not in retained, retained
        verdicts = {
            (1, b""): "withdrawn",
            (1, b"", b""): "withdrawn twice",
            (1, b"run 1"): "once" if early else "later",
            (1, b"run 1", b"run 1"): "twice",
            (2, b"run 1", b"run 2"): "again",
            (2, b"run 2"): "again only",
            (2, b"run 1", b"run 1", b"run 2"): "twice, again",
        }
        seen = (job.runs(), *job.received)
        verdict = verdicts.get(seen, f"unforeseen: {seen}")
        return verdict + ", forgotten" if forgotten and job.received[-1] else verdict

    def _loss(self, job, retained):
        """Which of the losses it is that cannot be avoided."""
        if self._is_acted_on(job) or (self._was_killed and self._is_acknowledged(job)):
            assert self._was_killed, "lost by a daemon that has stopped well or runs"
            return KILLED
        if self.retain and not self._is_withdrawn:
            assert not self.database and "in/cmd/" + job.id not in retained, retained
            return NO_DATABASE
        if self._dropped(job):
            return DROPPED
        assert not self._is_acknowledged(job), "lost without a word by a daemon that runs"
        return UNACKNOWLEDGED if len(self._sent_to_daemon(job)) > self._is_withdrawn else AWAY


def idle(scene):
    """The request is sent while the fault lasts."""
    scene.let_the_jobs_go_on()
    scene.start_up()


def job_running(scene):
    scene.start_up()
    scene.send()
    scene.job.wait_until_running()


def held_opening(sender, kind):
    """A packet that opens the connection; the request is sent meanwhile."""
    def reach(scene):
        scene.let_the_jobs_go_on()
        scene.hold_back(sender, kind)
        scene.start_service()
        scene.hold.wait()
        scene.send()

    return reach


def held_job(sender, kind):
    """A packet of the job."""
    def reach(scene):
        scene.let_the_jobs_go_on()
        scene.start_up()
        scene.hold_back(sender, kind)
        scene.send()
        scene.hold.wait()

    return reach


def held_withdrawal(sender, kind):
    """A packet of the withdrawal of a job that is done."""
    def reach(scene):
        scene.let_the_jobs_go_on()
        scene.start_up()
        scene.finish_job()
        scene.hold_back(sender, kind)
        scene.withdraw()
        scene.hold.wait()

    return reach


def third_of_five_running(scene):
    scene.have_requests_wait(5)
    first, second, third, *waiting = scene.sent
    scene.finish_slowly(second)
    third.wait_until_running()
    scene.receive_acknowledged([first, second])
    scene.watched = [[first, second], [third], waiting]
    scene.waiting = waiting
    for job in waiting:
        job.let_go()


def third_of_five_handed_over(scene):
    third_of_five_running(scene)
    scene.wait_until_saved()  # which would take too long later
    scene.hold_back(DAEMON, "PUBLISH")
    scene.finish_slowly(scene.sent[2])
    scene.hold.wait()


def waiting_acknowledged(scene):
    """The third request waits behind the second one."""
    scene.have_requests_wait(3)
    scene.waiting = scene.sent[2:]
    scene.watched = [scene.waiting]
    scene.waiting[0].let_go()


MOMENTS = {
    "idle": idle,
    "connecting": held_opening(BROKER, "CONNACK"),
    "request on its way": held_job(BROKER, "PUBLISH"),
    "job running": job_running,
    "result handed over": held_job(DAEMON, "PUBLISH"),
    "PUBREC pending": held_job(BROKER, "PUBREC"),
    "PUBREL pending": held_job(DAEMON, "PUBREL"),
    "withdrawal": held_withdrawal(DAEMON, "PUBLISH"),
    "job 3 of 5 running": third_of_five_running,
    "result 3 of 5 handed over": third_of_five_handed_over,
    "acknowledged, waiting": waiting_acknowledged,
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
            if scene.waiting and scene.is_a_job_held():
                time.sleep(scene.job_length)
            scene.go_on()
            scene.hold = hold.wait()
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
        if not scene.is_a_job_held():
            scene.service.wait_for_record("Closing server comms service")
        if scene.hold:
            scene.hold.release()
        scene.let_the_jobs_go_on()
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
    def attempt(directory, job_length):
        with contextlib.ExitStack() as endings:
            scene = Scene(directory, endings, retain, FAULTS[fault].database,
                          job_length=job_length)
            MOMENTS[moment](scene)
            FAULTS[fault].strike(scene)
            return scene.end_well(FAULTS[fault].alive)

    return try_with_longer_jobs(directory, attempt)


def try_with_longer_jobs(directory, attempt):
    *first_lengths, last_length = JOB_LENGTHS
    for job_length in first_lengths:
        with contextlib.suppress(Missed):
            return attempt(directory / str(job_length), job_length)
    return attempt(directory / str(last_length), last_length)


def verdict_of_cut(directory, packet, place, retain):
    with contextlib.ExitStack() as endings:
        scene = Scene(directory, endings, retain)
        PACKETS[packet](scene)
        scene.proxy.shut()
        scene.hold.cut(PLACES[place](len(scene.hold.packet)))
        return scene.end_well(alive=False)


def verdicts_of_half_open(directory, moments):
    """The broker is killed and restarted while the cable to the daemon is out. The daemon's host
    still believes in the connection, and no one on the other host knows it. What the daemon sends
    next is answered by a reset; where it has nothing to send, the kernel's probe finds out, after
    20 s. So all moments share one time, with a daemon each. By moment and retain flag."""
    cells = [(moment, retain) for moment in moments for retain in (False, True)]

    def attempt(directory, job_length):
        with contextlib.ExitStack() as endings:
            cable = Cable()
            endings.callback(cable.remove)
            endings.enter_context(on_host(cable.broker_side))
            scenes = {
                (moment, retain): Scene(directory / str(number), endings, retain, True, cable,
                                        job_length)
                for number, (moment, retain) in enumerate(cells)}
            reach_all_at_once(scenes)
            cable.unplug()
            for scene in scenes.values():
                reset(scene)  # which does not get through
                scene.restart_broker(Broker.kill)
            cable.plug_in()
            assert all(scene.believes_in_its_connection() for scene in scenes.values())
            for scene in scenes.values():
                wait_until_carried(cable, scene.broker)
            for scene in scenes.values():
                scene.go_on()
            return {cell: scene.end_well(alive=False) for cell, scene in scenes.items()}

    return try_with_longer_jobs(directory, attempt)


def reach_all_at_once(scenes):
    """Before the kernel's first probe."""
    def reach(cell):
        MOMENTS[cell[0]](scenes[cell])
        scenes[cell].run_all_that_waits()

    with concurrent.futures.ThreadPoolExecutor() as pool:
        list(pool.map(reach, scenes))


def wait_until_carried(cable, broker):
    """The kernel takes up to a second to see that the cable is in, and the daemon's result would
    wait for that."""
    with on_host(cable.daemon_side):
        socket.create_connection((broker.host, broker.port), DEADLINE).close()
