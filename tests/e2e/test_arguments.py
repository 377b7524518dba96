"""How a request's args reach the script: every row of the mapping, at every width of the wire."""

import struct

import pytest

from harness import failure

# Returns the type and the exact value of the global `args` as text. Strings in hexadecimal, tables
# with their number keys in order, then the other keys, sorted by their text.
DESCRIBE = """
local describe

local function describe_table(t)
    local numbers, others = {}, {}
    for key, value in pairs(t) do
        local pair = describe(key) .. "=" .. describe(value)
        if type(key) == "number" then
            numbers[#numbers + 1] = {key, pair}
        else
            others[#others + 1] = pair
        end
    end
    table.sort(numbers, function(a, b) return a[1] < b[1] end)
    table.sort(others)
    for i, number in ipairs(numbers) do
        numbers[i] = number[2]
    end
    for _, other in ipairs(others) do
        numbers[#numbers + 1] = other
    end
    return "{" .. table.concat(numbers, ", ") .. "}"
end

function describe(value)
    if type(value) == "string" then
        return "'" .. value:gsub(".", function(c) return ("%02x"):format(c:byte()) end) .. "'"
    elseif type(value) == "number" then
        return value ~= value and "nan" or ("%.17g"):format(value)
    elseif type(value) == "table" then
        return describe_table(value)
    end
    return tostring(value)
end

return type(args) .. " " .. describe(args)
"""


@pytest.fixture
def described(service, server, scripts):
    """described(bytes): what a script finds for args of these bytes."""
    scripts.add("describe", DESCRIBE)

    def run(args):
        server.publish("7", b"\x82\xaalua_script\xa8describe\xa4args" + args)
        return server.result().payload.decode()

    return run


def float32(value):
    return b"\xca" + struct.pack(">f", value)


def float64(value):
    return b"\xcb" + struct.pack(">d", value)


def rows(table):
    """One test for each row, named by the start of its bytes, numbered."""
    return [pytest.param(args, expected, id=f"{number}-{args[:12].hex()}")
            for number, (args, expected) in enumerate(table)]


@pytest.mark.parametrize("args, expected", [
    (b"\xc0", "nil nil"),
    (b"\xc2", "boolean false"),
    (b"\xc3", "boolean true"),
])
def test_nil_and_booleans(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\x00", "number 0"),
    (b"\x05", "number 5"),
    (b"\x7f", "number 127"),
    (b"\xcc\x00", "number 0"),
    (b"\xcc\xff", "number 255"),
    (b"\xcd\xff\xff", "number 65535"),
    (b"\xce\x7f\xff\xff\xff", "number 2147483647"),
    (b"\xce\x80\x00\x00\x00", "number 2147483648"),
    (b"\xce\xff\xff\xff\xff", "number 4294967295"),
    (b"\xcf\x00\x00\x00\x00\xff\xff\xff\xff", "number 4294967295"),
    (b"\xcf\x00\x00\x00\x01\x00\x00\x00\x00", "number 0"),
    (b"\xcf\x00\x00\x00\x01\x00\x00\x00\x01", "number 1"),
    (b"\xcf" + (5000000000).to_bytes(8, "big"), "number 705032704"),
    (b"\xcf\x80\x00\x00\x00\x00\x00\x00\x00", "number 0"),
    (b"\xcf\xff\xff\xff\xff\xff\xff\xff\xff", "number 4294967295"),
    # Values that are not negative count as positive, however they were sent.
    (b"\xd0\x05", "number 5"),
    (b"\xd1\x7f\xff", "number 32767"),
    (b"\xd2\x7f\xff\xff\xff", "number 2147483647"),
    (b"\xd3\x00\x00\x00\x00\x80\x00\x00\x00", "number 2147483648"),
    (b"\xd3\x00\x00\x00\x00\xff\xff\xff\xff", "number 4294967295"),
    (b"\xd3\x7f\xff\xff\xff\xff\xff\xff\xff", "number 4294967295"),
]))
def test_positive_integers_keep_their_low_32_bits(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\xff", "number -1"),
    (b"\xe0", "number -32"),
    (b"\xd0\xff", "number -1"),
    (b"\xd0\x80", "number -128"),
    (b"\xd1\x80\x00", "number -32768"),
    (b"\xd2\xff\xff\xff\xff", "number -1"),
    (b"\xd2\x80\x00\x00\x00", "number -2147483648"),
    (b"\xd3\xff\xff\xff\xff\x80\x00\x00\x00", "number -2147483648"),
    (b"\xd3\xff\xff\xff\xff\x7f\xff\xff\xff", "number 2147483647"),
    (b"\xd3" + (-4294967295).to_bytes(8, "big", signed=True), "number 1"),
    (b"\xd3" + (-4294967296).to_bytes(8, "big", signed=True), "number 0"),
    (b"\xd3" + (-5000000000).to_bytes(8, "big", signed=True), "number -705032704"),
    (b"\xd3\x80\x00\x00\x00\x00\x00\x00\x00", "number 0"),
]))
def test_negative_integers_keep_their_low_32_bits_as_a_signed_number(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (float32(1.5), "number 1.5"),
    (float32(0.1), "number 0.10000000149011612"),
    (float32(3.4028234663852886e38), "number 3.4028234663852886e+38"),
    (float32(1e-45), "number 1.4012984643248171e-45"),
    (float32(-0.0), "number -0"),
    (float32(float("inf")), "number inf"),
    (float32(float("nan")), "number nan"),
]))
def test_float_32_arrives_exactly(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (float64(0.5), "number 0.5"),
    (float64(1.25), "number 1.25"),
    (float64(1.0), "number 1"),
    (float64(-1.0), "number -1"),
    (float64(0.0), "number 0"),
    (float64(-0.0), "number -0"),
    (float64(16777216.0), "number 16777216"),
    (float64(16777217.0), "number 16777216"),
    (float64(0.1), "number 0.10000000149011612"),
    (float64(-0.1), "number -0.10000000149011612"),
    (float64(1e300), "number inf"),
    (float64(-1e300), "number -inf"),
    (float64(1e-300), "number 0"),
    (float64(float("-inf")), "number -inf"),
    (float64(float("nan")), "number nan"),
    # Floats with whole values stay floats: the 32 bits of integers are not for them.
    (float64(4294967295.0), "number 4294967296"),
    (float64(4294967296.0), "number 4294967296"),
    (float64(5e9), "number 5000000000"),
    (float64(-5e9), "number -5000000000"),
    (float64(2.0**64), "number 1.8446744073709552e+19"),
    (float64(-2.0**63), "number -9.2233720368547758e+18"),
    (float32(5e9), "number 5000000000"),
]))
def test_float_64_arrives_in_single_precision(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\xa0", "string ''"),
    (b"\xa1x", "string '78'"),
    (b"\xa3a\0b", "string '610062'"),
    (b"\xa1\0", "string '00'"),
    (b"\xa2\xff\xfe", "string 'fffe'"),
    (b"\xbf" + b"z" * 31, "string '" + "7a" * 31 + "'"),
    (b"\xd9\x00", "string ''"),
    (b"\xd9\x02hi", "string '6869'"),
    (b"\xda\x00\x02hi", "string '6869'"),
    (b"\xdb\x00\x00\x00\x02hi", "string '6869'"),
    (b"\xc4\x00", "string ''"),
    (b"\xc4\x02\x00\x01", "string '0001'"),
    (b"\xc5\x00\x02\x00\x01", "string '0001'"),
    (b"\xc6\x00\x00\x00\x02\x00\x01", "string '0001'"),
    (b"\xa212", "string '3132'"),
]))
def test_str_and_bin_become_strings_of_the_same_bytes(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\xd4\x05A", "string '0541'"),
    (b"\xd4\xffA", "string 'ff41'"),
    (b"\xd5\x80AB", "string '804142'"),
    (b"\xd6\x7fABCD", "string '7f41424344'"),
    (b"\xd7\x00ABCDEFGH", "string '004142434445464748'"),
    (b"\xd8\x01" + b"A" * 16, "string '01" + "41" * 16 + "'"),
    (b"\xc7\x00\x05", "string '05'"),
    (b"\xc7\x03\x05\x00\x01\x02", "string '05000102'"),
    (b"\xc8\x00\x03\x05\x00\x01\x02", "string '05000102'"),
    (b"\xc9\x00\x00\x00\x03\x05\x00\x01\x02", "string '05000102'"),
]))
def test_ext_becomes_a_string_of_its_type_and_payload(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\x90", "table {}"),
    (b"\x93\x01\x02\x03", "table {1=1, 2=2, 3=3}"),
    (b"\xdc\x00\x02\x01\x02", "table {1=1, 2=2}"),
    (b"\xdd\x00\x00\x00\x02\x01\x02", "table {1=1, 2=2}"),
    (b"\xdc\x00\x00", "table {}"),
    (b"\x92\xc2\xc3", "table {1=false, 2=true}"),
    (b"\x92\x90\x80", "table {1={}, 2={}}"),
    (b"\x92\x92\x01\x02\x92\x03\x04", "table {1={1=1, 2=2}, 2={1=3, 2=4}}"),
    (b"\x9f" + bytes(range(15)),
     "table {" + ", ".join(f"{i + 1}={i}" for i in range(15)) + "}"),
]))
def test_array_becomes_a_sequence(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\x91\xc0", "table {}"),
    (b"\x93\x01\xc0\x03", "table {1=1, 2=3}"),
    (b"\x93\xc0\xc0\x07", "table {1=7}"),
    (b"\x93\x07\xc0\xc0", "table {1=7}"),
    (b"\x92\x91\xc0\x92\xc0\x01", "table {1={}, 2={1=1}}"),
    (b"\x95\xc0\x01\xc0\x02\xc0", "table {1=1, 2=2}"),
]))
def test_array_closes_up_over_nil(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\x80", "table {}"),
    (b"\xde\x00\x00", "table {}"),
    (b"\x81\xa1a\x01", "table {'61'=1}"),
    (b"\xde\x00\x01\xa1a\x01", "table {'61'=1}"),
    (b"\xdf\x00\x00\x00\x01\xa1a\x01", "table {'61'=1}"),
    (b"\x82\x01\xa1a\x02\xa1b", "table {1='61', 2='62'}"),
    (b"\x82\x01\xa1a\xa11\xa1b", "table {1='61', '31'='62'}"),
    (b"\x82\xc2\x00\xc3\x01", "table {false=0, true=1}"),
    (b"\x81" + float64(0.1) + b"\x01", "table {0.10000000149011612=1}"),
    (b"\x81\xff\x01", "table {-1=1}"),
    (b"\x81\x91\x05\x01", "table {{1=5}=1}"),
    (b"\x81\x81\xa1k\x05\x90", "table {{'6b'=5}={}}"),
    (b"\x81\xc4\x01a\x01", "table {'61'=1}"),
    (b"\x81\xd4\x05a\x01", "table {'0561'=1}"),
    (b"\x81\xa0\x01", "table {''=1}"),
    (b"\x81\xa1a\x92\x01\x02", "table {'61'={1=1, 2=2}}"),
    (b"\x82\xa1a\x91\x81\xa1b\x92\xc3\xc0\xa1c\x80", "table {'61'={1={'62'={1=true}}}, '63'={}}"),
]))
def test_map_becomes_a_table_with_keys_of_any_type(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\x82\xa1a\x01\xa1a\x02", "table {'61'=2}"),
    (b"\x82\xa1a\x01\xc4\x01a\x02", "table {'61'=2}"),
    (b"\x82\x01\x05" + float64(1.0) + b"\x06", "table {1=6}"),
    # Keys that are equal only after the conversion.
    (b"\x82\x00\x05\xcf\x00\x00\x00\x01\x00\x00\x00\x00\x06", "table {0=6}"),
    (b"\x82" + float64(0.1) + b"\x05" + float32(0.1) + b"\x06", "table {0.10000000149011612=6}"),
    # Two tables are never equal.
    (b"\x82\x90\x01\x90\x01", "table {{}=1, {}=1}"),
]))
def test_later_of_two_equal_keys_wins(described, args, expected):
    assert described(args) == expected


@pytest.mark.parametrize("args, expected", rows([
    (b"\x81\xa1a\xc0", "table {}"),
    (b"\x82\xa1a\xc0\xa1b\x01", "table {'62'=1}"),
    (b"\x82\xa1a\x01\xa1a\xc0", "table {}"),
]))
def test_nil_value_leaves_no_entry(described, args, expected):
    assert described(args) == expected


def test_args_is_a_global_and_nothing_is_passed_to_the_chunk(service, server, scripts):
    scripts.add("ways", "return select('#', ...) .. ' ' .. _G.args .. ' ' .. _ENV.args")
    assert server.run("7", "ways", "x") == b"0 x x"


def test_nil_args_leave_no_global(service, server, scripts):
    scripts.add("count", "local n = 0 for k in pairs(_G) do if k == 'args' then n = n + 1 end end "
                         "return n")
    assert server.run("7", "count", None) == b"0"
    assert server.run("8", "count", False) == b"1"


@pytest.mark.parametrize("size", [1 << 20, 20 * 1000 * 1000], ids=["1-MB", "20-MB"])
def test_large_string_arrives_whole_and_goes_back_whole(service, server, scripts, size):
    text = bytes(range(251)) * (size // 251 + 1)
    text = text[:size]
    scripts.add("back", "return args")
    assert server.run("7", "back", text) == text
    retained = server.retained("out/cmd/7")
    assert retained.payload == text


def test_array_of_a_million_elements_arrives_whole(new_service, server, scripts):
    # Three records for each element are too many here.
    new_service({"log4cpp.category.pack_to_lua": "INFO"}).start_up()
    scripts.add("sum", "local sum = 0 for _, n in ipairs(args) do sum = sum + n end "
                       "return #args .. ' ' .. sum")
    numbers = b"".join(bytes([i % 100]) for i in range(1000000))
    server.publish("7", b"\x82\xaalua_script\xa3sum\xa4args\xdd" +
                   (1000000).to_bytes(4, "big") + numbers)
    assert server.result().payload == b"1000000 49500000"


COUNT_LEVELS = """
local levels, innermost = 0, args
while type(innermost) == "table" do
    levels, innermost = levels + 1, innermost[1]
end
return levels .. " " .. tostring(innermost)
"""


def nested(opening, levels, innermost=b"\x05"):
    return b"\x82\xaalua_script\xa5count\xa4args" + opening * levels + innermost


@pytest.mark.parametrize("opening", [b"\x91", b"\x81\x01"], ids=["arrays", "maps"])
@pytest.mark.parametrize("levels", [10, 17, 18, 19, 33, 40, 300, 100000])
def test_nested_args_arrive_at_any_ordinary_depth(new_service, server, scripts, opening, levels):
    new_service({"log4cpp.category.pack_to_lua": "INFO"}).start_up()
    scripts.add("count", COUNT_LEVELS)
    server.publish("7", nested(opening, levels))
    assert server.result().payload == b"%d 5" % levels


@pytest.mark.parametrize("opening", [b"\x91", b"\x81\x01"], ids=["arrays", "maps"])
def test_deeper_args_than_lua_can_hold_fail_and_the_next_request_is_served(new_service, server,
                                                                           scripts, opening):
    service = new_service({"log4cpp.category.pack_to_lua": "INFO"}).start_up()
    scripts.add("count", COUNT_LEVELS)
    server.publish("7", nested(opening, 1000001))
    assert server.result().payload == failure("args are nested too deeply")
    assert ("ERROR", "commandHandler",
            "job (7) request error: args are nested too deeply") in service.records()
    server.publish("8", nested(opening, 3))
    assert server.result().payload == b"3 5"


def test_deep_nesting_outside_args_is_ignored(service, server, scripts):
    scripts.add("count", COUNT_LEVELS)
    server.publish("7", b"\x83\xaalua_script\xa5count\xa4args\x91\x05\xa5other" +
                   b"\x91" * 2000000 + b"\xc0")
    assert server.result().payload == b"1 5"
