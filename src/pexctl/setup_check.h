#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace pexctl {

/// One thing that is wrong, or may surprise.
struct Finding {
    enum Level { error, warning };  ///< error: something would fail

    Level level;
    std::string where;  ///< "FILE:LINE", or a path
    std::string text;
};

struct SetupReport {
    std::vector<Finding> findings;  ///< errors first, otherwise in the order of the configuration
    std::size_t directories = 0;    ///< script directories looked at
    std::size_t scripts = 0;        ///< scripts loaded
};

/// Looks over a dock's set-up as the calling user sees it: the configuration, the log's keys, the
/// directories and every script in them. Runs no script, and neither opens nor creates a log file.
/// Resets log4cpp's configuration in this process.
SetupReport check_setup(const std::string& config_file);

}  // namespace pexctl
