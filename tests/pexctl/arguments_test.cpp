#include "pexctl/arguments.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <lua.hpp>
#include <memory>
#include <msgpack.hpp>

#include "lua_tools/pack_to_lua_converter.h"

namespace {

using namespace std::string_literals;
using pexctl::Arguments;
using pexctl::arguments_from_json;
using pexctl::arguments_from_msgpack;
using Texts = std::vector<std::string>;

std::string hex(const std::string& bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x ", byte);
        text += digits;
    }
    return text.empty() ? text : text.substr(0, text.size() - 1);
}

template <typename Read>
std::string complaint(Read read, const std::string& input)
{
    try {
        read(input);
    } catch (const pexctl::BadArguments& bad) {
        return bad.what();
    }
    return "(none)";
}

TEST(ArgumentsTest, PacksJsonInTheShortestForm)
{
    const struct {
        const char* json;
        const char* packed;
    } cases[] = {
        {"null", "c0"},
        {"true", "c3"},
        {" false ", "c2"},
        {"0", "00"},
        {"-0", "00"},
        {"127", "7f"},
        {"128", "cc 80"},
        {"-1", "ff"},
        {"-33", "d0 df"},
        {"65536", "ce 00 01 00 00"},
        {"18446744073709551615", "cf ff ff ff ff ff ff ff ff"},
        {"-9223372036854775808", "d3 80 00 00 00 00 00 00 00"},
        {"1.5", "cb 3f f8 00 00 00 00 00 00"},
        {"1.0", "cb 3f f0 00 00 00 00 00 00"},  // a float stays one
        {"1e3", "cb 40 8f 40 00 00 00 00 00"},
        {"4294967296.0", "cb 41 f0 00 00 00 00 00 00"},
        {"18446744073709551616", "cb 43 f0 00 00 00 00 00 00"},  // too large for an integer
        {"\"\"", "a0"},
        {"\"a\\u00e4\\n\"", "a4 61 c3 a4 0a"},
        {"\"\\u0000\"", "a1 00"},
        {"[]", "90"},
        {"{}", "80"},
        {"[[],[1,[2]],3]", "93 90 92 01 91 02 03"},
        {"{\"b\": 1, \"a\": [true]}", "82 a1 62 01 a1 61 91 c3"},  // in the order as written
        {"{\"a\": {\"b\": {}}}", "81 a1 61 81 a1 62 80"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(c.packed, hex(arguments_from_json(c.json).packed));
    }
}

TEST(ArgumentsTest, PacksLargeContainersWithLongerHeads)
{
    std::string array = "[0";
    std::string object = "{\"k0\": 0";
    for (int i = 1; i < 70000; ++i) {
        array += ",0";
        object += ",\"k" + std::to_string(i) + "\": 0";
    }
    const std::string packed_array = arguments_from_json(array + "]").packed;
    EXPECT_EQ("dd 00 01 11 70 00", hex(packed_array.substr(0, 6)));
    EXPECT_EQ(70005u, packed_array.size());
    const std::string packed_map = arguments_from_json(object + "}").packed;
    EXPECT_EQ("df 00 01 11 70 a2 6b 30 00", hex(packed_map.substr(0, 9)));
    EXPECT_EQ("dc 00 10",
              hex(arguments_from_json("[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]").packed.substr(0, 3)));
}

TEST(ArgumentsTest, DepthCostsNeitherStackNorTime)
{
    constexpr std::size_t depth = 1000000;
    const Arguments arguments =
        arguments_from_json(std::string(depth, '[') + std::string(depth, ']'));
    ASSERT_EQ(depth, arguments.packed.size());
    EXPECT_EQ("91 91", hex(arguments.packed.substr(0, 2)));
    EXPECT_EQ("91 90", hex(arguments.packed.substr(depth - 2)));
    EXPECT_EQ(Texts{}, arguments.losses);
}

TEST(ArgumentsTest, TellsWhereJsonIsWrong)
{
    const struct {
        const char* json;
        const char* place;
    } cases[] = {
        {"", "JSON, line 1, column 1: "},           {"  ", "JSON, line 1, column 3: "},
        {"name=x", "JSON, line 1, column 2: "},     {"{a: 1}", "JSON, line 1, column 2: "},
        {"[1,\n2,,3]", "JSON, line 2, column 3: "}, {"{\"x\": 1}\n 5", "JSON, line 2, column 2: "},
        {"[1, 2", "JSON, line 1, column 6: "},      {"\"open", "JSON, line 1, column 6: "},
        {"\"\xff\"", "JSON, line 1, column 2: "},   {"01", "JSON, line 1, column 2: "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(0u, complaint(arguments_from_json, c.json).find(c.place))
            << complaint(arguments_from_json, c.json);
    }
    EXPECT_EQ(
        "JSON, line 1, column 2: syntax error while parsing value - unexpected ','; "
        "expected '[', '{', or a literal",
        complaint(arguments_from_json, "[,]"));
    EXPECT_EQ("JSON, line 2, column 2: a zero byte",
              complaint(arguments_from_json, "[1]\n \0[2]"s));
    EXPECT_EQ("JSON, line 1, column 5: number overflow parsing '1e400'",
              complaint(arguments_from_json, "1e400"));
}

TEST(ArgumentsTest, NamesWhatTheScriptWillNotGet)
{
    const struct {
        const char* json;
        Texts losses;
    } cases[] = {
        {"{\"a\": [1, \"x\", 2.5, true, {}]}", {}},
        {"4294967295", {}},
        {"4294967296", {"$: 4294967296 arrives as 0"}},
        {"5000000000", {"$: 5000000000 arrives as 705032704"}},
        {"-2147483648", {}},
        {"-2147483649", {"$: -2147483649 arrives as 2147483647"}},
        {"0.5", {}},
        {"0.1", {"$: 0.1 arrives as 0.100000001490116"}},
        {"16777217.0", {"$: 16777217.0 arrives as 16777216"}},
        {"4294967296.0", {}},
        {"1e300", {"$: 1e+300 arrives as infinity"}},
        {"-1e300", {"$: -1e+300 arrives as -infinity"}},
        {"18446744073709551616", {}},
        {"18446744073709551617", {"18446744073709551617 is sent as 18446744073709551616"}},
        {"null", {}},
        {"{\"a\": null}", {}},  // the script reads nil there
        {"[null]", {"$[0]: null vanishes"}},
        {"[1, null, 3]", {"$[1]: null vanishes, later elements move up"}},
        {"[[0, 1, null]]", {"$[0][2]: null vanishes"}},
        {"{\"a\": 1, \"a\": 2}", {"$.a: the same key as one before it: the last one counts"}},
        {"{\"a\": {\"b_2\": [0, 0.1]}}", {"$.a.b_2[1]: 0.1 arrives as 0.100000001490116"}},
        {"{\"a b\": 0.1}", {"$['a b']: 0.1 arrives as 0.100000001490116"}},
        {"{\"2\": 0.1}", {"$['2']: 0.1 arrives as 0.100000001490116"}},
        {"{\"\": 0.1}", {"$['']: 0.1 arrives as 0.100000001490116"}},
        {"{\"it's\\\\\": 0.1}", {"$['it\\'s\\\\']: 0.1 arrives as 0.100000001490116"}},
        {"{\"\\n\": 0.1}", {"$['\\x0a']: 0.1 arrives as 0.100000001490116"}},
        {"[0.1, {\"x\": 5000000000}]",
         {"$[0]: 0.1 arrives as 0.100000001490116", "$[1].x: 5000000000 arrives as 705032704"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const Arguments arguments = arguments_from_json(c.json);
        EXPECT_EQ(c.losses, arguments.losses);
        EXPECT_EQ(Texts{}, arguments.deadly);
    }
}

TEST(ArgumentsTest, TakesMessagePackAsItIs)
{
    const struct {
        std::string bytes;
        Texts losses;
        Texts deadly;
    } cases[] = {
        {"\xc4\x01\xff"s, {}, {}},
        {"\xcd\x00\x05"s, {}, {}},  // not the shortest form
        {"\xca\x3d\xcc\xcc\xcd"s, {}, {}},
        {"\xcb\x7f\xf8\0\0\0\0\0\0"s, {}, {}},  // NaN arrives as NaN
        {"\xd4\x05"s
         "A",
         {"$: an extension type arrives as a string of 2 bytes, its type first"},
         {}},
        {"\x82\x01\xa1"s
         "a\xcb\x3f\xf0\0\0\0\0\0\0\xa1"s
         "b",
         {"$[1.0]: the same key as one before it: the last one counts"},
         {}},
        {"\x82\xa1"s
         "k\x01\xc4\x01"s
         "k\x02",
         {"$.k: the same key as one before it: the last one counts"},
         {}},
        {"\x81\xcf\0\0\0\x01\0\0\0\0\x01"s, {"$[4294967296]: 4294967296 arrives as 0"}, {}},
        {"\xd3\0\0\0\0\x80\0\0\0"s, {}, {}},  // 2147483648 in the signed form
        {"\xd3\0\0\0\x01\0\0\0\x05"s, {"$: 4294967301 arrives as 5"}, {}},
        {"\x82\0\x01\xca\x80\0\0\0\x02"s,
         {"$[-0.0]: the same key as one before it: the last one counts"},
         {}},
        {"\x81\xc3\x91\xc0"s, {"$[true][0]: null vanishes"}, {}},
        {"\x81\xc2\x91\xc0"s, {"$[false][0]: null vanishes"}, {}},
        {"\x82\xc2\x01\xc3\x02"s, {}, {}},
        {"\x82\xc3\x01\xc3\x02"s,
         {"$[true]: the same key as one before it: the last one counts"},
         {}},
        {"\x82\x90\x01\x90\x02"s, {}, {}},  // two tables are never the same key
        {"\x81\x91\xc0\x01"s, {"$[table][0]: null vanishes"}, {}},
        {"\x81\xc0\x01"s, {}, {"$: nil as a key would end the daemon"}},
        {"\x91\x81\xcb\x7f\xf8\0\0\0\0\0\0\x01"s, {}, {"$[0]: NaN as a key would end the daemon"}},
        {"\x81\xca\x7f\xc0\0\0\x01"s, {}, {"$: NaN as a key would end the daemon"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(hex(c.bytes));
        const Arguments arguments = arguments_from_msgpack(c.bytes);
        EXPECT_EQ(c.bytes, arguments.packed);
        EXPECT_EQ(c.losses, arguments.losses);
        EXPECT_EQ(c.deadly, arguments.deadly);
    }
}

TEST(ArgumentsTest, RefusesWhatIsNotOneWholeMessagePackObject)
{
    const struct {
        std::string bytes;
        const char* complaint;
    } cases[] = {
        {"", "The MessagePack ends too early, at byte 0."},
        {"\x92\x01"s, "The MessagePack ends too early, at byte 2."},
        {"\xa3"s
         "ab",
         "The MessagePack ends too early, at byte 1."},
        {"\x91\xc1"s, "They are not MessagePack at byte 1."},
        {"\x01\x02\x03"s, "There are 2 bytes more after the MessagePack, from byte 1 on."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(hex(c.bytes));
        EXPECT_EQ(c.complaint, complaint(arguments_from_msgpack, c.bytes));
    }
}

// Data of 4 GiB - 1, and its type, are more than a 32-bit size_t counts.
TEST(ArgumentsTest, RefusesAnExtensionTypeThatNoMemoryHolds)
{
    EXPECT_EQ(sizeof(std::size_t) == 4
                  ? "The MessagePack announces more than this machine can address."
                  : "The MessagePack ends too early, at byte 5.",
              complaint(arguments_from_msgpack, "\xc9\xff\xff\xff\xff\x01"s));
}

TEST(ArgumentsTest, ALongKeyIsShortenedInAPath)
{
    const auto path_of = [](const std::string& key) {
        const Texts losses = arguments_from_json("{\"" + key + "\": [null]}").losses;
        return losses.empty() ? "" : losses[0].substr(0, losses[0].find(": "));
    };
    const std::string forty = "1234567890123456789012345678901234567890";
    EXPECT_EQ("$['" + forty + "'][0]", path_of(forty));
    EXPECT_EQ("$['" + forty + "...'][0]", path_of(forty + "1"));
    const std::string name(40, 'n');
    EXPECT_EQ("$." + name + "[0]", path_of(name));
    EXPECT_EQ("$['" + name + "...'][0]", path_of(name + "n"));
}

TEST(ArgumentsTest, APathOfManyLevelsIsShortened)
{
    const std::string deep = std::string(100, '[') + "0.1" + std::string(100, ']');
    const Texts losses = arguments_from_json(deep).losses;
    ASSERT_EQ(1u, losses.size());
    EXPECT_EQ(
        "$[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0]..."
        "[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0]: 0.1 arrives as 0.100000001490116",
        losses[0]);

    const Texts whole =
        arguments_from_json(std::string(32, '[') + "null" + std::string(32, ']')).losses;
    ASSERT_EQ(1u, whole.size());
    EXPECT_EQ(
        "$[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0]"
        "[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0]: null vanishes",
        whole[0]);
}

/// What a script gets, as Lua itself shows it.
std::string arrived(const std::string& packed)
{
    const std::unique_ptr<lua_State, decltype(&lua_close)> L(luaL_newstate(), &lua_close);
    pex::PackToLuaConverter converter(L.get());
    std::size_t offset = 0;
    msgpack::v2::parse(packed.data(), packed.size(), offset, converter);
    char text[64];
    std::snprintf(text, sizeof text, "%.15g", lua_tonumber(L.get(), -1));
    return text;
}

TEST(ArgumentsTest, WhatIsSaidToArriveIsWhatTheConverterPushes)
{
    for (const char* number : {"4294967297", "9007199254740993", "18446744073709551615",
                               "-2147483650", "-9000000000", "-9223372036854775808", "0.2",
                               "3.14159265358979", "123456.789", "1e-300", "33554433.5"}) {
        SCOPED_TRACE(number);
        const Arguments arguments = arguments_from_json(number);
        ASSERT_EQ(1u, arguments.losses.size());
        const std::string& loss = arguments.losses[0];
        EXPECT_EQ(arrived(arguments.packed), loss.substr(loss.rfind(' ') + 1));
    }
}

}  // namespace
