"""The daemon's log: every record with its priority, its category and its whole text."""

import signal

import pytest

from harness import request


def startup(service):
    """The records from the start of the service until it is ready."""
    return [
        ("DEBUG", "", "Initialising mosquitto"),
        ("DEBUG", "server_comms", "server comms service starting"),
        ("INFO", "server_comms",
         "Server comms config: \n"
         "  id   : command_service\n"
         f"  host : 127.0.0.1 port: {service.broker.port}\n"
         "  QoS  : 2"),
        ("INFO", "lua_agent", f"script directory: {service.directory.parent}/scripts/"),
        ("INFO", "server_comms", f"Connected to broker 127.0.0.1:{service.broker.port}"),
    ]


END = [
    ("INFO", "server_comms", "Closing server comms service"),
    ("DEBUG", "", "Cleaning up mosquitto"),
    ("DEBUG", "", "Cleanup done"),
]


def publishing(job_id, size):
    return ("INFO", "commandHandler",
            f"Publishing result  on out/cmd/{job_id}\n"
            f"                                Payload size: {size}")


@pytest.fixture
def log_of(service, server, scripts):
    """log_of(job_id, payload): what one message adds to the log, and the published payload."""
    assert service.records() == startup(service)

    def log(job_id, payload):
        before = len(service.records())
        server.publish(job_id, payload)
        answer = server.result().payload
        return service.records()[before:], answer

    return log


def test_service_that_does_nothing_logs_its_start_and_its_end(service):
    assert service.records() == startup(service)
    service.stop()
    assert service.records() == startup(service) + END


def test_job_is_logged_step_by_step(log_of, service, scripts):
    path = scripts.add("ping", "return 'pong'")
    records, _ = log_of("7", request("ping", "x"))
    assert records == [
        ("INFO", "commandHandler", "Received command request, job_id: 7"),
        ("INFO", "commandHandler", "job (7) is to run lua script: ping"),
        ("DEBUG", "script", f"luaL_loadfile: {path}"),
        ("DEBUG", "script", "loading args onto Lua stack"),
        ("DEBUG", "pack_to_lua", "string. sz: 1"),
        ("DEBUG", "script", f"lua_pcall: {path}"),
        ("DEBUG", "script", "Returned 1 lua objects"),
        ("DEBUG", "script", "answer type: string length: 4"),
        publishing(7, 4),
    ]
    service.stop()
    assert service.records() == startup(service) + records + END


def test_withdrawal_is_logged(log_of):
    records, _ = log_of("7", b"")
    assert records == [
        ("INFO", "commandHandler", "server has deregistered 7 job"),
        ("DEBUG", "commandHandler", "Ending transaction on out/cmd/7"),
    ]


@pytest.mark.parametrize("payload, reason", [
    (b"\xc1", "parse error"),
    (b"\x82\xa4", "insufficient bytes"),
    (b"\x90", "Expected the command request dictionary with args and lua_script entries"),
    (b"\x80", "Can't decipher message. Expected the command request dictionary with args and "
              "lua_script entries"),
    (b"\x81\x01\x02", "std::bad_cast"),
])
def test_malformed_request_is_logged(log_of, payload, reason):
    records, answer = log_of("a %s job", payload)
    assert records == [
        ("INFO", "commandHandler", "Received command request, job_id: a %s job"),
        ("ERROR", "commandHandler", f"job (a %s job) request error: {reason}"),
        publishing("a %s job", len(answer)),
    ]


def test_missing_script_is_logged_as_a_request_and_a_result_only(log_of):
    records, answer = log_of("7", request("ping"))
    assert records == [
        ("INFO", "commandHandler", "Received command request, job_id: 7"),
        ("INFO", "commandHandler", "job (7) is to run lua script: ping"),
        publishing(7, len(answer)),
    ]


def test_script_that_does_not_load_is_logged(log_of, scripts, tmp_path):
    path = f"{scripts.directory}/ping.lua"
    (scripts.directory / "ping.lua").symlink_to(tmp_path / "nowhere")
    records, answer = log_of("7", request("ping"))
    assert records == [
        ("INFO", "commandHandler", "Received command request, job_id: 7"),
        ("INFO", "commandHandler", "job (7) is to run lua script: ping"),
        ("DEBUG", "script", f"luaL_loadfile: {path}"),
        ("DEBUG", "script", "logLuaError: num_errs = 1"),
        ("ERROR", "script", f"failure: cannot open {path}: No such file or directory"),
        ("ERROR", "lua_agent", f"{path} job failed"),
        publishing(7, len(answer)),
    ]


@pytest.mark.parametrize("value, logged", [
    ("'text'", "failure: text"), ("42", "failure: 42"), ("{}", "Unknown failure"),
])
def test_script_that_fails_is_logged(log_of, scripts, value, logged):
    path = scripts.add("ping", f"error({value}, 0)")
    records, answer = log_of("7", request("ping"))
    assert records == [
        ("INFO", "commandHandler", "Received command request, job_id: 7"),
        ("INFO", "commandHandler", "job (7) is to run lua script: ping"),
        ("DEBUG", "script", f"luaL_loadfile: {path}"),
        ("DEBUG", "script", "loading args onto Lua stack"),
        ("DEBUG", "pack_to_lua", "nil"),
        ("DEBUG", "script", f"lua_pcall: {path}"),
        ("DEBUG", "script", "logLuaError: num_errs = 1"),
        ("ERROR", "script", logged),
        ("ERROR", "lua_agent", f"{path} job failed"),
        publishing(7, len(answer)),
    ]


@pytest.mark.parametrize("script, logged", [
    ("", ["Returned 0 lua objects"]),
    ("return nil", ["Returned 1 lua objects", "answer type: nil length: 0"]),
    ("return true", ["Returned 1 lua objects", "answer type: boolean length: 0"]),
    ("return 42", ["Returned 1 lua objects", "answer type: number length: 2"]),
    ("return 2^53", ["Returned 1 lua objects", "answer type: number length: 18"]),
    ("return ''", ["Returned 1 lua objects", "answer type: string length: 0"]),
    ("return 'a\\0b'", ["Returned 1 lua objects", "answer type: string length: 3"]),
    ("return {}", ["Returned 1 lua objects", "answer type: table length: 0"]),
    ("return print", ["Returned 1 lua objects", "answer type: function length: 0"]),
    ("return io.stdout", ["Returned 1 lua objects", "answer type: userdata length: 0"]),
    ("return coroutine.create(print)", ["Returned 1 lua objects", "answer type: thread length: 0"]),
    ("return 'x', 1", ["Returned 2 lua objects", "answer type: number length: 1"]),
    ("return 1, 2, nil", ["Returned 3 lua objects", "answer type: nil length: 0"]),
])
def test_answer_is_traced(log_of, scripts, script, logged):
    scripts.add("ping", script)
    records, _ = log_of("7", request("ping"))
    assert records[6:-1] == [("DEBUG", "script", message) for message in logged]


@pytest.mark.parametrize("args, trace", [
    (b"\xc0", ["nil"]),
    (b"\xc2", ["bool: <false>"]),
    (b"\xc3", ["bool: <true>"]),
    (b"\x00", ["unsigned: 0"]),
    (b"\xcf\x00\x00\x00\x01\x00\x00\x00\x00", ["unsigned: 4294967296"]),
    (b"\xcf\xff\xff\xff\xff\xff\xff\xff\xff", ["unsigned: 18446744073709551615"]),
    (b"\xd0\x05", ["unsigned: 5"]),
    (b"\xff", ["signed: -1"]),
    (b"\xd3\x80\x00\x00\x00\x00\x00\x00\x00", ["signed: -9223372036854775808"]),
    (b"\xca\x3f\xc0\x00\x00", ["float: 1.5"]),
    (b"\xcb\x3f\xf0\x00\x00\x00\x00\x00\x00", ["float: 1"]),
    (b"\xcb\x3f\xb9\x99\x99\x99\x99\x99\x9a", ["float: 0.1"]),
    (b"\xcb\x41\xf0\x00\x00\x00\x00\x00\x00", ["float: 4.29497e+09"]),
    (b"\xcb\x7e\x37\xe4\x3c\x88\x00\x75\x9c", ["float: inf"]),
    (b"\xa0", ["string. sz: 0"]),
    (b"\xa3%s\0", ["string. sz: 3"]),
    (b"\xc4\x02\x00\x01", ["string. sz: 2"]),
    (b"\xd4\x05A", ["string. sz: 2"]),
    (b"\xc7\x00\x05", ["string. sz: 1"]),
    (b"\x90", ["array start (0)", "array end"]),
    (b"\x93\x01\xc0\x03", ["array start (3)", "unsigned: 1", "array item 1", "nil", "array item 2",
                           "unsigned: 3", "array item 2", "array end"]),
    (b"\x92\x91\x05\xc2", ["array start (2)", "array start (1)", "unsigned: 5", "array item 1",
                           "array end", "array item 1", "bool: <false>", "array item 2",
                           "array end"]),
    (b"\x80", ["map start (0 key value pairs)", "map end"]),
    (b"\x82\xa1a\xc0\x01\x80", ["map start (2 key value pairs)", "string. sz: 1", "nil",
                                "key value pair ready", "unsigned: 1",
                                "map start (0 key value pairs)", "map end",
                                "key value pair ready", "map end"]),
    (b"\x81\xa1a\x92\x01\x02", ["map start (1 key value pairs)", "string. sz: 1",
                                "array start (2)", "unsigned: 1", "array item 1", "unsigned: 2",
                                "array item 2", "array end", "key value pair ready", "map end"]),
], ids=lambda value: value.hex() if isinstance(value, bytes) else "")
def test_arguments_are_traced(log_of, scripts, args, trace):
    scripts.add("ping", "")
    records, _ = log_of("7", b"\x82\xaalua_script\xa4ping\xa4args" + args)
    assert records[3] == ("DEBUG", "script", "loading args onto Lua stack")
    assert records[4:-3] == [("DEBUG", "pack_to_lua", message) for message in trace]
    assert records[-3] == ("DEBUG", "script", f"lua_pcall: {scripts.directory}/ping.lua")


def test_contents_of_arguments_and_answers_are_not_logged(log_of, service, scripts):
    scripts.add("ping", "return 'secret answer'")
    log_of("7", request("ping", {"secret key": ["secret value"]}))
    assert "secret" not in "".join(record.message for record in service.records())


def test_configured_qos_is_logged_and_changes_nothing(new_service, server, broker):
    service = new_service({"server_comms.qos": 0}).start_up()
    assert service.records()[2].message.endswith("\n  QoS  : 0")
    assert broker.lines("in/cmd/+ (QoS 1)")
    server.publish("7", b"\xc1")
    assert server.result().qos == 2


@pytest.mark.parametrize("configured, logged", [
    ((None, None, None), ("localhost", "1883", "2")),
    (("", "", ""), ("", "1883", "2")),
    (("a host", "18x", "x"), ("a host", "1883", "2")),
    (("/run/broker", "0", "-1"), ("/run/broker", "0", "-1")),
    (("%s%n", "70000", "7"), ("%s%n", "70000", "7")),
    (("::1", "+5", "99999999999"), ("::1", "5", "2")),
], ids=["missing", "empty", "malformed", "unix-socket", "unchecked", "out-of-range"])
def test_broker_settings_are_logged_before_anything_else_is_done(new_service, configured, logged):
    keys = ["server_comms.host", "server_comms.port", "server_comms.qos"]
    # Without a staging directory the service ends right after the block and connects to nothing.
    service = new_service({**dict(zip(keys, configured)), "script.staging_dir": None}).start()
    assert service.wait() == -signal.SIGABRT
    host, port, qos = logged
    assert service.records()[2:] == [
        ("INFO", "server_comms",
         "Server comms config: \n"
         "  id   : command_service\n"
         f"  host : {host} port: {port}\n"
         f"  QoS  : {qos}")]


@pytest.mark.parametrize("settings, priorities, categories", [
    ({"log4cpp.rootCategory": "INFO, FILE"},
     {"INFO", "ERROR"}, {"server_comms", "lua_agent", "commandHandler"}),
    ({"log4cpp.rootCategory": "ERROR, FILE"}, {"ERROR"}, {"commandHandler"}),
    ({"log4cpp.rootCategory": "ERROR, FILE", "log4cpp.category.script": "DEBUG"},
     {"ERROR", "DEBUG"}, {"commandHandler", "script"}),
    ({"log4cpp.rootCategory": "ERROR, FILE", "log4cpp.category.lua_agent": "INFO",
      "log4cpp.category.pack_to_lua": "DEBUG", "log4cpp.category.commandHandler": "FATAL"},
     {"INFO", "DEBUG"}, {"lua_agent", "pack_to_lua"}),
    ({"log4cpp.category.script": "INFO", "log4cpp.category.pack_to_lua": "INFO",
      "log4cpp.category.server_comms": "ERROR"},
     {"INFO", "ERROR", "DEBUG"}, {"", "lua_agent", "commandHandler"}),
], ids=["info", "error", "one-category-more", "several", "some-categories-less"])
def test_priorities_are_configured_by_category(new_service, server, scripts, settings, priorities,
                                               categories):
    scripts.add("ping", "return args")
    service = new_service(settings).start_up()
    assert server.run("7", "ping", "x") == b"x"
    server.publish("8", b"\xc1")
    server.result()
    service.stop()
    assert {record.priority for record in service.records()} == priorities
    assert {record.category for record in service.records()} == categories


def test_category_can_have_a_file_of_its_own(new_service, server, scripts, tmp_path):
    scripts.add("ping", "error('broken', 0)")
    service = new_service({
        "log4cpp.category.script": "ERROR, OWN",
        "log4cpp.additivity.script": "false",
        "log4cpp.appender.OWN": "FileAppender",
        "log4cpp.appender.OWN.fileName": tmp_path / "script.log",
        "log4cpp.appender.OWN.layout": "PatternLayout",
        "log4cpp.appender.OWN.layout.ConversionPattern": "%c %p %m%n",
    }).start_up()
    server.run("7", "ping")
    assert (tmp_path / "script.log").read_text() == "script ERROR failure: broken\n"
    assert "script" not in {record.category for record in service.records()}
