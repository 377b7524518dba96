#include "lua_tools/script_directory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <type_traits>

#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace pex {
namespace {

using namespace std::string_literals;

static_assert(!std::is_polymorphic_v<ScriptDirectory>);
static_assert(!std::is_copy_constructible_v<ScriptDirectory>);

/// Descriptors that this process holds.
long open_descriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
}

class ScriptDirectoryTest : public testing::Test {
protected:
    ScriptDirectoryTest() { scripts.write("ping.lua", "return 'pong'"); }

    /// Where a lookup in the open directory found the name; "untouched" if it did not.
    std::string found(const std::string& name)
    {
        std::string path = "untouched";
        const bool hit = directory.lookup_absolute_script(path, name);
        EXPECT_EQ(hit, path != "untouched");
        return path;
    }

    std::string found_in(const std::string& dir, const std::string& name)
    {
        EXPECT_TRUE(directory.open(dir.c_str()));
        return found(name);
    }

    void expect_not_open()
    {
        std::string path = "untouched";
        try {
            directory.lookup_absolute_script(path, "ping.lua");
            ADD_FAILURE() << "a lookup without an open directory returned";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(
                "Didn't open directory for searching (pex::util::Dir::lookup_absolute_script)",
                error.what());
        }
        EXPECT_EQ("untouched", path);
    }

    TempDir scripts;
    LogCapture capture;
    ScriptDirectory directory{log4cpp::Category::getInstance("owner")};
};

TEST_F(ScriptDirectoryTest, MatchesWholeEntryNamesOnly)
{
    scripts.write("with blank.lua", "");
    scripts.write("x.lua.lua", "");
    const struct {
        std::string name;
        bool hit;
    } cases[] = {
        {"ping.lua", true},
        {"with blank.lua", true},
        {"x.lua.lua", true},
        {"ping", false},          // nothing is appended here
        {"ping.lua.lua", false},  // nor stripped
        {"x.lua", false},         //
        {"PING.lua", false},      // letter case counts
        {"ping.LUA", false},      //
        {" ping.lua", false},     // nothing is trimmed
        {"ping.lua ", false},     //
        {"./ping.lua", false},    // a name is never read as a path
        {"/ping.lua", false},     //
        {"p*", false},            // nor as a pattern
        {"ping?lua", false},      //
        {"", false},              //
        {"pong.lua", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.hit ? scripts.path() + "/" + c.name : "untouched",
                  found_in(scripts.path(), c.name));
    }
    EXPECT_EQ(Records(), capture.records());  // a miss is normal and not logged
}

TEST_F(ScriptDirectoryTest, ANameCannotClimbOutOfItsDirectory)
{
    const std::string below = scripts.make_dir("below");
    EXPECT_EQ("untouched", found_in(below, "../ping.lua"));
    EXPECT_EQ("untouched", found_in(below, scripts.path() + "/ping.lua"));
}

TEST_F(ScriptDirectoryTest, OneSlashStandsBetweenDirectoryAndName)
{
    const WorkingDirectory there(scripts.path());
    scripts.make_dir("sub");
    scripts.write("sub/ping.lua", "");
    const struct {
        std::string dir;
        std::string path;
    } cases[] = {
        {scripts.path(), scripts.path() + "/ping.lua"},
        {scripts.path() + "/", scripts.path() + "/ping.lua"},
        {scripts.path() + "//", scripts.path() + "//ping.lua"},  // kept as configured
        {"sub", "sub/ping.lua"},                                 // a relative path stays relative
        {"sub/", "sub/ping.lua"},
        {"./sub/../sub", "./sub/../sub/ping.lua"},
        {".", "./ping.lua"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.dir);
        EXPECT_EQ(c.path, found_in(c.dir, "ping.lua"));
    }
}

TEST_F(ScriptDirectoryTest, TheTypeOfAnEntryDoesNotMatter)
{
    scripts.make_dir("dir.lua");
    std::filesystem::create_symlink("/nonexistent", scripts.path() + "/dangling.lua");
    for (const char* name : {"dir.lua", "dangling.lua", ".", ".."}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(scripts.path() + "/" + name, found_in(scripts.path(), name));
    }
}

TEST_F(ScriptDirectoryTest, ANameIsComparedUpToItsFirstZeroByte)
{
    EXPECT_EQ(scripts.path() + "/ping.lua\0x"s, found_in(scripts.path(), "ping.lua\0x"s));
    EXPECT_EQ("untouched", found_in(scripts.path(), "\0ping.lua"s));
    EXPECT_EQ("untouched", found_in(scripts.path(), "ping\0.lua"s));
}

TEST_F(ScriptDirectoryTest, AnEmptyDirectoryIsAMissWithoutALogLine)
{
    EXPECT_EQ("untouched", found_in(scripts.make_dir("empty"), "ping.lua"));
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ScriptDirectoryTest, FindsANameAmongMany)
{
    for (int i = 0; i < 500; ++i) {
        scripts.write("script" + std::to_string(i) + ".lua", "");
    }
    EXPECT_EQ(scripts.path() + "/script432.lua", found_in(scripts.path(), "script432.lua"));
    EXPECT_EQ("untouched", found_in(scripts.path(), "script500.lua"));
}

TEST_F(ScriptDirectoryTest, ADirectoryThatCannotBeOpenedIsLogged)
{
    const std::string file = scripts.write("file", "");
    const struct {
        std::string path;
        const char* error;
    } cases[] = {
        {scripts.path() + "/none", "No such file or directory"},
        {file, "Not a directory"},
        {file + "/below", "Not a directory"},
        {scripts.path() + "/" + std::string(256, 'x'), "File name too long"},
        {"", "No such file or directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        capture.clear();
        EXPECT_FALSE(directory.open(c.path.c_str()));
        EXPECT_EQ(Records{"ERROR owner: opendir(" + c.path + "): " + c.error}, capture.records());
        expect_not_open();
    }
}

TEST_F(ScriptDirectoryTest, AReadErrorIsLoggedAndCountsAsAMiss)
{
    const std::string dir = scripts.path() + "/";
    ASSERT_TRUE(directory.open(dir.c_str()));
    const failing_calls::Readdir failing(EIO, 2);
    EXPECT_EQ("untouched", found("none.lua"));
    EXPECT_EQ(Records{"ERROR owner: readdir(" + dir + "): Input/output error"}, capture.records());
    expect_not_open();
}

TEST_F(ScriptDirectoryTest, AReadErrorOfTheFirstEntryIsLogged)
{
    const std::string dir = scripts.path();
    ASSERT_TRUE(directory.open(dir.c_str()));
    const failing_calls::Readdir failing(EOVERFLOW, 0);
    EXPECT_EQ("untouched", found("ping.lua"));
    EXPECT_EQ(Records{"ERROR owner: readdir(" + dir + "): Value too large for defined data type"},
              capture.records());
}

TEST_F(ScriptDirectoryTest, AnEarlierErrorIsNotTakenForAReadError)
{
    ASSERT_TRUE(directory.open(scripts.path().c_str()));
    errno = EIO;
    EXPECT_EQ("untouched", found("none.lua"));

    // Of a removed directory not even "." is left to read.
    const std::string removed = scripts.make_dir("removed");
    ASSERT_TRUE(directory.open(removed.c_str()));
    std::filesystem::remove(removed);
    errno = EIO;
    EXPECT_EQ("untouched", found("none.lua"));
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ScriptDirectoryTest, OneOpenServesOneLookup)
{
    expect_not_open();
    EXPECT_NE("untouched", found_in(scripts.path(), "ping.lua"));
    expect_not_open();
    EXPECT_EQ("untouched", found_in(scripts.path(), "none.lua"));
    expect_not_open();
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ScriptDirectoryTest, CloseClosesAndIsHarmlessWhenClosed)
{
    directory.close();
    ASSERT_TRUE(directory.open(scripts.path().c_str()));
    directory.close();
    expect_not_open();
    directory.close();
    expect_not_open();
}

TEST_F(ScriptDirectoryTest, EveryEndClosesTheStream)
{
    const long before = open_descriptors();
    found_in(scripts.path(), "ping.lua");
    EXPECT_EQ(before, open_descriptors()) << "after a hit";
    found_in(scripts.path(), "none.lua");
    EXPECT_EQ(before, open_descriptors()) << "after a miss";
    {
        ASSERT_TRUE(directory.open(scripts.path().c_str()));
        const failing_calls::Readdir failing(EIO, 0);
        found("ping.lua");
    }
    EXPECT_EQ(before, open_descriptors()) << "after a read error";
    ASSERT_TRUE(directory.open(scripts.path().c_str()));
    EXPECT_EQ(before + 1, open_descriptors());
    directory.close();
    EXPECT_EQ(before, open_descriptors()) << "after close";
    {
        ScriptDirectory other(log4cpp::Category::getInstance("owner"));
        ASSERT_TRUE(other.open(scripts.path().c_str()));
    }
    EXPECT_EQ(before, open_descriptors()) << "after destruction";
}

}  // namespace
}  // namespace pex
