#include "properties.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <optional>
#include <random>

#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using namespace std::string_literals;

class PropertiesTest : public testing::Test {
protected:
    bool load(const std::string& content)
    {
        return props.load(dir.write("service.properties", content).c_str());
    }

    /// The value, or "(missing)".
    std::string value(const char* key) { return props.getString(key, "(missing)"); }

    TempDir dir;
    cProperties props;
};

TEST_F(PropertiesTest, ReadsAFileInTheLoggingLibrarysForm)
{
    const EnvironmentVariable from_environment("PEX_TEST_VARIABLE", " from environment ");
    const struct {
        const char* fact;
        std::string content;
        const char* key;
        const char* value;
    } cases[] = {
        {"a plain line", "a=b\n", "a", "b"},
        {"the last line may be unterminated", "a=b", "a", "b"},
        {"later lines count", "a=b\nc=d\n", "c", "d"},
        {"blanks are trimmed", " \t a \t = \t b \t \n", "a", "b"},
        {"carriage returns are trimmed", "a=b\r\n", "a", "b"},
        {"carriage returns before the sign too", "a\r=\rb\n", "a", "b"},
        {"blanks inside stay", "a key=b \t c\n", "a key", "b \t c"},
        {"other white space stays", "a=\vb\f\n", "a", "\vb\f"},
        {"a comment line", "#a=b\n", "a", "(missing)"},
        {"an indented comment line", "  # a=b\n", "a", "(missing)"},
        {"a comment behind a value", "a=b # c\n", "a", "b"},
        {"a comment sign inside a value", "a=b#c\n", "a", "b"},
        {"a comment sign inside a key", "a#b=c\n", "a", "(missing)"},
        {"only the first comment sign counts", "a=b#c#d\n", "a", "b"},
        {"no other comment signs", "!a=b\n", "!a", "b"},
        {"nor a semicolon", ";a=b\n", ";a", "b"},
        {"a line without a sign", "a\nb=c\n", "a", "(missing)"},
        {"an empty line", "\n\na=b\n", "a", "b"},
        {"the first sign separates", "a=b=c\n", "a", "b=c"},
        {"no other separator", "a:b=c\n", "a:b", "c"},
        {"no continuation lines", "a=b\\\nc=d\n", "a", "b\\"},
        {"an empty value", "a=\n", "a", ""},
        {"a value of blanks", "a= \t \n", "a", ""},
        {"an empty key", "=b\n", "", "b"},
        {"the first of equal keys wins", "a=b\na=c\n", "a", "b"},
        {"also when it is empty", "a=\na=c\n", "a", ""},
        {"letter case counts", "A=b\n", "a", "(missing)"},
        {"a dropped prefix", "log4cpp.a=b\n", "a", "b"},
        {"a dropped prefix is gone", "log4cpp.a=b\n", "log4cpp.a", "(missing)"},
        {"the other dropped prefix", "log4j.a=b\n", "a", "b"},
        {"only one is dropped", "log4j.log4cpp.a=b\n", "log4cpp.a", "b"},
        {"a prefix has a dot", "log4cppa=b\n", "log4cppa", "b"},
        {"a prefix alone is a key", "log4j=b\n", "log4j", "b"},
        {"a prefix counts in its letter case", "LOG4CPP.a=b\n", "LOG4CPP.a", "b"},
        {"equal but for the prefix", "log4cpp.a=b\na=c\n", "a", "b"},
        {"an earlier key's value", "a=b\nc=x${a}y\n", "c", "xby"},
        {"not a later one's", "c=x${a}y\na=b\n", "c", "xy"},
        {"two in one value", "a=b\nc=${a}${a}\n", "c", "bb"},
        {"by the name without prefix", "log4cpp.a=b\nc=${a}\n", "c", "b"},
        {"a missing one is nothing", "c=x${none}y\n", "c", "xy"},
        {"an environment variable", "c=x${PEX_TEST_VARIABLE}y\n", "c", "x from environment y"},
        {"which is not trimmed", "c=${PEX_TEST_VARIABLE}\n", "c", " from environment "},
        {"and goes before a key", "PEX_TEST_VARIABLE=b\nc=${PEX_TEST_VARIABLE}\n", "c",
         " from environment "},
        {"a literal opening", "c=${${}a}\n", "c", "${a}"},
        {"what was put in is not scanned", "a=${${}b}\nb=d\nc=${a}\n", "c", "${b}"},
        {"an unterminated one stays", "a=b\nc=x${a\n", "c", "x${a"},
        {"also behind a good one", "a=b\nc=${a}${a\n", "c", "b${a"},
        {"none in keys", "a=b\n${a}=c\n", "${a}", "c"},
        {"a lone dollar sign stays", "a=$b}$\n", "a", "$b}$"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.fact) + ": " + c.content);
        ASSERT_TRUE(load(c.content));
        EXPECT_EQ(c.value, value(c.key));
    }
}

TEST_F(PropertiesTest, LinesMayBeLong)
{
    const std::string text(1000000, 'x');
    ASSERT_TRUE(load("a=" + text + "\nb=c\n"));
    EXPECT_EQ(text, value("a"));
    EXPECT_EQ("c", value("b"));
}

TEST_F(PropertiesTest, AnEmptyFileHasNoKeys)
{
    ASSERT_TRUE(load(""));
    EXPECT_EQ("(missing)", value("a"));
    EXPECT_EQ("(missing)", value(""));
}

TEST_F(PropertiesTest, AMissingKeyGivesTheDefaultWhichMayBeNull)
{
    ASSERT_TRUE(load("a=\n"));
    EXPECT_EQ(nullptr, props.getString("b", nullptr));
    EXPECT_STREQ("default", props.getString("b", "default"));
    EXPECT_STREQ("", props.getString("a", nullptr));
    EXPECT_STREQ("", props.getString("a", "default"));
}

TEST_F(PropertiesTest, ATextStaysValidWhileTheObjectLives)
{
    ASSERT_TRUE(load("a=a text that is longer than any small string\n"));
    const char* text = props.getString("a", nullptr);
    for (int i = 0; i < 1000; ++i) {
        props.getString(std::to_string(i).c_str(), "default");
        props.getInt("a", 0);
    }
    EXPECT_STREQ("a text that is longer than any small string", text);
    EXPECT_EQ(text, props.getString("a", nullptr));
}

TEST_F(PropertiesTest, ReadsWholeDecimalNumbersInTheRangeOfInt)
{
    const struct {
        const char* text;
        int number;
    } cases[] = {
        {"1883", 1883},
        {"0", 0},
        {"-5", -5},
        {"007", 7},
        {" 42 ", 42},  // trimmed like every value
        {"2147483647", 2147483647},
        {"-2147483648", -2147483647 - 1},
        {"2147483648", 99},  // out of range
        {"-2147483649", 99},
        {"4294967297", 99},
        {"9223372036854775808", 99},
        {"-9223372036854775809", 99},
        {"99999999999999999999999", 99},
        {"", 99},
        {"abc", 99},
        {"1883x", 99},
        {"18 83", 99},
        {"0x10", 99},
        {"1e3", 99},
        {"1.0", 99},
        {"-", 99},
        {"1883 # the port", 1883},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_TRUE(load("n="s + c.text + "\n"));
        EXPECT_EQ(c.number, props.getInt("n", 99));
    }
}

TEST_F(PropertiesTest, AMissingNumberGivesTheDefault)
{
    ASSERT_TRUE(load("a=1\n"));
    EXPECT_EQ(1883, props.getInt("server_comms.port", 1883));
    EXPECT_EQ(-1, props.getInt("server_comms.port", -1));
}

TEST_F(PropertiesTest, IsCopiedByValue)
{
    ASSERT_TRUE(load("a=b\n"));
    cProperties copy = props;
    ASSERT_TRUE(load("a=c\n"));
    EXPECT_STREQ("b", copy.getString("a", nullptr));
    EXPECT_EQ("c", value("a"));
    copy = props;
    EXPECT_STREQ("c", copy.getString("a", nullptr));
}

TEST_F(PropertiesTest, ASecondLoadReplacesTheFirst)
{
    ASSERT_TRUE(load("a=b\nonly=here\n"));
    ASSERT_TRUE(load("a=c\n"));
    EXPECT_EQ("c", value("a"));
    EXPECT_EQ("(missing)", value("only"));
}

TEST_F(PropertiesTest, AFileThatCannotBeReadLeavesNothingBehind)
{
    const std::string file = dir.write("file", "b=c\n");
    const struct {
        const char* fact;
        std::string path;
    } cases[] = {
        {"missing", dir.path() + "/none.properties"},
        {"empty path", ""},
        {"in a missing directory", dir.path() + "/none/service.properties"},
        {"below a file", file + "/service.properties"},
        {"a directory", dir.path()},
        {"a read error", "/proc/self/mem"},  // opens, but has nothing at its beginning
        {"a NUL byte", dir.write("nul", "b=c\nd=\0\n"s)},
        {"a NUL byte in a comment", dir.write("comment", "b=c\n#\0\n"s)},
        {"a NUL byte at the end", dir.write("end", "b=c\n\0"s)},
        {"a NUL byte at the beginning", dir.write("begin", "\0b=c\n"s)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        ASSERT_TRUE(load("a=b\n"));
        EXPECT_FALSE(props.load(c.path.c_str()));
        EXPECT_EQ("(missing)", value("a"));
        EXPECT_EQ("(missing)", value("b"));
        EXPECT_EQ("(missing)", value("d"));
        EXPECT_EQ(99, props.getInt("a", 99));
    }
}

TEST_F(PropertiesTest, AReadErrorBehindGoodLinesLeavesNothingBehind)
{
    const std::string path = dir.write("service.properties", "a=b\nc=d\n");
    {
        const failing_calls::Read failing(EIO, 4);
        EXPECT_FALSE(props.load(path.c_str()));
    }
    EXPECT_EQ("(missing)", value("a"));
    EXPECT_TRUE(props.load(path.c_str()));
    EXPECT_EQ("b", value("a"));
}

TEST_F(PropertiesTest, CanBeLoadedAfterAFailure)
{
    EXPECT_FALSE(props.load(dir.path().c_str()));
    ASSERT_TRUE(load("a=b\n"));
    EXPECT_EQ("b", value("a"));
}

/// Loads the same files with the logging library. What it read for a layout's pattern shows in
/// what it logs; the patterns used here hold no '%', so they come out as they are.
class SameFileTest : public PropertiesTest {
protected:
    /// What log4cpp has for "appender.A.layout.ConversionPattern"; empty if it has no such key.
    std::optional<std::string> read_by_logging(const std::string& path)
    {
        log4cpp::PropertyConfigurator::configure(path);
        log4cpp::Category::getRoot().info(no_pattern);
        remove_configured_appenders();
        const std::string logged = read_file(log_path);
        dir.write("service.log", "");
        // Without the key the library's own default pattern shows the message.
        return logged == no_pattern + "\n"s ? std::nullopt : std::make_optional(logged);
    }

    std::optional<std::string> read_by_service(const std::string& path)
    {
        EXPECT_TRUE(props.load(path.c_str()));
        const char* text = props.getString("appender.A.layout.ConversionPattern", nullptr);
        return text == nullptr ? std::nullopt : std::make_optional<std::string>(text);
    }

    /// Writes a file with these lines, behind what log4cpp needs, and compares the two.
    void expect_agreement(const std::string& lines)
    {
        const std::string path = dir.write("both.properties",
                                           "rootCategory=DEBUG, A\n"
                                           "appender.A=FileAppender\n"
                                           "appender.A.fileName=" +
                                               log_path +
                                               "\n"
                                               "appender.A.append=false\n"
                                               "appender.A.layout=PatternLayout\n" +
                                               lines);
        EXPECT_EQ(read_by_logging(path), read_by_service(path)) << lines;
    }

    static constexpr const char* no_pattern = "no pattern was configured";
    const std::string log_path = dir.path() + "/service.log";
};

TEST_F(SameFileTest, TrickyLinesReadTheSame)
{
    const EnvironmentVariable from_environment("PEX_TEST_VARIABLE", " #${x} = ");
    const std::string key = "appender.A.layout.ConversionPattern";
    const std::string cases[] = {
        "",
        key + "=text\n",
        key + "=text",
        key + "=\n",
        key + "\n",
        key + "= \t text \r\n",
        key + "=a # b\n",
        key + "#=a\n",
        "#" + key + "=a\n",
        key + "=a\n" + key + "=b\n",
        key + "=\n" + key + "=b\n",
        "log4cpp." + key + "=a\n" + key + "=b\n",
        key + "=a\nlog4j." + key + "=b\n",
        "log4j." + key + "=a\n",
        "log4cpp.log4j." + key + "=a\n",
        "log4cpp" + key + "=a\n",
        "x=1\n" + key + "=[${x}]\n",
        key + "=[${x}]\nx=1\n",
        "log4cpp.x=1\n" + key + "=[${x}][${log4cpp.x}]\n",
        "x=1\n" + key + "=[${ x }]\n",
        key + "=[${PEX_TEST_VARIABLE}]\n",
        "PEX_TEST_VARIABLE=1\n" + key + "=${PEX_TEST_VARIABLE}\n",
        key + "=[${${}x}]\n",
        "x=${${}y}\ny=1\n" + key + "=${x}\n",
        key + "=[${x\n",
        key + "=[${}]\n",
        "=1\n" + key + "=[${}]\n",
        key + "=a=b=c\n",
        key + "=a\\\nb=c\n",
        key + ":a\n",
        "!" + key + "=a\n",
        key + "=\v a \f\n",
        key + "=\xc3\xa9\xff\x01\x7f\n",
        key + "=" + std::string(100000, 'x') + "\n",
    };
    for (const std::string& lines : cases) {
        expect_agreement(lines);
    }
}

TEST_F(SameFileTest, RandomLinesReadTheSame)
{
    const EnvironmentVariable from_environment("PEX_TEST_VARIABLE", " #${x} = ");
    const std::string keys[] = {"appender.A.layout.ConversionPattern",
                                "log4cpp.appender.A.layout.ConversionPattern",
                                "log4j.appender.A.layout.ConversionPattern",
                                "x",
                                "log4cpp.x",
                                "y",
                                ""};
    const std::string pieces[] = {"a",  "b",  " ",  "\t",   "\r",   "#",
                                  "=",  "${", "}",  "${x}", "${y}", "${PEX_TEST_VARIABLE}",
                                  "$",  "{",  "\v", "\\",   "!",    "${${}",
                                  "\n", ":",  "x",  "y",    "${}",  "\xff"};
    std::mt19937 random(20261121);
    const auto pick = [&](const auto& from) { return from[random() % std::size(from)]; };
    for (int i = 0; i < 3000 && !HasFailure(); ++i) {
        std::string lines;
        for (std::size_t line = 0; line < 1 + random() % 5; ++line) {
            lines += (random() % 5 == 0 ? pick(pieces) : "") + pick(keys) +
                     (random() % 8 == 0 ? pick(pieces) : "=");
            for (std::size_t piece = random() % 6; piece > 0; --piece) {
                lines += pick(pieces);
            }
            lines += random() % 10 == 0 ? "" : "\n";
        }
        expect_agreement(lines);
    }
}

TEST_F(PropertiesTest, KeepsItsLinesInOrder)
{
    ASSERT_TRUE(
        load("# a comment\n"
             "log4cpp.a = b # more\n"
             "\n"
             "no sign here\n"
             "a=${a}c\n"
             "=d"));
    const struct {
        int number;
        bool assigns;
        const char* key;
        const char* value;
    } expected[] = {
        {2, true, "a", "b"},
        {4, false, "", ""},
        {5, true, "a", "bc"},  // overridden by line 2
        {6, true, "", "d"},
    };
    ASSERT_EQ(std::size(expected), props.lines().size());
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        SCOPED_TRACE(expected[i].number);
        EXPECT_EQ(expected[i].number, props.lines()[i].number);
        EXPECT_EQ(expected[i].assigns, props.lines()[i].assigns);
        EXPECT_EQ(expected[i].key, props.lines()[i].key);
        EXPECT_EQ(expected[i].value, props.lines()[i].value);
    }
    EXPECT_FALSE(props.load("/nonexistent"));
    EXPECT_TRUE(props.lines().empty());
}

TEST_F(PropertiesTest, NumbersLinesAsAnEditorDoes)
{
    const struct {
        const char* fact;
        const char* content;
        int number;  // of the last kept line
        std::size_t kept;
    } cases[] = {
        {"unterminated", "a=b", 1, 1},
        {"terminated", "a=b\n", 1, 1},
        {"behind empty lines", "\n\na=b\n", 3, 1},
        {"behind blanks and carriage returns", " \t \r\n\r\na=b\r\n", 3, 1},
        {"a lone carriage return ends no line", "a=b\rc=d\ne=f\n", 2, 2},
        {"behind comments", "#\n # a=b\na=b\n# c", 3, 1},
        {"each of equal ones", "a=b\na=b\na=b\n", 3, 3},
        {"without a sign before the comment", "a#=b\n", 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        ASSERT_TRUE(load(c.content));
        ASSERT_EQ(c.kept, props.lines().size());
        EXPECT_EQ(c.number, props.lines().back().number);
    }
}

TEST_F(PropertiesTest, LinesAreThoseOfTheLastLoad)
{
    ASSERT_TRUE(load("a=b\nc=d\n"));
    const cProperties copy = props;
    ASSERT_TRUE(load("e=f\n"));
    ASSERT_EQ(1u, props.lines().size());
    EXPECT_EQ("e", props.lines()[0].key);
    EXPECT_EQ(1, props.lines()[0].number);
    EXPECT_EQ(2u, copy.lines().size());
    EXPECT_FALSE(load("a=b\nc=\0\n"s));
    EXPECT_TRUE(props.lines().empty());
    ASSERT_TRUE(load("\n# nothing\n"));
    EXPECT_TRUE(props.lines().empty());
}

}  // namespace
