"""pexctl run --trace and the daemon: the same request gives the same answer and the same log."""

import json
import math
import re

import msgpack

from harness import Record

SCRIPTS = {
    "echo": "return args",
    "text": "return 'Hello, ' .. tostring(args.name)",
    "bytes": "return '\\0\\1\\254\\255' .. string.rep('\\0', 300)",
    "number": "return 2^53",
    "integer": "return 42",
    "nil": "return nil",
    "nothing": "",
    "boolean": "return true",
    "table": "return {1, 2}",
    "function": "return print",
    "several": "return 1, nil, 'the last'",
    "last-nil": "return 'not the last', nil",
    "string-table": "return setmetatable({}, {__tostring = function() return 'text' end})",
    "error": "error('no disk')",
    "bare-error": "error('no position', 0)",
    "table-error": "error({})",
    "number-error": "error(5)",
    "two-lines": "error('one\\ntwo', 0)",
    "syntax": "return return",
    "runtime": "return nil + 1",
    "failure": "return '\\130\\166status\\194\\166reason\\163own'",
    "module": "return {answer = 'from the module'}",
    "requires": "return require('module').answer",
    "requires-nothing": "return require('nosuch')",
    "paths": "return package.path .. '\\n' .. package.cpath",
    "staging": "return pexenv.staging_dir",
    "pexenv": "local n = 0 for _ in pairs(pexenv) do n = n + 1 end return n",
    "globals": "local t = {} for k in pairs(_G) do t[#t + 1] = k end table.sort(t) "
               "return table.concat(t, ' ')",
    "chunk-arguments": "return select('#', ...)",
    "describe": """
        local function describe(value)
            if type(value) ~= "table" then
                return type(value) .. " " .. (type(value) == "number" and ("%.17g"):format(value)
                                              or tostring(value))
            end
            local entries = {}
            for k, v in pairs(value) do
                entries[#entries + 1] = describe(k) .. " = " .. describe(v)
            end
            table.sort(entries)
            return "{" .. table.concat(entries, ", ") .. "}"
        end
        return describe(args)
    """,
}


def packed(args):
    """What a JSON text, or bytes for --msgpack, should be sent as."""
    return args if isinstance(args, bytes) else msgpack.packb(json.loads(args))


# A script, its arguments as they are typed, and the same in MessagePack.
CASES = [
    *((name, None, b"\xc0") for name in [*SCRIPTS, "missing", "unloadable", "Echo", "", "a\nb"]),
    *((name, args, packed(args)) for name, args in [
        ("text", '{"name": "dock 7"}'),
        ("text", '"not a table"'),
        ("echo", '"text"'),
        ("echo", '""'),
        ("echo", '"zero \\u0000 and \\u00fc and \\ud83d\\ude00"'),
        ("echo", "-5"),
        ("echo", "[1, 2]"),
    ]),
    *(("describe", args, packed(args)) for args in [
        "null", "true", "false", "0", "127", "128", "255", "256", "65535", "65536", "2147483648",
        "4294967295", "4294967296", "5000000000", "18446744073709551615", "-1", "-32", "-33",
        "-128", "-129", "-32769", "-2147483648", "-2147483649", "-5000000000",
        "-9223372036854775808", "1.5", "1.0", "0.1", "-0.0", "1e300", "-1e300", "1e-300",
        "4294967296.0", "16777217.0", "[]", "{}", "[1, null, 3]", "[null, null]", '{"a": null}',
        '{"b": [1, {"a": [true, "x"]}], "a": {"d": {}}}', "[" * 100 + "]" * 100,
        json.dumps(list(range(40))), json.dumps({f"key {i}": i for i in range(40)}),
        '"' + "x" * 70000 + '"',
    ]),
    ("describe", "18446744073709551616", msgpack.packb(2.0**64)),
    ("describe", '{"a": 1, "a": 2}', b"\x82\xa1a\x01\xa1a\x02"),
    *(("describe", args, args) for args in [
        b"\xc0", b"\x05", b"\xcd\x00\x05", b"\xd3\x00\x00\x00\x00\x00\x00\x00\x05",
        b"\xca\x3d\xcc\xcc\xcd", b"\xca\x7f\x80\x00\x00", msgpack.packb(math.nan),
        b"\xd9\x02hi", b"\xa2\xff\xfe", b"\xc4\x03\x00\x01\x02", b"\xd4\x05A",
        b"\xd6\xff\x00\x00\x00\x01", b"\xc7\x00\x80", b"\x82\x01\xa1a\x02\xa1b",
        b"\x81\xc2\xc3", b"\x81\x91\x05\x01", b"\x82\xa1a\x01\xc4\x01a\x02",
        b"\x93\xc0\x01\xc0",
    ]),
]


def of_the_last_job(records):
    """From the arrival of the request to its result."""
    arrival = ("INFO", "commandHandler", "Received command request, job_id: pexctl")
    last = len(records) - 1 - records[::-1].index(arrival)
    assert records[-1].message.startswith("Publishing result  on out/cmd/pexctl\n")
    return records[last:]


def traced(stderr):
    """The log in a standard error, which holds notes besides."""
    pieces = re.split(r"^(?=(?:DEBUG|INFO|ERROR) \w*: |pexctl: )", stderr, flags=re.MULTILINE)
    assert pieces[0] == "", pieces[0]
    return [Record(*re.split("[ ]|: ", piece[:-1], maxsplit=2)) for piece in pieces[1:]
            if not piece.startswith("pexctl: ")]


def run(pexctl, config, script, args):
    if args is None:
        typed = []
    elif isinstance(args, bytes):
        (pexctl.directory / "args").write_bytes(args)
        typed = ["--msgpack", "args"]
    else:
        typed = [args]
    return pexctl("run", "--config", config, "--trace", script, *typed)


def test_answer_and_log_are_those_of_the_daemon(service, server, scripts, pexctl):
    for name, text in SCRIPTS.items():
        scripts.add(name, text)
    (scripts.directory / "unloadable.lua").mkdir()
    for script, args, request_args in CASES:
        server.publish("pexctl", b"\x82\xaalua_script" + msgpack.packb(script) + b"\xa4args" +
                       request_args)
        answer = server.result().payload
        records = of_the_last_job(service.records())

        outcome = run(pexctl, service.config_file, script, args)
        assert outcome.stdout == answer, (script, args, outcome.stderr)
        assert of_the_last_job(traced(outcome.stderr)) == records, (script, args)
        assert (outcome.status == 1) == answer.startswith(b"\x82\xa6status\xc2"), (script, args)
