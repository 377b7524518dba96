#include "pexctl/log_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <log4cpp/Appender.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <map>

#include "pexctl/failure.h"
#include "pexctl/temporary_dir.h"

namespace pexctl {

namespace {

namespace fs = std::filesystem;

const std::string appender_prefix = "appender.";

constexpr int least_file_size = 1000;  // a handful of records

/// The appenders of a configuration: name and type.
std::map<std::string, std::string> appenders(const cProperties& config)
{
    std::map<std::string, std::string> found;
    for (const cProperties::Line& line : config.lines()) {
        const std::string name = line.key.substr(std::min(appender_prefix.size(), line.key.size()));
        if (line.key == appender_prefix + name && name.find('.') == std::string::npos) {
            // As log4cpp does: "org.example.FileAppender" is a FileAppender.
            found.emplace(name, line.value.substr(line.value.rfind('.') + 1));
        }
    }
    return found;
}

bool writes_a_file(const std::string& type)
{
    return type == "FileAppender" || type == "RollingFileAppender" ||
           type == "DailyRollingFileAppender";
}

/// A directory that goes away with this object.
class TemporaryDir {
public:
    TemporaryDir() : _path(make_temporary_dir()) {}
    ~TemporaryDir()
    {
        std::error_code ignored;
        fs::remove_all(_path, ignored);
    }
    TemporaryDir(const TemporaryDir&) = delete;
    TemporaryDir& operator=(const TemporaryDir&) = delete;

    const std::string& path() const { return _path; }

private:
    std::string _path;
};

/// Writes the configuration to `dir`/config, with all log files in `dir`. Throws Failure.
void write_harmless_copy(const std::string& config_file, const cProperties& config,
                         const std::string& dir)
{
    std::ifstream in(config_file);
    const std::string content(std::istreambuf_iterator<char>(in), {});
    std::ofstream out(dir + "/config");
    // The first of two equal keys wins, so the real log files are not touched.
    for (const auto& [name, type] : appenders(config)) {
        if (writes_a_file(type)) {
            out << appender_prefix << name << ".fileName=" << dir << "/log\n";
        }
    }
    out << content;
    out.close();
    if (!out) {
        throw Failure(wrong_usage, dir + "/config: " + std::strerror(errno));
    }
}

/// What log4cpp throws on, or "".
std::string refusal(const std::string& config_file, const cProperties& config)
{
    const TemporaryDir dir;
    write_harmless_copy(config_file, config, dir.path());
    std::string problem;
    try {
        log4cpp::PropertyConfigurator::configure(dir.path() + "/config");
    } catch (const std::exception& refused) {
        problem = refused.what();
    }
    log4cpp::Category::shutdown();
    // The configurator's appenders have no owner; the next ones of these names would displace them.
    for (const auto& [name, type] : appenders(config)) {
        delete log4cpp::Appender::getAppender(name);
    }
    return problem;
}

class LogCheck {
public:
    LogCheck(const std::string& config_file, const cProperties& config, bool config_only)
        : _file(config_file), _config(config), _config_only(config_only)
    {
    }

    Findings run()
    {
        check_acceptance();
        for (const auto& [name, type] : appenders(_config)) {
            const std::string key = appender_prefix + name;
            if (writes_a_file(type)) {
                check_file(key);
            }
            if (type == "RollingFileAppender") {
                check_file_size(key + ".maxFileSize");
                check_backups(key + ".maxBackupIndex");
            }
            if (type == "ConsoleAppender" &&
                std::string(_config.getString((key + ".target").c_str(), "stdout")) == "stdout") {
                add(Finding::warning, at(key),
                    "Standard output is block-buffered: records come late, and not at all after "
                    "an abort. Set " +
                        key + ".target=stderr.");
            }
        }
        return _findings;
    }

private:
    void add(Finding::Level level, const std::string& where, const std::string& text)
    {
        _findings.push_back({level, where, text});
    }

    std::string at(const std::string& key) const { return place_of(key, _config, _file); }

    void check_acceptance()
    {
        try {
            if (const std::string problem = refusal(_file, _config); !problem.empty()) {
                add(Finding::error, _file,
                    "The service would abort at the start. log4cpp: " + problem);
            }
        } catch (const Failure& no_copy) {  // a full disk, for example
            if (!_config_only) {
                throw;
            }
            add(Finding::warning, _file,
                std::string("The log's keys could not be tried: ") + no_copy.what());
        }
    }

    /// log4cpp takes the digits at the beginning, and of a number too large some bits.
    void check_file_size(const std::string& key)
    {
        const char* text = _config.getString(key.c_str(), nullptr);
        if (text == nullptr) {
            return;
        }
        const std::string value = text;
        const int size = _config.getInt(key.c_str(), 0);
        if (!is_whole_number(key, _config)) {
            const bool digits =
                !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
            add(Finding::error, at(key),
                digits
                    ? value + " is too large: the log would be lost, or grow without a limit."
                    : "\"" + value + "\" is not a whole number of bytes: the log would be lost.");
        } else if (size < 0) {
            add(Finding::warning, at(key), value + " is no limit: the log would grow for ever.");
        } else if (size < least_file_size) {
            add(Finding::error, at(key),
                value + " bytes hold a few records at most: the log would be lost.");
        }
    }

    void check_backups(const std::string& key)
    {
        const char* value = _config.getString(key.c_str(), nullptr);
        if (value != nullptr && !is_whole_number(key, _config)) {
            add(Finding::warning, at(key), "\"" + std::string(value) + "\" is no whole number.");
        }
    }

    /// log4cpp says nothing if it cannot open the file.
    void check_file(const std::string& key)
    {
        const char* path = _config.getString((key + ".fileName").c_str(), nullptr);
        if (path == nullptr) {
            add(Finding::warning, at(key),
                key +
                    ".fileName is missing: the log is a file \"foobar\" in the daemon's working "
                    "directory.");
            return;
        }
        if (*path == '\0') {
            add(Finding::error, at(key + ".fileName"),
                "The service would run without this log: its file has no name.");
            return;
        }
        if (*path != '/') {
            add(Finding::warning, at(key + ".fileName"),
                "\"" + std::string(path) + "\" depends on the daemon's working directory.");
        }
        if (const std::string problem = open_problem(path); !problem.empty()) {
            add(_config_only ? Finding::warning : Finding::error, at(key + ".fileName"),
                "The service would run without this log: " + problem);
        }
    }

    /// "PATH: REASON" of what keeps a file from being opened for appending, or "".
    static std::string open_problem(const std::string& path)
    {
        struct stat status;
        const bool exists = stat(path.c_str(), &status) == 0;
        if (!exists && errno != ENOENT) {
            return path + ": " + std::strerror(errno);
        }
        if (exists && S_ISDIR(status.st_mode)) {
            return path + ": " + std::strerror(EISDIR);
        }
        const std::string parent = fs::path(path).parent_path();
        const std::string tried = exists ? path : parent.empty() ? "." : parent;
        return access(tried.c_str(), W_OK) == 0 ? "" : tried + ": " + std::strerror(errno);
    }

    const std::string& _file;
    const cProperties& _config;
    bool _config_only;
    Findings _findings;
};

}  // namespace

Findings check_log(const std::string& config_file, const cProperties& config, bool config_only)
{
    return LogCheck(config_file, config, config_only).run();
}

}  // namespace pexctl
