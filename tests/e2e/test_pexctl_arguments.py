"""pexctl's ARGS and --msgpack: how arguments are handed over, what is said about them, and what is
refused. Unit tests have the conversion itself."""

import signal

import msgpack
import pytest

from harness import request

ENDS_DAEMON = "pexctl: These arguments would end the daemon. Nothing was done.\n"


@pytest.fixture
def echo(scripts):
    scripts.add("echo", "return type(args) .. ' ' .. tostring(args)")


def run(pexctl, scripts, *arguments, **options):
    return pexctl("run", "--search-dir", scripts.directory, "echo", *arguments, **options)


def connections_of_pexctl(broker):
    return broker.lines("as pexctl-")


def test_without_arguments_the_script_gets_nil(pexctl, scripts, echo):
    assert run(pexctl, scripts) == (0, b"nil nil", "")


@pytest.mark.parametrize("args, answer", [
    ('"text"', b"string text"),
    ("5", b"number 5"),
    ("-5", b"number -5"),
    ("1.5", b"number 1.5"),
    ("true", b"boolean true"),
    ("null", b"nil nil"),
    (' \n"between blanks"\t', b"string between blanks"),
])
def test_arguments_are_json(pexctl, scripts, echo, args, answer):
    assert run(pexctl, scripts, args) == (0, answer, "")


@pytest.mark.parametrize("args", ["[1, 2]", "[]", "{}", '{"a": [1, {"b": null}]}'])
def test_arguments_may_be_arrays_and_objects(pexctl, scripts, args):
    scripts.add("echo", "return type(args)")
    assert run(pexctl, scripts, args) == (0, b"table", "")


def test_arguments_may_come_from_a_file(pexctl, scripts, echo):
    (pexctl.directory / "args.json").write_text('"from a file"\n')
    assert run(pexctl, scripts, "@args.json") == (0, b"string from a file", "")


def test_arguments_may_come_from_standard_input(pexctl, scripts, echo):
    assert run(pexctl, scripts, "-", stdin=b'"from\\nthere"\n') == (0, b"string from\nthere", "")


@pytest.mark.parametrize("packed, answer", [
    (b"\xa4text", b"string text"),
    (b"\xcd\x00\x05", b"number 5"),
    (b"\xc4\x03\x00\xff\n", b"string \x00\xff\n"),
], ids=["str", "integer-of-16-bits", "bin"])
def test_messagepack_is_sent_as_it_is(pexctl, scripts, echo, packed, answer):
    (pexctl.directory / "args").write_bytes(packed)
    assert run(pexctl, scripts, "--msgpack", "args") == (0, answer, "")
    assert run(pexctl, scripts, "--msgpack", "-", stdin=packed) == (0, answer, "")


@pytest.mark.parametrize("args, where", [
    ("", "line 1, column 1"),
    ("{", "line 1, column 2"),
    ('{"a": 1,\n "b": x}', "line 2, column 7"),
    ("[1, 2] 3", "line 1, column 8"),
    ("text", "line 1, column 2"),
    ("@bad.json", "line 3, column 1"),
])
def test_malformed_json_is_refused_with_its_place_and_nothing_is_sent(remote, broker, args, where):
    (remote.directory / "bad.json").write_text("[1,\n2,\n]\n")
    status, answer, stderr = remote("submit", "echo", args)
    assert (status, answer) == (2, b"")
    assert stderr.startswith("pexctl: The arguments are wrong. "), stderr
    assert where in stderr and stderr.count("\n") == 1, stderr
    assert connections_of_pexctl(broker) == []


@pytest.mark.parametrize("packed, where", [
    (b"", "byte 0"),
    (b"\x82\x01", "byte 2"),
    (b"\x01\x02", "byte 1"),
    (b"\x91\xc1", "byte 1"),
], ids=["nothing", "truncated", "more-than-one", "not-messagepack"])
def test_malformed_messagepack_is_refused_with_its_place_and_nothing_is_sent(remote, broker,
                                                                             packed, where):
    (remote.directory / "args").write_bytes(packed)
    status, answer, stderr = remote("submit", "--msgpack", "args", "echo")
    assert (status, answer) == (2, b"")
    assert stderr.startswith("pexctl: The arguments are wrong. "), stderr
    assert where in stderr and stderr.count("\n") == 1, stderr
    assert connections_of_pexctl(broker) == []


@pytest.mark.parametrize("packed, reason", [
    (b"\x82\x01", "insufficient bytes"),
    (b"\x91\xc1", "parse error"),
], ids=["truncated", "not-messagepack"])
def test_malformed_messagepack_is_sent_with_force(service, remote, packed, reason):
    status, _, stderr = remote("submit", "--force", "--msgpack", "-", "echo", stdin=packed)
    assert (status, stderr) == (1, f"pexctl: The job failed: {reason}\n")


@pytest.mark.parametrize("arguments, text", [
    (["@nosuch.json"], "nosuch.json: No such file or directory"),
    (["--msgpack", "nosuch"], "nosuch: No such file or directory"),
    (["@."], ".: Is a directory"),
    (["--msgpack", "."], ".: Is a directory"),
])
def test_file_that_cannot_be_read_is_named(pexctl, scripts, echo, arguments, text):
    assert run(pexctl, scripts, *arguments) == (2, b"", f"pexctl: {text}\n")


def test_what_the_script_will_not_get_as_written_is_told(service, remote, scripts):
    scripts.add("sum", "local n = 0 for _, v in ipairs(args.list) do n = n + v end return "
                       "args.count .. ' ' .. args.ratio .. ' ' .. args['odd key'] .. ' ' .. n")
    assert remote("submit", "sum", '{"count": 4294967296, "ratio": 0.1, "odd key": -2147483649, '
                                   '"list": [1, null, 3]}') == (
        0, b"0 0.10000000149012 2147483647 4",
        "pexctl: $.count: 4294967296 arrives as 0\n"
        "pexctl: $.ratio: 0.1 arrives as 0.100000001490116\n"
        "pexctl: $['odd key']: -2147483649 arrives as 2147483647\n"
        "pexctl: $.list[1]: null vanishes, later elements move up\n")


@pytest.mark.parametrize("count", [10, 11, 12, 1000])
def test_first_ten_losses_are_told(pexctl, scripts, count):
    scripts.add("echo", "return #args")
    lines = [f"pexctl: $[{i}]: 4294967296 arrives as 0\n" for i in range(10)]
    if count > 10:
        lines.append(f"pexctl: and {count - 10} more\n")
    assert run(pexctl, scripts, "[" + ", ".join(["4294967296"] * count) + "]") == (
        0, str(count).encode(), "".join(lines))


@pytest.mark.parametrize("packed, text", [
    (b"\x81\xc0\x01", "$: nil as a key would end the daemon"),
    (b"\x81\xcb\x7f\xf8\x00\x00\x00\x00\x00\x00\x01", "$: NaN as a key would end the daemon"),
    (b"\x81\xa1a\x92\x05\x81\xc0\x01", "$.a[1]: nil as a key would end the daemon"),
], ids=["nil", "nan", "nil-inside"])
def test_what_would_end_the_daemon_is_refused_and_nothing_is_sent(pexctl, remote, broker, scripts,
                                                                  echo, packed, text):
    assert remote("submit", "--msgpack", "-", "echo", stdin=packed) == (
        2, b"", f"pexctl: {text}\n{ENDS_DAEMON}")
    assert run(pexctl, scripts, "--msgpack", "-", stdin=packed) == (
        2, b"", f"pexctl: {text}\n{ENDS_DAEMON}")
    assert connections_of_pexctl(broker) == []


def test_what_ends_the_daemon_is_sent_with_force(service, remote, echo):
    assert remote("submit", "--force", "--detach", "--id", "7", "--msgpack", "-", "echo",
                  stdin=b"\x81\xc0\x01") == (
        0, b"7\n", "pexctl: $: nil as a key would end the daemon\n")
    assert service.wait() == -signal.SIGABRT


def test_request_is_the_one_that_the_protocol_describes(broker, remote, server):
    for arguments, args in [([], None), (['{"name": "dock 7"}'], {"name": "dock 7"}),
                            (["[4294967295, -1]"], [4294967295, -1])]:
        remote("submit", "--detach", "--retain", "--id", "7", "greet", *arguments)
        retained = server.retained("in/cmd/7")
        assert retained.payload == request("greet", args)
        assert list(msgpack.unpackb(retained.payload)) == ["lua_script", "args"]
        server.publish("7", b"", retain=True)
