#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pexctl/broker_session.h"
#include "pexctl/jobs.h"

namespace pexctl {

/// What was typed. Each command uses the fields that its options set.
struct CommandLine {
    std::string command;  ///< "run", "submit", "attach", "withdraw", "list", "check" or "scripts"

    std::string script;
    std::optional<std::string> args;          ///< JSON, "@FILE" or "-"
    std::optional<std::string> msgpack_file;  ///< "-" is standard input
    bool force = false;

    std::optional<std::string> config_file;
    bool config_only = false;
    std::vector<std::string> search_dirs;
    std::optional<std::string> staging_dir;
    bool trace = false;

    std::optional<std::string> host;
    std::optional<int> port;
    Connection connection;  ///< all but host and port

    JobOptions job;
    RequestOptions request;
};

/// Parses the command line. Instead of returning, ends the process with status 0 after --help or
/// --version, and with wrong_usage after a mistake, which it explains on standard error.
CommandLine parse_command_line(int argc, char* argv[]);

}  // namespace pexctl
