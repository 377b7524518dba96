#include "pexctl/setup_check.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>

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
    Texts check(const std::string& config)
    {
        const std::string file = dir.write("config", in_place(config));
        report = pexctl::check_setup(file);
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

    TempDir dir;
    pexctl::SetupReport report;
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
        {"other keys may be variables", good + "base=/srv\n", {}},
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
        {"a negative port",
         "server_comms.port=-1\n" + good,
         {"error DIR/config:1: -1 is no port: the service would never connect."}},
        {"port 0 by mistake",
         "server_comms.port=0\n" + good,
         {"error DIR/config:1: Port 0 means a Unix socket, and \"localhost\" is no path of one."}},
        {"a socket that is not there",
         "server_comms.port=0\nserver_comms.host=DIR/x\n" + good,
         {"warning DIR/x: The broker's socket: No such file or directory"}},
        {"a socket that is none",
         "server_comms.port=0\nserver_comms.host=DIR/file\n" + good,
         {"error DIR/file: This should be the broker's socket, and is something else."}},
        {"an empty host",
         "server_comms.host=\n" + good,
         {"error DIR/config:1: The host is empty: the service would find no broker."}},
        {"a quality of service", "server_comms.qos=2\n" + good, {}},
        {"no quality of service",
         "server_comms.qos=3\n" + good,
         {"warning DIR/config:1: This is no quality of service. Nothing depends on it."}},
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
        {"DIR/more", {"warning DIR/config: There is no script in any script directory."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(c.findings,
                  check("script.search_dirs=" + std::string(c.value) + "\n" + staging + log_lines));
    }
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
    const Texts found = check(staging + log_lines);
    EXPECT_EQ(1, std::count(found.begin(), found.end(),
                            "warning DIR/config: script.search_dirs is missing: job_scripts in "
                            "the daemon's working directory is searched."));
}

TEST_F(SetupCheckTest, FindsDirectoriesAndScriptsThatEverybodyCanWrite)
{
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

TEST_F(SetupCheckTest, FindsWhatTheLogWouldDo)
{
    const std::string file_log =
        "rootCategory=INFO, f\nappender.f=FileAppender\nappender.f.layout=BasicLayout\n";
    const std::string rolling =
        "rootCategory=INFO, f\nappender.f=RollingFileAppender\nappender.f.layout=BasicLayout\n"
        "appender.f.fileName=DIR/log\n";
    dir.write("old.log", "kept\n");
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
        {"no name for it",
         file_log,
         {"warning DIR/config:4: appender.f.fileName is missing: the log is a file \"foobar\" in "
          "the daemon's working directory."}},
        {"sizes", rolling + "appender.f.maxFileSize=1000\nappender.f.maxBackupIndex=2\n", {}},
        {"a size with a unit",
         rolling + "appender.f.maxFileSize=10MB\n",
         {"error DIR/config:7: \"10MB\" is not a whole number of bytes: the log would be lost."}},
        {"a malformed count",
         rolling + "appender.f.maxBackupIndex=many\n",
         {"warning DIR/config:7: \"many\" is no whole number."}},
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
    EXPECT_EQ("kept\n", read_file(dir.path() + "/old.log"));
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
