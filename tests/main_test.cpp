#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <log4cpp/Category.hh>
#include <type_traits>
#include <vector>

#include "server_comms.h"
#include "support/fake_mosquittopp.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

// The entry unit has no header; its main() is compiled under this name.
int service_main(int argc, char* argv[]);
bool register_signal_handler(int sig_num, void (*handler)(int));
void term_handler(int);

namespace {

const sig_atomic_t flag_before_main = pex::program_running;
std::vector<int> signals_installed;  ///< what sigaction() was called for, to set an action
int signal_to_refuse = 0;

}  // namespace

extern "C" {

int __real_sigaction(int sig_num, const struct sigaction* action, struct sigaction* before);
int __wrap_sigaction(int sig_num, const struct sigaction* action, struct sigaction* before);

int __wrap_sigaction(int sig_num, const struct sigaction* action, struct sigaction* before)
{
    if (action != nullptr) {
        signals_installed.push_back(sig_num);
        if (sig_num == signal_to_refuse) {
            errno = EINVAL;
            return -1;
        }
    }
    return __real_sigaction(sig_num, action, before);
}

}  // extern "C"

namespace {

using Calls = std::vector<std::string>;

struct sigaction action_of(int sig_num)
{
    struct sigaction action;
    EXPECT_EQ(0, sigaction(sig_num, nullptr, &action));
    return action;
}

class MainTest : public testing::Test {
protected:
    MainTest()
    {
        fake_mosquitto = FakeMosquitto();
        fake_mosquitto.loop = [] {
            raise(SIGTERM);
            return MOSQ_ERR_SUCCESS;
        };
        pex::program_running = 1;
        reset_signals();
        signals_installed.clear();
        signal_to_refuse = 0;
    }
    ~MainTest() override
    {
        remove_configured_appenders();
        reset_signals();
        fake_mosquitto = FakeMosquitto();
    }

    static void reset_signals()
    {
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }

    /// A configuration that logs everything to a file, with these lines added.
    std::string configuration(const std::string& lines)
    {
        return dir.write("service.properties",
                         "log4cpp.rootCategory=DEBUG, file\n"
                         "log4cpp.appender.file=FileAppender\n"
                         "log4cpp.appender.file.fileName=" +
                             log_path +
                             "\n"
                             "log4cpp.appender.file.layout=PatternLayout\n"
                             "log4cpp.appender.file.layout.ConversionPattern=%p [%c] %m%n\n" +
                             lines);
    }

    std::string good_configuration()
    {
        return configuration("script.staging_dir=/staging\nscript.search_dirs=/scripts\n");
    }

    int run(std::vector<std::string> arguments)
    {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        return service_main(static_cast<int>(arguments.size()), argv.data());
    }

    int run_with(const std::string& path)
    {
        remove_configured_appenders();  // those of an earlier run
        return run({"pex-command", path});
    }

    /// What leaves main() ends the process, as it does without this test around it.
    void run_unguarded(const std::string& path) noexcept { run_with(path); }

    std::string log() const { return read_file(log_path); }

    TempDir dir;
    const std::string log_path = dir.path() + "/service.log";
};

const char* const startup_log =
    "DEBUG [] Initialising mosquitto\n"
    "DEBUG [server_comms] server comms service starting\n"
    "INFO [server_comms] Server comms config: \n"
    "  id   : command_service\n"
    "  host : localhost port: 1883\n"
    "  QoS  : 2\n";

TEST_F(MainTest, TheRunFlagIsSetFromTheStart)
{
    static_assert(std::is_same_v<volatile sig_atomic_t, decltype(pex::program_running)>);
    EXPECT_EQ(1, flag_before_main);
}

TEST_F(MainTest, RunsUntilASignalAndCleansUp)
{
    EXPECT_EQ(0, run_with(good_configuration()));
    EXPECT_EQ((Calls{"lib_init", "mosquittopp command_service clean",
                     "connect localhost 1883 keepalive 0", "loop 1000 1",
                     // The library is cleaned up before the client goes.
                     "lib_cleanup", "disconnect", "~mosquittopp"}),
              fake_mosquitto.calls);
    EXPECT_EQ(std::string(startup_log) +
                  "INFO [lua_agent] script directory: /scripts/\n"
                  "INFO [server_comms] Closing server comms service\n"
                  "DEBUG [] Cleaning up mosquitto\n"
                  "DEBUG [] Cleanup done\n",
              log());
}

TEST_F(MainTest, SIGINTEndsTheServiceToo)
{
    fake_mosquitto.loop = [] {
        raise(SIGINT);
        return MOSQ_ERR_SUCCESS;
    };
    EXPECT_EQ(0, run_with(good_configuration()));
    EXPECT_EQ(1, fake_mosquitto.count("loop"));
}

TEST_F(MainTest, FurtherSignalsChangeNothing)
{
    fake_mosquitto.loop = [] {
        for (int i = 0; i < 3; ++i) {
            raise(SIGTERM);
            raise(SIGINT);
        }
        return MOSQ_ERR_SUCCESS;
    };
    fake_mosquitto.lib_cleanup = [] {
        raise(SIGTERM);
        return MOSQ_ERR_SUCCESS;
    };
    EXPECT_EQ(0, run_with(good_configuration()));
    EXPECT_EQ(1, fake_mosquitto.count("loop"));
    EXPECT_EQ(0, pex::program_running);
}

TEST_F(MainTest, ASignalBeforeTheLoopAllowsOneAttemptAndNoLoop)
{
    for (const int sig_num : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig_num);
        fake_mosquitto.calls.clear();
        pex::program_running = 1;
        fake_mosquitto.lib_init = [sig_num] {
            raise(sig_num);
            return MOSQ_ERR_SUCCESS;
        };
        dir.write("service.log", "");
        EXPECT_EQ(0, run_with(good_configuration()));
        EXPECT_EQ((Calls{"lib_init", "mosquittopp command_service clean",
                         "connect localhost 1883 keepalive 0", "lib_cleanup", "disconnect",
                         "~mosquittopp"}),
                  fake_mosquitto.calls);
        EXPECT_EQ(std::string(startup_log) +
                      "INFO [lua_agent] script directory: /scripts/\n"
                      "INFO [server_comms] Closing server comms service\n"
                      "DEBUG [] Cleaning up mosquitto\n"
                      "DEBUG [] Cleanup done\n",
                  log());
    }
}

TEST_F(MainTest, AnyOtherNumberOfArgumentsIsAnError)
{
    const std::vector<std::string> cases[] = {
        {"./pex-command"},
        {"/usr/sbin/pex-command", good_configuration(), "more"},
        {"pex-command", good_configuration(), good_configuration(), "--help"},
    };
    for (const auto& arguments : cases) {
        SCOPED_TRACE(arguments.size());
        testing::internal::CaptureStderr();
        EXPECT_EQ(1, run(arguments));
        EXPECT_EQ(arguments[0] + " expects the path to the config file to be provided.\n",
                  testing::internal::GetCapturedStderr());
    }
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
    EXPECT_EQ(std::vector<int>(), signals_installed);
    EXPECT_EQ("", log());
}

TEST_F(MainTest, AConfigurationFileThatCannotBeLoadedIsAnError)
{
    const std::string cases[] = {dir.path() + "/none.properties", dir.path(), "",
                                 dir.write("nul", std::string("a=b\n\0", 5))};
    for (const std::string& path : cases) {
        SCOPED_TRACE(path);
        testing::internal::CaptureStderr();
        EXPECT_EQ(1, run_with(path));
        EXPECT_EQ("Config file: " + path + " failed to load.\n",
                  testing::internal::GetCapturedStderr());
    }
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
    EXPECT_EQ(std::vector<int>(), signals_installed);
    EXPECT_EQ(0u, log4cpp::Category::getRoot().getAllAppenders().size());
}

TEST_F(MainTest, NothingGoesToStandardErrorOtherwise)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, run_with(good_configuration()));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(MainTest, InstallsItsHandlerForTwoSignalsAndTouchesNoOther)
{
    EXPECT_EQ(0, run_with(good_configuration()));
    EXPECT_EQ((std::vector<int>{SIGINT, SIGTERM}), signals_installed);
    EXPECT_EQ(&term_handler, action_of(SIGINT).sa_handler);
    EXPECT_EQ(&term_handler, action_of(SIGTERM).sa_handler);
}

TEST_F(MainTest, WithoutAHandlerForSIGINTItDoesNotStart)
{
    signal_to_refuse = SIGINT;
    EXPECT_EQ(1, run_with(good_configuration()));
    EXPECT_EQ(std::vector<int>{SIGINT}, signals_installed);  // SIGTERM is not attempted
    EXPECT_EQ("ERROR [] sigaction: Invalid argument\n", log());
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
}

TEST_F(MainTest, WithoutAHandlerForSIGTERMItDoesNotStart)
{
    signal_to_refuse = SIGTERM;
    EXPECT_EQ(1, run_with(good_configuration()));
    EXPECT_EQ((std::vector<int>{SIGINT, SIGTERM}), signals_installed);
    EXPECT_EQ("ERROR [] sigaction: Invalid argument\n", log());
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
}

TEST_F(MainTest, AFailedInitialisationIsAnError)
{
    const struct {
        int status;
        std::string log;
    } cases[] = {
        {MOSQ_ERR_NOMEM,
         "DEBUG [] Initialising mosquitto\n"
         "ERROR [] Couldn't init mosquitto. Out of memory.\n"},
        {MOSQ_ERR_INVAL, std::string("DEBUG [] Initialising mosquitto\n"
                                     "ERROR [] Couldn't init mosquitto. ") +
                             mosqpp::strerror(MOSQ_ERR_INVAL) + "\n"},
        {-1,
         "DEBUG [] Initialising mosquitto\n"
         "ERROR [] Couldn't init mosquitto. Connection pending.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        dir.write("service.log", "");
        fake_mosquitto.calls.clear();
        fake_mosquitto.lib_init = [&] { return c.status; };
        EXPECT_EQ(1, run_with(good_configuration()));
        EXPECT_EQ(c.log, log());
        EXPECT_EQ(Calls{"lib_init"}, fake_mosquitto.calls);
    }
}

TEST_F(MainTest, AFailedCleanUpIsAnError)
{
    for (const int status : {1, -1}) {
        SCOPED_TRACE(status);
        dir.write("service.log", "");
        fake_mosquitto.calls.clear();
        pex::program_running = 1;
        fake_mosquitto.lib_cleanup = [status] { return status; };
        EXPECT_EQ(1, run_with(good_configuration()));
        EXPECT_EQ(std::string(startup_log) +
                      "INFO [lua_agent] script directory: /scripts/\n"
                      "INFO [server_comms] Closing server comms service\n"
                      "DEBUG [] Cleaning up mosquitto\n"
                      "ERROR [] Couldn't cleanup mosquitto on exit. " +
                      (status == -1 ? "Connection pending.\n" : "Out of memory.\n"),
                  log());
        EXPECT_EQ("~mosquittopp", fake_mosquitto.calls.back());
    }
}

TEST_F(MainTest, OneFileConfiguresTheServiceAndItsLog)
{
    EXPECT_EQ(0, run_with(configuration("log4cpp.category.server_comms=ERROR\n"
                                        "script.staging_dir=/staging\n"
                                        "script.search_dirs=/a:/b\n"
                                        "server_comms.host=broker.example\n"
                                        "server_comms.port=8883\n")));
    EXPECT_EQ(
        "DEBUG [] Initialising mosquitto\n"
        "INFO [lua_agent] script directory: /a/\n"
        "INFO [lua_agent] script directory: /b/\n"
        "DEBUG [] Cleaning up mosquitto\n"
        "DEBUG [] Cleanup done\n",
        log());
    EXPECT_EQ(1, fake_mosquitto.count("connect broker.example 8883"));
    log4cpp::Category::getInstance("server_comms").setPriority(log4cpp::Priority::NOTSET);
}

TEST_F(MainTest, TheHandlerOnlyClearsTheFlag)
{
    fake_mosquitto.calls.clear();
    term_handler(SIGTERM);
    EXPECT_EQ(0, pex::program_running);
    pex::program_running = 1;
    term_handler(12345);  // whatever the number
    EXPECT_EQ(0, pex::program_running);
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
}

int calls_of_counter = 0;

void counter(int)
{
    ++calls_of_counter;
}

TEST_F(MainTest, ARegisteredHandlerStaysInstalledAndInterruptsCalls)
{
    ASSERT_TRUE(register_signal_handler(SIGTERM, counter));
    const struct sigaction action = action_of(SIGTERM);
    EXPECT_EQ(&counter, action.sa_handler);
    EXPECT_EQ(0, action.sa_flags & (SA_RESTART | SA_RESETHAND | SA_SIGINFO | SA_NODEFER |
                                    SA_ONSTACK | SA_NOCLDSTOP));
    for (int sig_num = 1; sig_num < 32; ++sig_num) {
        EXPECT_EQ(0, sigismember(&action.sa_mask, sig_num)) << sig_num;
    }
    calls_of_counter = 0;
    raise(SIGTERM);
    raise(SIGTERM);
    EXPECT_EQ(2, calls_of_counter);
}

TEST_F(MainTest, AHandlerThatCannotBeRegisteredIsLogged)
{
    ASSERT_EQ(0, run_with(good_configuration()));  // for its log
    dir.write("service.log", "");
    EXPECT_FALSE(register_signal_handler(SIGKILL, counter));
    EXPECT_FALSE(register_signal_handler(-1, counter));
    EXPECT_EQ(
        "ERROR [] sigaction: Invalid argument\n"
        "ERROR [] sigaction: Invalid argument\n",
        log());
}

using MainDeathTest = MainTest;

TEST_F(MainDeathTest, WithoutAStagingDirectoryTheProcessEnds)
{
    const std::string path = configuration("script.search_dirs=/scripts\n");
    EXPECT_EXIT(run_unguarded(path), testing::KilledBySignal(SIGABRT),
                "script.staging_dir has not been configured");
    EXPECT_EQ(startup_log, log());  // no clean-up
}

TEST_F(MainDeathTest, ALogConfigurationThatIsRejectedEndsTheProcess)
{
    const std::string cases[] = {
        "script.staging_dir=/staging\n",                            // no root category
        "",                                                         // an empty file
        "rootCategory=LOUD, file\nscript.staging_dir=/staging\n",   // an unknown priority
        "rootCategory=DEBUG, file\nappender.file=CarrierPigeon\n",  // an unknown appender
    };
    for (const std::string& content : cases) {
        SCOPED_TRACE(content);
        const std::string path = dir.write("bad.properties", content);
        EXPECT_EXIT(run_unguarded(path), testing::KilledBySignal(SIGABRT),
                    "log4cpp::ConfigureFailure");
    }
}

TEST_F(MainDeathTest, WithoutAWorkingDirectoryAndSearchDirectoriesTheProcessEnds)
{
    const std::string path = configuration("script.staging_dir=/staging\n");
    const WorkingDirectory there(dir.make_dir("removed"));
    ASSERT_EQ(0, rmdir((dir.path() + "/removed").c_str()));
    EXPECT_EXIT(run_unguarded(path), testing::KilledBySignal(SIGABRT),
                "getcwd: No such file or directory");
    EXPECT_EQ(startup_log, log());
}

}  // namespace
