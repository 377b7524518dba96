#include "lua_tools/pack_to_lua_converter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <msgpack.hpp>
#include <new>
#include <stdexcept>
#include <type_traits>

#include "support/log_capture.h"

namespace pex {
namespace {

using namespace std::string_literals;

static_assert(!std::is_polymorphic_v<PackToLuaConverter>);

std::string in_quotes(const std::string& bytes)
{
    std::string text = "'";
    for (const char byte : bytes) {
        char escaped[8];
        const bool plain = byte >= ' ' && byte <= '~';
        std::snprintf(escaped, sizeof escaped, plain ? "%c" : "\\x%02x",
                      static_cast<unsigned char>(byte));
        text += escaped;
    }
    return text + "'";
}

std::string number_text(double number)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", number);
    return text;
}

/// A Lua value as text: "nil", "true", "1.5", "'a\x00'", "{1=true, 'a'={}}" (ordered by key text).
std::string described(lua_State* L, int index)
{
    index = lua_absindex(L, index);
    switch (lua_type(L, index)) {
        case LUA_TNIL:
            return "nil";
        case LUA_TBOOLEAN:
            return lua_toboolean(L, index) ? "true" : "false";
        case LUA_TNUMBER:
            return number_text(lua_tonumber(L, index));
        case LUA_TSTRING: {
            std::size_t size = 0;
            const char* bytes = lua_tolstring(L, index, &size);
            return in_quotes(std::string(bytes, size));
        }
        case LUA_TTABLE:
            break;
        default:
            return luaL_typename(L, index);
    }
    std::map<std::string, std::string> entries;
    lua_pushnil(L);
    while (lua_next(L, index) != 0) {
        entries[described(L, -2)] = described(L, -1);
        lua_pop(L, 1);
    }
    std::string text;
    for (const auto& [key, value] : entries) {
        text += (text.empty() ? "" : ", ") + key + "=" + value;
    }
    return "{" + text + "}";
}

class PackToLuaConverterTest : public testing::Test {
protected:
    PackToLuaConverterTest() { lua_pushliteral(L, "below"); }

    /// Converts one MessagePack value, takes it off the stack and describes it.
    std::string converted(const std::string& bytes)
    {
        capture.clear();
        std::size_t off = 0;
        EXPECT_TRUE(msgpack::v2::parse(bytes.data(), bytes.size(), off, converter));
        EXPECT_EQ(bytes.size(), off);
        return taken();
    }

    /// Takes the one value above "below" off the stack.
    std::string taken()
    {
        EXPECT_EQ(2, lua_gettop(L));
        const std::string text = described(L, -1);
        lua_settop(L, 1);
        EXPECT_STREQ("below", lua_tostring(L, 1));
        return text;
    }

    Records trace() const { return capture.texts_of("pack_to_lua"); }

    LogCapture capture;
    const std::unique_ptr<lua_State, decltype(&lua_close)> state{luaL_newstate(), &lua_close};
    lua_State* const L = state.get();
    PackToLuaConverter converter{L};
};

TEST_F(PackToLuaConverterTest, EachScalarBecomesOneLuaValueAndOneTraceLine)
{
    const struct {
        std::string bytes;
        const char* value;
        const char* trace;
    } cases[] = {
        {"\xc0", "nil", "nil"},
        {"\xc3", "true", "bool: <true>"},
        {"\xc2", "false", "bool: <false>"},
        {"\x05", "5", "unsigned: 5"},
        {"\x7f", "127", "unsigned: 127"},
        {"\xcc\xff", "255", "unsigned: 255"},
        {"\xcd\xff\xff", "65535", "unsigned: 65535"},
        {"\xce\xff\xff\xff\xff", "4294967295", "unsigned: 4294967295"},
        {"\xff", "-1", "signed: -1"},
        {"\xe0", "-32", "signed: -32"},
        {"\xd0\x80", "-128", "signed: -128"},
        {"\xd1\x80\x00"s, "-32768", "signed: -32768"},
        {"\xd2\x80\x00\x00\x00"s, "-2147483648", "signed: -2147483648"},
        {"\xca\x3f\xc0\x00\x00"s, "1.5", "float: 1.5"},
        {"\xcb\x3f\xf8\x00\x00\x00\x00\x00\x00"s, "1.5", "float: 1.5"},
        {"\xa0", "''", "string. sz: 0"},
        {"\xa1x", "'x'", "string. sz: 1"},
        {"\xa3\x00\xff\xc3"s, "'\\x00\\xff\\xc3'", "string. sz: 3"},
        {"\xd9\x01x", "'x'", "string. sz: 1"},
        {"\xda\x00\x01x"s, "'x'", "string. sz: 1"},
        {"\xdb\x00\x00\x00\x01x"s, "'x'", "string. sz: 1"},
        {"\xc4\x00"s, "''", "string. sz: 0"},
        {"\xc4\x02\x00\x01"s, "'\\x00\\x01'", "string. sz: 2"},
        {"\xc5\x00\x01x"s, "'x'", "string. sz: 1"},
        {"\xc6\x00\x00\x00\x01x"s, "'x'", "string. sz: 1"},
        {"\xd4\x05\x41", "'\\x05A'", "string. sz: 2"},  // the ext type and the payload
        {"\xd5\xff\x41\x42", "'\\xffAB'", "string. sz: 3"},
        {"\xc7\x00\x05"s, "'\\x05'", "string. sz: 1"},
        {"\xc7\x03\x00xyz"s, "'\\x00xyz'", "string. sz: 4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(in_quotes(c.bytes));
        EXPECT_EQ(c.value, converted(c.bytes));
        EXPECT_EQ(Records{"DEBUG pack_to_lua: "s + c.trace}, capture.records());
    }
}

TEST_F(PackToLuaConverterTest, PositiveIntegersKeepTheirLow32BitsAsUnsigned)
{
    const struct {
        std::uint64_t sent;
        const char* value;
        const char* trace;
    } cases[] = {
        {0, "0", "unsigned: 0"},
        {2147483647u, "2147483647", "unsigned: 2147483647"},
        {2147483648u, "2147483648", "unsigned: 2147483648"},
        {4294967295u, "4294967295", "unsigned: 4294967295"},
        {4294967296u, "0", "unsigned: 4294967296"},
        {4294967297u, "1", "unsigned: 4294967297"},
        {5000000000u, "705032704", "unsigned: 5000000000"},
        {9223372036854775808u, "0", "unsigned: 9223372036854775808"},
        {18446744073709551615u, "4294967295", "unsigned: 18446744073709551615"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        capture.clear();
        EXPECT_TRUE(converter.visit_positive_integer(c.sent));
        EXPECT_EQ(c.value, taken());
        EXPECT_EQ(Records{c.trace}, trace());
    }
    EXPECT_EQ("705032704", converted("\xcf\x00\x00\x00\x01\x2a\x05\xf2\x00"s));  // uint 64
}

TEST_F(PackToLuaConverterTest, SignedIntegersKeepTheirLow32BitsAsSigned)
{
    const struct {
        std::int64_t sent;
        const char* value;
        const char* trace;
    } cases[] = {
        {-1, "-1", "signed: -1"},
        {-2147483648ll, "-2147483648", "signed: -2147483648"},
        {-2147483649ll, "2147483647", "signed: -2147483649"},
        {-4294967296ll, "0", "signed: -4294967296"},
        {-4294967297ll, "-1", "signed: -4294967297"},
        {-5000000000ll, "-705032704", "signed: -5000000000"},
        {std::numeric_limits<std::int64_t>::min(), "0", "signed: -9223372036854775808"},
        {2147483648ll, "-2147483648", "signed: 2147483648"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        capture.clear();
        EXPECT_TRUE(converter.visit_negative_integer(c.sent));
        EXPECT_EQ(c.value, taken());
        EXPECT_EQ(Records{c.trace}, trace());
    }
    EXPECT_EQ("2147483647", converted("\xd3\xff\xff\xff\xff\x7f\xff\xff\xff"));  // int 64
}

TEST_F(PackToLuaConverterTest, Float64IsNarrowedToSinglePrecision)
{
    const struct {
        double sent;
        const char* value;
        const char* trace;
    } cases[] = {
        {0.1, "0.10000000149011612", "float: 0.1"},
        {0.5, "0.5", "float: 0.5"},
        {1.25, "1.25", "float: 1.25"},
        {1.0, "1", "float: 1"},
        {-0.0, "-0", "float: -0"},
        {16777216.0, "16777216", "float: 1.67772e+07"},
        {16777217.0, "16777216", "float: 1.67772e+07"},  // above 2^24: the nearest, ties to even
        {16777219.0, "16777220", "float: 1.67772e+07"},  //
        {4294967296.0, "4294967296", "float: 4.29497e+09"},
        {1e300, "inf", "float: inf"},
        {-1e300, "-inf", "float: -inf"},
        {3.4028234663852886e38, "3.4028234663852886e+38", "float: 3.40282e+38"},
        {1e-300, "0", "float: 0"},
        {1e-45, "1.4012984643248171e-45", "float: 1.4013e-45"},
        {std::numeric_limits<double>::infinity(), "inf", "float: inf"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        capture.clear();
        EXPECT_TRUE(converter.visit_float64(c.sent));
        EXPECT_EQ(c.value, taken());
        EXPECT_EQ(Records{c.trace}, trace());
    }
    EXPECT_EQ("0.10000000149011612", converted("\xcb\x3f\xb9\x99\x99\x99\x99\x99\x9a"));
    EXPECT_EQ("inf", converted("\xcb\x7e\x37\xe4\x3c\x88\x00\x75\x9c"s));  // 1e300
}

TEST_F(PackToLuaConverterTest, Float32ArrivesExactly)
{
    const struct {
        float sent;
        const char* value;
        const char* trace;
    } cases[] = {
        {1.5f, "1.5", "float: 1.5"},
        {0.1f, "0.10000000149011612", "float: 0.1"},
        {-0.0f, "-0", "float: -0"},
        {3.4028234663852886e38f, "3.4028234663852886e+38", "float: 3.40282e+38"},
        {1e-45f, "1.4012984643248171e-45", "float: 1.4013e-45"},
        {-std::numeric_limits<float>::infinity(), "-inf", "float: -inf"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        for (const auto visit :
             {&PackToLuaConverter::visit_float32, &PackToLuaConverter::visit_float}) {
            capture.clear();
            EXPECT_TRUE((converter.*visit)(c.sent));
            EXPECT_EQ(c.value, taken());
            EXPECT_EQ(Records{c.trace}, trace());
        }
    }
}

TEST_F(PackToLuaConverterTest, ANanStaysANan)
{
    EXPECT_TRUE(converter.visit_float64(std::nan("")));
    EXPECT_TRUE(std::isnan(lua_tonumber(L, -1)));
    EXPECT_EQ(LUA_TNUMBER, lua_type(L, -1));
}

TEST_F(PackToLuaConverterTest, StringsKeepEveryByte)
{
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes.push_back(static_cast<char>(i));
    }
    const auto n = static_cast<std::uint32_t>(bytes.size());
    for (const auto visit : {&PackToLuaConverter::visit_str, &PackToLuaConverter::visit_bin,
                             &PackToLuaConverter::visit_ext}) {
        capture.clear();
        EXPECT_TRUE((converter.*visit)(bytes.data(), n));
        EXPECT_EQ(in_quotes(bytes), taken());
        EXPECT_EQ(Records{"string. sz: 256"}, trace());

        EXPECT_TRUE((converter.*visit)(nullptr, 0));  // how the parser hands over an empty one
        EXPECT_EQ("''", taken());
    }
}

TEST_F(PackToLuaConverterTest, ArraysAndMapsBecomeTables)
{
    const struct {
        const char* fact;
        std::string bytes;
        const char* value;
    } cases[] = {
        {"an empty array", "\x90", "{}"},
        {"an empty map", "\x80", "{}"},
        {"elements from 1 on",
         "\x93\xa1"
         "a\xc3\x09",
         "{1='a', 2=true, 3=9}"},
        {"array 16", "\xdc\x00\x02\x07\x08"s, "{1=7, 2=8}"},
        {"array 32", "\xdd\x00\x00\x00\x01\x07"s, "{1=7}"},
        {"nil elements vanish", "\x93\x01\xc0\x03", "{1=1, 2=3}"},
        {"nil alone", "\x91\xc0", "{}"},
        {"leading nils", "\x93\xc0\xc0\x07", "{1=7}"},
        {"trailing nils", "\x93\x07\xc0\xc0", "{1=7}"},
        {"false stays", "\x93\xc2\xc0\xc2", "{1=false, 2=false}"},
        {"a pair",
         "\x81\xa1"
         "a\x01",
         "{'a'=1}"},
        {"map 16", "\xde\x00\x01\xa1x\x01"s, "{'x'=1}"},
        {"map 32", "\xdf\x00\x00\x00\x01\xa1x\x01"s, "{'x'=1}"},
        {"the later of equal keys", "\x82\xa1x\x01\xa1x\x02", "{'x'=2}"},
        {"a nil value leaves no entry", "\x82\xa1x\xc0\xa1y\x01", "{'y'=1}"},
        {"a nil value removes an entry", "\x82\xa1x\x01\xa1x\xc0", "{}"},
        {"keys keep their types",
         "\x83\x01\xa1"
         "a\xa1"
         "1\xa1"
         "b\xc3\xa1"
         "c",
         "{'1'='b', 1='a', true='c'}"},
        {"integer keys make a sequence", "\x82\x01\xa1x\x02\xa1y", "{1='x', 2='y'}"},
        {"in any order", "\x82\x02\xa1y\x01\xa1x", "{1='x', 2='y'}"},
        {"str and bin keys are equal", "\x82\xa1x\x01\xc4\x01x\x02", "{'x'=2}"},
        {"float and integer keys are equal", "\x82\x01\x05\xca\x3f\x80\x00\x00\x06"s, "{1=6}"},
        {"a negative key", "\x81\xff\x01", "{-1=1}"},
        {"keys are truncated too", "\x82\x00\x05\xcf\x00\x00\x00\x01\x00\x00\x00\x00\x06"s,
         "{0=6}"},
        {"an empty key", "\x81\xa0\x01", "{''=1}"},
        {"a table as key", "\x81\x91\x07\x01", "{{1=7}=1}"},
        {"a map as key", "\x81\x81\xa1x\x07\xc3", "{{'x'=7}=true}"},
        {"nested arrays", "\x92\x91\x01\x92\x02\x90", "{1={1=1}, 2={1=2, 2={}}}"},
        {"nested maps", "\x81\xa1x\x81\xa1y\x81\xa1z\x01", "{'x'={'y'={'z'=1}}}"},
        {"mixed", "\x81\xa1x\x92\x01\x81\xa1y\xc3", "{'x'={1=1, 2={'y'=true}}}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.value, converted(c.bytes));
    }
}

TEST_F(PackToLuaConverterTest, AnArrayOfNonNilsIsASequenceInOrder)
{
    std::string bytes = "\xdc\x03\xe8";
    for (int i = 1; i <= 1000; ++i) {
        bytes += '\xcd';
        bytes += static_cast<char>(i >> 8);
        bytes += static_cast<char>(i & 0xff);
    }
    std::size_t off = 0;
    ASSERT_TRUE(msgpack::v2::parse(bytes.data(), bytes.size(), off, converter));
    EXPECT_EQ(1000u, lua_rawlen(L, -1));
    for (int i = 1; i <= 1000; ++i) {
        lua_rawgeti(L, -1, i);
        EXPECT_EQ(i, lua_tointeger(L, -1));
        lua_pop(L, 1);
    }
    EXPECT_EQ("array item 1000", trace()[trace().size() - 2]);
}

TEST_F(PackToLuaConverterTest, EveryStepIsTraced)
{
    const struct {
        const char* fact;
        std::string bytes;
        Records trace;
    } cases[] = {
        {"an empty array", "\x90", {"array start (0)", "array end"}},
        {"an empty map", "\x80", {"map start (0 key value pairs)", "map end"}},
        {"a map that holds an array",
         "\x81\xa1"
         "a\x92\x01\x02",
         {"map start (1 key value pairs)", "string. sz: 1", "array start (2)", "unsigned: 1",
          "array item 1", "unsigned: 2", "array item 2", "array end", "key value pair ready",
          "map end"}},
        {"the index used for an element",
         "\x93\x01\xc0\x03",
         {"array start (3)", "unsigned: 1", "array item 1", "nil", "array item 2", "unsigned: 3",
          "array item 2", "array end"}},
        {"string contents are not shown",
         "\x82\xa6secret\xa4pass\xc4\x03key\xd4\x01x",
         {"map start (2 key value pairs)", "string. sz: 6", "string. sz: 4", "key value pair ready",
          "string. sz: 3", "string. sz: 2", "key value pair ready", "map end"}},
        {"an array in an array",
         "\x91\x91\xc3",
         {"array start (1)", "array start (1)", "bool: <true>", "array item 1", "array end",
          "array item 1", "array end"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        converted(c.bytes);
        EXPECT_EQ(c.trace, trace());
        for (const std::string& record : capture.records()) {
            EXPECT_EQ(0u, record.find("DEBUG pack_to_lua: ")) << record;
        }
    }
}

TEST_F(PackToLuaConverterTest, StepsThatPushNothingReturnTrueAndAreNotTraced)
{
    lua_createtable(L, 0, 0);
    EXPECT_TRUE(converter.start_array_item());
    EXPECT_TRUE(converter.start_map_key());
    EXPECT_TRUE(converter.end_map_key());
    EXPECT_TRUE(converter.start_map_value());
    EXPECT_EQ(Records(), capture.records());
    EXPECT_TRUE(converter.end_array());
    EXPECT_TRUE(converter.end_map());
    EXPECT_EQ("{}", taken());
    EXPECT_EQ((Records{"array end", "map end"}), trace());
}

TEST_F(PackToLuaConverterTest, NoStepAsksTheParserToStop)
{
    EXPECT_TRUE(converter.visit_nil());
    EXPECT_TRUE(converter.visit_boolean(false));
    EXPECT_TRUE(converter.visit_positive_integer(1));
    EXPECT_TRUE(converter.visit_negative_integer(-1));
    EXPECT_TRUE(converter.visit_float(1));
    EXPECT_TRUE(converter.visit_float32(1));
    EXPECT_TRUE(converter.visit_float64(1));
    EXPECT_TRUE(converter.visit_str("", 0));
    EXPECT_TRUE(converter.visit_bin("", 0));
    EXPECT_TRUE(converter.visit_ext("x", 1));
    EXPECT_EQ(11, lua_gettop(L));
    EXPECT_TRUE(converter.start_array(1));
    EXPECT_TRUE(converter.visit_nil());
    EXPECT_TRUE(converter.end_array_item());
    EXPECT_TRUE(converter.start_map(1));
    EXPECT_TRUE(converter.visit_boolean(true));
    EXPECT_TRUE(converter.visit_nil());
    EXPECT_TRUE(converter.end_map_value());
    EXPECT_EQ(13, lua_gettop(L));
}

TEST_F(PackToLuaConverterTest, ParserReportsAreLoggedAndPushNothing)
{
    converter.parse_error(3, 4);
    converter.insufficient_bytes(5, 4294967295u);
    EXPECT_EQ((Records{"ERROR pack_to_lua: parser_error. parsed_offset: 3 error_offset: 4",
                       "ERROR pack_to_lua: insufficient_bytes. parsed_offset: 5 error_offset: "
                       "4294967295"}),
              capture.records());
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(PackToLuaConverterTest, BrokenInputIsReportedByTheParser)
{
    const struct {
        const char* fact;
        std::string bytes;
        const char* record;
    } cases[] = {
        {"nothing at all", "",
         "ERROR pack_to_lua: insufficient_bytes. parsed_offset: 0 error_offset: 0"},
        {"cut inside a string", "\xa4xy",
         "ERROR pack_to_lua: insufficient_bytes. parsed_offset: 0 error_offset: 1"},
        {"no format begins so", "\x92\x01\xc1",
         "ERROR pack_to_lua: parser_error. parsed_offset: 1 error_offset: 2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        capture.clear();
        std::size_t off = 0;
        EXPECT_FALSE(msgpack::v2::parse(c.bytes.data(), c.bytes.size(), off, converter));
        EXPECT_EQ(c.record, capture.records().back());
    }
}

TEST_F(PackToLuaConverterTest, WithoutDebugPriorityNothingIsTraced)
{
    log4cpp::Category::getRoot().setPriority(log4cpp::Priority::INFO);
    EXPECT_EQ("{1=1, 2={'x'=true}}", converted("\x92\x01\x81\xa1x\xc3"));
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(PackToLuaConverterTest, AFullStackIsFoundBeforeEachPush)
{
    const struct {
        const char* name;
        std::function<void()> push;
    } cases[] = {
        {"visit_nil", [&] { converter.visit_nil(); }},
        {"visit_boolean", [&] { converter.visit_boolean(true); }},
        {"visit_positive_integer", [&] { converter.visit_positive_integer(1); }},
        {"visit_negative_integer", [&] { converter.visit_negative_integer(-1); }},
        {"visit_float", [&] { converter.visit_float(1); }},
        {"visit_float32", [&] { converter.visit_float32(1); }},
        {"visit_float64", [&] { converter.visit_float64(1); }},
        {"visit_str", [&] { converter.visit_str("x", 1); }},
        {"visit_bin", [&] { converter.visit_bin("x", 1); }},
        {"visit_ext", [&] { converter.visit_ext("x", 1); }},
        {"start_array", [&] { converter.start_array(1); }},
        {"start_map", [&] { converter.start_map(1); }},
        {"end_array_item", [&] { converter.end_array_item(); }},  // needs a slot for the length
    };
    while (lua_checkstack(L, 1)) {
        lua_createtable(L, 0, 0);
    }
    lua_pop(L, 1);
    lua_pushboolean(L, 1);  // table item, as end_array_item() wants them
    const int height = lua_gettop(L);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            c.push();
            ADD_FAILURE() << "pushed onto a full stack";
            lua_settop(L, height);
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ("args are nested too deeply", error.what());
        }
        EXPECT_EQ(height, lua_gettop(L));
    }
}

/// A lua_Alloc without memory: blocks can only shrink and go.
void* allocate_nothing(void* /*data*/, void* block, std::size_t old_size, std::size_t new_size)
{
    if (new_size == 0) {
        std::free(block);
        return nullptr;
    }
    return block != nullptr && new_size <= old_size ? block : nullptr;
}

TEST_F(PackToLuaConverterTest, AStackThatCannotGrowWithoutMemoryIsABadAlloc)
{
    const int height = 100;  // far above the slots that a stack has at first
    lua_setallocf(L, allocate_nothing, nullptr);
    EXPECT_THROW(
        {
            while (lua_gettop(L) < height) {
                converter.visit_boolean(true);
            }
        },
        std::bad_alloc);
    EXPECT_LT(lua_gettop(L), height);
}

TEST_F(PackToLuaConverterTest, StepsThatTakeValuesOffWorkOnAFullStack)
{
    ASSERT_TRUE(converter.start_map(1));
    while (lua_gettop(L) + 4 < LUAI_MAXSTACK && lua_checkstack(L, 3)) {
        lua_pushnil(L);
    }
    const int height = lua_gettop(L);
    lua_settop(L, height - 3);
    ASSERT_TRUE(converter.start_map(1));
    ASSERT_TRUE(converter.visit_boolean(true));
    ASSERT_TRUE(converter.visit_boolean(true));
    EXPECT_TRUE(converter.end_map_value());
    EXPECT_TRUE(converter.end_map());
    EXPECT_EQ("{true=true}", described(L, -1));
}

using PackToLuaConverterDeathTest = PackToLuaConverterTest;

TEST_F(PackToLuaConverterDeathTest, ANilKeyEndsTheProcess)
{
    EXPECT_EXIT(converted("\x81\xc0\x01"), testing::KilledBySignal(SIGABRT),
                "PANIC: unprotected error in call to Lua API .*index is nil");
}

TEST_F(PackToLuaConverterDeathTest, ANanKeyEndsTheProcess)
{
    EXPECT_EXIT(converted("\x81\xcb\x7f\xf8\x00\x00\x00\x00\x00\x00\x01"s),
                testing::KilledBySignal(SIGABRT),
                "PANIC: unprotected error in call to Lua API .*index is NaN");
    EXPECT_EXIT(converted("\x81\xca\x7f\xc0\x00\x00\x01"s), testing::KilledBySignal(SIGABRT),
                "PANIC: unprotected error in call to Lua API .*index is NaN");
}

}  // namespace
}  // namespace pex
