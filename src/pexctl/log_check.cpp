#include "pexctl/log_check.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <log4cpp/Appender.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <map>

#include "pexctl/temporary_dir.h"

namespace pexctl {

namespace {

namespace fs = std::filesystem;

const std::string appender_prefix = "appender.";

/// The appenders of a configuration: name and type.
std::map<std::string, std::string> appenders(const cProperties& config)
{
    std::map<std::string, std::string> found;
    for (const cProperties::Line& line : config.lines()) {
        const std::string name = line.key.substr(std::min(appender_prefix.size(), line.key.size()));
        if (line.key == appender_prefix + name && name.find('.') == std::string::npos) {
            found.emplace(name, line.value);
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

/// What log4cpp throws on, or "".
std::string refusal(const std::string& config_file, const cProperties& config)
{
    const TemporaryDir dir;
    const std::string copy = dir.path() + "/config";
    std::ofstream out(copy);
    // The first of two equal keys wins, so the real log files are not touched.
    for (const auto& [name, type] : appenders(config)) {
        if (writes_a_file(type)) {
            out << appender_prefix << name << ".fileName=" << dir.path() << "/log\n";
        }
    }
    out << std::ifstream(config_file).rdbuf();
    out.close();
    std::string problem;
    try {
        log4cpp::PropertyConfigurator::configure(copy);
    } catch (const std::exception& refused) {
        problem = refused.what();
    }
    log4cpp::Category::shutdown();
    return problem;
}

class LogCheck {
public:
    LogCheck(const std::string& config_file, const cProperties& config)
        : _file(config_file), _config(config)
    {
    }

    Findings run()
    {
        if (const std::string problem = refusal(_file, _config); !problem.empty()) {
            add(Finding::error, _file, "The service would abort at the start. log4cpp: " + problem);
        }
        for (const auto& [name, type] : appenders(_config)) {
            const std::string key = appender_prefix + name;
            if (writes_a_file(type)) {
                check_file(key);
            }
            if (type == "RollingFileAppender") {
                check_number(key + ".maxFileSize", Finding::error,
                             "is not a whole number of bytes: the log would be lost.");
                check_number(key + ".maxBackupIndex", Finding::warning, "is no whole number.");
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

    void check_number(const std::string& key, Finding::Level level, const std::string& text)
    {
        const char* value = _config.getString(key.c_str(), nullptr);
        if (value != nullptr && !is_whole_number(key, _config)) {
            add(level, at(key), "\"" + std::string(value) + "\" " + text);
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
        const fs::path parent = fs::path(path).parent_path();
        const bool exists = access(path, F_OK) == 0;
        const std::string tried = exists ? path : parent.empty() ? "." : parent.string();
        if (fs::is_directory(path)) {
            errno = EISDIR;
        } else if (access(tried.c_str(), exists ? W_OK : W_OK | X_OK) == 0) {
            return;
        }
        add(Finding::error, at(key + ".fileName"),
            "The service would run without this log: " + tried + ": " + std::strerror(errno));
    }

    const std::string& _file;
    const cProperties& _config;
    Findings _findings;
};

}  // namespace

Findings check_log(const std::string& config_file, const cProperties& config)
{
    return LogCheck(config_file, config).run();
}

}  // namespace pexctl
