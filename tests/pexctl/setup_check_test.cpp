#include "pexctl/setup_check.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <log4cpp/Appender.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <sstream>

#include "pexctl/failure.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace pex {

volatile sig_atomic_t program_running = 1;  // as an entry defines it

}  // namespace pex

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

class SetupCheckTest : public testing::Test {
protected:
    SetupCheckTest()
    {
        dir.make_dir("scripts");
        dir.make_dir("more");
        dir.make_dir("staging");
        script("scripts/ping.lua", "return 'pong'\n");
    }
    ~SetupCheckTest() override { remove_configured_appenders(); }

    void script(const std::string& name, const std::string& text)
    {
        chmod(dir.write(name, text).c_str(), 0644);
    }

    /// "DIR" stands for the test's directory.
    std::string in_place(std::string text) const
    {
        for (std::size_t at; (at = text.find("DIR")) != std::string::npos;) {
            text.replace(at, 3, dir.path());
        }
        return text;
    }

    /// The findings as lines, with "DIR" again.
    Texts check(const std::string& config, bool config_only = false)
    {
        report = pexctl::check_setup(dir.write("config", in_place(config)), config_only);
        return lines_of_report();
    }

    /// The same as a user without root's rights, in a process of its own.
    Texts check_as_nobody(const std::string& config)
    {
        const std::string file = dir.write("config", in_place(config));
        int ends[2];
        EXPECT_EQ(0, pipe(ends));
        const pid_t child = fork();
        if (child == 0) {
            _exit(become_nobody() && tell_report(file, ends[1]) ? 0 : 1);
        }
        close(ends[1]);
        std::string told;
        char buffer[4096];
        for (ssize_t size; (size = read(ends[0], buffer, sizeof buffer)) > 0;) {
            told.append(buffer, static_cast<std::size_t>(size));
        }
        close(ends[0]);
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status);
        Texts texts;
        std::istringstream lines(told);
        for (std::string line; std::getline(lines, line);) {
            texts.push_back(line);
        }
        return texts;
    }

    TempDir dir;
    pexctl::SetupReport report;

private:
    static bool become_nobody()
    {
        const uid_t nobody = 65534;
        return geteuid() != 0 || (setgid(nobody) == 0 && setuid(nobody) == 0);
    }

    bool tell_report(const std::string& config_file, int descriptor)
    {
        report = pexctl::check_setup(config_file);
        std::string told;
        for (const std::string& text : lines_of_report()) {
            told += text + "\n";
        }
        return write(descriptor, told.data(), told.size()) == static_cast<ssize_t>(told.size());
    }

    Texts lines_of_report() const
    {
        Texts texts;
        for (const pexctl::Finding& finding : report.findings) {
            std::string text = (finding.level == pexctl::Finding::error ? "error " : "warning ") +
                               finding.where + ": " + finding.text;
            for (std::size_t at; (at = text.find(dir.path())) != std::string::npos;) {
                text.replace(at, dir.path().size(), "DIR");
            }
            texts.push_back(text);
        }
        return texts;
    }
};

const std::string dirs = "script.search_dirs=DIR/scripts\n";
const std::string staging = "script.staging_dir=DIR/staging\n";
const std::string log_lines =
    "rootCategory=INFO, c\n"
    "appender.c=ConsoleAppender\n"
    "appender.c.target=stderr\n"
    "appender.c.layout=BasicLayout\n";
const std::string good = dirs + staging + log_lines;

TEST_F(SetupCheckTest, HasNothingAgainstAGoodSetUp)
{
    script("scripts/module.lua", "return {}\n");
    EXPECT_EQ(Texts{}, check(good));
    EXPECT_EQ(1u, report.directories);
    EXPECT_EQ(2u, report.scripts);
    EXPECT_TRUE(log4cpp::Category::getRoot().getAllAppenders().empty());
    EXPECT_EQ(nullptr, log4cpp::Appender::getAppender("c"));
    EXPECT_EQ(Texts{}, check("# a comment\n\nserver_comms.host=dock # behind\n"
                             "server_comms.port=1883\nserver_comms.qos=0\n" +
                             good));
}

TEST_F(SetupCheckTest, StopsAtAFileThatCannotBeRead)
{
    const struct {
        std::string path;
        const char* text;
    } cases[] = {
        {dir.path() + "/missing", "No such file or directory"},
        {dir.path(), "Is a directory"},
        {dir.path() + "/scripts/ping.lua/x", "Not a directory"},
        {"/proc/self/mem", "Input/output error"},  // opens, but has nothing at its beginning
        {dir.write("zero", std::string("a\0b=c\n", 6)), "it holds a zero byte"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const pexctl::SetupReport found = pexctl::check_setup(c.path);
        ASSERT_EQ(1u, found.findings.size());
        EXPECT_EQ(pexctl::Finding::error, found.findings[0].level);
        EXPECT_EQ(c.path, found.findings[0].where);
        EXPECT_EQ(std::string("The service does not start: the file cannot be read: ") + c.text,
                  found.findings[0].text);
        EXPECT_EQ(0u, found.directories + found.scripts);
    }
}

TEST_F(SetupCheckTest, FindsWhatIsWrongInTheConfiguration)
{
    dir.write("file", "");
    const struct {
        const char* fact;
        std::string config;
        Texts findings;
    } cases[] = {
        {"a line that is ignored",
         "server_comms.host dock\n" + good,
         {"warning DIR/config:1: This line has no '=' and is ignored."}},
        {"a misspelt key",
         good + "server_comms.prot=1\n",
         {"warning DIR/config:7: There is no key server_comms.prot; it is ignored. Is "
          "server_comms.port meant?"}},
        {"a key like no other",
         good + "script.x=1\n",
         {"warning DIR/config:7: There is no key script.x; it is ignored."}},
        {"a key in the wrong letter case",
         "server_comms.HOST=a\n" + good,
         {"warning DIR/config:1: There is no key server_comms.HOST; it is ignored. Is "
          "server_comms.host meant?"}},
        {"other keys may be variables", good + "base=/srv\nbase=/opt\n", {}},
        {"only a whole prefix makes a key the service's", good + "scripts.x=1\nserver=1\n", {}},
        {"a misspelt key twice",
         good + "script.x=1\nscript.x=1\n",
         {"warning DIR/config:7: There is no key script.x; it is ignored.",
          "warning DIR/config:8: script.x is set twice: the first one, in line 7, counts."}},
        {"a key three times",
         "server_comms.host=a\n\nserver_comms.host=b\nserver_comms.host=c\n" + good,
         {"warning DIR/config:3: server_comms.host is set twice: the first one, in line 1, "
          "counts.",
          "warning DIR/config:4: server_comms.host is set twice: the first one, in line 1, "
          "counts."}},
        {"a doubled key",
         "server_comms.host=a\nserver_comms.host=a\n" + good,
         {"warning DIR/config:2: server_comms.host is set twice: the first one, in line 1, "
          "counts."}},
        {"doubled behind log4cpp's prefix",
         "server_comms.host=a\nlog4cpp.server_comms.host=b\n" + good,
         {"warning DIR/config:2: server_comms.host is set twice: the first one, in line 1, "
          "counts."}},
        {"no number",
         "server_comms.port=1883x\n" + good,
         {"error DIR/config:1: \"1883x\" is no whole number: the service would use 1883."}},
        {"an empty number",
         "server_comms.port=\n" + good,
         {"error DIR/config:1: \"\" is no whole number: the service would use 1883."}},
        {"a port that is too high",
         "server_comms.port=65536\n" + good,
         {"error DIR/config:1: 65536 is no port: the service would never connect."}},
        {"the highest port", "server_comms.port=65535\n" + good, {}},
        {"a number out of range",
         "server_comms.port=4294967296\n" + good,
         {"error DIR/config:1: \"4294967296\" is no whole number: the service would use 1883."}},
        {"a negative port",
         "server_comms.port=-1\n" + good,
         {"error DIR/config:1: -1 is no port: the service would never connect."}},
        {"port 0 by mistake",
         "server_comms.port=0\n" + good,
         {"error DIR/config:1: Port 0 means a Unix socket, and \"localhost\" is no path of one."}},
        {"a socket in the working directory",
         "server_comms.port=0\nserver_comms.host=run/x\n" + good,
         {"warning DIR/config:2: \"run/x\" depends on the daemon's working directory."}},
        {"a socket's path with a port", "server_comms.host=/none\n" + good, {}},
        {"a socket that is not there",
         "server_comms.port=0\nserver_comms.host=DIR/x\n" + good,
         {"warning DIR/x: The broker's socket: No such file or directory"}},
        {"a socket that is none",
         "server_comms.port=0\nserver_comms.host=DIR/file\n" + good,
         {"error DIR/file: This should be the broker's socket, and is something else."}},
        {"an empty host",
         "server_comms.host=\n" + good,
         {"error DIR/config:1: The host is empty: the service would find no broker."}},
        {"an empty host and port 0",
         "server_comms.port=0\nserver_comms.host=\n" + good,
         {"error DIR/config:2: The host is empty: the service would find no broker.",
          "error DIR/config:1: Port 0 means a Unix socket, and \"\" is no path of one."}},
        {"a quality of service", "server_comms.qos=2\n" + good, {}},
        {"a negative one",
         "server_comms.qos=-1\n" + good,
         {"warning DIR/config:1: This is no quality of service. Nothing depends on it."}},
        {"no quality of service",
         "server_comms.qos=3\n" + good,
         {"warning DIR/config:1: This is no quality of service. Nothing depends on it."}},
        {"messages in flight", "server_comms.max_inflight=20\n" + good, {}},
        {"no message in flight",
         "server_comms.max_inflight=0\n" + good,
         {"error DIR/config:1: This is no number from 1 to 20: the service would use 1."}},
        {"too many messages in flight",
         "server_comms.max_inflight=21\n" + good,
         {"error DIR/config:1: This is no number from 1 to 20: the service would use 1."}},
        {"no number of messages in flight",
         "server_comms.max_inflight=\n" + good,
         {"error DIR/config:1: This is no number from 1 to 20: the service would use 1."}},
        {"a malformed one",
         "server_comms.qos=two\n" + good,
         {"warning DIR/config:1: This is no quality of service. Nothing depends on it."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.findings, check(c.config));
    }
}

TEST_F(SetupCheckTest, AcceptsTheBrokersUnixSocket)
{
    const std::string path = dir.path() + "/socket";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, path.c_str());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(0, bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(Texts{}, check("server_comms.port=0\nserver_comms.host=DIR/socket\n" + good));
    close(descriptor);
}

TEST_F(SetupCheckTest, FindsWhatIsWrongWithTheStagingDirectory)
{
    dir.write("file", "");
    fs::create_directory_symlink(dir.path() + "/scripts", dir.path() + "/link");
    const WorkingDirectory here(dir.path());
    const struct {
        const char* line;
        Texts findings;
    } cases[] = {
        {"",
         {"error DIR/config: script.staging_dir is missing: the service would abort at the "
          "start."}},
        {"script.staging_dir=\n",
         {"error DIR/config:1: script.staging_dir is empty: scripts would write into \"/\"."}},
        {"script.staging_dir=DIR/none\n",
         {"error DIR/none: The staging directory: No such file or directory"}},
        {"script.staging_dir=DIR/file\n",
         {"error DIR/file: The staging directory is not a directory."}},
        {"script.staging_dir=DIR/file/x\n",
         {"error DIR/file/x: The staging directory: Not a directory"}},
        {"script.staging_dir=staging\n",
         {"warning DIR/config:1: script.staging_dir depends on the daemon's working directory."}},
        {"script.staging_dir=none\n",
         {"error none: The staging directory: No such file or directory",
          "warning DIR/config:1: script.staging_dir depends on the daemon's working directory."}},
        {"script.staging_dir=DIR/link\n",
         {"warning DIR/config:1: This is a script directory, too: what a script keeps there could "
          "be run."}},
        {"script.staging_dir=DIR/scripts/\n",
         {"warning DIR/config:1: This is a script directory, too: what a script keeps there could "
          "be run."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_EQ(c.findings, check(c.line + dirs + log_lines));
    }
}

TEST_F(SetupCheckTest, FindsWhatIsWrongWithTheScriptDirectories)
{
    dir.write("file", "");
    fs::create_directory_symlink(dir.path() + "/scripts", dir.path() + "/link");
    const WorkingDirectory here(dir.path());
    const struct {
        const char* value;
        Texts findings;
    } cases[] = {
        {"DIR/scripts:DIR/more", {}},
        {"DIR/scripts/", {}},
        {"DIR/scripts:DIR/none",
         {"error DIR/none/: No script is found here: No such file or directory"}},
        {"DIR/file:DIR/scripts", {"error DIR/file/: No script is found here: Not a directory"}},
        {"DIR/scripts:DIR/scripts/", {"warning DIR/config:1: \"DIR/scripts/\" is searched twice."}},
        {"DIR/scripts:DIR/link", {"warning DIR/config:1: \"DIR/link\" is searched twice."}},
        {"scripts",
         {"warning DIR/config:1: \"scripts\" depends on the daemon's working directory."}},
        {"DIR/more :DIR/scripts",
         {"error DIR/more /: No script is found here: No such file or directory",
          "warning DIR/config:1: Blanks around a colon belong to the directory: \"DIR/more \"."}},
        {" DIR/more: DIR/scripts\t",
         {"error  DIR/scripts/: No script is found here: No such file or directory",
          "warning DIR/config:1: Blanks around a colon belong to the directory: \" DIR/scripts\".",
          "warning DIR/config: There is no script in any script directory."}},
        {"DIR/scripts:\tDIR/more",
         {"error \\x09DIR/more/: No script is found here: No such file or directory",
          "warning DIR/config:1: Blanks around a colon belong to the directory: "
          "\"\\x09DIR/more\"."}},
        {"DIR/scripts:DIR/none:DIR/none",
         {"error DIR/none/: No script is found here: No such file or directory",
          "warning DIR/config:1: \"DIR/none\" is searched twice."}},
        {"DIR/more", {"warning DIR/config: There is no script in any script directory."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(c.findings,
                  check("script.search_dirs=" + std::string(c.value) + "\n" + staging + log_lines));
    }
}

TEST_F(SetupCheckTest, CountsDirectoriesThatCanBeSearched)
{
    check("script.search_dirs=DIR/none:DIR/scripts:DIR/more\n" + staging + log_lines);
    EXPECT_EQ(2u, report.directories);
    EXPECT_EQ(1u, report.scripts);
}

TEST_F(SetupCheckTest, FindsAStrayColonAndAMissingKey)
{
    for (const char* value : {"DIR/scripts:", ":DIR/scripts", "DIR/scripts::DIR/more"}) {
        SCOPED_TRACE(value);
        const Texts found =
            check("script.search_dirs=" + std::string(value) + "\n" + staging + log_lines);
        EXPECT_EQ(1, std::count(found.begin(), found.end(),
                                "warning DIR/config:1: A stray colon adds the root directory to "
                                "the search."));
    }
    const Texts twice = check("script.search_dirs=:DIR/scripts:\n" + staging + log_lines);
    EXPECT_EQ(2, std::count(twice.begin(), twice.end(),
                            "warning DIR/config:1: A stray colon adds the root directory to the "
                            "search."));
    EXPECT_EQ(1, std::count(twice.begin(), twice.end(),
                            "warning DIR/config:1: \"/\" is searched twice."));
    // Nothing is said of scripts: which directory is searched is not known here.
    EXPECT_EQ((Texts{"warning DIR/config: script.search_dirs is missing: job_scripts in the "
                     "daemon's working directory is searched."}),
              check(staging + log_lines));
    EXPECT_EQ(0u, report.directories);
}

TEST_F(SetupCheckTest, FindsDirectoriesAndScriptsThatEverybodyCanWrite)
{
    chmod((dir.path() + "/scripts").c_str(), 0775);
    chmod((dir.path() + "/scripts/ping.lua").c_str(), 0664);
    EXPECT_EQ(Texts{}, check(good));  // a group is trusted
    chmod((dir.path() + "/scripts").c_str(), 0777);
    chmod((dir.path() + "/scripts/ping.lua").c_str(), 0666);
    EXPECT_EQ((Texts{"warning DIR/scripts/: Everybody can write here, and so decide what the "
                     "service runs.",
                     "warning DIR/scripts/ping.lua: Everybody can write it, and so decide what "
                     "the service runs."}),
              check(good));
}

TEST_F(SetupCheckTest, LoadsEveryScript)
{
    script("scripts/bad.lua", "return (\n");
    script("scripts/worse.lua", "goto nowhere");
    script("scripts/twice.lua.lua", "return 1");
    script("scripts/notes.txt", "not Lua");
    script("scripts/ping.lua.bak", "not Lua");
    script("scripts/lua", "not Lua");
    script("scripts/.lua", "return 1");
    script("more/ping.lua", "error('is not run')");
    dir.make_dir("more/folder.lua");
    EXPECT_EQ(
        (Texts{
            "error DIR/scripts/bad.lua: It does not load: DIR/scripts/bad.lua:2: unexpected "
            "symbol near <eof>",
            "error DIR/scripts/worse.lua: It does not load: DIR/scripts/worse.lua:1: no visible "
            "label 'nowhere' for <goto> at line 1",
            "error DIR/more/folder.lua: It does not load: cannot read DIR/more/folder.lua: Is a "
            "directory",
            "warning DIR/scripts/twice.lua.lua: Its name ends in .lua twice: only a request for "
            "twice.lua runs it.",
            "warning DIR/more/ping.lua: It never runs: DIR/scripts/ping.lua is found before it.",
        }),
        check("script.search_dirs=DIR/scripts:DIR/more\n" + staging + log_lines));
    EXPECT_EQ(2u, report.directories);
    EXPECT_EQ(7u, report.scripts);
}

TEST_F(SetupCheckTest, RunsNoScript)
{
    script("scripts/ping.lua", "while true do end\n");  // a run would have no end
    EXPECT_EQ(Texts{}, check(good));
}

TEST_F(SetupCheckTest, NamesTheScriptThatIsFoundFirst)
{
    dir.make_dir("third");
    script("more/ping.lua", "return 2");
    script("third/ping.lua", "return 3");
    script("third/Ping.lua", "return 4");  // letter case counts
    EXPECT_EQ(
        (Texts{"warning DIR/scripts/ping.lua: It never runs: DIR/more/ping.lua is found before it.",
               "warning DIR/third/ping.lua: It never runs: DIR/more/ping.lua is found before it."}),
        check("script.search_dirs=DIR/more:DIR/scripts:DIR/third\n" + staging + log_lines));
    EXPECT_EQ(3u, report.directories);
    EXPECT_EQ(4u, report.scripts);
}

TEST_F(SetupCheckTest, DoesNotSearchADirectoryTwice)
{
    script("scripts/bad.lua", "return (");
    EXPECT_EQ((Texts{"error DIR/scripts/bad.lua: It does not load: DIR/scripts/bad.lua:1: "
                     "unexpected symbol near <eof>",
                     "warning DIR/config:1: \"DIR/scripts\" is searched twice."}),
              check("script.search_dirs=DIR/scripts:DIR/scripts\n" + staging + log_lines));
    EXPECT_EQ(1u, report.directories);
    EXPECT_EQ(2u, report.scripts);
}

// A pipe without a writer blocks whoever opens it.
TEST_F(SetupCheckTest, OpensNoPipeThatPosesAsAScript)
{
    ASSERT_EQ(0, mkfifo((dir.path() + "/scripts/pipe.lua").c_str(), 0644));
    fs::create_symlink("/dev/zero", dir.path() + "/scripts/zero.lua");
    fs::create_symlink("/none", dir.path() + "/scripts/gone.lua");
    EXPECT_EQ(
        (Texts{"error DIR/scripts/gone.lua: It does not load: cannot open DIR/scripts/gone.lua: "
               "No such file or directory",
               "error DIR/scripts/pipe.lua: It is no regular file: a request for it may block the "
               "service.",
               "error DIR/scripts/zero.lua: It is no regular file: a request for it may block the "
               "service.",
               "warning DIR/scripts/zero.lua: Everybody can write it, and so decide what the "
               "service runs."}),
        check(good));
}

TEST_F(SetupCheckTest, TellsEachFindingOnOneLine)
{
    script("scripts/a\n\r\t\x1b\xff\xc3\xa9.lua.lua", "return 1");
    script("scripts/text.lua", "return 1 'a\\\nb'");
    EXPECT_EQ(
        (Texts{"error DIR/none\\x0a: The staging directory: No such file or directory",
               "error DIR/scripts/text.lua: It does not load: DIR/scripts/text.lua:2: <eof> "
               "expected near ''a\\x0ab''",
               "warning DIR/scripts/a\\x0a\\x0d\\x09\\x1b\\xff\xc3\xa9.lua.lua: Its name ends in "
               ".lua twice: only a request for "
               "a\\x0a\\x0d\\x09\\x1b\\xff\xc3\xa9.lua runs it."}),
        [this] {
            const EnvironmentVariable name("PEX_TEST_VARIABLE", dir.path() + "/none\n");
            return check("script.staging_dir=${PEX_TEST_VARIABLE}\n" + dirs + log_lines);
        }());
}

TEST_F(SetupCheckTest, SeesWhatTheCallingUserMayDo)
{
    const struct {
        const char* name;
        mode_t mode;
    } closed[] = {{"staging", 0555}, {"more", 0333},    {"scripts/ping.lua", 0200},
                  {"logs", 0555},    {"old.log", 0444}, {"lost", 0666}};
    script("old.log", "");
    script("scripts/good.lua", "return 1");
    for (const char* name : {"logs", "lost", "tmp"}) {
        chmod(dir.make_dir(name).c_str(), 0777);
    }
    chmod(dir.path().c_str(), 0755);
    for (const auto& c : closed) {
        chmod((dir.path() + "/" + c.name).c_str(), c.mode);
    }
    const EnvironmentVariable temporary("TMPDIR", dir.path() + "/tmp");
    std::string config =
        "script.search_dirs=DIR/scripts:DIR/more\n" + staging + "rootCategory=INFO, a, b, c\n";
    for (const std::string file : {"a=DIR/logs/log", "b=DIR/old.log", "c=DIR/lost/log"}) {
        const std::string name = "appender." + file.substr(0, 1);
        config += name + "=FileAppender\n" + name + ".layout=BasicLayout\n" + name + ".fileName" +
                  file.substr(1) + "\n";
    }
    EXPECT_EQ(
        (Texts{
            "error DIR/staging: Scripts cannot write in the staging directory: Permission denied",
            "error DIR/more/: No script is found here: Permission denied",
            "error DIR/config:6: The service would run without this log: DIR/logs: Permission "
            "denied",
            "error DIR/config:9: The service would run without this log: DIR/old.log: Permission "
            "denied",
            "error DIR/config:12: The service would run without this log: DIR/lost/log: "
            "Permission denied",
            "error DIR/scripts/ping.lua: It does not load: cannot open DIR/scripts/ping.lua: "
            "Permission denied",
        }),
        check_as_nobody(config));
    chmod((dir.path() + "/staging").c_str(), 0666);  // without the right to search it
    chmod((dir.path() + "/more").c_str(), 0444);
    EXPECT_EQ(
        (Texts{
            "error DIR/staging: Scripts cannot write in the staging directory: Permission denied",
            "error DIR/more/: No script is found here: Permission denied",
            "warning DIR/config: There is no script in any script directory.",
        }),
        check_as_nobody("script.search_dirs=DIR/more\n" + staging + log_lines));
    for (const auto& c : closed) {
        chmod((dir.path() + "/" + c.name).c_str(), 0755);  // so that they can be removed
    }
}

TEST_F(SetupCheckTest, FindsWhatTheLogWouldDo)
{
    const std::string file_log =
        "rootCategory=INFO, f\nappender.f=FileAppender\nappender.f.layout=BasicLayout\n";
    const std::string rolling =
        "rootCategory=INFO, f\nappender.f=RollingFileAppender\nappender.f.layout=BasicLayout\n"
        "appender.f.fileName=DIR/log\n";
    dir.write("old.log", "kept\n");
    fs::create_symlink("loop", dir.path() + "/loop");
    const WorkingDirectory here(dir.path());
    const EnvironmentVariable temporary("TMPDIR", dir.make_dir("tmp"));
    const struct {
        const char* fact;
        std::string log;
        Texts findings;
    } cases[] = {
        {"no root category",
         "",
         {"error DIR/config: The service would abort at the start. log4cpp: Unable to find "
          "category: rootCategory"}},
        {"a priority in lower case",
         "rootCategory=info\n",
         {"error DIR/config: The service would abort at the start. log4cpp: unknown priority "
          "name: 'info' for category 'rootCategory'"}},
        {"an appender that is not there",
         "rootCategory=INFO, x\n",
         {"error DIR/config: The service would abort at the start. log4cpp: Appender 'x' not "
          "found for category 'rootCategory'"}},
        {"no layout",
         "rootCategory=INFO, f\nappender.f=FileAppender\nappender.f.fileName=DIR/log\n",
         {"error DIR/config: The service would abort at the start. log4cpp: Missing layout "
          "property for appender 'f'"}},
        {"a log file", file_log + "appender.f.fileName=DIR/new.log\n", {}},
        {"a log file that is there", file_log + "appender.f.fileName=DIR/old.log\n", {}},
        {"no directory for it",
         file_log + "appender.f.fileName=DIR/none/log\n",
         {"error DIR/config:6: The service would run without this log: DIR/none: No such file or "
          "directory"}},
        {"a directory in its place",
         file_log + "appender.f.fileName=DIR/more\n",
         {"error DIR/config:6: The service would run without this log: DIR/more: Is a directory"}},
        {"a file in place of its directory",
         file_log + "appender.f.fileName=DIR/old.log/log\n",
         {"error DIR/config:6: The service would run without this log: DIR/old.log/log: Not a "
          "directory"}},
        {"a link to itself",
         file_log + "appender.f.fileName=DIR/loop\n",
         {"error DIR/config:6: The service would run without this log: DIR/loop: Too many levels "
          "of symbolic links"}},
        {"a relative name",
         file_log + "appender.f.fileName=new.log\n",
         {"warning DIR/config:6: \"new.log\" depends on the daemon's working directory."}},
        {"a relative name in no directory",
         file_log + "appender.f.fileName=none/log\n",
         {"error DIR/config:6: The service would run without this log: none: No such file or "
          "directory",
          "warning DIR/config:6: \"none/log\" depends on the daemon's working directory."}},
        {"an empty name",
         file_log + "appender.f.fileName=\n",
         {"error DIR/config:6: The service would run without this log: its file has no name."}},
        {"a daily log",
         "rootCategory=INFO, f\nappender.f=DailyRollingFileAppender\n"
         "appender.f.layout=BasicLayout\nappender.f.fileName=DIR/none/log\n",
         {"error DIR/config:6: The service would run without this log: DIR/none: No such file or "
          "directory"}},
        {"a type with a prefix, which log4cpp drops",
         "rootCategory=INFO, f\nappender.f=org.example.FileAppender\n"
         "appender.f.layout=BasicLayout\nappender.f.fileName=DIR/none/log\n",
         {"error DIR/config:6: The service would run without this log: DIR/none: No such file or "
          "directory"}},
        {"the same for a file that could be opened",
         "rootCategory=INFO, f\nappender.f=org.example.FileAppender\n"
         "appender.f.append=false\n"
         "appender.f.layout=BasicLayout\nappender.f.fileName=DIR/old.log\n",
         {}},
        {"keys that only look like an appender's",
         log_lines + "logs.to.x=FileAppender\nappender.c.note=FileAppender\n",
         {}},
        {"two logs",
         file_log + "appender.f.fileName=DIR/new.log\nappender.g=RollingFileAppender\n"
                    "appender.g.layout=BasicLayout\nappender.g.fileName=DIR/none/log\n",
         {"error DIR/config:9: The service would run without this log: DIR/none: No such file or "
          "directory"}},
        {"no name for it",
         file_log,
         {"warning DIR/config:4: appender.f.fileName is missing: the log is a file \"foobar\" in "
          "the daemon's working directory."}},
        {"sizes", rolling + "appender.f.maxFileSize=1000\nappender.f.maxBackupIndex=2\n", {}},
        {"a size with a unit",
         rolling + "appender.f.maxFileSize=10MB\n",
         {"error DIR/config:7: \"10MB\" is not a whole number of bytes: the log would be lost."}},
        {"an empty size",
         rolling + "appender.f.maxFileSize=\n",
         {"error DIR/config:7: \"\" is not a whole number of bytes: the log would be lost."}},
        {"a small size",
         rolling + "appender.f.maxFileSize=999\n",
         {"error DIR/config:7: 999 bytes hold a few records at most: the log would be lost."}},
        {"no size",
         rolling + "appender.f.maxFileSize=0\n",
         {"error DIR/config:7: 0 bytes hold a few records at most: the log would be lost."}},
        {"a negative size",
         rolling + "appender.f.maxFileSize=-1\n",
         {"warning DIR/config:7: -1 is no limit: the log would grow for ever."}},
        {"a size beyond an int",
         rolling + "appender.f.maxFileSize=4294967296\n",
         {"error DIR/config:7: 4294967296 is too large: the log would be lost, or grow without a "
          "limit."}},
        {"a size that nobody reads",
         file_log + "appender.f.fileName=DIR/new.log\n"
                    "appender.f.maxFileSize=10MB\n",
         {}},
        {"a malformed count",
         rolling + "appender.f.maxBackupIndex=many\n",
         {"warning DIR/config:7: \"many\" is no whole number."}},
        {"standard output by name and with a prefix",
         "rootCategory=INFO, c\nappender.c=org.example.ConsoleAppender\n"
         "appender.c.target=stdout\nappender.c.layout=BasicLayout\n",
         {"warning DIR/config:4: Standard output is block-buffered: records come late, and not at "
          "all after an abort. Set appender.c.target=stderr."}},
        {"standard output",
         "rootCategory=INFO, c\nappender.c=ConsoleAppender\nappender.c.layout=BasicLayout\n",
         {"warning DIR/config:4: Standard output is block-buffered: records come late, and not at "
          "all after an abort. Set appender.c.target=stderr."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        EXPECT_EQ(c.findings, check(dirs + staging + c.log));
    }
    EXPECT_FALSE(fs::exists(dir.path() + "/new.log"));
    EXPECT_FALSE(fs::exists(dir.path() + "/log"));
    EXPECT_FALSE(fs::exists(dir.path() + "/foobar"));
    EXPECT_TRUE(fs::is_empty(dir.path() + "/tmp"));
    EXPECT_EQ("kept\n", read_file(dir.path() + "/old.log"));
}

// What check says of sizes is log4cpp's doing: see that it still does it.
TEST_F(SetupCheckTest, LogFilesOfOddSizesBehaveAsToldHere)
{
    const struct {
        const char* size;
        bool keeps_all;
    } cases[] = {{"10MB", false},      {"", false},  {"0", false},     {"999", false},
                 {"3000000000", true}, {"-1", true}, {"1000000", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const TempDir logs;
        log4cpp::PropertyConfigurator::configure(
            logs.write("config",
                       "rootCategory=INFO, f\nappender.f=RollingFileAppender\n"
                       "appender.f.layout=SimpleLayout\nappender.f.fileName=" +
                           logs.path() + "/log\nappender.f.maxFileSize=" + c.size + "\n"));
        for (int i = 0; i < 1000; ++i) {
            log4cpp::Category::getRoot().info("record");
        }
        remove_configured_appenders();
        const std::string kept =
            read_file(logs.path() + "/log.1") + read_file(logs.path() + "/log");
        const std::ptrdiff_t records = std::count(kept.begin(), kept.end(), '\n');
        if (c.keeps_all) {
            EXPECT_EQ(1000, records);
        } else {
            EXPECT_GT(200, records);
        }
    }
}

TEST_F(SetupCheckTest, NeedsAPlaceForItsCopyOfTheConfiguration)
{
    const EnvironmentVariable temporary("TMPDIR", dir.path() + "/none");
    try {
        check(good);
        FAIL();
    } catch (const pexctl::Failure& failure) {
        EXPECT_EQ(pexctl::wrong_usage, failure.status());
        EXPECT_EQ(0u, std::string(failure.what()).find(dir.path() + "/none/pexctl-"));
        EXPECT_NE(std::string::npos,
                  std::string(failure.what()).find(": No such file or directory"));
    }
}

// A copy cut short would be refused by log4cpp, and a good configuration be blamed.
TEST_F(SetupCheckTest, BlamesNoConfigurationForACopyThatCannotBeWritten)
{
    const EnvironmentVariable temporary("TMPDIR", dir.make_dir("tmp"));
    const std::string file = dir.write("config", in_place(good));
    const auto handled_before = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    const rlimit few_bytes = {20, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &few_bytes));
    std::string problem;
    try {
        pexctl::check_setup(file);
    } catch (const pexctl::Failure& failure) {
        problem = failure.what();
    }
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handled_before);
    EXPECT_NE(std::string::npos, problem.find("/config: File too large")) << problem;
    EXPECT_TRUE(fs::is_empty(dir.path() + "/tmp"));
}

TEST_F(SetupCheckTest, BlamesTheConfigurationAloneBeforeAStart)
{
    script("scripts/broken.lua", "x");
    EXPECT_EQ(Texts{}, check(good, true));
    EXPECT_EQ(0u, report.scripts);
    dir.write("file", "");
    const struct {
        const char* config;
        const char* warning;
    } cases[] = {
        {"script.search_dirs=DIR/none\nscript.staging_dir=DIR/staging\n",
         "warning DIR/none/: No script is found here: No such file or directory"},
        {"script.search_dirs=DIR/scripts\nscript.staging_dir=DIR/none\n",
         "warning DIR/none: The staging directory: No such file or directory"},
        {"script.search_dirs=DIR/scripts\nscript.staging_dir=DIR/file\n",
         "warning DIR/file: The staging directory is not a directory."},
        {"script.search_dirs=DIR/scripts\nscript.staging_dir=DIR/staging\n"
         "server_comms.host=DIR/file\nserver_comms.port=0\n",
         "warning DIR/file: This should be the broker's socket, and is something else."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.warning);
        EXPECT_EQ(Texts{c.warning}, check(c.config + log_lines, true));
    }
    EXPECT_EQ((Texts{"warning DIR/config:5: The service would run without this log: DIR/none: No "
                     "such file or directory"}),
              check(dirs + staging +
                        "rootCategory=INFO, f\n"
                        "appender.f=FileAppender\n"
                        "appender.f.fileName=DIR/none/log\n"
                        "appender.f.layout=BasicLayout\n",
                    true));
}

TEST_F(SetupCheckTest, RefusesAWrongConfigurationBeforeAStart)
{
    const struct {
        std::string config;
        const char* error;
    } cases[] = {
        {good + "server_comms.port=1883x\n",
         "error DIR/config:7: \"1883x\" is no whole number: the service would use 1883."},
        {dirs + log_lines,
         "error DIR/config: script.staging_dir is missing: the service would abort at the start."},
        {dirs + staging + "rootCategory=info\n",
         "error DIR/config: The service would abort at the start. log4cpp: unknown priority name: "
         "'info' for category 'rootCategory'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        EXPECT_EQ(Texts{c.error}, check(c.config, true));
    }
}

TEST_F(SetupCheckTest, StartsWithoutAPlaceForItsCopyOfTheConfiguration)
{
    const EnvironmentVariable temporary("TMPDIR", dir.path() + "/none");
    const Texts found = check(good, true);
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(0u, found[0].find("warning DIR/config: The log's keys could not be tried: "));
}

TEST_F(SetupCheckTest, TellsInTheOrderOfTheChecks)
{
    script("scripts/a.lua.lua", "return 1");
    EXPECT_EQ((Texts{"warning DIR/config:6: This line has no '=' and is ignored.",
                     "warning DIR/config:1: This is no quality of service. Nothing depends on it.",
                     "warning DIR/config:2: script.staging_dir depends on the daemon's working "
                     "directory.",
                     "warning DIR/config:7: \"DIR/scripts\" is searched twice.",
                     "warning DIR/config:4: Standard output is block-buffered: records come late, "
                     "and not at all after an abort. Set appender.c.target=stderr.",
                     "warning DIR/scripts/a.lua.lua: Its name ends in .lua twice: only a request "
                     "for a.lua runs it."}),
              [this] {
                  const WorkingDirectory here(dir.path());
                  return check(
                      "server_comms.qos=3\n"
                      "script.staging_dir=staging\n"
                      "rootCategory=INFO, c\n"
                      "appender.c=ConsoleAppender\n"
                      "appender.c.layout=BasicLayout\n"
                      "!\n"
                      "script.search_dirs=DIR/scripts:DIR/scripts\n");
              }());
}

TEST_F(SetupCheckTest, TellsErrorsFirst)
{
    const Texts found = check("server_comms.qos=3\nserver_comms.port=x\n" + dirs + log_lines);
    ASSERT_EQ(3u, found.size());
    EXPECT_EQ(0u, found[0].find("error DIR/config:2"));
    EXPECT_EQ(0u, found[1].find("error DIR/config: script.staging_dir"));
    EXPECT_EQ(0u, found[2].find("warning DIR/config:1"));
}

}  // namespace
