#include "lua_tools/lua_agent.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace pex {
namespace {

using namespace std::string_literals;

static_assert(std::has_virtual_destructor_v<LuaAgent>);

class LuaAgentTest : public testing::Test {
protected:
    std::string answer_of(JobResult result)
    {
        EXPECT_TRUE(result.getStatus());
        EXPECT_STREQ("", result.getReason());
        return {result.getAnswer().begin(), result.getAnswer().end()};
    }

    void expect_failure(JobResult result, const std::string& reason)
    {
        EXPECT_FALSE(result.getStatus());
        EXPECT_EQ(reason, result.getReason());
        EXPECT_TRUE(result.getAnswer().empty());
    }

    /// What findScript() stores; "untouched" for a miss.
    std::string found_by(LuaAgent& agent, const std::string& name)
    {
        std::string path = "untouched";
        const bool hit = agent.findScript(path, name);
        EXPECT_EQ(hit, path != "untouched");
        return path;
    }

    TempDir dir;
    const std::string first = dir.make_dir("first") + "/";
    const std::string second = dir.make_dir("second") + "/";
    LogCapture capture;
    const msgpack::object nil;
};

TEST_F(LuaAgentTest, LogsEachSearchDirectoryInOrder)
{
    const LuaAgent agent({first, "/", first, "relative/"}, "/staging");
    EXPECT_EQ((Records{"INFO lua_agent: script directory: " + first,
                       "INFO lua_agent: script directory: /",
                       "INFO lua_agent: script directory: " + first,
                       "INFO lua_agent: script directory: relative/"}),
              capture.records());
}

TEST_F(LuaAgentTest, LogsSearchDirectoriesAtConstructionOnly)
{
    dir.write("first/ping.lua", "return 'pong'");
    LuaAgent agent({first, second}, "/staging");
    capture.clear();
    agent.runJob("ping.lua", nil);
    agent.runJob("none.lua", nil);
    EXPECT_EQ(Records(), capture.texts_of("lua_agent"));
}

TEST_F(LuaAgentTest, WithoutSearchDirectoriesUsesJobScriptsInTheWorkingDirectory)
{
    const WorkingDirectory there(dir.path());
    dir.make_dir("job_scripts");
    dir.write("job_scripts/path.lua", "return package.path .. '|' .. package.cpath");
    const EnvironmentVariable path("LUA_PATH_5_2", "/lua/?.lua");
    const EnvironmentVariable cpath("LUA_CPATH_5_2", "/lua/?.so");
    LuaAgent agent({}, "/staging");
    EXPECT_EQ(Records{"INFO lua_agent: script directory: " + dir.path() + "/job_scripts"},
              capture.records());
    EXPECT_EQ(dir.path() + "/job_scripts/path.lua", found_by(agent, "path.lua"));
    // No separator between the directory and the pattern.
    EXPECT_EQ("/lua/?.lua;" + dir.path() + "/job_scripts?.lua|/lua/?.so;" + dir.path() +
                  "/job_scripts?.so",
              answer_of(agent.runJob("path.lua", nil)));
}

TEST_F(LuaAgentTest, LaterChangesOfTheWorkingDirectoryDoNotMoveTheFallback)
{
    dir.make_dir("job_scripts");
    dir.write("job_scripts/ping.lua", "return 'pong'");
    std::unique_ptr<LuaAgent> agent;
    {
        const WorkingDirectory there(dir.path());
        agent = std::make_unique<LuaAgent>(std::vector<std::string>(), "/staging");
    }
    const WorkingDirectory elsewhere("/");
    EXPECT_EQ("pong", answer_of(agent->runJob("ping.lua", nil)));
}

TEST_F(LuaAgentTest, WithSearchDirectoriesTheWorkingDirectoryIsNotSearched)
{
    const WorkingDirectory there(dir.path());
    dir.make_dir("job_scripts");
    dir.write("job_scripts/ping.lua", "return 'pong'");
    dir.write("ping.lua", "return 'pong'");
    LuaAgent agent({first}, "/staging");
    EXPECT_EQ("untouched", found_by(agent, "ping.lua"));
}

TEST_F(LuaAgentTest, AWorkingDirectoryWithoutANameEndsTheConstruction)
{
    const WorkingDirectory there(dir.make_dir("removed"));
    std::filesystem::remove(dir.path() + "/removed");
    try {
        const LuaAgent agent({}, "/staging");
        ADD_FAILURE() << "an agent was built without any search directory";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("getcwd: No such file or directory", error.what());
    }
    EXPECT_EQ(Records(), capture.records());
    EXPECT_NO_THROW(LuaAgent({first}, "/staging"));  // does not ask for it
}

TEST_F(LuaAgentTest, TheFirstDirectoryThatHoldsTheNameWins)
{
    dir.write("first/both.lua", "return 'first'");
    dir.write("second/both.lua", "return 'second'");
    dir.write("second/later.lua", "return 'later'");
    LuaAgent agent({first, second}, "/staging");
    EXPECT_EQ(first + "both.lua", found_by(agent, "both.lua"));
    EXPECT_EQ(second + "later.lua", found_by(agent, "later.lua"));
    EXPECT_EQ("first", answer_of(agent.runJob("both.lua", nil)));
    EXPECT_EQ("later", answer_of(agent.runJob("later.lua", nil)));

    LuaAgent reversed({second, first}, "/staging");
    EXPECT_EQ(second + "both.lua", found_by(reversed, "both.lua"));
}

TEST_F(LuaAgentTest, DirectoriesBehindAHitAreNotOpened)
{
    dir.write("first/ping.lua", "return 'pong'");
    LuaAgent agent({first, dir.path() + "/none/"}, "/staging");
    capture.clear();
    EXPECT_EQ(first + "ping.lua", found_by(agent, "ping.lua"));
    EXPECT_EQ(Records(), capture.records());  // opening it would log a failure

    EXPECT_EQ("untouched", found_by(agent, "pong.lua"));
    EXPECT_EQ(
        Records{"ERROR lua_agent: opendir(" + dir.path() + "/none/): No such file or directory"},
        capture.records());
}

TEST_F(LuaAgentTest, ADirectoryThatCannotBeOpenedDoesNotEndTheSearch)
{
    dir.write("second/ping.lua", "return 'pong'");
    LuaAgent agent({dir.path() + "/none/", second}, "/staging");
    capture.clear();
    EXPECT_EQ("pong", answer_of(agent.runJob("ping.lua", nil)));
    EXPECT_EQ((Records{"opendir(" + dir.path() + "/none/): No such file or directory"}),
              capture.texts_of("lua_agent"));
}

TEST_F(LuaAgentTest, ADirectoryThatCannotBeReadDoesNotEndTheSearch)
{
    dir.write("first/ping.lua", "return 'pong'");
    LuaAgent agent({first, second}, "/staging");
    capture.clear();
    const failing_calls::Readdir failing(EIO, 0);
    EXPECT_EQ("untouched", found_by(agent, "ping.lua"));
    EXPECT_EQ((Records{"ERROR lua_agent: readdir(" + first + "): Input/output error",
                       "ERROR lua_agent: readdir(" + second + "): Input/output error"}),
              capture.records());
}

TEST_F(LuaAgentTest, AMissingScriptFailsWithItsNameBetweenQuotes)
{
    dir.write("first/ping.lua", "return 'pong'");
    LuaAgent agent({first, second}, "/staging");
    capture.clear();
    const struct {
        std::string name;
        std::string reason;
    } cases[] = {
        {"none.lua", R"(Cannot run job. Script not found "none.lua")"},
        {"PING.lua", R"(Cannot run job. Script not found "PING.lua")"},
        {"ping", R"(Cannot run job. Script not found "ping")"},
        {"ping.lua.lua", R"(Cannot run job. Script not found "ping.lua.lua")"},
        {"", R"(Cannot run job. Script not found "")"},
        {"../first/ping.lua", R"(Cannot run job. Script not found "../first/ping.lua")"},
        {"a\"b%s\xff.lua", "Cannot run job. Script not found \"a\"b%s\xff.lua\""},
        {"a\0b.lua"s, "Cannot run job. Script not found \"a"},  // the reason is a C string
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expect_failure(agent.runJob(c.name, nil), c.reason);
    }
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(LuaAgentTest, AScriptGetsItsArguments)
{
    dir.write("first/echo.lua", "return args.text .. #args.list");
    LuaAgent agent({first}, "/staging");
    const std::string bytes = "\x82\xa4text\xa1x\xa4list\x92\x01\x02";
    const auto args = msgpack::unpack(bytes.data(), bytes.size());
    EXPECT_EQ("x2", answer_of(agent.runJob("echo.lua", args.get())));
}

TEST_F(LuaAgentTest, AScriptSeesTheSearchDirectoriesAndTheStagingDirectory)
{
    const EnvironmentVariable path("LUA_PATH_5_2", "/lua/?.lua");
    dir.write("first/env.lua", "return pexenv.staging_dir .. '|' .. package.path");
    std::string staging = "/staging";
    LuaAgent agent({first, second}, staging.c_str());
    staging = "/changed";  // the agent has a copy
    EXPECT_EQ("/staging|/lua/?.lua;" + first + "?.lua;" + second + "?.lua",
              answer_of(agent.runJob("env.lua", nil)));
}

TEST_F(LuaAgentTest, TheStagingDirectoryIsNotSearched)
{
    dir.write("second/ping.lua", "return 'pong'");
    LuaAgent agent({first}, second.c_str());
    EXPECT_EQ("untouched", found_by(agent, "ping.lua"));
    expect_failure(agent.runJob("ping.lua", nil), R"(Cannot run job. Script not found "ping.lua")");
}

TEST_F(LuaAgentTest, NothingAScriptLeavesReachesTheNextJob)
{
    dir.write("first/module.lua", "loads = (loads or 0) + 1 return loads");
    dir.write("first/count.lua",
              "count = (count or 0) + 1 "
              "package.path = package.path .. ';x' "
              "return count .. require('module') .. #package.path");
    LuaAgent agent({first}, "/staging");
    const std::string once = answer_of(agent.runJob("count.lua", nil));
    EXPECT_EQ("11", once.substr(0, 2));
    EXPECT_EQ(once, answer_of(agent.runJob("count.lua", nil)));
}

TEST_F(LuaAgentTest, AFailedJobIsLoggedWithTheScriptsPath)
{
    dir.write("first/bad.lua", "error('no luck', 0)");
    dir.write("second/100%s.lua", "syntax error here");
    LuaAgent agent({first, second}, "/staging");
    capture.clear();
    expect_failure(agent.runJob("bad.lua", nil),
                   "Dock command service error. Command script failure, please consult "
                   "pex-command logs.");
    EXPECT_EQ("ERROR lua_agent: " + first + "bad.lua job failed", capture.records().back());
    EXPECT_EQ(1u, capture.texts_of("lua_agent").size());

    capture.clear();
    expect_failure(agent.runJob("100%s.lua", nil),
                   "Dock command service error. Failed to load command script.");
    EXPECT_EQ("ERROR lua_agent: " + second + "100%s.lua job failed", capture.records().back());
    EXPECT_EQ(1u, capture.texts_of("lua_agent").size());
}

TEST_F(LuaAgentTest, AJobWithoutAStateIsLoggedAsFailed)
{
    dir.write("first/ping.lua", "return 'pong'");
    LuaAgent agent({first}, "/staging");
    capture.clear();
    {
        const failing_calls::NewState failing;
        expect_failure(agent.runJob("ping.lua", nil),
                       "Dock command service error. Failed to allocate resources for job.");
    }
    EXPECT_EQ((Records{"ERROR script: Failed to create a new Lua instance.",
                       "ERROR lua_agent: " + first + "ping.lua job failed"}),
              capture.records());
    EXPECT_EQ("pong", answer_of(agent.runJob("ping.lua", nil)));
}

TEST_F(LuaAgentTest, ANameWithAZeroByteRunsTheEntryBeforeIt)
{
    dir.write("first/ping.lua", "return 'pong'");
    LuaAgent agent({first}, "/staging");
    EXPECT_EQ("pong", answer_of(agent.runJob("ping.lua\0x"s, nil)));
}

TEST_F(LuaAgentTest, ADirectoryWithAScriptsNameIsFoundAndFailsToLoad)
{
    dir.make_dir("first/ping.lua");
    LuaAgent agent({first}, "/staging");
    expect_failure(agent.runJob("ping.lua", nil),
                   "Dock command service error. Failed to load command script.");
}

TEST_F(LuaAgentTest, AnExceptionFromTheArgumentsPassesThrough)
{
    dir.write("first/ping.lua", "return 'pong'");
    LuaAgent agent({first}, "/staging");
    msgpack::object unknown;
    unknown.type = static_cast<msgpack::type::object_type>(0x0f);
    EXPECT_THROW(agent.runJob("ping.lua", unknown), msgpack::type_error);
    EXPECT_EQ("pong", answer_of(agent.runJob("ping.lua", nil)));
}

}  // namespace
}  // namespace pex
