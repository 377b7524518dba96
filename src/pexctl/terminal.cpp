#include "pexctl/terminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <log4cpp/AppenderSkeleton.hh>
#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <mutex>
#include <string_view>

#include "pexctl/failure.h"
#include "pexctl/text.h"

namespace pexctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds worth_mentioning(500);  // a line for less would only flicker

/// The progress line. A connection attempt runs on a thread of its own and may leave notes, so
/// both are guarded by one lock.
struct Progress {
    std::mutex lock;
    std::string shown;
    Clock::time_point since = Clock::now();
};

Progress& progress()
{
    static Progress& the_one = *new Progress;  // used up to the very end of the process
    return the_one;
}

/// To be called with the lock held.
void erase_line(Progress& line)
{
    if (!line.shown.empty()) {
        std::cerr << "\r\x1b[K";
        line.shown.clear();
    }
}

class NoteAppender : public log4cpp::AppenderSkeleton {
public:
    NoteAppender() : AppenderSkeleton("notes") {}
    void close() override {}
    bool requiresLayout() const override { return false; }
    void setLayout(log4cpp::Layout* layout) override { delete layout; }

protected:
    void _append(const log4cpp::LoggingEvent& event) override { note(event.message); }
};

}  // namespace

void note(const std::string& text)
{
    Progress& line = progress();
    const std::lock_guard<std::mutex> guard(line.lock);
    erase_line(line);
    std::cerr << "pexctl: " << text << std::endl;
}

void show_progress(const std::string& text)
{
    if (isatty(STDERR_FILENO) == 0) {
        return;
    }
    Progress& line = progress();
    const std::lock_guard<std::mutex> guard(line.lock);
    const auto elapsed = Clock::now() - line.since;
    if (elapsed < worth_mentioning) {
        return;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
    std::string wanted = text + " (" + std::to_string(seconds) + " s)";
    if (const std::size_t width = terminal_width(STDERR_FILENO); width > 1) {
        // A line that wraps could not be erased.
        const std::string_view fits = std::string_view(wanted).substr(0, width - 1);
        wanted.resize(without_cut_character(fits).size());
    }
    if (wanted != line.shown) {
        erase_line(line);
        std::cerr << wanted << std::flush;
        line.shown = wanted;
    }
}

void clear_progress()
{
    Progress& line = progress();
    const std::lock_guard<std::mutex> guard(line.lock);
    erase_line(line);
}

bool stdout_is_terminal()
{
    return isatty(STDOUT_FILENO) != 0;
}

std::size_t terminal_width(int descriptor)
{
    winsize size = {};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

void write_all(int descriptor, const std::string& bytes)
{
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = write(descriptor, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno != EINTR) {
            throw Failure(wrong_usage,
                          std::string("Cannot write the answer: ") + strerror(errno) + ".");
        }
        written += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}

void log_to_notes(const std::string& category)
{
    log4cpp::Category& log = log4cpp::Category::getInstance(category);
    log.setAppender(new NoteAppender);  // owned by the category
    log.setAdditivity(false);
}

void log_to_stderr(bool debug)
{
    auto* layout = new log4cpp::PatternLayout;
    layout->setConversionPattern("%p %c: %m%n");
    auto* appender = new log4cpp::OstreamAppender("stderr", &std::cerr);
    appender->setLayout(layout);
    log4cpp::Category& root = log4cpp::Category::getRoot();
    root.setAppender(appender);  // owned by the category
    root.setPriority(debug ? log4cpp::Priority::DEBUG : log4cpp::Priority::ERROR);
}

StdoutToStderr::StdoutToStderr()
{
    std::fflush(stdout);
    _stdout = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

StdoutToStderr::~StdoutToStderr()
{
    std::fflush(stdout);
    dup2(_stdout, STDOUT_FILENO);
    close(_stdout);
}

}  // namespace pexctl
