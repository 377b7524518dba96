#pragma once

#include <string>

#include "pexctl/finding.h"
#include "properties.h"

namespace pexctl {

/// Has log4cpp read the file, with other names for its log files, and looks at what it accepts in
/// silence. Resets log4cpp's configuration in this process. Throws Failure if its
/// temporary copy of the file cannot be made. With `config_only`, this and a log file that cannot
/// be opened are warnings.
Findings check_log(const std::string& config_file, const cProperties& config, bool config_only);

}  // namespace pexctl
