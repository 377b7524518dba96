#pragma once

#include <chrono>
#include <string>

#include "pexctl/answer.h"
#include "pexctl/broker_session.h"
#include "pexctl/failure.h"

namespace pexctl {

/// A word of a command line, quoted for a shell where it has to be.
std::string shell_word(const std::string& text);

/// The payload of a request; `packed_args` is put in as it is.
std::string request_payload(const std::string& script, const std::string& packed_args);

/// Shows a job's result: the answer on standard output, what is wrong on standard error.
/// Throws Failure if the answer cannot be written.
ExitStatus show_result(const std::string& payload, View view);

/// What the commands that deal with one job share.
struct JobOptions {
    std::string id;
    bool has_new_id = false;  ///< a random one, so the broker holds nothing of an earlier job
    std::chrono::seconds timeout{60};  ///< 0: none
    View view = View::automatic;
    bool keep = false;     ///< do not withdraw
    std::string as_typed;  ///< the connection's options, as " -h dock", for commands shown to users
};

/// How a request is sent.
struct RequestOptions {
    int qos = 1;  ///< or 2
    bool retain = false;
    bool detach = false;
};

// Each returns the command's exit status or throws Failure.

ExitStatus submit(const Connection& connection, const std::string& request,
                  const RequestOptions& how, const JobOptions& options);
ExitStatus attach(const Connection& connection, const JobOptions& options);
ExitStatus withdraw(const Connection& connection, const JobOptions& options);
ExitStatus list(const Connection& connection, const JobOptions& options);

}  // namespace pexctl
