"""What of a script's returned values becomes the result payload."""

import pytest

from harness import failure


@pytest.mark.parametrize("script, answer", [
    ("return 'abc'", b"abc"),
    ("return ''", b""),
    ("return 'a\\0b'", b"a\0b"),
    ("return '\\0'", b"\0"),
    ("return '\\255\\254\\r\\n'", b"\xff\xfe\r\n"),
    ("return '\\129\\162\\111\\107\\195'", b"\x81\xa2ok\xc3"),
], ids=["text", "empty", "zero-byte-inside", "zero-byte", "not-utf8", "messagepack"])
def test_string_is_answered_byte_for_byte(service, server, scripts, script, answer):
    scripts.add("job", script)
    assert server.run("7", "job") == answer


def test_every_byte_value_is_answered_unchanged(service, server, scripts):
    scripts.add("job", "local t = {} for i = 0, 255 do t[#t + 1] = string.char(i) end "
                       "return table.concat(t)")
    assert server.run("7", "job") == bytes(range(256))


@pytest.mark.parametrize("script, answer", [
    ("return 42", b"42"),
    ("return -1", b"-1"),
    ("return 0", b"0"),
    ("return 0.5", b"0.5"),
    ("return 0.1", b"0.1"),
    ("return 1/3", b"0.33333333333333"),
    ("return 2^53", b"9.007199254741e+15"),
    ("return 1e100", b"1e+100"),
    ("return 99999999999999", b"99999999999999"),
    ("return 1e14", b"1e+14"),
    ("return math.huge", b"inf"),
])
def test_number_is_answered_as_luas_text_of_it(service, server, scripts, script, answer):
    scripts.add("job", script)
    assert server.run("7", "job") == answer


@pytest.mark.parametrize("args, answer", [(0.1, b"0.10000000149012"), (1e300, b"inf"), (5, b"5")])
def test_number_argument_comes_back_as_luas_text_of_it(service, server, scripts, args, answer):
    scripts.add("job", "return args")
    assert server.run("7", "job", args) == answer


@pytest.mark.parametrize("script", [
    "",
    "-- nothing but a comment",
    "return",
    "return nil",
    "return true",
    "return false",
    "return {}",
    "return {'text'}",
    "return print",
    "return function() return 'text' end",
    "return io.stdout",
    "return coroutine.create(print)",
    "return setmetatable({}, {__tostring = function() return 'text' end})",
    "return setmetatable({}, {__concat = function() return 'text' end, __len = print})",
], ids=lambda script: script or "empty-file")
def test_anything_else_is_an_empty_answer(service, server, scripts, script):
    scripts.add("job", script)
    assert server.run("7", "job") == b""
    assert service.records("ERROR") == []


@pytest.mark.parametrize("script, answer", [
    ("return 1, 'x'", b"x"),
    ("return 'x', 1", b"1"),
    ("return 'x', nil", b""),
    ("return 'x', {}", b""),
    ("return nil, nil, 'x'", b"x"),
    ("return table.unpack({'a', 'b', 'c'})", b"c"),
    ("return (function(...) return ... end)(1, 2, 3)", b"3"),
    ("return pcall(error, 'caught')", b"caught"),
])
def test_only_the_last_returned_value_counts(service, server, scripts, script, answer):
    scripts.add("job", script)
    assert server.run("7", "job") == answer


def test_thousands_of_returned_values_are_no_trouble(service, server, scripts):
    scripts.add("job", "local t = {} for i = 1, 100000 do t[i] = i end return table.unpack(t)")
    assert server.run("7", "job") == b"100000"


def test_answer_that_looks_like_a_failure_is_sent_as_it_is(service, server, scripts):
    looks = failure("not really")
    scripts.add("job", "return '" + "".join(f"\\{byte:03d}" for byte in looks) + "'")
    assert server.run("7", "job") == looks
    assert service.records("ERROR") == []


def test_failed_script_answers_nothing_but_the_failure(service, server, scripts):
    scripts.add("job", "io.write('written') error('late') return 'never'")
    assert server.run("7", "job") == failure(
        "Dock command service error. Command script failure, please consult pex-command logs.")


@pytest.mark.parametrize("size", [8191, 8192, 8193, 1 << 20, 20 * 1000 * 1000])
def test_large_answer_is_sent_whole(service, server, scripts, size):
    scripts.add("job", "return ('0123456789'):rep(math.ceil(args / 10)):sub(1, args)")
    expected = (b"0123456789" * (size // 10 + 1))[:size]
    assert server.run("7", "job", size) == expected
    assert server.retained("out/cmd/7").payload == expected


def test_answer_of_one_job_is_no_part_of_the_next(service, server, scripts):
    scripts.add("loud", "return 'loud', 'louder'")
    scripts.add("silent", "")
    assert server.run("7", "loud") == b"louder"
    assert server.run("7", "silent") == b""
    assert server.run("8", "loud") == b"louder"
