#include "lua_tools/lua_vm.h"

#include <gtest/gtest.h>

#include <csignal>
#include <new>
#include <stdexcept>
#include <type_traits>

#include "memory_reserve.h"
#include "support/failing_calls.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace pex {
namespace {

using namespace std::string_literals;

static_assert(std::has_virtual_destructor_v<LuaVM>);
static_assert(!std::is_copy_constructible_v<LuaVM>);

constexpr const char* no_state =
    "Dock command service error. Failed to allocate resources for job.";
constexpr const char* not_loaded = "Dock command service error. Failed to load command script.";
constexpr const char* script_failed =
    "Dock command service error. Command script failure, please consult pex-command logs.";

std::string text_of(const std::vector<unsigned char>& answer)
{
    return {answer.begin(), answer.end()};
}

class LuaVMTest : public testing::Test {
protected:
    /// Runs `source` as a script file, in a VM of its own.
    JobResult run(const std::string& source, const msgpack::object& args = msgpack::object())
    {
        script = dir.write("script.lua", source);
        capture.clear();
        LuaVM vm(search_dirs, "/var/staging");
        return vm.executeScript(script.c_str(), args);
    }

    /// The answer of a script that must succeed.
    std::string answer_to(const std::string& source, const msgpack::object& args)
    {
        JobResult result = run(source, args);
        EXPECT_TRUE(result.getStatus());
        EXPECT_STREQ("", result.getReason());
        return text_of(result.getAnswer());
    }

    std::string answer_to(const std::string& source)
    {
        return answer_to(source, msgpack::object());
    }

    /// The same with args given as MessagePack bytes.
    std::string answer_with_args(const std::string& bytes, const std::string& source)
    {
        const auto args = msgpack::unpack(bytes.data(), bytes.size());
        return answer_to(source, args.get());
    }

    void expect_failure(JobResult result, const char* reason)
    {
        EXPECT_FALSE(result.getStatus());
        EXPECT_STREQ(reason, result.getReason());
        EXPECT_TRUE(result.getAnswer().empty());
    }

    /// How many values lie on the stack of an open VM, as its error log counts them.
    std::string height_of(LuaVM& vm)
    {
        capture.clear();
        vm.logLuaError();
        return capture.texts_of("script").front();
    }

    TempDir dir;
    LogCapture capture;
    std::vector<std::string> search_dirs;
    std::string script;  ///< path of the script run last
};

TEST_F(LuaVMTest, ASuccessfulRunIsTracedStepByStep)
{
    run("return 'abc'");
    EXPECT_EQ((Records{"DEBUG script: luaL_loadfile: " + script,
                       "DEBUG script: loading args onto Lua stack", "DEBUG pack_to_lua: nil",
                       "DEBUG script: lua_pcall: " + script, "DEBUG script: Returned 1 lua objects",
                       "DEBUG script: answer type: string length: 3"}),
              capture.records());
}

TEST_F(LuaVMTest, BuildingAVMMakesNoStateAndLogsNothing)
{
    const failing_calls::NewState failing;
    LuaVM vm({"/a/"}, "/var/staging");
    vm.close();  // harmless
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(LuaVMTest, WithoutAStateTheJobFailsAndNothingElseIsDone)
{
    const failing_calls::NewState failing;
    expect_failure(run("return 'abc'"), no_state);
    EXPECT_EQ(Records{"ERROR script: Failed to create a new Lua instance."}, capture.records());
}

TEST_F(LuaVMTest, OpenReportsWhetherThereIsAState)
{
    LuaVM vm({}, "/var/staging");
    {
        const failing_calls::NewState failing;
        EXPECT_FALSE(vm.open());
        EXPECT_EQ(Records{"ERROR script: Failed to create a new Lua instance."}, capture.records());
        vm.close();
    }
    capture.clear();
    EXPECT_TRUE(vm.open());  // open again after a failure
    EXPECT_EQ(Records(), capture.records());
    vm.close();
    vm.close();
    EXPECT_TRUE(vm.open());
}

TEST_F(LuaVMTest, WithoutMemoryForTheLibrariesTheStateIsClosedAgain)
{
    LuaVM vm({}, "/var/staging");
    {
        const failing_calls::Malloc failing;
        EXPECT_FALSE(vm.open());
        EXPECT_EQ(Records{"ERROR script: Failed to create a new Lua instance."}, capture.records());
        capture.clear();
        expect_failure(vm.executeScript("/none.lua", msgpack::object()), no_state);
        EXPECT_EQ(Records{"ERROR script: Failed to create a new Lua instance."}, capture.records());
    }
    const std::string path = dir.write("libraries.lua", "return type(string) .. type(_G)");
    JobResult result = vm.executeScript(path.c_str(), msgpack::object());
    EXPECT_EQ("tabletable", text_of(result.getAnswer()));
}

/// An array of texts that takes more than the memory that a state has at first.
msgpack::object_handle many_texts()
{
    std::vector<std::string> texts;
    for (int i = 0; i < 2000; ++i) {
        texts.push_back("text " + std::to_string(i));
    }
    msgpack::sbuffer packed;
    msgpack::pack(packed, texts);
    return msgpack::unpack(packed.data(), packed.size());
}

TEST_F(LuaVMTest, WithoutMemoryForTheSetUpTheJobFails)
{
    const std::string path = dir.write("short.lua", "return package.path .. pexenv.staging_dir");
    const EnvironmentVariable lua_path("LUA_PATH_5_2", "/lua/?.lua");
    LuaVM vm({"/d1/", "/d2/"}, "/var/staging");
    ASSERT_TRUE(vm.open());
    vm.loadArgs(many_texts().get());
    {
        const failing_calls::Malloc failing;
        EXPECT_THROW(vm.addPexEnv(), std::bad_alloc);
        EXPECT_EQ("logLuaError: num_errs = 0", height_of(vm));
        EXPECT_THROW(vm.addSearchDirs(), std::bad_alloc);
        EXPECT_EQ("logLuaError: num_errs = 0", height_of(vm));
        capture.clear();
        expect_failure(vm.executeScript(path.c_str(), msgpack::object()), no_state);
        EXPECT_EQ(Records{"ERROR script: Failed to create a new Lua instance."}, capture.records());
    }
    JobResult result = vm.executeScript(path.c_str(), msgpack::object());
    EXPECT_EQ("/lua/?.lua;/d1/?.lua;/d2/?.lua/var/staging", text_of(result.getAnswer()));
}

TEST_F(LuaVMTest, WithoutMemoryForItsNameAScriptCannotBeLoaded)
{
    const std::string long_path(600, 'x');  // too long for the memory that a state has at first
    LuaVM vm({}, "/var/staging");
    ASSERT_TRUE(vm.open());
    const failing_calls::Malloc failing;
    expect_failure(vm.executeScript(long_path.c_str(), msgpack::object()), not_loaded);
    EXPECT_EQ((Records{"DEBUG script: luaL_loadfile: " + long_path,
                       "DEBUG script: logLuaError: num_errs = 1",
                       "ERROR script: failure: not enough memory"}),
              capture.records());
}

TEST_F(LuaVMTest, AScriptIsRunOnlyIfThereIsMemoryForItsFailure)
{
    const std::string path = dir.write("short.lua", "return 1");
    LuaVM vm({}, "/var/staging");
    ASSERT_TRUE(vm.open());
    hold_memory_reserve();
    std::get_new_handler()();  // an allocation has needed the reserve
    {
        const failing_calls::Malloc failing;
        expect_failure(vm.executeScript(path.c_str(), msgpack::object()), no_state);
    }
    EXPECT_EQ("No memory is left for the script", capture.texts_of("script").back());
    EXPECT_TRUE(vm.executeScript(path.c_str(), msgpack::object()).getStatus());
}

TEST_F(LuaVMTest, AnOpenStateIsUsedAndAClosedOneIsOpenedAgain)
{
    const std::string path = dir.write("count.lua", "n = (n or 0) + 1 return n");
    LuaVM vm({}, "/var/staging");
    ASSERT_TRUE(vm.open());
    {
        const failing_calls::NewState failing;  // would fail if a second state were made
        EXPECT_TRUE(vm.executeScript(path.c_str(), msgpack::object()).getStatus());
    }
    vm.close();
    JobResult result = vm.executeScript(path.c_str(), msgpack::object());
    EXPECT_EQ("1", text_of(result.getAnswer()));
}

TEST_F(LuaVMTest, TheStateOutlivesTheRunUntilItIsClosed)
{
    LuaVM vm({}, "/var/staging");
    const std::string path = dir.write("three.lua", "return 1, 2, 3");
    vm.executeScript(path.c_str(), msgpack::object());
    EXPECT_EQ("logLuaError: num_errs = 3", height_of(vm));
}

TEST_F(LuaVMTest, AllStandardLibrariesAreOpen)
{
    EXPECT_EQ("table table table table table table table table table function",
              answer_to("local t = type return table.concat({t(string), t(table), t(math), "
                        "t(io), t(os), t(coroutine), t(debug), t(bit32), t(package), "
                        "t(require)}, ' ')"));
}

TEST_F(LuaVMTest, TheGlobalsAreOneTable)
{
    EXPECT_EQ("true",
              answer_to("x = 1\n"
                        "return tostring(_G._G == _G and package.loaded._G == _G and _ENV == _G "
                        "and _G.x == 1 and load('return x')() == 1)"));
}

TEST_F(LuaVMTest, GarbageIsCollectedWhileTheScriptRuns)
{
    EXPECT_EQ("true", answer_to("return tostring(collectgarbage('isrunning'))"));
    EXPECT_EQ("true", answer_to("local most = 0\n"
                                "for i = 1, 20000 do\n"
                                "    local garbage = ('x'):rep(1000) .. i\n"
                                "    most = math.max(most, collectgarbage('count'))\n"
                                "end\n"
                                "return tostring(most < 2000)"));  // KiB; it makes 20 MB
}

TEST_F(LuaVMTest, AScriptSeesTheStagingDirectoryAndNoOtherField)
{
    EXPECT_EQ("staging_dir=/var/staging;",
              answer_to("local s = '' for k, v in pairs(pexenv) do s = s .. k .. '=' .. v .. ';' "
                        "end return s"));
    EXPECT_EQ("table nil", answer_to("return type(pexenv) .. ' ' .. type(getmetatable(pexenv))"));
}

TEST_F(LuaVMTest, TheStagingDirectoryIsHandedOverAsItIs)
{
    const std::string path = dir.write("env.lua", "return pexenv.staging_dir");
    for (const char* staging : {"", "/", "relative", "/with/slash/", "/a b;?%s"}) {
        LuaVM vm({}, staging);
        JobResult result = vm.executeScript(path.c_str(), msgpack::object());
        EXPECT_EQ(staging, text_of(result.getAnswer()));
    }
}

TEST_F(LuaVMTest, SearchDirectoriesComeBehindLuasDefaults)
{
    const EnvironmentVariable path("LUA_PATH_5_2", "/lua/?.lua;./?.lua");
    const EnvironmentVariable cpath("LUA_CPATH_5_2", "/lua/?.so");
    const struct {
        std::vector<std::string> dirs;
        const char* path;
        const char* cpath;
    } cases[] = {
        {{}, "/lua/?.lua;./?.lua", "/lua/?.so"},
        {{"/d1/", "/d2/"}, "/lua/?.lua;./?.lua;/d1/?.lua;/d2/?.lua", "/lua/?.so;/d1/?.so;/d2/?.so"},
        {{"/cwd/job_scripts"},  // the fallback: no separator is put in
         "/lua/?.lua;./?.lua;/cwd/job_scripts?.lua",
         "/lua/?.so;/cwd/job_scripts?.so"},
        {{"/", "/"}, "/lua/?.lua;./?.lua;/?.lua;/?.lua", "/lua/?.so;/?.so;/?.so"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        search_dirs = c.dirs;
        EXPECT_EQ(c.path, answer_to("return package.path"));
        EXPECT_EQ(c.cpath, answer_to("return package.cpath"));
    }
}

TEST_F(LuaVMTest, ModulesAreFoundInTheSearchDirectories)
{
    dir.make_dir("first");
    dir.make_dir("second");
    dir.write("first/both.lua", "return 'first'");
    dir.write("second/both.lua", "return 'second'");
    dir.write("second/later.lua", "return 'later'");
    search_dirs = {dir.path() + "/first/", dir.path() + "/second/"};
    EXPECT_EQ("first later", answer_to("return require('both') .. ' ' .. require('later')"));
}

TEST_F(LuaVMTest, StepsLeaveTheStackAsTheyFoundIt)
{
    LuaVM vm({"/d1/", "/d2/"}, "/var/staging");
    ASSERT_TRUE(vm.open());
    EXPECT_EQ("logLuaError: num_errs = 0", height_of(vm));
    vm.addPexEnv();
    EXPECT_EQ("logLuaError: num_errs = 0", height_of(vm));
    vm.addSearchDirs();
    EXPECT_EQ("logLuaError: num_errs = 0", height_of(vm));
    const std::string bytes = "\x81\xa1x\x92\x01\x81\xa1y\xc3";
    vm.loadArgs(msgpack::unpack(bytes.data(), bytes.size()).get());
    EXPECT_EQ("logLuaError: num_errs = 0", height_of(vm));
}

TEST_F(LuaVMTest, AnEmptyStackIsNoError)
{
    LuaVM vm({}, "/var/staging");
    ASSERT_TRUE(vm.open());
    vm.logLuaError();
    EXPECT_EQ(Records{"DEBUG script: logLuaError: num_errs = 0"}, capture.records());
}

TEST_F(LuaVMTest, AScriptThatCannotBeLoadedFailsWithLuasMessageInTheLog)
{
    const std::string none = dir.path() + "/none.lua";
    LuaVM vm({}, "/var/staging");
    expect_failure(vm.executeScript(none.c_str(), msgpack::object()), not_loaded);
    EXPECT_EQ(
        (Records{"DEBUG script: luaL_loadfile: " + none, "DEBUG script: logLuaError: num_errs = 1",
                 "ERROR script: failure: cannot open " + none + ": No such file or directory"}),
        capture.records());

    expect_failure(run("return ]"), not_loaded);
    EXPECT_EQ((Records{"DEBUG script: luaL_loadfile: " + script,
                       "DEBUG script: logLuaError: num_errs = 1",
                       "ERROR script: failure: " + script + ":1: unexpected symbol near ']'"}),
              capture.records());

    expect_failure(run("\x1bLua is not what follows"), not_loaded);
    EXPECT_EQ("DEBUG script: logLuaError: num_errs = 1", capture.records()[1]);
    EXPECT_EQ(0u, capture.records()[2].find("ERROR script: failure: " + script));
    EXPECT_EQ(3u, capture.records().size());
}

TEST_F(LuaVMTest, ADirectoryCannotBeLoaded)
{
    LuaVM vm({}, "/var/staging");
    expect_failure(vm.executeScript(dir.path().c_str(), msgpack::object()), not_loaded);
    EXPECT_EQ("ERROR script: failure: cannot read " + dir.path() + ": Is a directory",
              capture.records().back());
}

TEST_F(LuaVMTest, ARaisedValueIsLoggedByItsText)
{
    const struct {
        const char* raise;
        std::string record;
    } cases[] = {
        {"error('no luck', 0)", "ERROR script: failure: no luck"},
        {"error(42, 0)", "ERROR script: failure: 42"},
        {"error(0.5, 0)", "ERROR script: failure: 0.5"},
        {"error('', 0)", "ERROR script: failure: "},
        {"error('100%s', 0)", "ERROR script: failure: 100%s"},
        {"error({})", "ERROR script: Unknown failure"},
        {"error(setmetatable({}, {__tostring = function() return 'x' end}))",
         "ERROR script: Unknown failure"},
        {"error()", "ERROR script: Unknown failure"},
        {"error(true)", "ERROR script: Unknown failure"},
        {"error(false)", "ERROR script: Unknown failure"},
        {"error(print)", "ERROR script: Unknown failure"},
        {"error(io.stdout)", "ERROR script: Unknown failure"},
        {"error(coroutine.create(print))", "ERROR script: Unknown failure"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.raise);
        expect_failure(run(c.raise), script_failed);
        EXPECT_EQ((Records{"DEBUG script: luaL_loadfile: " + script,
                           "DEBUG script: loading args onto Lua stack", "DEBUG pack_to_lua: nil",
                           "DEBUG script: lua_pcall: " + script,
                           "DEBUG script: logLuaError: num_errs = 1", c.record}),
                  capture.records());
    }
}

TEST_F(LuaVMTest, ARuntimeErrorIsTheBareMessageWithoutATraceback)
{
    expect_failure(run("\nlocal x = nil\nreturn x.field"), script_failed);
    EXPECT_EQ("ERROR script: failure: " + script + ":3: attempt to index local 'x' (a nil value)",
              capture.records().back());
}

TEST_F(LuaVMTest, LoggingAnErrorLeavesItsValueAlone)
{
    const std::string path = dir.write("raise.lua", "error(42, 0)");
    LuaVM vm({}, "/var/staging");
    vm.executeScript(path.c_str(), msgpack::object());
    EXPECT_EQ("logLuaError: num_errs = 1", height_of(vm));
    EXPECT_EQ("logLuaError: num_errs = 1", height_of(vm));
    // The answer's log tells the type of the value on top: a number still, no text.
    capture.clear();
    std::vector<unsigned char> answer;
    vm.unloadAnswer(answer);
    EXPECT_EQ((Records{"Returned 1 lua objects", "answer type: number length: 2"}),
              capture.texts_of("script"));
}

int append_bytes(lua_State*, const void* bytes, std::size_t size, void* to)
{
    static_cast<std::string*>(to)->append(static_cast<const char*>(bytes), size);
    return 0;
}

TEST_F(LuaVMTest, APrecompiledChunkRunsLikeSource)
{
    lua_State* L = luaL_newstate();
    ASSERT_EQ(LUA_OK, luaL_loadstring(L, "return 'compiled ' .. args"));
    std::string chunk;
    ASSERT_EQ(0, lua_dump(L, append_bytes, &chunk));
    lua_close(L);
    ASSERT_EQ("\x1bLua", chunk.substr(0, 4));
    EXPECT_EQ("compiled 7", answer_with_args("\x07", chunk));
}

TEST_F(LuaVMTest, AFirstLineForTheShellIsSkipped)
{
    EXPECT_EQ("ran", answer_to("#!/usr/bin/lua\nreturn 'ran'"));
}

TEST_F(LuaVMTest, TheLastReturnedValueIsTheAnswer)
{
    const struct {
        const char* returned;
        std::string answer;
        Records log;
    } cases[] = {
        {"", "", {"Returned 0 lua objects"}},
        {"'abc'", "abc", {"Returned 1 lua objects", "answer type: string length: 3"}},
        {"''", "", {"Returned 1 lua objects", "answer type: string length: 0"}},
        {"'a\\0b'", "a\0b"s, {"Returned 1 lua objects", "answer type: string length: 3"}},
        {"'\\x81\\xa2ok\\xc3'",
         "\x81\xa2ok\xc3",
         {"Returned 1 lua objects", "answer type: string length: 5"}},
        {"42", "42", {"Returned 1 lua objects", "answer type: number length: 2"}},
        {"0.5", "0.5", {"Returned 1 lua objects", "answer type: number length: 3"}},
        {"2^53",
         "9.007199254741e+15",
         {"Returned 1 lua objects", "answer type: number length: 18"}},
        {"-1/0", "-inf", {"Returned 1 lua objects", "answer type: number length: 4"}},
        {"1, 'x'", "x", {"Returned 2 lua objects", "answer type: string length: 1"}},
        {"'x', 1", "1", {"Returned 2 lua objects", "answer type: number length: 1"}},
        {"'x', nil", "", {"Returned 2 lua objects", "answer type: nil length: 0"}},
        {"nil", "", {"Returned 1 lua objects", "answer type: nil length: 0"}},
        {"true", "", {"Returned 1 lua objects", "answer type: boolean length: 0"}},
        {"{}", "", {"Returned 1 lua objects", "answer type: table length: 0"}},
        {"{'a', b = 1}", "", {"Returned 1 lua objects", "answer type: table length: 0"}},
        {"setmetatable({}, {__tostring = function() return 'x' end})",
         "",
         {"Returned 1 lua objects", "answer type: table length: 0"}},
        {"print", "", {"Returned 1 lua objects", "answer type: function length: 0"}},
        {"io.stdout", "", {"Returned 1 lua objects", "answer type: userdata length: 0"}},
        {"coroutine.create(print)",
         "",
         {"Returned 1 lua objects", "answer type: thread length: 0"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.returned);
        EXPECT_EQ(c.answer, answer_to(std::string("return ") + c.returned));
        const Records log = capture.texts_of("script");
        EXPECT_EQ(c.log, Records(log.begin() + 3, log.end()));
    }
}

TEST_F(LuaVMTest, AScriptWithoutAReturnSucceedsWithAnEmptyAnswer)
{
    for (const char* source : {"", "-- nothing", "local x = 1"}) {
        SCOPED_TRACE(source);
        EXPECT_EQ("", answer_to(source));
        EXPECT_EQ("DEBUG script: Returned 0 lua objects", capture.records().back());
    }
}

TEST_F(LuaVMTest, AnAnswerKeepsEveryByteAndAnySize)
{
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all.push_back(static_cast<char>(i));
    }
    EXPECT_EQ(all, answer_to("local t = {} for i = 0, 255 do t[#t + 1] = string.char(i) end "
                             "return table.concat(t)"));
    EXPECT_EQ(std::string(1000000, 'x'), answer_to("return ('x'):rep(1000000)"));
    EXPECT_EQ("DEBUG script: answer type: string length: 1000000", capture.records().back());
}

TEST_F(LuaVMTest, TheAnswerIsAppended)
{
    LuaVM vm({}, "/var/staging");
    const std::string path = dir.write("answer.lua", "return 'abc'");
    vm.executeScript(path.c_str(), msgpack::object());
    std::vector<unsigned char> answer = {'x'};
    vm.unloadAnswer(answer);
    EXPECT_EQ("xabc", text_of(answer));
}

TEST_F(LuaVMTest, ANumberIsAnsweredWithoutALuaString)
{
    LuaVM vm({}, "/var/staging");
    const std::string path = dir.write("number.lua", "return 0.1");
    JobResult result = vm.executeScript(path.c_str(), msgpack::object());
    EXPECT_EQ("0.1", text_of(result.getAnswer()));
    capture.clear();
    std::vector<unsigned char> answer;
    vm.unloadAnswer(answer);
    EXPECT_EQ("0.1", text_of(answer));
    EXPECT_EQ((Records{"Returned 1 lua objects", "answer type: number length: 3"}),
              capture.texts_of("script"));
}

TEST_F(LuaVMTest, TheChunkGetsNoParameters)
{
    EXPECT_EQ("0", answer_with_args("\x92\x01\x02", "return select('#', ...)"));
}

TEST_F(LuaVMTest, ArgumentsAreTheGlobalArgs)
{
    const struct {
        const char* fact;
        std::string bytes;
        const char* script;
        const char* answer;
    } cases[] = {
        {"nil", "\xc0", "return type(args)", "nil"},
        {"a number", "\x05", "return type(args) .. args", "number5"},
        {"a string", "\xa1x", "return type(args) .. args", "stringx"},
        {"a boolean", "\xc2", "return tostring(args)", "false"},
        {"bytes", "\xc4\x02\x00\x01"s, "return #args .. args:byte(1) .. args:byte(2)", "201"},
        {"an ext", "\xd4\x05\x41", "return #args .. args:byte(1) .. args:byte(2)", "2565"},
        {"an ext of 8",
         "\xd7\x05"
         "abcdefgh",
         "return #args .. args:sub(2)", "9abcdefgh"},
        {"an empty array", "\x90", "return type(args) .. #args", "table0"},
        {"an array", "\x93\x01\xc0\x03", "return #args .. args[1] .. args[2]", "213"},
        {"a map", "\x81\xa1x\x92\x01\x02", "return args.x[1] .. args.x[2]", "12"},
        {"nested", "\x81\xa1x\x92\x01\x81\xa1y\xc3", "return tostring(args.x[2].y)", "true"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.answer, answer_with_args(c.bytes, c.script));
    }
}

TEST_F(LuaVMTest, NumbersArriveAsTheRulesForArgumentsSay)
{
    const struct {
        const char* fact;
        std::string bytes;
        const char* value;
        const char* trace;
    } cases[] = {
        {"2^32 as an integer", "\xcf\x00\x00\x00\x01\x00\x00\x00\x00"s, "0",
         "unsigned: 4294967296"},
        {"5e9 as an integer", "\xcf\x00\x00\x00\x01\x2a\x05\xf2\x00"s, "705032704",
         "unsigned: 5000000000"},
        {"2^64 - 1", "\xcf\xff\xff\xff\xff\xff\xff\xff\xff", "4294967295",
         "unsigned: 18446744073709551615"},
        {"a positive value in a signed format", "\xd3\x00\x00\x00\x01\x00\x00\x00\x05"s, "5",
         "unsigned: 4294967301"},
        {"-2^31", "\xd2\x80\x00\x00\x00"s, "-2147483648", "signed: -2147483648"},
        {"-2^31 - 1", "\xd3\xff\xff\xff\xff\x7f\xff\xff\xff", "2147483647", "signed: -2147483649"},
        {"-5e9", "\xd3\xff\xff\xff\xfe\xd5\xfa\x0e\x00"s, "-705032704", "signed: -5000000000"},
        {"0.1", "\xcb\x3f\xb9\x99\x99\x99\x99\x99\x9a", "0.10000000149011612", "float: 0.1"},
        {"1e300", "\xcb\x7e\x37\xe4\x3c\x88\x00\x75\x9c"s, "inf", "float: inf"},
        {"1.5 as float 32", "\xca\x3f\xc0\x00\x00"s, "1.5", "float: 1.5"},
        {"0.1 as float 32", "\xca\x3d\xcc\xcc\xcd", "0.10000000149011612", "float: 0.1"},
        // Whole floats are floats still, and no integers that would lose their upper bits.
        {"1.0", "\xcb\x3f\xf0\x00\x00\x00\x00\x00\x00"s, "1", "float: 1"},
        {"1.0 as float 32", "\xca\x3f\x80\x00\x00"s, "1", "float: 1"},
        {"0.0", "\xcb\x00\x00\x00\x00\x00\x00\x00\x00"s, "0", "float: 0"},
        {"-0.0", "\xcb\x80\x00\x00\x00\x00\x00\x00\x00"s, "-0", "float: -0"},
        {"-0.0 as float 32", "\xca\x80\x00\x00\x00"s, "-0", "float: -0"},
        {"2^32 as float 64", "\xcb\x41\xf0\x00\x00\x00\x00\x00\x00"s, "4294967296",
         "float: 4.29497e+09"},
        {"2^32 as float 32", "\xca\x4f\x80\x00\x00"s, "4294967296", "float: 4.29497e+09"},
        {"-2^40", "\xcb\xc2\x70\x00\x00\x00\x00\x00\x00"s, "-1099511627776", "float: -1.09951e+12"},
        {"2^64 as float 64", "\xcb\x43\xf0\x00\x00\x00\x00\x00\x00"s, "1.8446744073709552e+19",
         "float: 1.84467e+19"},
        {"-2", "\xfe", "-2", "signed: -2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.value, answer_with_args(c.bytes, "return string.format('%.17g', args)"));
        EXPECT_EQ(Records{c.trace}, capture.texts_of("pack_to_lua"));
    }
}

TEST_F(LuaVMTest, FloatsInsideContainersStayFloatsToo)
{
    const std::string two_to_32 = "\xcb\x41\xf0\x00\x00\x00\x00\x00\x00"s;
    EXPECT_EQ(
        "4294967296 4294967296 key",
        answer_with_args("\x83\xa1x\x91" + two_to_32 + "\xa1y" + two_to_32 + two_to_32 + "\xa3key",
                         "return string.format('%.17g %.17g %s', args.x[1], args.y, "
                         "args[4294967296])"));
}

TEST_F(LuaVMTest, TheArgumentsTraceIsThatOfTheConverter)
{
    answer_with_args(
        "\x81\xa1"
        "a\x92\x01\x02",
        "return args.a[1] .. args.a[2]");
    EXPECT_EQ((Records{"map start (1 key value pairs)", "string. sz: 1", "array start (2)",
                       "unsigned: 1", "array item 1", "unsigned: 2", "array item 2", "array end",
                       "key value pair ready", "map end"}),
              capture.texts_of("pack_to_lua"));
}

TEST_F(LuaVMTest, ArgumentsAreThereOnceTheFileIsLoadedAndBeforeItRuns)
{
    expect_failure(run("return ]"), not_loaded);
    EXPECT_EQ(Records(), capture.texts_of("pack_to_lua"));
}

TEST_F(LuaVMTest, AnArgumentOfUnknownTypeRaisesATypeError)
{
    msgpack::object unknown;
    unknown.type = static_cast<msgpack::type::object_type>(0x0f);
    EXPECT_THROW(run("return 'ran'", unknown), msgpack::type_error);
    EXPECT_EQ("DEBUG script: loading args onto Lua stack", capture.records().back());
}

/// `depth` containers in each other around a nil, each of the bytes `open`.
std::string nested(int depth, const std::string& open)
{
    std::string bytes;
    bytes.reserve(open.size() * static_cast<std::size_t>(depth) + 1);
    for (int i = 0; i < depth; ++i) {
        bytes += open;
    }
    return bytes + "\xc0";
}

class NestedArgumentsTest : public LuaVMTest {
protected:
    // Without the debug lines, which would be millions.
    NestedArgumentsTest() { log4cpp::Category::getRoot().setPriority(log4cpp::Priority::INFO); }

    /// How deep a script finds its arguments nested below `key`.
    std::string depth_seen(const std::string& bytes, const std::string& key)
    {
        return answer_with_args(
            bytes, "local n = 0 while args do args = args[" + key + "] n = n + 1 end return n");
    }

    void expect_too_deep(const std::string& bytes)
    {
        const auto args = msgpack::unpack(bytes.data(), bytes.size());
        try {
            run("return 'ran'", args.get());
            ADD_FAILURE() << "the script ran";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ("args are nested too deeply", error.what());
        }
    }
};

TEST_F(NestedArgumentsTest, BeyondTheSlotsThatLuaGuaranteesStillWork)
{
    for (const int depth : {1, 9, 10, 11, 19, 20, 21, 32, 33, 34, 50, 51, 100, 1000}) {
        SCOPED_TRACE(depth);
        EXPECT_EQ(std::to_string(depth), depth_seen(nested(depth, "\x91"), "1"));
        EXPECT_EQ(std::to_string(depth), depth_seen(nested(depth, "\x81\xa1x"), "'x'"));
    }
}

TEST_F(NestedArgumentsTest, ArraysWorkToADepthOf990000)
{
    EXPECT_EQ("100000", depth_seen(nested(100000, "\x91"), "1"));
    EXPECT_EQ("990000", depth_seen(nested(990000, "\x91"), "1"));
}

TEST_F(NestedArgumentsTest, MapsWorkToHalfThatDepth)
{
    EXPECT_EQ("100000", depth_seen(nested(100000, "\x81\xa1x"), "'x'"));
    EXPECT_EQ("490000", depth_seen(nested(490000, "\x81\xa1x"), "'x'"));
}

TEST_F(NestedArgumentsTest, BeyondLuasStackAreRefused)
{
    expect_too_deep(nested(1000000, "\x91"));
    expect_too_deep(nested(500000, "\x81\xa1x"));
    EXPECT_EQ("2", depth_seen(nested(2, "\x91"), "1"));  // the next job has a state of its own
}

using LuaVMDeathTest = LuaVMTest;

TEST_F(LuaVMDeathTest, ANilKeyInTheArgumentsEndsTheProcess)
{
    EXPECT_EXIT(answer_with_args("\x81\xc0\x01", "return 'ran'"), testing::KilledBySignal(SIGABRT),
                "PANIC: unprotected error in call to Lua API .*index is nil");
}

TEST_F(LuaVMDeathTest, ANanKeyInTheArgumentsEndsTheProcess)
{
    EXPECT_EXIT(answer_with_args("\x81\xca\x7f\xc0\x00\x00\x01"s, "return 'ran'"),
                testing::KilledBySignal(SIGABRT),
                "PANIC: unprotected error in call to Lua API .*index is NaN");
}

}  // namespace
}  // namespace pex
