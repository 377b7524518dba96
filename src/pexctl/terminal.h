#pragma once

#include <cstddef>
#include <string>

namespace pexctl {

/// Writes "pexctl: TEXT" to standard error, above a progress line that may stand there.
void note(const std::string& text);

/// On a terminal, keeps the last line of standard error at "TEXT (12 s)", with the time since the
/// process began to wait, once that is half a second; elsewhere does nothing. May be called as
/// often as one likes.
void show_progress(const std::string& text);
void clear_progress();

bool stdout_is_terminal();

/// The columns of the terminal on a descriptor; 0 if there is none.
std::size_t terminal_width(int descriptor);

/// Writes everything to a descriptor. Throws Failure.
void write_all(int descriptor, const std::string& bytes);

/// Sends every log record of this process to note(), as its text alone, for a client's own log
/// category; or, for the daemon's, to standard error as "PRIORITY CATEGORY: TEXT".
void log_to_notes(const std::string& category);
void log_to_stderr(bool debug);

/// While it lives, standard output is standard error, for this process and its children.
class StdoutToStderr {
public:
    StdoutToStderr();
    ~StdoutToStderr();
    StdoutToStderr(const StdoutToStderr&) = delete;
    StdoutToStderr& operator=(const StdoutToStderr&) = delete;

private:
    int _stdout;  ///< descriptor of the real one
};

}  // namespace pexctl
