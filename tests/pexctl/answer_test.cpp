#include "pexctl/answer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <msgpack.hpp>

namespace {

using namespace std::string_literals;
using pexctl::render;
using pexctl::View;

const std::string service_failure = "\x82\xa6status\xc2\xa6reason\xabparse error";

TEST(AnswerTest, AFailureIsAMapWithAFalseStatus)
{
    const struct {
        const char* fact;
        std::string payload;
        bool succeeded;
        const char* reason;
        bool from_the_service;
    } cases[] = {
        {"text", "Hello", true, "", false},
        {"nothing", "", true, "", false},
        {"the service's failure", service_failure, false, "parse error", true},
        {"a status of true", "\x81\xa6status\xc3"s, true, "", false},
        {"no status", "\x81\xa6reason\xa1x"s, true, "", false},
        {"a status that is no boolean", "\x81\xa6status\xc0"s, true, "", false},
        {"no reason", "\x81\xa6status\xc2"s, false, "", false},
        {"a script's failure", "\x83\xa6status\xc2\xa6script\xa1s\xa6reason\xa2no"s, false, "no",
         false},
        {"the other order is not the service's", "\x82\xa6reason\xa2no\xa6status\xc2"s, false, "no",
         false},
        {"a reason that is no text", "\x82\xa6status\xc2\xa6reason\x92\x01\xc0"s, false,
         "[1, null]", true},
        {"controls in a reason", "\x82\xa6status\xc2\xa6reason\xa2\x1b["s, false, "\\x1b[", true},
        {"more bytes behind it", service_failure + "x", true, "", false},
        {"bytes missing", service_failure.substr(0, 20), true, "", false},
        {"an array", "\x92\xa6status\xc2"s, true, "", false},
        {"keys that are bin", "\x81\xc4\x06status\xc2"s, true, "", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        const pexctl::Verdict verdict = pexctl::verdict_of(c.payload);
        EXPECT_EQ(c.succeeded, verdict.succeeded);
        EXPECT_EQ(c.reason, verdict.reason);
        EXPECT_EQ(c.from_the_service, verdict.from_the_service);
    }
}

TEST(AnswerTest, ShowsMessagePackAsJsonWithoutLoss)
{
    const struct {
        std::string answer;
        const char* json;
    } cases[] = {
        {"\x90"s, "[]\n"},
        {"\x80"s, "{}\n"},
        {"\x93\xc0\xc2\xc3"s, "[null, false, true]\n"},
        {"\x93\x07\xff\xcf\xff\xff\xff\xff\xff\xff\xff\xff"s, "[7, -1, 18446744073709551615]\n"},
        {"\x91\xd3\x80\0\0\0\0\0\0\0"s, "[-9223372036854775808]\n"},
        {"\x92\xcb\x3f\xb9\x99\x99\x99\x99\x99\x9a\xca\x3d\xcc\xcc\xcd"s, "[0.1, 0.1]\n"},
        {"\x91\xcb\x3f\xf0\0\0\0\0\0\0"s, "[1.0]\n"},
        {"\x91\xcb\x7e\x37\xe4\x3c\x88\x00\x75\x9c"s, "[1e+300]\n"},
        {"\x93\xca\x7f\xc0\0\0\xca\x7f\x80\0\0\xca\xff\x80\0\0"s,
         "[{\"$float\": \"nan\"}, {\"$float\": \"inf\"}, {\"$float\": \"-inf\"}]\n"},
        {"\x91\xa3\"\\\n"s, "[\"\\\"\\\\\\n\"]\n"},
        {"\x91\xa2\xc3\xa4"s, "[\"\xc3\xa4\"]\n"},
        {"\x91\xa3\x1b\x7f"s
         "a",
         "[\"\\u001b\\u007fa\"]\n"},
        {"\x91\xa2\xc2\x9b"s, "[\"\\u009b\"]\n"},
        {"\x91\xa2\xff\x00"s, "[{\"$str\": \"ff00\"}]\n"},
        {"\x91\xc4\x02\x00\xab"s, "[{\"$bin\": \"00ab\"}]\n"},
        {"\x92\xd4\x05"s
         "A\xc7\x00\xff"s,
         "[{\"$ext\": [5, \"41\"]}, {\"$ext\": [-1, \"\"]}]\n"},
        {"\x82\xa1"s
         "b\x01\xa1"s
         "a\x02"s,
         "{\n  \"b\": 1,\n  \"a\": 2\n}\n"},
        {"\x81\x05\xa1x"s, "{\"$map\": [\n  [5, \"x\"]\n]}\n"},
        {"\x82\xa1k\x01\xa1k\x02"s, "{\"$map\": [\n  [\"k\", 1],\n  [\"k\", 2]\n]}\n"},
        {"\x81\xa4$bin\xa0"s, "{\"$map\": [\n  [\"$bin\", \"\"]\n]}\n"},
        {"\x81\xa1\xff\xc0"s, "{\"$map\": [\n  [{\"$str\": \"ff\"}, null]\n]}\n"},
        {"\x81\xa1"s
         "a\x92\x01\x91\x02"s,
         "{\n  \"a\": [\n    1,\n    [2]\n  ]\n}\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(c.json, render(c.answer, View::automatic, true));
        EXPECT_EQ(c.json, render(c.answer, View::json, false));
    }
}

TEST(AnswerTest, AnArrayStaysOnALineWhileItIsShort)
{
    msgpack::sbuffer buffer;
    msgpack::pack(buffer, std::vector<int>(23, 1));
    const std::string row = render({buffer.data(), buffer.size()}, View::json, false);
    EXPECT_EQ(1, std::count(row.begin(), row.end(), '\n'));
    buffer.clear();
    msgpack::pack(buffer, std::vector<int>(24, 1));
    const std::string column = render({buffer.data(), buffer.size()}, View::json, false);
    EXPECT_EQ(26, std::count(column.begin(), column.end(), '\n'));
}

TEST(AnswerTest, ChoosesTheFormForATerminal)
{
    const struct {
        const char* fact;
        std::string answer;
        const char* shown;
    } cases[] = {
        {"text", "Hello", "Hello\n"},
        {"text with a line feed", "Hello\n", "Hello\n"},
        {"nothing", "", ""},
        {"a number in MessagePack is text", "7", "7\n"},
        {"UTF-8", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\n"},
        {"tabs and line feeds", "a\tb\nc", "a\tb\nc\n"},
        {"carriage returns at line ends", "a\r\nb\r", "a\r\nb\\x0d\n"},
        {"what a terminal would obey", "\x1b[31m\x7f\xc2\x9bx\a",
         "\\x1b[31m\\x7f\\xc2\\x9bx\\x07\n"},
        {"no UTF-8", "\xff"s, "00000000  ff                                                |.|\n"},
        {"an array that goes on", "\x90\x90"s,
         "00000000  90 90                                             |..|\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.shown, render(c.answer, View::automatic, true));
        EXPECT_EQ(c.answer, render(c.answer, View::automatic, false));
        EXPECT_EQ(c.answer, render(c.answer, View::raw, true));
    }
}

TEST(AnswerTest, KnowsWhatIsUtf8)
{
    const struct {
        const char* bytes;
        bool valid;
    } cases[] = {
        {"\x7f", true},
        {"\x80", false},      // a continuation alone
        {"\xc1\xbf", false},  // overlong
        {"\xc2\x80", true},
        {"\xdf\xbf", true},
        {"\xc3", false},  // cut
        {"\xc3(", false},
        {"\xe0\x9f\xbf", false},  // overlong
        {"\xe0\xa0\x80", true},
        {"\xe2\x82", false},
        {"\xed\x9f\xbf", true},
        {"\xed\xa0\x80", false},  // a surrogate
        {"\xee\x80\x80", true},
        {"\xf0\x8f\xbf\xbf", false},  // overlong
        {"\xf0\x90\x80\x80", true},
        {"\xf4\x8f\xbf\xbf", true},
        {"\xf4\x90\x80\x80", false},  // beyond U+10FFFF
        {"\xf5\x80\x80\x80", false},
    };
    for (const auto& c : cases) {
        const std::string text = "x"s + c.bytes;
        SCOPED_TRACE(render(text, View::text, false));
        const std::string json = render(text, View::json, false);
        EXPECT_EQ(c.valid, json[0] == '"') << json;
    }
}

TEST(AnswerTest, OtherFormsAreAvailableForEveryAnswer)
{
    EXPECT_EQ("\\x81\\x01\\xc0\n", render("\x81\x01\xc0", View::text, false));
    EXPECT_EQ("\"Hello\"\n", render("Hello", View::json, false));
    EXPECT_EQ("\"\"\n", render("", View::json, true));
    EXPECT_EQ("{\"$bin\": \"ff61\"}\n", render("\xff"
                                               "a",
                                               View::json, true));
    EXPECT_EQ("", render("", View::text, true));
    EXPECT_EQ("", render("", View::hex, true));
    EXPECT_EQ(
        "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
        "00000010  0a 20 7e 7f                                       |. ~.|\n",
        render("0123456789abcdef\n ~\x7f", View::hex, false));
}

TEST(AnswerTest, IsNoJsonWhenNestedTooDeeply)
{
    const auto nested = [](std::size_t levels) { return std::string(levels - 1, '\x91') + '\x90'; };
    EXPECT_EQ('[', render(nested(512), View::automatic, true)[0]);
    EXPECT_EQ('0', render(nested(513), View::automatic, true)[0]);
    EXPECT_EQ('0', render(nested(2000000), View::automatic, true)[0]);
}

TEST(AnswerTest, ManyKeysTakeNoLongerEach)
{
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_map(200000);
    for (int i = 0; i < 200000; ++i) {
        packer.pack(std::to_string(i));
        packer.pack(i);
    }
    const std::string json = render({buffer.data(), buffer.size()}, View::json, false);
    EXPECT_EQ(200002, std::count(json.begin(), json.end(), '\n'));
}

TEST(AnswerTest, HasALineForATable)
{
    const struct {
        const char* fact;
        std::string payload;
        std::size_t width;
        const char* line;
    } cases[] = {
        {"text", "Hello", 20, "Hello"},
        {"the first line of text", "one\ntwo", 20, "one"},
        {"controls", "\x1b[1m", 20, "\\x1b[1m"},
        {"a failure's reason", service_failure, 20, "parse error"},
        {"JSON on one line",
         "\x82\xa1"s
         "a\x91\x01\xa1"s
         "b\xc0"s,
         40, "{\"a\": [1], \"b\": null}"},
        {"bytes", "\xff\x00"s, 20, "ff00"},
        {"nothing", "", 20, ""},
        {"as wide as it may be", "12345678", 8, "12345678"},
        {"cut", "123456789", 8, "12345..."},
        {"characters count, not bytes", "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4", 4,
         "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4"},
        {"cut between characters", "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4", 4, "\xc3\xa4..."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.line, pexctl::first_line(c.payload, c.width));
    }
}

TEST(AnswerTest, ALineOfAHugeAnswerIsCut)
{
    const std::string text(100000000, 'x');
    EXPECT_EQ("xxxxxxx...", pexctl::first_line(text, 10));
    const auto many = [](const std::string& character) {
        std::string text;
        for (int i = 0; i < 1000; ++i) {
            text += character;
        }
        return text;
    };
    EXPECT_EQ("\xe2\x82\xac\xe2\x82\xac...", pexctl::first_line(many("\xe2\x82\xac"), 5));
    EXPECT_EQ("x\xf0\x9f\x98\x80...", pexctl::first_line("x" + many("\xf0\x9f\x98\x80"), 5));
}

}  // namespace
