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
/// Texts and places are one line each: control characters and what is not UTF-8 are escaped.
/// Resets log4cpp's configuration in this process. Throws Failure if there is no place for the
/// temporary copy of the configuration that log4cpp reads.
///
/// With `config_only`, what the start of a daemon should depend on: scripts are not looked at, and
/// what would be an error of the surroundings, such as a missing directory, is a warning.
SetupReport check_setup(const std::string& config_file, bool config_only = false);

}  // namespace pexctl
