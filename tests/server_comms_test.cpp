#include "server_comms.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>
#include <type_traits>

#include "support/fake_mosquittopp.h"
#include "support/log_capture.h"
#include "support/loopback_connection.h"
#include "support/temp_dir.h"
#include "support/virtual_clock.h"

namespace pex {

volatile sig_atomic_t program_running = 1;

namespace {

using Calls = std::vector<std::string>;

static_assert(!std::is_polymorphic_v<ServerCommunicator>);
static_assert(!std::is_copy_constructible_v<ServerCommunicator>);

class ServerCommsTest : public testing::Test {
protected:
    ServerCommsTest()
    {
        fake_mosquitto = FakeMosquitto();
        program_running = 1;
    }
    ~ServerCommsTest() override
    {
        comms.reset();
        fake_mosquitto = FakeMosquitto();
        program_running = 1;
    }

    /// Builds a communicator from these configuration lines.
    void build(const std::string& configuration)
    {
        cProperties props;
        ASSERT_TRUE(props.load(dir.write("service.properties", configuration).c_str()));
        comms.reset();
        fake_mosquitto.calls.clear();
        comms.emplace(props);
    }

    void build_with_staging_dir(const std::string& more = "")
    {
        build("script.staging_dir=/staging\nscript.search_dirs=" + dir.path() + "\n" + more);
    }

    /// The client's loop() gives these statuses, one after the other; then the flag is cleared.
    void play(const std::vector<int>& statuses)
    {
        fake_mosquitto.loop = [statuses, next = std::size_t(0)]() mutable {
            const int status = statuses[next++];
            if (next == statuses.size()) {
                program_running = 0;
            }
            return status;
        };
        fake_mosquitto.loop_read = fake_mosquitto.loop;
    }

    TempDir dir;
    LogCapture capture;
    VirtualClock clock;
    std::optional<ServerCommunicator> comms;
};

TEST_F(ServerCommsTest, IsBuiltWithAClientThatDoesNotConnect)
{
    build_with_staging_dir();
    EXPECT_EQ(Calls{"mosquittopp command_service clean"}, fake_mosquitto.calls);
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ServerCommsTest, TheClientLogsUnderTheCommunicatorsCategory)
{
    build_with_staging_dir();
    fake_mosquitto.client->on_connect(0);
    EXPECT_EQ(1u, capture.texts_of("server_comms").size());
}

TEST_F(ServerCommsTest, StartsLoopsAndCloses)
{
    build_with_staging_dir();
    play({0, 0, 0});
    comms->start();
    EXPECT_EQ((Calls{"mosquittopp command_service clean", "connect localhost 1883 keepalive 0",
                     "loop 1000 1", "loop 1000 1", "loop 1000 1"}),
              fake_mosquitto.calls);
    EXPECT_EQ((Records{"DEBUG server_comms: server comms service starting",
                       "INFO server_comms: Server comms config: \n"
                       "  id   : command_service\n"
                       "  host : localhost port: 1883\n"
                       "  QoS  : 2",
                       "INFO lua_agent: script directory: " + dir.path() + "/",
                       "INFO server_comms: Closing server comms service"}),
              capture.records());
}

TEST_F(ServerCommsTest, TheBrokerSettingsAreReadAndLogged)
{
    const struct {
        const char* configuration;
        const char* record;
        const char* call;
    } cases[] = {
        {"", "  host : localhost port: 1883\n  QoS  : 2", "connect localhost 1883 keepalive 0"},
        {"server_comms.host=broker.example\nserver_comms.port=8883\nserver_comms.qos=1\n",
         "  host : broker.example port: 8883\n  QoS  : 1",
         "connect broker.example 8883 keepalive 0"},
        {"server_comms.qos=0\n", "  host : localhost port: 1883\n  QoS  : 0",
         "connect localhost 1883 keepalive 0"},
        {"server_comms.qos=two\n", "  host : localhost port: 1883\n  QoS  : 2",
         "connect localhost 1883 keepalive 0"},
        {"server_comms.port=abc\n", "  host : localhost port: 1883\n  QoS  : 2",
         "connect localhost 1883 keepalive 0"},
        {"server_comms.host=\n", "  host :  port: 1883\n  QoS  : 2", "connect  1883 keepalive 0"},
        {"server_comms.host=/run/broker.sock\nserver_comms.port=0\n",
         "  host : /run/broker.sock port: 0\n  QoS  : 2", "connect /run/broker.sock 0 keepalive 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.configuration);
        build_with_staging_dir(c.configuration);
        capture.clear();
        program_running = 1;
        play({0});
        comms->start();
        EXPECT_EQ("INFO server_comms: Server comms config: \n  id   : command_service\n" +
                      std::string(c.record),
                  capture.records()[1]);
        EXPECT_EQ(c.call, fake_mosquitto.calls[1]);
    }
}

TEST_F(ServerCommsTest, OneMessageIsInFlightUnlessTheConfigurationSaysOtherwise)
{
    const struct {
        const char* configuration;
        unsigned max_inflight;
    } cases[] = {
        {"", 1},
        {"server_comms.max_inflight=1\n", 1},
        {"server_comms.max_inflight=20\n", 20},
        {"server_comms.max_inflight=0\n", 1},
        {"server_comms.max_inflight=21\n", 1},
        {"server_comms.max_inflight=-5\n", 1},
        {"server_comms.max_inflight=two\n", 1},
        {"server_comms.max_inflight=\n", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.configuration);
        build_with_staging_dir(c.configuration);
        program_running = 1;
        play({0});
        comms->start();
        EXPECT_EQ(c.max_inflight, fake_mosquitto.max_inflight);
    }
}

TEST_F(ServerCommsTest, KeepsItsOwnCopyOfTheConfiguration)
{
    cProperties props;
    ASSERT_TRUE(props.load(dir.write("a",
                                     "script.staging_dir=/staging\n"
                                     "server_comms.host=a_host\n")
                               .c_str()));
    comms.emplace(props);
    ASSERT_TRUE(props.load(dir.write("b", "server_comms.host=b_host\n").c_str()));
    play({0});
    comms->start();
    EXPECT_EQ(1, fake_mosquitto.count("connect a_host 1883"));
}

TEST_F(ServerCommsTest, WithoutAStagingDirectoryItDoesNotStart)
{
    build("script.search_dirs=/a\n");
    try {
        comms->start();
        ADD_FAILURE() << "start() returned";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("script.staging_dir has not been configured", error.what());
    }
    EXPECT_EQ((Records{"DEBUG server_comms: server comms service starting",
                       "INFO server_comms: Server comms config: \n"
                       "  id   : command_service\n"
                       "  host : localhost port: 1883\n"
                       "  QoS  : 2"}),
              capture.records());  // and no handler was built
    EXPECT_EQ(0, fake_mosquitto.count("connect"));
}

TEST_F(ServerCommsTest, AnExceptionFromBuildingTheHandlerLeavesStart)
{
    build("script.staging_dir=/staging\n");
    const WorkingDirectory there(dir.make_dir("removed"));
    ASSERT_EQ(0, rmdir((dir.path() + "/removed").c_str()));
    try {
        comms->start();
        ADD_FAILURE() << "start() returned";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("getcwd: No such file or directory", error.what());
    }
    EXPECT_EQ(0, fake_mosquitto.count("connect"));
}

TEST_F(ServerCommsTest, TheSearchDirectoriesReachTheHandler)
{
    const struct {
        const char* configuration;
        Records directories;
    } cases[] = {
        {"script.search_dirs=/a:/b/\n", {"script directory: /a/", "script directory: /b/"}},
        {"script.search_dirs=/a:\n", {"script directory: /a/", "script directory: /"}},
        {"script.search_dirs=\n", {"script directory: /"}},
        {"", {"script directory: " + dir.path() + "/job_scripts"}},  // none
    };
    const WorkingDirectory there(dir.path());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.configuration);
        build("script.staging_dir=/staging\n" + std::string(c.configuration));
        capture.clear();
        program_running = 0;
        comms->start();
        EXPECT_EQ(c.directories, capture.texts_of("lua_agent"));
    }
}

/// Delivers a request for `script` (a short name) without arguments, as the library does.
void deliver_request(const std::string& script)
{
    std::string topic = "in/cmd/7";
    std::string payload =
        "\x82\xa4"
        "args\xc0\xaalua_script";
    payload += static_cast<char>(0xa0 + script.size());
    payload += script;
    mosquitto_message message = {};
    message.topic = topic.data();
    message.payload = payload.data();
    message.payloadlen = static_cast<int>(payload.size());
    fake_mosquitto.client->on_message(&message);
}

TEST_F(ServerCommsTest, TheStagingDirectoryReachesTheScriptAsConfigured)
{
    dir.write("env.lua", "return pexenv.staging_dir");
    for (const std::string staging : {"/staging", "relative/", ""}) {
        SCOPED_TRACE(staging);
        build("script.staging_dir=" + staging + "\nscript.search_dirs=" + dir.path() + "\n");
        program_running = 1;
        fake_mosquitto.publications.clear();
        fake_mosquitto.loop = [] {
            deliver_request("env");
            program_running = 0;
            return MOSQ_ERR_SUCCESS;
        };
        comms->start();
        ASSERT_EQ(1u, fake_mosquitto.publications.size());
        EXPECT_EQ(staging, fake_mosquitto.publications[0].payload);
    }
}

TEST_F(ServerCommsTest, TheHandlerIsRegisteredBeforeTheConnection)
{
    build_with_staging_dir();
    fake_mosquitto.connect = [] {
        fake_mosquitto.client->on_connect(0);
        return MOSQ_ERR_SUCCESS;
    };
    play({0});
    comms->start();
    EXPECT_EQ((Calls{"mosquittopp command_service clean", "connect localhost 1883 keepalive 0",
                     "subscribe in/cmd/+ qos 1", "loop 1000 1"}),
              fake_mosquitto.calls);
}

TEST_F(ServerCommsTest, TheHandlerIsSubscribedAgainOnEveryConnection)
{
    build_with_staging_dir();
    fake_mosquitto.connect = [] {
        fake_mosquitto.client->on_connect(0);
        return MOSQ_ERR_SUCCESS;
    };
    play({MOSQ_ERR_CONN_LOST, MOSQ_ERR_CONN_LOST, 0});
    comms->start();
    EXPECT_EQ(3, fake_mosquitto.count("subscribe in/cmd/+ qos 1"));
}

TEST_F(ServerCommsTest, RequestsAreHandledInsideTheLoop)
{
    dir.write("ping.lua", "return 'pong'");
    build_with_staging_dir("server_comms.qos=0\n");
    fake_mosquitto.loop = [] {
        deliver_request("ping");
        fake_mosquitto.calls.push_back("loop returns");
        program_running = 0;
        return MOSQ_ERR_SUCCESS;
    };
    comms->start();
    EXPECT_EQ((Calls{"mosquittopp command_service clean", "connect localhost 1883 keepalive 0",
                     "loop 1000 1", "publish out/cmd/7", "loop returns"}),
              fake_mosquitto.calls);
    ASSERT_EQ(1u, fake_mosquitto.publications.size());
    EXPECT_EQ("pong", fake_mosquitto.publications[0].payload);
    EXPECT_EQ(2, fake_mosquitto.publications[0].qos);  // whatever is configured
    EXPECT_TRUE(fake_mosquitto.publications[0].retain);
}

TEST_F(ServerCommsTest, OnlyALostOrMissingConnectionIsStartedAgain)
{
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    connection.send_from_peer("x");
    for (int status = -4; status <= 31; ++status) {
        SCOPED_TRACE(status);
        const bool starts_again = status == 4 || status == 7;
        build_with_staging_dir("server_comms.host=a_host\nserver_comms.port=1884\n");
        program_running = 1;
        play({status, 0});
        comms->start();
        Calls expected = {"mosquittopp command_service clean", "connect a_host 1884 keepalive 0",
                          "loop_read 1"};
        if (status == MOSQ_ERR_SUCCESS) {
            expected.push_back("loop_misc");
        } else if (starts_again) {
            expected.push_back("connect a_host 1884 keepalive 0");
        }
        expected.push_back("loop_read 1");
        expected.push_back("loop_misc");
        EXPECT_EQ(expected, fake_mosquitto.calls);
    }
}

TEST_F(ServerCommsTest, TheStatusOfAnAttemptIsIgnored)
{
    build_with_staging_dir();
    fake_mosquitto.connect = [] { return MOSQ_ERR_EAI; };
    play(std::vector<int>(100, MOSQ_ERR_NO_CONN));
    comms->start();
    EXPECT_EQ(101, fake_mosquitto.count("connect"));
    EXPECT_EQ(100, fake_mosquitto.count("loop"));
    EXPECT_EQ("INFO server_comms: Closing server comms service", capture.records().back());
}

TEST_F(ServerCommsTest, NothingIsLoggedOfAnAttemptThatFailsSilently)
{
    build_with_staging_dir();
    play({MOSQ_ERR_NO_CONN, MOSQ_ERR_CONN_LOST, MOSQ_ERR_NO_CONN, 0});
    comms->start();
    EXPECT_EQ(4u, capture.records().size());
}

TEST_F(ServerCommsTest, AFlagClearedBeforehandSkipsTheLoopAfterOneAttempt)
{
    build_with_staging_dir();
    program_running = 0;
    comms->start();
    EXPECT_EQ((Calls{"mosquittopp command_service clean", "connect localhost 1883 keepalive 0"}),
              fake_mosquitto.calls);
    EXPECT_EQ("INFO server_comms: Closing server comms service", capture.records().back());
}

TEST_F(ServerCommsTest, AFlagClearedWhileTheConnectionIsLostEndsTheLoopAfterOneAttempt)
{
    build_with_staging_dir();
    play({MOSQ_ERR_CONN_LOST});
    comms->start();
    EXPECT_EQ(2, fake_mosquitto.count("connect"));
    EXPECT_EQ(1, fake_mosquitto.count("loop"));
}

TEST_F(ServerCommsTest, TheClientStaysConnectedUntilTheCommunicatorIsDestroyed)
{
    build_with_staging_dir();
    play({0});
    comms->start();
    EXPECT_EQ(0, fake_mosquitto.count("disconnect"));
    comms.reset();
    EXPECT_EQ(1, fake_mosquitto.count("disconnect"));
    EXPECT_EQ("~mosquittopp", fake_mosquitto.calls.back());
    // The identity is still there when the client goes.
    EXPECT_EQ("command_service", fake_mosquitto.client_ids.back());
}

TEST_F(ServerCommsTest, SetupClientMakesAnotherClientOfTheSameKind)
{
    build_with_staging_dir();
    fake_mosquitto.calls.clear();
    {
        const mqlink::Client client = comms->setup_client();
        EXPECT_EQ(Calls{"mosquittopp command_service clean"}, fake_mosquitto.calls);
    }
}

TEST_F(ServerCommsTest, TheThreadRoutineStartsTheCommunicator)
{
    build_with_staging_dir();
    play({0});
    EXPECT_EQ(nullptr, ServerCommunicator::event_loop_thread(&*comms));
    EXPECT_EQ(1, fake_mosquitto.count("connect localhost 1883"));
    EXPECT_EQ("INFO server_comms: Closing server comms service", capture.records().back());
}

TEST_F(ServerCommsTest, SearchDirectoriesAreSplitAtEachColon)
{
    build_with_staging_dir();
    const struct {
        const char* text;
        std::vector<std::string> directories;
    } cases[] = {
        {nullptr, {}},
        {"", {"/"}},
        {"/opt/scripts", {"/opt/scripts/"}},
        {"/a:/b/", {"/a/", "/b/"}},
        {"/a::/b:", {"/a/", "/", "/b/", "/"}},
        {":", {"/", "/"}},
        {":/a", {"/", "/a/"}},
        {"scripts", {"scripts/"}},
        {" /a", {" /a/"}},
        {"/a : /b", {"/a /", " /b/"}},
        {"/a:/a:/a", {"/a/", "/a/", "/a/"}},
        {"/b:/a", {"/b/", "/a/"}},
        {"/a;/b", {"/a;/b/"}},
        {"/a//", {"/a//"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text == nullptr ? "(null)" : c.text);
        EXPECT_EQ(c.directories, comms->parse_search_dirs(c.text));
    }
}

TEST(CleanDirPathTest, EndsInASlash)
{
    const struct {
        const char* path;
        const char* cleaned;
    } cases[] = {
        {"", "/"},       {"/", "/"},       {"/a", "/a/"},
        {"/a/", "/a/"},  {"/a//", "/a//"},  // returned unchanged
        {"a/b", "a/b/"}, {".", "./"},      {" ", " /"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(c.cleaned, clean_dir_path(c.path));
    }
}

}  // namespace
}  // namespace pex
