#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pexctl {

/// What the daemon would take from its configuration.
struct LocalSetup {
    std::vector<std::string> search_dirs;    ///< as the daemon parses them; none: its own default
    std::optional<std::string> staging_dir;  ///< none: a new one, which stays if it is not empty
};

/// Sets up a script that is named by its path: its directory is searched first. Returns the name
/// to request. Throws Failure unless the path is that of a file ending in ".lua".
std::string name_script_file(const std::string& path, LocalSetup& setup);

/// Handles a request as the daemon does, in this process, and returns the result's payload. What
/// the script writes to standard output goes to standard error. A script that calls os.exit ends
/// this process with status 1.
/// Throws Failure if there would be no result, and std::runtime_error as the daemon does at start.
std::string run_locally(const std::string& request, const LocalSetup& setup);

/// What is in the script directories: the names that requests may use, sorted.
std::vector<std::string> script_names(const LocalSetup& setup);

/// For a script that was not found: the directories looked in, and names that are near.
std::string not_found_help(const std::string& name, const LocalSetup& setup);

}  // namespace pexctl
