#include "command_handler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>

#include "support/fake_mosquittopp.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace pex {
namespace {

using namespace std::string_literals;

static_assert(std::is_base_of_v<mqlink::Handler, CommandHandler>);

// {"lua_script": ..., "args": nil} without the script's name.
const std::string request_head =
    "\x82\xa4"s
    "args\xc0\xaalua_script";

/// A request without arguments for a script with a short name.
std::string request_for(const std::string& script)
{
    return request_head + static_cast<char>(0xa0 + script.size()) + script;
}

class CommandHandlerTest : public testing::Test {
protected:
    CommandHandlerTest()
    {
        fake_mosquitto = FakeMosquitto();
        dir.write("ping.lua", "return 'pong'");
        client.emplace(mqlink::ClientSessionOptions{"an_id", true, true}, "broker_log");
        handler.emplace("controller", std::vector<std::string>{dir.path() + "/"}, "/staging");
        capture.clear();
    }
    ~CommandHandlerTest() override
    {
        client.reset();
        fake_mosquitto = FakeMosquitto();
    }

    /// Hands a message to the handler, as the client does, and forgets what came before.
    void receive(const std::string& job_id, const std::string& payload)
    {
        capture.clear();
        fake_mosquitto.publications.clear();
        std::string topic = "in/cmd/" + job_id;
        std::string bytes = payload;
        mosquitto_message message = {};
        message.topic = topic.data();
        message.payload = bytes.data();
        message.payloadlen = static_cast<int>(bytes.size());
        const auto vars = mqlink::FilterVariables::match("in/cmd/+", topic);
        ASSERT_TRUE(vars.has_value());
        handler->onMessage(*vars, &message, *client);
    }

    /// That exactly one message was published: on this topic, with QoS 2 and retained.
    void expect_published(const std::string& topic, const std::string& payload)
    {
        ASSERT_EQ(1u, fake_mosquitto.publications.size());
        const FakeMosquitto::Publication& made = fake_mosquitto.publications.front();
        EXPECT_EQ(topic, made.topic);
        EXPECT_EQ(payload, made.payload);
        EXPECT_EQ(2, made.qos);
        EXPECT_TRUE(made.retain);
    }

    /// The handler's own records.
    Records log() const { return capture.texts_of("commandHandler"); }

    TempDir dir;
    LogCapture capture;
    std::optional<mqlink::Client> client;
    std::optional<CommandHandler> handler;
};

TEST_F(CommandHandlerTest, HandlesCommandRequestsWithQoS1)
{
    EXPECT_EQ("in/cmd/+", handler->topicFilter());
    EXPECT_EQ(1, handler->qos());
}

TEST_F(CommandHandlerTest, BuildingItLogsTheSearchDirectories)
{
    const CommandHandler other("controller", {"/a/", "/b/"}, "/staging");
    EXPECT_EQ(
        (Records{"INFO lua_agent: script directory: /a/", "INFO lua_agent: script directory: /b/"}),
        capture.records());
    EXPECT_EQ(0u, fake_mosquitto.publications.size());
}

TEST_F(CommandHandlerTest, AFailureToBuildTheAgentReachesTheCaller)
{
    const WorkingDirectory there(dir.make_dir("removed"));
    ASSERT_EQ(0, rmdir((dir.path() + "/removed").c_str()));
    try {
        const CommandHandler other("controller", {}, "/staging");
        ADD_FAILURE() << "the handler was built";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("getcwd: No such file or directory", error.what());
    }
}

TEST_F(CommandHandlerTest, ARequestIsRunAndAnsweredOnItsJobsTopic)
{
    receive("7", request_for("ping"));
    expect_published("out/cmd/7", "pong");
    EXPECT_EQ((Records{"INFO commandHandler: Received command request, job_id: 7",
                       "INFO commandHandler: job (7) is to run lua script: ping",
                       "DEBUG script: luaL_loadfile: " + dir.path() + "/ping.lua",
                       "DEBUG script: loading args onto Lua stack", "DEBUG pack_to_lua: nil",
                       "DEBUG script: lua_pcall: " + dir.path() + "/ping.lua",
                       "DEBUG script: Returned 1 lua objects",
                       "DEBUG script: answer type: string length: 4",
                       "INFO commandHandler: Publishing result  on out/cmd/7\n"
                       "                                Payload size: 4"}),
              capture.records());
}

TEST_F(CommandHandlerTest, AnyJobIdGoesIntoTheTopicAndTheLogAsItIs)
{
    const std::string long_id(60000, 'x');
    for (const std::string& id : {""s, "a b"s, "+"s, "#"s, "\xc3\xa9\xff"s, "%s%n"s, long_id}) {
        SCOPED_TRACE(id);
        receive(id, request_for("ping"));
        expect_published("out/cmd/" + id, "pong");
        EXPECT_EQ((Records{"Received command request, job_id: " + id,
                           "job (" + id + ") is to run lua script: ping",
                           "Publishing result  on out/cmd/" + id +
                               "\n                                Payload size: 4"}),
                  log());
        receive(id, "");
        expect_published("out/cmd/" + id, "");
        EXPECT_EQ((Records{"server has deregistered " + id + " job",
                           "Ending transaction on out/cmd/" + id}),
                  log());
    }
}

TEST_F(CommandHandlerTest, AWithdrawalEndsTheTransaction)
{
    receive("7", "");
    expect_published("out/cmd/7", "");
    EXPECT_EQ((Records{"INFO commandHandler: server has deregistered 7 job",
                       "DEBUG commandHandler: Ending transaction on out/cmd/7"}),
              capture.records());
}

TEST_F(CommandHandlerTest, NothingElseOfAMessageIsLookedAt)
{
    const auto vars = mqlink::FilterVariables::match("in/cmd/+", "in/cmd/7");
    for (const bool is_request : {false, true}) {
        SCOPED_TRACE(is_request);
        std::string bytes = request_for("ping");
        mosquitto_message message = {};  // no topic
        message.mid = 65535;
        message.qos = 2;
        message.retain = true;
        message.payload = bytes.data();  // although a withdrawal has none
        message.payloadlen = is_request ? static_cast<int>(bytes.size()) : 0;
        fake_mosquitto.publications.clear();
        handler->onMessage(*vars, &message, *client);
        expect_published("out/cmd/7", is_request ? "pong" : "");
    }
}

TEST_F(CommandHandlerTest, TheFailureFormIsAMapOfTwoEntries)
{
    receive("7", "\xc1");
    expect_published("out/cmd/7",
                     "\x82\xa6\x73\x74\x61\x74\x75\x73\xc2\xa6\x72\x65\x61\x73\x6f\x6e\xab"
                     "\x70\x61\x72\x73\x65\x20\x65\x72\x72\x6f\x72");
    EXPECT_EQ((Records{"INFO commandHandler: Received command request, job_id: 7",
                       "ERROR commandHandler: job (7) request error: parse error",
                       "INFO commandHandler: Publishing result  on out/cmd/7\n"
                       "                                Payload size: 28"}),
              capture.records());
}

TEST_F(CommandHandlerTest, EachFailureHasItsReason)
{
    const std::string not_a_map =
        "Expected the command request dictionary with args and lua_script entries";
    const std::string no_entry =
        "Can't decipher message. Expected the command request dictionary with args and lua_script "
        "entries";
    const struct {
        const char* fact;
        std::string request;
        std::string reason;
    } cases[] = {
        {"no format begins so", "\xc1", "parse error"},
        {"nor an element", "\x82\xc1", "parse error"},
        {"cut inside a key", "\x82\xa4", "insufficient bytes"},
        {"cut inside a number", "\xcd\x01", "insufficient bytes"},
        {"cut between the entries",
         "\x82\xa4"s
         "args\xc0",
         "insufficient bytes"},
        {"nil", "\xc0", not_a_map},
        {"a boolean", "\xc3", not_a_map},
        {"an integer", "\x05", not_a_map},
        {"a float", "\xca\x3f\xc0\x00\x00"s, not_a_map},
        {"a string", "\xa4ping", not_a_map},
        {"bytes", "\xc4\x04ping", not_a_map},
        {"an ext", "\xd4\x05\x41", not_a_map},
        {"an array", "\x90", not_a_map},
        {"an array of the two", "\x92\xa4ping\xc0", not_a_map},
        {"an empty map", "\x80", no_entry},
        {"no args", "\x81\xaalua_script\xa4ping", no_entry},
        {"no script",
         "\x81\xa4"s
         "args\x90",
         no_entry},
        {"an empty script name",
         "\x82\xa4"s
         "args\x90\xaalua_script\xa0",
         no_entry},
        {"an empty bin as script name",
         "\x82\xa4"s
         "args\x90\xaalua_script\xc4\x00"s,
         no_entry},
        {"a later empty script name",
         "\x83\xa4"s
         "args\xc0\xaalua_script\xa4ping\xaalua_script\xa0",
         no_entry},
        {"keys in another letter case",
         "\x82\xa4"s
         "Args\xc0\xaaLua_script\xa4ping",
         no_entry},
        {"longer keys",
         "\x82\xa5"s
         "argsx\xc0\xablua_scriptx\xa4ping",
         no_entry},
        {"keys with a zero byte",
         "\x82\xa5"s
         "args\0\xc0\xab"
         "lua_script\0\xa4ping"s,
         no_entry},
        {"an integer key", "\x83" + request_for("ping").substr(1) + "\x01\xc0", "std::bad_cast"},
        {"an integer key at the front", "\x83\x01\xc0" + request_for("ping").substr(1),
         "std::bad_cast"},
        {"a nil key", "\x83" + request_for("ping").substr(1) + "\xc0\xc0", "std::bad_cast"},
        {"a float key", "\x81\xca\x3f\xc0\x00\x00\xc0"s, "std::bad_cast"},
        {"a boolean key", "\x81\xc3\xc0", "std::bad_cast"},
        {"an array as key", "\x81\x90\xc0", "std::bad_cast"},
        {"a map as key", "\x81\x80\xc0", "std::bad_cast"},
        {"an ext as key", "\x81\xd4\x05\x41\xc0", "std::bad_cast"},
        {"a script that is nil",
         "\x82\xa4"s
         "args\xc0\xaalua_script\xc0",
         "std::bad_cast"},
        {"a script that is a number",
         "\x82\xa4"s
         "args\xc0\xaalua_script\x05",
         "std::bad_cast"},
        {"a script that is an array",
         "\x82\xa4"s
         "args\xc0\xaalua_script\x91\xa4ping",
         "std::bad_cast"},
        {"an earlier script that is none",
         "\x83\xa4"s
         "args\xc0\xaalua_script\xc0\xaalua_script\xa4ping",
         "std::bad_cast"},
        {"the type comes before the missing entry", "\x81\x01\xc0", "std::bad_cast"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        receive("7", c.request);
        const std::string header = c.reason.size() < 32
                                       ? std::string(1, static_cast<char>(0xa0 + c.reason.size()))
                                       : "\xd9"s + static_cast<char>(c.reason.size());
        const std::string payload = "\x82\xa6status\xc2\xa6reason" + header + c.reason;
        expect_published("out/cmd/7", payload);
        EXPECT_EQ((Records{"INFO commandHandler: Received command request, job_id: 7",
                           "ERROR commandHandler: job (7) request error: " + c.reason,
                           "INFO commandHandler: Publishing result  on out/cmd/7\n"
                           "                                Payload size: " +
                               std::to_string(payload.size())}),
                  capture.records());
    }
}

TEST_F(CommandHandlerTest, WellFormedRequestsOfEveryShapeAreRun)
{
    const struct {
        const char* fact;
        std::string request;
    } cases[] = {
        {"str and nil", request_for("ping")},
        {"the script first",
         "\x82\xaalua_script\xa4ping\xa4"s
         "args\xc0"},
        {"str 8",
         "\x82\xa4"s
         "args\xc0\xd9\x0alua_script\xd9\x04ping"},
        {"a script that is bin",
         "\x82\xa4"s
         "args\xc0\xaalua_script\xc4\x04ping"},
        {"keys that are bin",
         "\x82\xc4\x04"s
         "args\xc0\xc4\x0alua_script\xa4ping"},
        {"map 16", "\xde\x00\x02"s + request_for("ping").substr(1)},
        {"map 32", "\xdf\x00\x00\x00\x02"s + request_for("ping").substr(1)},
        {"other keys", "\x84\xa1x\x01" + request_for("ping").substr(1) + "\xa0\x90"},
        {"bytes behind it", request_for("ping") + "\x01\x02"},
        {"what is no MessagePack behind it", request_for("ping") + "\xc1"},
        {"a second request behind it", request_for("ping") + request_for("none")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        receive("7", c.request);
        expect_published("out/cmd/7", "pong");
        EXPECT_EQ("job (7) is to run lua script: ping", log()[1]);
    }
}

TEST_F(CommandHandlerTest, TheArgumentsReachTheScript)
{
    dir.write("show.lua",
              "if type(args) ~= 'table' then return type(args) .. tostring(args) end "
              "return 'table' .. tostring(args[1] or args.x)");
    const struct {
        const char* fact;
        std::string args;
        const char* answer;
    } cases[] = {
        {"nil", "\xc0", "nilnil"},
        {"a boolean", "\xc2", "booleanfalse"},
        {"an integer", "\x05", "number5"},
        {"a float", "\xca\x3f\xc0\x00\x00"s, "number1.5"},
        {"a string",
         "\xa3"s
         "abc",
         "stringabc"},
        {"bytes",
         "\xc4\x03"s
         "abc",
         "stringabc"},
        {"an ext", "\xd4\x41\x42", "stringAB"},
        {"an array", "\x91\x07", "table7"},
        {"a map", "\x81\xa1x\x08", "table8"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        receive("7",
                "\x82\xaalua_script\xa4show\xa4"s
                "args" +
                    c.args);
        expect_published("out/cmd/7", c.answer);
    }
}

TEST_F(CommandHandlerTest, OfEqualKeysTheLastOneCounts)
{
    dir.write("show.lua", "return tostring(args)");
    receive("7",
            "\x84\xa4"s
            "args\x01\xaalua_script\xa4none\xaalua_script\xa4show\xa4"s
            "args\x02");
    expect_published("out/cmd/7", "2");
}

TEST_F(CommandHandlerTest, TheExtensionIsAlwaysAppended)
{
    dir.write("ping.lua.lua", "return 'double'");
    receive("7", request_for("ping.lua"));
    expect_published("out/cmd/7", "double");
    EXPECT_EQ("job (7) is to run lua script: ping.lua", log()[1]);

    receive("7", request_for("pong.lua"));
    expect_published("out/cmd/7",
                     "\x82\xa6status\xc2\xa6reason\xd9\x2f"
                     "Cannot run job. Script not found \"pong.lua.lua\"");
}

TEST_F(CommandHandlerTest, AFailedJobPublishesItsReasonAndNotItsAnswer)
{
    dir.write("bad.lua", "error('no luck', 0)");
    dir.write("wrong.lua", "return ]");
    const struct {
        const char* script;
        const char* payload;
        const char* size;
    } cases[] = {
        {"bad",
         "\x82\xa6status\xc2\xa6reason\xd9\x54"
         "Dock command service error. Command script failure, please consult pex-command logs.",
         "102"},
        {"wrong",
         "\x82\xa6status\xc2\xa6reason\xd9\x3a"
         "Dock command service error. Failed to load command script.",
         "76"},
        {"none",
         "\x82\xa6status\xc2\xa6reason\xd9\x2b"
         "Cannot run job. Script not found \"none.lua\"",
         "61"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        receive("7", request_for(c.script));
        expect_published("out/cmd/7", c.payload);
        // A failed job is no request error.
        EXPECT_EQ((Records{"Received command request, job_id: 7",
                           "job (7) is to run lua script: "s + c.script,
                           "Publishing result  on out/cmd/7\n"
                           "                                Payload size: "s +
                               c.size}),
                  log());
    }
}

TEST_F(CommandHandlerTest, AnAnswerIsPublishedByteForByte)
{
    const struct {
        const char* returned;
        std::string payload;
    } cases[] = {
        {"'\\x81\\xa2ok\\xc3'", "\x81\xa2ok\xc3"},
        {"'a\\0b'", "a\0b"s},
        {"42", "42"},
        {"('x'):rep(100000)", std::string(100000, 'x')},
        {"''", ""},  // like an end of transaction
        {"nil", ""},
        {"{}", ""},
        {"'\\x82\\xa6status\\xc2\\xa6reason\\xa0'", "\x82\xa6status\xc2\xa6reason\xa0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.returned);
        dir.write("answer.lua", std::string("return ") + c.returned);
        receive("7", request_for("answer"));
        expect_published("out/cmd/7", c.payload);
        EXPECT_EQ(
            "Publishing result  on out/cmd/7\n"
            "                                Payload size: " +
                std::to_string(c.payload.size()),
            log().back());
        EXPECT_EQ(3u, log().size());
    }
}

TEST_F(CommandHandlerTest, AReasonHasTheShortestHeader)
{
    // The first publish throws; its text is the reason of the second.
    const struct {
        std::size_t length;
        std::string header;
    } cases[] = {
        {0, "\xa0"},
        {1, "\xa1"},
        {31, "\xbf"},
        {32, "\xd9\x20"},
        {255, "\xd9\xff"},
        {256, "\xda\x01\x00"s},
        {65535, "\xda\xff\xff"},
        {65536, "\xdb\x00\x01\x00\x00"s},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        const std::string reason(c.length, 'r');
        fake_mosquitto.publish = [&] {
            if (fake_mosquitto.publications.size() == 1) {
                throw std::runtime_error(reason);
            }
            return MOSQ_ERR_SUCCESS;
        };
        receive("7", request_for("ping"));
        ASSERT_EQ(2u, fake_mosquitto.publications.size());
        EXPECT_EQ("pong", fake_mosquitto.publications[0].payload);
        EXPECT_EQ("out/cmd/7", fake_mosquitto.publications[1].topic);
        EXPECT_EQ("\x82\xa6status\xc2\xa6reason" + c.header + reason,
                  fake_mosquitto.publications[1].payload);
        EXPECT_EQ("job (7) request error: " + reason, log()[3]);
    }
}

TEST_F(CommandHandlerTest, AReasonEndsAtAZeroByte)
{
    receive("7", request_for("a\0b"s));
    expect_published("out/cmd/7",
                     "\x82\xa6status\xc2\xa6reason\xd9\x23"
                     "Cannot run job. Script not found \"a");
    EXPECT_EQ("job (7) is to run lua script: a\0b"s, log()[1]);
}

TEST_F(CommandHandlerTest, ANameWithAZeroByteRunsTheScriptBeforeIt)
{
    receive("7", request_for("ping.lua\0x"s));
    expect_published("out/cmd/7", "pong");
}

TEST_F(CommandHandlerTest, ArgumentsThatAreNestedTooDeeplyAreAFailure)
{
    log4cpp::Category::getRoot().setPriority(log4cpp::Priority::INFO);  // or there are millions
    receive("7",
            "\x82\xaalua_script\xa4ping\xa4"s
            "args" +
                std::string(1000000, '\x91') + "\xc0");
    expect_published("out/cmd/7",
                     "\x82\xa6status\xc2\xa6reason\xba"
                     "args are nested too deeply");
    EXPECT_EQ("job (7) request error: args are nested too deeply", log()[2]);
}

TEST_F(CommandHandlerTest, ARefusedPublishIsLoggedAndNotRepeated)
{
    const struct {
        int status;
        std::string text;
    } cases[] = {
        {MOSQ_ERR_NOMEM, "Failed to end transaction. Out of memory."},
        // Its text differs between versions of the library.
        {MOSQ_ERR_INVAL, "Failed to end transaction. "s + mosqpp::strerror(MOSQ_ERR_INVAL)},
        {MOSQ_ERR_NO_CONN, "Failed to end transaction. The client is not currently connected."},
        {MOSQ_ERR_PAYLOAD_SIZE, "Failed to end transaction. Payload too large."},
        {MOSQ_ERR_MALFORMED_UTF8, "Failed to end transaction. Malformed UTF-8"},
        {-1, "Failed to end transaction. Connection pending."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        fake_mosquitto.publish = [&] { return c.status; };
        receive("7", request_for("ping"));
        expect_published("out/cmd/7", "pong");
        EXPECT_EQ("ERROR commandHandler: " + c.text, capture.records().back());
        EXPECT_EQ(4u, log().size());

        receive("7", "\xc1");
        ASSERT_EQ(1u, fake_mosquitto.publications.size());
        EXPECT_EQ("ERROR commandHandler: " + c.text, capture.records().back());

        receive("7", "");
        expect_published("out/cmd/7", "");
        EXPECT_EQ((Records{"INFO commandHandler: server has deregistered 7 job",
                           "DEBUG commandHandler: Ending transaction on out/cmd/7",
                           "ERROR commandHandler: " + c.text}),
                  capture.records());

        fake_mosquitto.publish = FakeMosquitto::success;
        receive("8", request_for("ping"));  // the next message is handled as usual
        expect_published("out/cmd/8", "pong");
        EXPECT_EQ(3u, log().size());
    }
}

TEST_F(CommandHandlerTest, EverythingPublishedIsWaitedForAtTheEnd)
{
    receive("7", request_for("ping"));
    receive("8", "\xc1");
    receive("9", "");
    capture.clear();
    client.reset();
    EXPECT_EQ(Records{"ERROR broker_log: 3 messages were not acknowledged by the broker and may "
                      "be lost"},
              capture.records());
}

TEST_F(CommandHandlerTest, AnythingButAStandardExceptionLeavesOnMessage)
{
    fake_mosquitto.publish = []() -> int { throw 42; };
    EXPECT_THROW(receive("7", request_for("ping")), int);
    EXPECT_EQ(1u, fake_mosquitto.publications.size());
}

TEST_F(CommandHandlerTest, AnExceptionWhileAFailureIsPublishedLeavesOnMessage)
{
    fake_mosquitto.publish = []() -> int { throw std::runtime_error("no luck"); };
    EXPECT_THROW(receive("7", request_for("ping")), std::runtime_error);
    EXPECT_EQ(2u, fake_mosquitto.publications.size());
    EXPECT_THROW(receive("7", ""), std::runtime_error);  // not guarded at all
    EXPECT_EQ(1u, fake_mosquitto.publications.size());
}

TEST_F(CommandHandlerTest, NothingIsKeptBetweenMessages)
{
    dir.write("count.lua", "n = (n or 0) + 1 return n");
    receive("unknown", "");  // a withdrawal of a job never seen
    expect_published("out/cmd/unknown", "");
    for (int i = 0; i < 3; ++i) {
        receive("7", request_for("count"));  // the same job id again
        expect_published("out/cmd/7", "1");
        receive("7", "\xc1");
        EXPECT_EQ(1u, fake_mosquitto.publications.size());
    }
    receive("7", "");
    expect_published("out/cmd/7", "");
    receive("7", "");
    expect_published("out/cmd/7", "");
}

TEST_F(CommandHandlerTest, TheControllerIdChangesNothing)
{
    for (const char* id : {"", "other", "a/b+#%s"}) {
        SCOPED_TRACE(id);
        handler.emplace(id, std::vector<std::string>{dir.path() + "/"}, "/staging");
        EXPECT_EQ("in/cmd/+", handler->topicFilter());
        receive("7", request_for("ping"));
        expect_published("out/cmd/7", "pong");
        EXPECT_EQ(
            (Records{"Received command request, job_id: 7", "job (7) is to run lua script: ping",
                     "Publishing result  on out/cmd/7\n"
                     "                                Payload size: 4"}),
            log());
    }
}

TEST_F(CommandHandlerTest, TheScriptSeesTheStagingDirectory)
{
    dir.write("env.lua", "return pexenv.staging_dir");
    receive("7", request_for("env"));
    expect_published("out/cmd/7", "/staging");
}

}  // namespace
}  // namespace pex
