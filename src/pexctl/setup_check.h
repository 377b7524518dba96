#pragma once

#include <cstddef>
#include <string>

#include "pexctl/finding.h"

namespace pexctl {

struct SetupReport {
    Findings findings;            ///< errors first, otherwise in the order of the checks
    std::size_t directories = 0;  ///< script directories that can be searched
    std::size_t scripts = 0;      ///< scripts in them
};

/// Looks over a dock's set-up as the calling user sees it: the configuration, the log's keys, the
/// directories and every script in them. Runs no script, and neither opens nor creates a log file.
/// Resets log4cpp's configuration in this process.
SetupReport check_setup(const std::string& config_file);

}  // namespace pexctl
