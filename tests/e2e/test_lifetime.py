"""The daemon's start and end: command line, configuration, signals, exit status."""

import contextlib
import ctypes
import os
import pathlib
import signal
import socket

import pytest

from harness import WRAPPER, Service, binary, request, wait_until

NO_LOG = "the log must not have been configured"
END = [
    ("INFO", "server_comms", "Closing server comms service"),
    ("DEBUG", "", "Cleaning up mosquitto"),
    ("DEBUG", "", "Cleanup done"),
]

native_only = pytest.mark.skipif(
    bool(WRAPPER), reason="the state of the process is that of the wrapper")
both_signals = pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM],
                                       ids=["SIGINT", "SIGTERM"])


class StuckLog:
    """A log file that the daemon can open but, being a full pipe, not write until drained."""

    def __init__(self, path):
        os.mkfifo(path)
        self._pipe = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        for piece in [b"." * 4096, b"."]:
            try:
                while True:
                    os.write(self._pipe, piece)
            except BlockingIOError:
                pass
        self.settings = {
            "log4cpp.rootCategory": "DEBUG, FILE, STUCK",
            "log4cpp.appender.STUCK": "FileAppender",
            "log4cpp.appender.STUCK.fileName": path,
            "log4cpp.appender.STUCK.layout": "BasicLayout",
        }

    def drain_until_end(self, service):
        def ended():
            try:
                os.read(self._pipe, 1 << 20)
            except BlockingIOError:
                pass
            return service.process.poll() is not None

        wait_until(ended, "the end of the daemon")
        return service.wait()

    def close(self):
        os.close(self._pipe)


class Listener:
    """A listening socket that takes no connection: its queue is full, so callers wait."""

    def __enter__(self):
        self._socket = socket.create_server(("127.0.0.1", 0), backlog=0)
        self.port = self._socket.getsockname()[1]
        self._callers = [socket.socket() for _ in range(4)]
        for caller in self._callers:
            caller.setblocking(False)
            caller.connect_ex(("127.0.0.1", self.port))
        return self

    def __exit__(self, *error):
        for each in [self._socket, *self._callers]:
            each.close()

    def is_being_called_by(self, service):
        syn_sent = "02"
        return (f"0100007F:{self.port:04X}", syn_sent) in [
            (row[2], row[3]) for row in service.tcp_table()]


@pytest.fixture
def stuck_log(tmp_path):
    log = StuckLog(tmp_path / "stuck.log")
    yield log
    log.close()


@contextlib.contextmanager
def inherited_default(number):
    """Has a child started in here find the signal's default effect.

    What pytest ignores (maybe for the sake of nohup) a child would too. signal(2) itself, since
    Python's works in the main thread alone, and a worker of pytest-xdist may have another one.
    """
    change = ctypes.CDLL(None).signal
    change.argtypes, change.restype = [ctypes.c_int, ctypes.c_void_p], ctypes.c_void_p
    before = change(number, signal.SIG_DFL.value)
    try:
        yield
    finally:
        change(number, before)


def process_status(service, field):
    status = pathlib.Path(f"/proc/{service.pid}/status").read_text()
    return next(line.split()[1] for line in status.splitlines() if line.startswith(field + ":"))


def handles_both_signals(service):
    caught = int(process_status(service, "SigCgt"), 16)
    return all(caught >> (number - 1) & 1 for number in [signal.SIGINT, signal.SIGTERM])


@pytest.fixture
def stray_service(tmp_path):
    """A service without a broker, for starts that fail."""
    service = Service(tmp_path / "service")
    yield service
    service.finish()


@pytest.mark.parametrize("arguments", [
    [], ["config", "config"], ["a", "b", "c"], ["", ""],
], ids=["none", "two", "three", "two-empty"])
def test_wrong_number_of_arguments_is_a_usage_error(stray_service, arguments):
    if arguments and arguments[0] == "config":
        arguments = [stray_service.config_file] * 2
    stray_service.start(arguments)
    assert stray_service.wait() == 1
    assert stray_service.stderr() == (
        binary() + " expects the path to the config file to be provided.\n")
    assert stray_service.stdout() == b""
    assert not stray_service.log_file.exists(), NO_LOG


@pytest.mark.parametrize("path", ["/nonexistent/a file", "", ".", "nul", "-h", "--help"])
def test_config_file_that_does_not_load_is_named(stray_service, path):
    (stray_service.directory / "nul").write_bytes(
        stray_service.config_file.read_bytes() + b"zero=\0\n")
    stray_service.start([path])
    assert stray_service.wait() == 1
    assert stray_service.stderr() == f"Config file: {path} failed to load.\n"
    assert stray_service.stdout() == b""
    assert not stray_service.log_file.exists(), NO_LOG


@pytest.mark.skipif(os.geteuid() == 0, reason="root can read every file")
def test_unreadable_config_file_is_named(stray_service):
    stray_service.config_file.chmod(0)
    stray_service.start()
    assert stray_service.wait() == 1
    assert stray_service.stderr() == f"Config file: {stray_service.config_file} failed to load.\n"


@pytest.mark.parametrize("logging", [
    {"log4cpp.rootCategory": None},
    {"log4cpp.rootCategory": "debug, FILE"},
    {"log4cpp.rootCategory": "LOUD, FILE"},
    {"log4cpp.rootCategory": "DEBUG, NONE"},
    {"log4cpp.appender.FILE": "NoSuchAppender"},
    {"log4cpp.appender.FILE.layout": None},
    {"log4cpp.appender.FILE.layout": "NoSuchLayout"},
    {"log4cpp.appender.FILE.layout.ConversionPattern": "%Q"},
], ids=["no-root", "lower-case-priority", "unknown-priority", "unknown-appender-name",
        "unknown-appender", "no-layout", "unknown-layout", "unknown-pattern"])
def test_logging_that_cannot_be_configured_aborts(new_service, broker, logging):
    service = new_service(logging).start()
    assert service.wait() == -signal.SIGABRT
    assert service.records() == []
    assert broker.lines("New connection") == []


def test_empty_config_file_aborts(tmp_path):
    service = Service(tmp_path / "service", config_text="\n")
    service.start()
    assert service.wait() == -signal.SIGABRT


def test_missing_staging_directory_aborts_after_the_settings_are_logged(new_service, broker):
    service = new_service({"script.staging_dir": None}).start()
    assert service.wait() == -signal.SIGABRT
    assert "script.staging_dir has not been configured" in service.stderr()
    assert service.records() == [
        ("DEBUG", "", "Initialising mosquitto"),
        ("DEBUG", "server_comms", "server comms service starting"),
        ("INFO", "server_comms",
         "Server comms config: \n"
         "  id   : command_service\n"
         f"  host : 127.0.0.1 port: {broker.port}\n"
         "  QoS  : 2")]
    assert broker.lines("New connection") == []


def test_removed_working_directory_aborts_if_it_is_needed(new_service, stuck_log, tmp_path):
    cwd = tmp_path / "cwd"
    cwd.mkdir()
    service = new_service({**stuck_log.settings, "script.search_dirs": None}, cwd=cwd).start()
    cwd.rmdir()
    assert stuck_log.drain_until_end(service) == -signal.SIGABRT
    assert "getcwd: No such file or directory" in service.stderr()
    assert service.records()[-1].message.startswith("Server comms config: ")


def test_log_file_that_cannot_be_opened_does_not_stop_the_service(new_service, server, scripts):
    scripts.add("ping", "return 'pong'")
    new_service({"log4cpp.appender.FILE.fileName": "/nonexistent/log"}).start_up()
    assert server.run("7", "ping") == b"pong"


def test_log_whose_reader_has_gone_does_not_stop_the_service(new_service, server, scripts, tmp_path):
    """Writing to it raises SIGPIPE, which not every version of libmosquitto ignores."""
    scripts.add("ping", "return 'pong'")
    path = tmp_path / "log.pipe"
    os.mkfifo(path)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    service = new_service({
        "log4cpp.rootCategory": "DEBUG, FILE, PIPE",
        "log4cpp.appender.PIPE": "FileAppender",
        "log4cpp.appender.PIPE.fileName": path,
        "log4cpp.appender.PIPE.layout": "BasicLayout",
    }).start_up()
    os.close(reader)
    assert server.run("7", "ping") == b"pong"
    assert service.process.poll() is None


@native_only
def test_service_has_one_thread(service, server, scripts):
    scripts.add("ping", "return 'pong'")
    assert server.run("7", "ping") == b"pong"
    assert process_status(service, "Threads") == "1"


@both_signals
def test_idle_service_stops(service, broker, number):
    service.signal(number)
    assert service.wait() == 0
    assert service.records()[-3:] == END
    assert service.stderr() == ""
    assert broker.wait_for("Received DISCONNECT from command_service")


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGQUIT],
                         ids=["SIGHUP", "SIGUSR1", "SIGUSR2", "SIGQUIT"])
def test_other_signals_keep_their_default_effect(new_service, number):
    with inherited_default(number):
        service = new_service().start_up()
    service.signal(number)
    assert service.wait() == -number
    assert service.records()[-1].message.startswith("Connected to broker")


@both_signals
def test_running_job_finishes_and_its_result_is_delivered(service, server, waiting_job, number):
    server.publish("7", request("wait"))
    waiting_job.wait_until_running()
    service.signal(number)
    waiting_job.release()
    assert service.wait() == 0
    assert service.records()[-4].message.startswith("Publishing result  on out/cmd/7\n")
    assert service.records()[-3:] == END
    retained = server.retained("out/cmd/7")
    assert (retained.payload, retained.qos, retained.retain) == (b"released", 2, True)


def test_large_result_of_the_last_job_is_delivered(service, server, waiting_job):
    large = b"x" * 20 * 1000 * 1000
    server.publish("7", request("wait", large))
    waiting_job.wait_until_running()
    service.signal(signal.SIGTERM)
    waiting_job.release()
    assert service.wait() == 0
    assert server.retained("out/cmd/7").payload == large


@native_only
def test_more_signals_in_a_job_change_nothing(service, server, waiting_job):
    server.publish("7", request("wait"))
    waiting_job.wait_until_running()
    for number in [signal.SIGTERM, signal.SIGINT, signal.SIGTERM, signal.SIGINT]:
        service.signal(number)
        # Two that are pending together would count as one.
        wait_until(lambda: int(process_status(service, "ShdPnd"), 16) == 0, "the delivery")
    waiting_job.release()
    assert service.wait() == 0
    assert server.retained("out/cmd/7").payload == b"released"


def test_request_behind_the_last_job_is_not_run(service, server, waiting_job, scripts, tmp_path):
    scripts.add("late", f"io.open('{tmp_path}/late', 'w'):close()")
    server.publish("7", request("wait"))
    waiting_job.wait_until_running()
    server.publish("8", request("late"))
    service.signal(signal.SIGTERM)
    waiting_job.release()
    assert service.wait() == 0
    assert server.result().topic == "out/cmd/7"
    assert server.retained("out/cmd/8") is None
    assert not (tmp_path / "late").exists()
    assert service.records("ERROR") == [
        ("ERROR", "server_comms", "Stopping, so the message on in/cmd/8 is not handled")]


def test_signals_while_stopping_change_nothing(service, server, waiting_job, broker):
    server.publish("7", request("wait"))
    waiting_job.wait_until_running()
    # A broker that does not answer keeps the service waiting for it at the end, for a while.
    broker.signal(signal.SIGSTOP)
    try:
        service.signal(signal.SIGTERM)
        waiting_job.release()
        service.wait_for_record("Cleanup done")
        service.signal(signal.SIGTERM)
        service.signal(signal.SIGINT)
        assert service.wait() == 0
    finally:
        broker.signal(signal.SIGCONT)
    assert service.records()[-4:] == END + [
        ("ERROR", "server_comms",
         "1 messages were not acknowledged by the broker and may be lost")]


@native_only
@both_signals
def test_signal_before_the_loop_still_lets_one_connection_attempt_happen(new_service, broker,
                                                                        stuck_log, number):
    service = new_service(stuck_log.settings).start()
    # It is held up at its first record, which comes after the handlers.
    wait_until(lambda: handles_both_signals(service), "the signal handlers")
    service.signal(number)
    assert stuck_log.drain_until_end(service) == 0
    messages = [record.message for record in service.records()]
    assert messages[0] == "Initialising mosquitto"
    assert messages[3].startswith("script directory: ")
    assert service.records()[4:] == END
    assert len(broker.wait_for("New connection")) == 1
    assert broker.lines("Received SUBSCRIBE") == []


@native_only
@both_signals
def test_signal_before_the_handlers_has_its_default_effect(new_service, tmp_path, number):
    fifo = tmp_path / "log"
    os.mkfifo(fifo)
    with inherited_default(number):
        service = new_service({"log4cpp.appender.FILE.fileName": fifo}).start()
    # It sleeps where it opens its log, which nobody reads.
    wait_until(lambda: process_status(service, "State") == "S", "the daemon to be held up")
    service.signal(number)
    assert service.wait() == -number


@both_signals
def test_service_stops_while_it_cannot_reach_its_broker(new_service, broker, number):
    broker.stop()
    service = new_service().start()
    service.wait_for_record("Couldn't reach broker")
    service.signal(number)
    assert service.wait() == 0
    assert service.records()[-3:] == END


@native_only
@both_signals
def test_service_stops_while_it_waits_for_a_connection(new_service, number):
    with Listener() as listener:
        service = new_service({"server_comms.port": listener.port}).start()
        wait_until(lambda: listener.is_being_called_by(service), "the connection attempt")
        service.signal(number)
        assert service.wait() == 0
        assert service.records()[-3:] == END


@pytest.mark.parametrize("args", [
    b"\x81\xc0\x01",
    b"\x81\xcb\x7f\xf8\x00\x00\x00\x00\x00\x00\x01",
    b"\x81\xca\x7f\xc0\x00\x00\x01",
    b"\x92\x05\x81\xa1a\x82\x01\x01\xc0\xc0",
], ids=["nil", "nan-64", "nan-32", "nil-inside"])
def test_map_key_that_lua_cannot_hold_aborts(service, server, scripts, args):
    scripts.add("ping", "return 'pong'")
    server.publish("7", b"\x82\xaalua_script\xa4ping\xa4args" + args)
    assert service.wait() == -signal.SIGABRT
    assert "PANIC: unprotected error in call to Lua API" in service.stderr()
    assert service.records()[-1].category == "pack_to_lua"
    assert server.retained("out/cmd/7") is None


def test_retained_request_that_aborts_does_so_at_every_start_until_it_is_withdrawn(service, server,
                                                                                   scripts):
    scripts.add("ping", "return 'pong'")
    server.publish("7", b"\x82\xaalua_script\xa4ping\xa4args\x81\xc0\x01", retain=True)
    assert service.wait() == -signal.SIGABRT
    service.start()
    assert service.wait() == -signal.SIGABRT
    server.publish("7", b"", retain=True)
    service.start_up()
    assert server.run("8", "ping") == b"pong"
