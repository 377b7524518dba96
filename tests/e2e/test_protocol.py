"""What crosses the broker: topics, request and result bytes, flags, order, end of transaction."""

import re

import msgpack
import pytest

from harness import MOSQ_ERR_INVAL, failure, library_text, request

LUA_SCRIPT = b"\xaalua_script"
ECHO = b"\xa4echo"
ARGS = b"\xa4args"
HI = b"\xa2hi"

# Reasons with their str headers.
NOT_A_MAP = b"\xd9\x48Expected the command request dictionary with args and lua_script entries"
NO_ENTRY = (b"\xd9\x60Can't decipher message. Expected the command request dictionary with args "
            b"and lua_script entries")


def published(broker, since=0):
    """What the service published, as the broker's log shows it: (flags, topic, size)."""
    pattern = r"\((d\d, q\d, r\d), m\d+, '(.*)', \.\.\. \((\d+) bytes\)\)"
    found = [re.search(pattern, line).groups()
             for line in broker.lines("Received PUBLISH from command_service", since)]
    return [(flags, topic, int(size)) for flags, topic, size in found]


@pytest.fixture
def echo(scripts):
    scripts.add("echo", "return args")


@pytest.mark.parametrize("payload", [
    b"\x82" + LUA_SCRIPT + ECHO + ARGS + HI,
    b"\x82" + ARGS + HI + LUA_SCRIPT + ECHO,
    b"\x82\xc4\x0alua_script" + ECHO + b"\xc4\x04args" + HI,
    b"\x82" + LUA_SCRIPT + b"\xc4\x04echo" + ARGS + HI,
    b"\x82\xd9\x0alua_script\xd9\x04echo\xd9\x04args\xd9\x02hi",
    b"\x82\xda\x00\x0alua_script\xda\x00\x04echo\xda\x00\x04args\xda\x00\x02hi",
    b"\x82\xdb\0\0\0\x0alua_script\xdb\0\0\0\x04echo\xdb\0\0\0\x04args\xdb\0\0\0\x02hi",
    b"\x82\xc5\x00\x0alua_script\xc5\x00\x04echo\xc5\x00\x04args\xc5\x00\x02hi",
    b"\x82\xc6\0\0\0\x0alua_script\xc6\0\0\0\x04echo\xc6\0\0\0\x04args\xc6\0\0\0\x02hi",
    b"\xde\x00\x02" + LUA_SCRIPT + ECHO + ARGS + HI,
    b"\xdf\0\0\0\x02" + LUA_SCRIPT + ECHO + ARGS + HI,
    b"\x83\xa5other\x93\x01\x02\x03" + LUA_SCRIPT + ECHO + ARGS + HI,
    b"\x84" + LUA_SCRIPT + ECHO + ARGS + HI + b"\xa0\xc0\xa4Args\x05",
    b"\x83" + ARGS + b"\xa3not" + ARGS + HI + LUA_SCRIPT + ECHO,
    b"\x83" + LUA_SCRIPT + b"\xa3not" + ARGS + HI + LUA_SCRIPT + ECHO,
    b"\x83" + LUA_SCRIPT + b"\xa0" + ARGS + HI + LUA_SCRIPT + ECHO,
    b"\x84" + LUA_SCRIPT + b"\xa3not" + b"\xc4\x04args\x01\xc4\x0alua_script" + ECHO + ARGS + HI,
    b"\x82" + LUA_SCRIPT + ECHO + ARGS + HI + b"\xc1",
    b"\x82" + LUA_SCRIPT + ECHO + ARGS + HI + b"\x82" + LUA_SCRIPT + b"\xa3not" + ARGS + b"\xc0",
], ids=[
    "script-first", "args-first", "bin-keys", "bin-script", "str8", "str16", "str32", "bin16",
    "bin32", "map16", "map32", "other-key", "other-case-and-empty-key", "last-args-count",
    "last-script-counts", "empty-script-overridden", "str-and-bin-keys-are-equal",
    "malformed-bytes-after", "second-request-after"])
def test_request_form_is_understood(service, server, echo, payload):
    server.publish("7", payload)
    result = server.result()
    assert (result.topic, result.payload) == ("out/cmd/7", b"hi")
    server.expect_no_more()


MALFORMED = {
    "never-used-byte": (b"\xc1", b"\xabparse error"),
    "never-used-byte-inside": (b"\x82" + LUA_SCRIPT + ECHO + ARGS + b"\x91\xc1",
                               b"\xabparse error"),
    "truncated-header": (b"\xd9", b"\xb2insufficient bytes"),
    "truncated-key": (b"\x82\xa4", b"\xb2insufficient bytes"),
    "truncated-last-value": (b"\x82" + LUA_SCRIPT + ECHO + ARGS + b"\xa2h",
                             b"\xb2insufficient bytes"),
    "one-pair-of-two": (b"\x82" + LUA_SCRIPT + ECHO, b"\xb2insufficient bytes"),
    "array": (b"\x90", NOT_A_MAP),
    "pairs-in-an-array": (b"\x94" + LUA_SCRIPT + ECHO + ARGS + HI, NOT_A_MAP),
    "nil": (b"\xc0", NOT_A_MAP),
    "bool": (b"\xc3", NOT_A_MAP),
    "integer": (b"\x00", NOT_A_MAP),
    "float": (b"\xcb\0\0\0\0\0\0\0\0", NOT_A_MAP),
    "str": (b"\xa4echo", NOT_A_MAP),
    "bin": (b"\xc4\x01\x80", NOT_A_MAP),
    "ext": (b"\xd4\x01\x80", NOT_A_MAP),
    "json": (b'{"lua_script": "echo", "args": null}', NOT_A_MAP),
    "empty-map": (b"\x80", NO_ENTRY),
    "no-args": (b"\x81" + LUA_SCRIPT + ECHO, NO_ENTRY),
    "no-script": (b"\x81" + ARGS + HI, NO_ENTRY),
    "empty-script": (b"\x82" + ARGS + b"\x90" + LUA_SCRIPT + b"\xa0", NO_ENTRY),
    "empty-bin-script": (b"\x82" + ARGS + b"\x90" + LUA_SCRIPT + b"\xc4\x00", NO_ENTRY),
    "last-script-is-empty": (b"\x83" + LUA_SCRIPT + ECHO + ARGS + HI + LUA_SCRIPT + b"\xa0",
                             NO_ENTRY),
    "keys-in-another-case": (b"\x82\xaaLua_Script" + ECHO + b"\xa4ARGS" + HI, NO_ENTRY),
    "key-with-zero-byte": (b"\x82\xablua_script\0" + ECHO + ARGS + HI, NO_ENTRY),
    "integer-key": (b"\x83" + LUA_SCRIPT + ECHO + ARGS + HI + b"\x01\x02", b"\xadstd::bad_cast"),
    "integer-key-first": (b"\x83\x01\x02" + LUA_SCRIPT + ECHO + ARGS + HI, b"\xadstd::bad_cast"),
    "nil-key": (b"\x81\xc0\x02", b"\xadstd::bad_cast"),
    "ext-key": (b"\x81\xd4\x01a\x02", b"\xadstd::bad_cast"),
    "array-key": (b"\x81\x91\xa4args\x02", b"\xadstd::bad_cast"),
    "integer-script": (b"\x82" + LUA_SCRIPT + b"\x01" + ARGS + HI, b"\xadstd::bad_cast"),
    "nil-script": (b"\x82" + LUA_SCRIPT + b"\xc0" + ARGS + HI, b"\xadstd::bad_cast"),
    "array-script": (b"\x82" + LUA_SCRIPT + b"\x91" + ECHO + ARGS + HI, b"\xadstd::bad_cast"),
    # Every occurrence is converted, although only the last one would count.
    "first-script-is-an-integer": (b"\x83" + LUA_SCRIPT + b"\x01" + ARGS + HI + LUA_SCRIPT + ECHO,
                                   b"\xadstd::bad_cast"),
}


@pytest.mark.parametrize("payload, reason", MALFORMED.values(), ids=MALFORMED.keys())
def test_malformed_request_gets_one_failure_and_the_next_is_served(service, server, echo, payload,
                                                                   reason):
    server.publish("7", payload)
    server.publish("8", request("echo", "next"))
    bad, good = server.results(2)
    assert bad.topic == "out/cmd/7"
    assert bad.payload == b"\x82\xa6status\xc2\xa6reason" + reason
    assert (good.topic, good.payload) == ("out/cmd/8", b"next")
    server.expect_no_more()
    retained = server.retained("out/cmd/7")
    assert (retained.payload, retained.qos, retained.retain) == (bad.payload, 2, True)


def test_parse_error_payload_to_the_byte(service, server):
    server.publish("7", b"\xc1")
    assert server.result().payload == bytes.fromhex(
        "82 a6 73 74 61 74 75 73 c2 a6 72 65 61 73 6f 6e"
        "ab 70 61 72 73 65 20 65 72 72 6f 72")


@pytest.mark.parametrize("announced", [
    b"\xdd\xff\xff\xff\xff", b"\xdf\xff\xff\xff\xff", b"\xdb\xff\xff\xff\xff",
    b"\xc6\xff\xff\xff\xff", b"\xc9\xff\xff\xff\xff\x01",
    b"\x81\xa4args\xdd\xff\xff\xff\xff", b"\x81\xa4args\xdf\xff\xff\xff\xff",
    b"\x81\xdb\xff\xff\xff\xff", b"\xdd\xff\xff\xff\xff" * 200,
], ids=["array", "map", "str", "bin", "ext", "array-in-a-map", "map-in-a-map", "str-in-a-map",
        "arrays-in-arrays"])
def test_huge_announced_size_costs_nothing_but_its_request(new_service, server, echo, announced):
    # The address sanitizer would end the process where plain malloc returns null.
    new_service(env={"ASAN_OPTIONS": "allocator_may_return_null=1"}).start_up()
    server.publish("7", announced)
    result = server.result()
    assert result.topic == "out/cmd/7"
    # Which of these it is depends on the width of size_t and on the memory.
    assert msgpack.unpackb(result.payload) in [
        {"status": False, "reason": reason}
        for reason in ["insufficient bytes", "std::bad_alloc", "array size overflow",
                       "map size overflow", "ext size overflow"]]
    assert server.run("8", "echo", "next") == b"next"


@pytest.mark.parametrize("name_length, header", [
    (1, b"\xd9\x28"),
    (216, b"\xd9\xff"),
    (217, b"\xda\x01\x00"),
    (65496, b"\xda\xff\xff"),
    (65497, b"\xdb\x00\x01\x00\x00"),
])
def test_reason_has_the_shortest_str_header(service, server, name_length, header):
    name = b"n" * name_length
    assert server.run("7", name.decode()) == (
        b'\x82\xa6status\xc2\xa6reason' + header +
        b'Cannot run job. Script not found "' + name + b'.lua"')


def test_reason_ends_at_a_zero_byte(service, server):
    assert server.run("7", "no\0such") == failure('Cannot run job. Script not found "no')


def test_reason_keeps_bytes_that_are_not_utf8(service, server):
    server.publish("7", b"\x82" + LUA_SCRIPT + b"\xa2\xff\xe4" + ARGS + b"\xc0")
    assert server.result().payload == (
        b'\x82\xa6status\xc2\xa6reason\xd9\x29Cannot run job. Script not found "\xff\xe4.lua"')


@pytest.mark.parametrize("qos", [0, 1, 2])
@pytest.mark.parametrize("retain", [False, True], ids=["plain", "retained"])
def test_results_are_retained_at_qos_2_whatever_the_request_is(service, server, broker, echo, qos,
                                                               retain):
    server.publish("7", request("echo", "answer"), qos=qos, retain=retain)
    server.publish("8", b"\xc1", qos=qos, retain=retain)
    live = server.results(2)
    assert [(message.topic, message.qos) for message in live] == [("out/cmd/7", 2),
                                                                  ("out/cmd/8", 2)]
    late = server.all_retained("out/cmd/#")
    assert sorted((message.topic, message.payload, message.qos, message.retain)
                  for message in late) == [
        ("out/cmd/7", b"answer", 2, True), ("out/cmd/8", failure("parse error"), 2, True)]
    # A subscription gets the lower of both QoS; the broker's log shows the service's own.
    assert published(broker) == [("d0, q2, r1", "out/cmd/7", 6), ("d0, q2, r1", "out/cmd/8", 28)]


def test_results_come_in_the_order_of_the_requests(service, server, echo):
    for number in range(50):
        server.publish(str(number % 7), request("echo", str(number)))
    assert [(message.topic, message.payload) for message in server.results(50)] == [
        (f"out/cmd/{number % 7}", str(number).encode()) for number in range(50)]
    server.expect_no_more()


def test_same_job_id_runs_again_and_replaces_the_result(service, server, echo):
    assert server.run("7", "echo", "first") == b"first"
    assert server.run("7", "echo", "second") == b"second"
    assert server.retained("out/cmd/7").payload == b"second"
    server.publish("7", b"\xc1")
    assert server.result().payload == failure("parse error")
    assert server.retained("out/cmd/7").payload == failure("parse error")
    assert server.run("7", "echo", "third") == b"third"
    assert server.retained("out/cmd/7").payload == b"third"


@pytest.mark.parametrize("qos", [0, 1, 2])
@pytest.mark.parametrize("retain", [False, True], ids=["plain", "retained"])
def test_withdrawal_removes_the_retained_result(service, server, broker, echo, qos, retain):
    server.run("6", "echo", "kept")
    server.run("7", "echo", "withdrawn")
    assert server.retained("out/cmd/7").payload == b"withdrawn"
    mark = broker.mark()
    server.publish("7", b"", qos=qos, retain=retain)
    ending = server.result()
    assert (ending.topic, ending.payload, ending.qos) == ("out/cmd/7", b"", 2)
    assert published(broker, mark) == [("d0, q2, r1", "out/cmd/7", 0)]
    server.expect_no_more()
    assert server.retained("out/cmd/7") is None
    assert server.retained("out/cmd/6").payload == b"kept"


def test_withdrawal_of_an_unknown_job_ends_its_transaction_too(service, server):
    server.publish("never seen", b"")
    ending = server.result()
    assert (ending.topic, ending.payload, ending.qos) == ("out/cmd/never seen", b"", 2)
    server.expect_no_more()


def test_withdrawn_job_id_can_be_used_again(service, server, echo):
    server.run("7", "echo", "first")
    server.publish("7", b"")
    assert server.result().payload == b""
    assert server.run("7", "echo", "again") == b"again"
    assert server.retained("out/cmd/7").payload == b"again"


def test_empty_answer_is_a_zero_length_result_that_removes_the_last(service, server, broker,
                                                                    scripts, echo):
    scripts.add("silent", "return nil")
    server.run("7", "echo", "loud")
    mark = broker.mark()
    assert server.run("7", "silent") == b""
    assert published(broker, mark) == [("d0, q2, r1", "out/cmd/7", 0)]
    server.expect_no_more()
    assert server.retained("out/cmd/7") is None


@pytest.mark.parametrize("job_id", [
    "0", "a job", " ", "jöb-日本-🚢", "%s%n%d", "$SYS", "-", "7" * 1000, "x" * 65527,
], ids=["digit", "blank-inside", "one-blank", "utf8", "format", "dollar", "dash", "1000",
        "as-long-as-topics-can-be"])
def test_job_id_comes_back_unchanged(service, server, echo, job_id):
    assert server.run(job_id, "echo", "hi") == b"hi"
    server.publish(job_id, b"")
    ending = server.result()
    assert (ending.topic, ending.payload) == ("out/cmd/" + job_id, b"")


def test_empty_job_id_is_answered_on_the_bare_prefix(service, server, echo):
    assert server.run("", "echo", "hi") == b"hi"
    assert server.retained("out/cmd/").payload == b"hi"
    server.publish("", b"")
    ending = server.result()
    assert (ending.topic, ending.payload) == ("out/cmd/", b"")
    assert server.retained("out/cmd/") is None


def test_result_topic_that_is_too_long_is_logged_and_the_next_request_served(service, server,
                                                                             echo):
    # The longest request topic there is gives a result topic of one byte too many.
    job_id = "x" * 65528
    server.publish(job_id, request("echo", "lost"))
    server.publish(job_id, b"")
    assert server.run("7", "echo", "next") == b"next"
    assert service.records("ERROR") == [
        ("ERROR", "commandHandler",
         "Failed to end transaction. " + library_text(MOSQ_ERR_INVAL))] * 2


@pytest.mark.parametrize("topic", [
    "in/cmd/1/2", "in/cmd/1/", "in/cmd", "in/cmds/1", "IN/CMD/1", "/in/cmd/1", "in/1", "1",
])
def test_other_topics_are_not_handled(service, server, echo, topic):
    server.publish_to(topic, request("echo", "hi"))
    server.publish_to(topic, b"")
    server.expect_no_more()
