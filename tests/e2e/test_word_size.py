"""What differs between a daemon of 32 bits (armhf) and one of 64 (amd64, arm64), to the letter.
All other tests expect the same of both."""

import msgpack
import pytest

from harness import word_size

# Whether 64 bits find the memory depends on the machine.
NO_MEMORY = {"std::bad_alloc", "insufficient bytes"}


def by_word_size(narrow, wide):
    return {32: narrow, 64: wide}[word_size()]


@pytest.mark.parametrize("announced, reasons", [
    (b"\xdd\xff\xff\xff\xff", by_word_size({"array size overflow"}, NO_MEMORY)),
    (b"\xdf\xff\xff\xff\xff", by_word_size({"map size overflow"}, NO_MEMORY)),
    (b"\xdd\x10\x00\x00\x00", by_word_size({"array size overflow"}, NO_MEMORY)),
    (b"\xdf\x0b\x00\x00\x00", by_word_size({"map size overflow"}, NO_MEMORY)),
    # Four bytes count up to 0xffffffff bytes of data, and there is one more for the type.
    (b"\xc9\xff\xff\xff\xff\x01", by_word_size({"ext size overflow"}, {"insufficient bytes"})),
    (b"\xc9\xff\xff\xff\xfe\x01", {"insufficient bytes"}),
    (b"\xdb\xff\xff\xff\xff", {"insufficient bytes"}),
    (b"\xc6\xff\xff\xff\xff", {"insufficient bytes"}),
], ids=lambda value: value.hex() if isinstance(value, bytes) else "reason")
def test_reason_for_a_huge_announced_size(new_service, server, announced, reasons):
    # The address sanitizer would end the process where plain malloc returns null.
    new_service(env={"ASAN_OPTIONS": "allocator_may_return_null=1"}).start_up()
    server.publish("7", announced)
    result = msgpack.unpackb(server.result().payload)
    assert (result["status"], {result["reason"]} & reasons) == (False, {result["reason"]})


@pytest.mark.parametrize("expression, value", [
    # Debian's time_t on armhf ends in January 2038.
    ("os.time{year=2037, month=1, day=1}", "number"),
    ("os.time{year=2040, month=1, day=1}", by_word_size("nil", "number")),
    # Lua's functions take whole numbers of the machine's word.
    ("select('#', select(2^32 + 1, 1, 2))", by_word_size("number 0", "number 2")),
    # What does not differ: script numbers are doubles, and files may be large.
    ("string.format('%d', 2^53)", "string 9007199254740992"),
    ("string.format('%d', -2^53)", "string -9007199254740992"),
    ("args + 1", "number 2147483648"),
    ("bit32.band(2^33 + 5, -1)", "number 5"),
    ("large_file:seek('end')", "number 3221225472"),
])
def test_what_scripts_see(service, scripts, server, tmp_path, expression, value):
    with open(tmp_path / "large", "wb") as large:
        large.truncate(3 << 30)  # takes no space
    scripts.add("look", f"""
        large_file = assert(io.open("{tmp_path}/large"))
        local value = {expression}
        return type(value) .. " " .. tostring(value)
    """)
    told = server.run("7", "look", 2**31 - 1).decode()
    assert told.startswith(value), told
