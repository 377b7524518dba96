#pragma once

#include <functional>
#include <log4cpp/AppenderSkeleton.hh>
#include <log4cpp/Category.hh>
#include <string>
#include <vector>

/// Collects every log record of the process while it lives, at all priorities, each as one text:
/// "ERROR lua_agent: opendir(/x): No such file or directory". The root category is named "root".
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<std::string>& records() const { return _records; }
    /// The texts of one category's records, without priority and category.
    std::vector<std::string> texts_of(const std::string& category) const;
    void clear() { _records.clear(); }

    /// Called with each record before it is kept; what it throws leaves the log call.
    std::function<void(const std::string&)> on_record;

private:
    class Appender;

    Appender* _appender;  ///< owned by the root category
    log4cpp::Priority::Value _priority_before;
    std::vector<std::string> _records;
};

using Records = std::vector<std::string>;

/// Removes the root category's appenders and frees those that log4cpp's configurator made: left to
/// itself, the library loses them when the process is configured again.
void remove_configured_appenders();
