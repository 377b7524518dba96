#pragma once

#include <stdexcept>
#include <string>

namespace pexctl {

enum ExitStatus {
    job_succeeded = 0,
    job_failed = 1,  ///< also: `check` found an error
    wrong_usage = 2,
    no_broker = 3,  ///< not reached, or it refused
    timed_out = 4,
    interrupted = 130,  ///< 128 + SIGINT, as shells count
};

/// Ends the command with a status and, unless it is empty, a line on standard error.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), _status(status)
    {
    }
    ExitStatus status() const { return _status; }

private:
    ExitStatus _status;
};

}  // namespace pexctl
