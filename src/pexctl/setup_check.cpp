#include "pexctl/setup_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "pexctl/log_check.h"
#include "pexctl/near_name.h"
#include "pexctl/script_check.h"
#include "pexctl/text.h"
#include "properties.h"
#include "server_comms.h"

namespace pexctl {

namespace {

namespace fs = std::filesystem;

const std::vector<std::string> known_keys = {"server_comms.host",  "server_comms.port",
                                             "server_comms.qos",   "server_comms.max_inflight",
                                             "script.search_dirs", "script.staging_dir"};

bool has_prefix(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string trimmed(const std::string& text)
{
    const char* const blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos
               ? ""
               : text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

/// Without links, or as it is if there is no such file.
std::string real_path(const std::string& path)
{
    std::error_code problem;
    const fs::path real = fs::canonical(path, problem);
    return problem ? path : real.string();
}

/// Names of files, and what Lua quotes of a script, may hold any character.
std::string one_line(const std::string& text)
{
    std::string line;
    for (const char c : printable(text)) {  // which leaves tabs and line ends
        line += c == '\t' || c == '\n' || c == '\r' ? "\\x" + hex({&c, 1}) : std::string(1, c);
    }
    return line;
}

class SetupCheck {
public:
    SetupCheck(const std::string& config_file, bool config_only)
        : _file(config_file), _config_only(config_only)
    {
    }

    SetupReport run()
    {
        if (load()) {
            check_lines();
            check_broker();
            check_staging_dir();
            check_search_dirs();
            add(check_log(_file, _config, _config_only));
            _report.directories = _dirs.size();
            if (!_config_only) {
                look_at_scripts();
            }
        }
        for (Finding& finding : _report.findings) {
            finding.where = one_line(finding.where);
            finding.text = one_line(finding.text);
        }
        std::stable_sort(_report.findings.begin(), _report.findings.end(),
                         [](const Finding& a, const Finding& b) { return a.level < b.level; });
        return _report;
    }

private:
    void add(const Findings& findings)
    {
        _report.findings.insert(_report.findings.end(), findings.begin(), findings.end());
    }
    void error(const std::string& where, const std::string& text)
    {
        _report.findings.push_back({Finding::error, where, text});
    }
    void warn(const std::string& where, const std::string& text)
    {
        _report.findings.push_back({Finding::warning, where, text});
    }
    /// Something is wrong that the configuration names, not the configuration.
    void surroundings(const std::string& where, const std::string& text)
    {
        _report.findings.push_back({_config_only ? Finding::warning : Finding::error, where, text});
    }

    bool is_set(const char* key) const { return _config.getString(key, nullptr) != nullptr; }
    std::string at(int line) const { return _file + ":" + std::to_string(line); }
    std::string at(const std::string& key) const { return place_of(key, _config, _file); }

    bool load();
    void check_lines();
    void check_broker();
    void check_port();
    void check_unix_socket(const std::string& path);
    void check_staging_dir();
    void check_search_dirs();
    void check_entry(const std::string& entry);
    bool check_search_dir(const std::string& dir);
    void look_at_scripts();

    std::string _file;
    bool _config_only;
    cProperties _config;
    std::vector<std::string> _dirs;  ///< those that can be searched, each once
    SetupReport _report;
};

bool SetupCheck::load()
{
    errno = 0;
    if (_config.load(_file.c_str())) {
        return true;
    }
    const std::string reason = errno == 0 ? "it holds a zero byte" : std::strerror(errno);
    error(_file, "The service does not start: the file cannot be read: " + reason);
    return false;
}

void SetupCheck::check_lines()
{
    std::map<std::string, int> first;
    for (const cProperties::Line& line : _config.lines()) {
        const bool is_ours =
            has_prefix(line.key, "server_comms.") || has_prefix(line.key, "script.");
        if (!line.assigns) {
            warn(at(line.number), "This line has no '=' and is ignored.");
        } else if (!is_ours) {
            continue;
        } else if (const auto [known, is_new] = first.emplace(line.key, line.number); !is_new) {
            warn(at(line.number), line.key + " is set twice: the first one, in line " +
                                      std::to_string(known->second) + ", counts.");
        } else if (std::count(known_keys.begin(), known_keys.end(), line.key) == 0) {
            const std::vector<std::string> near = near_names(line.key, known_keys);
            warn(at(line.number), "There is no key " + line.key + "; it is ignored." +
                                      (near.empty() ? "" : " Is " + near.front() + " meant?"));
        }
    }
}

void SetupCheck::check_broker()
{
    const char* host = _config.getString("server_comms.host", "localhost");
    if (*host == '\0') {
        error(at("server_comms.host"), "The host is empty: the service would find no broker.");
    }
    check_port();
    const int qos = _config.getInt("server_comms.qos", -1);
    if (is_set("server_comms.qos") && (qos < 0 || qos > 2)) {
        warn(at("server_comms.qos"), "This is no quality of service. Nothing depends on it.");
    }
    const int max_inflight = _config.getInt("server_comms.max_inflight", 0);
    if (is_set("server_comms.max_inflight") && (max_inflight < 1 || max_inflight > 20)) {
        error(at("server_comms.max_inflight"),
              "This is no number from 1 to 20: the service would use 1.");
    }
}

void SetupCheck::check_port()
{
    const char* text = _config.getString("server_comms.port", nullptr);
    if (text == nullptr) {
        return;
    }
    const std::string where = at("server_comms.port");
    const int port = _config.getInt("server_comms.port", 1883);
    if (!is_whole_number("server_comms.port", _config)) {
        error(where,
              "\"" + std::string(text) + "\" is no whole number: the service would use 1883.");
    } else if (port < 0 || port > 65535) {
        error(where, std::string(text) + " is no port: the service would never connect.");
    } else if (port == 0) {
        check_unix_socket(_config.getString("server_comms.host", "localhost"));
    }
}

void SetupCheck::check_unix_socket(const std::string& path)
{
    struct stat status;
    if (path.find('/') == std::string::npos) {
        error(at("server_comms.port"),
              "Port 0 means a Unix socket, and \"" + path + "\" is no path of one.");
    } else if (path[0] != '/') {
        warn(at("server_comms.host"),
             "\"" + path + "\" depends on the daemon's working directory.");
    } else if (stat(path.c_str(), &status) != 0) {
        warn(path, std::string("The broker's socket: ") + std::strerror(errno));
    } else if (!S_ISSOCK(status.st_mode)) {
        surroundings(path, "This should be the broker's socket, and is something else.");
    }
}

void SetupCheck::check_staging_dir()
{
    const char* const key = "script.staging_dir";
    const char* value = _config.getString(key, nullptr);
    if (value == nullptr) {
        error(_file, "script.staging_dir is missing: the service would abort at the start.");
        return;
    }
    const std::string path = value;
    struct stat status;
    if (path.empty()) {
        error(at(key), "script.staging_dir is empty: scripts would write into \"/\".");
    } else if (stat(value, &status) != 0) {
        surroundings(path, std::string("The staging directory: ") + std::strerror(errno));
    } else if (!S_ISDIR(status.st_mode)) {
        surroundings(path, "The staging directory is not a directory.");
    } else if (access(value, W_OK | X_OK) != 0) {
        surroundings(path, std::string("Scripts cannot write in the staging directory: ") +
                               std::strerror(errno));
    }
    if (!path.empty() && path[0] != '/') {
        warn(at(key), "script.staging_dir depends on the daemon's working directory.");
    }
}

void SetupCheck::check_search_dirs()
{
    const char* const key = "script.search_dirs";
    const char* value = _config.getString(key, nullptr);
    if (value == nullptr) {
        warn(_file,
             "script.search_dirs is missing: job_scripts in the daemon's working directory "
             "is searched.");
        return;
    }
    std::set<std::string> seen;
    const std::string entries = value + std::string(":");
    for (std::size_t begin = 0, end; (end = entries.find(':', begin)) != std::string::npos;
         begin = end + 1) {
        const std::string entry = entries.substr(begin, end - begin);
        const std::string dir = pex::clean_dir_path(entry);
        check_entry(entry);
        if (!seen.insert(real_path(dir)).second) {
            warn(at(key), "\"" + (entry.empty() ? "/" : entry) + "\" is searched twice.");
        } else if (check_search_dir(dir)) {
            _dirs.push_back(dir);
        }
    }
    const char* staging_dir = _config.getString("script.staging_dir", "");
    if (seen.count(real_path(staging_dir)) != 0) {
        warn(at("script.staging_dir"),
             "This is a script directory, too: what a script keeps there could be run.");
    }
}

void SetupCheck::check_entry(const std::string& entry)
{
    const std::string where = at("script.search_dirs");
    if (entry.empty()) {
        warn(where, "A stray colon adds the root directory to the search.");
    } else if (entry != trimmed(entry)) {
        warn(where, "Blanks around a colon belong to the directory: \"" + entry + "\".");
    } else if (entry[0] != '/') {
        warn(where, "\"" + entry + "\" depends on the daemon's working directory.");
    }
}

/// Returns whether it can be searched.
bool SetupCheck::check_search_dir(const std::string& dir)
{
    struct stat status;
    if (stat(dir.c_str(), &status) != 0 || access(dir.c_str(), R_OK | X_OK) != 0) {
        surroundings(dir, std::string("No script is found here: ") + std::strerror(errno));
        return false;
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        warn(dir, "Everybody can write here, and so decide what the service runs.");
    }
    return true;
}

void SetupCheck::look_at_scripts()
{
    add(check_scripts(_dirs, _report.scripts));
    if (_report.scripts == 0 && is_set("script.search_dirs")) {
        warn(_file, "There is no script in any script directory.");
    }
}

}  // namespace

SetupReport check_setup(const std::string& config_file, bool config_only)
{
    return SetupCheck(config_file, config_only).run();
}

}  // namespace pexctl
