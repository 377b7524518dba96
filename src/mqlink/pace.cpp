#include "mqlink/pace.h"

#include <time.h>

#include <algorithm>

namespace mqlink {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds shortest_pause(10);
constexpr milliseconds longest_pause(1000);

}  // namespace

bool Pace::wait_for_turn()
{
    const auto wait =
        std::chrono::duration_cast<nanoseconds>(_last_attempt + _pause - Clock::now());
    if (_pause.count() > 0 && wait.count() > 0) {
        timespec time;
        time.tv_sec = static_cast<time_t>(wait.count() / 1000000000);
        time.tv_nsec = static_cast<long>(wait.count() % 1000000000);
        if (nanosleep(&time, nullptr) != 0) {
            return false;
        }
    }
    _last_attempt = Clock::now();
    _pause = std::clamp(2 * _pause, shortest_pause, longest_pause);
    return true;
}

void Pace::slow_down(milliseconds pause)
{
    _pause = std::max(_pause, pause);
}

}  // namespace mqlink
