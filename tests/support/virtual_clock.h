#pragma once

#include <chrono>
#include <functional>
#include <vector>

/// While it lives, the steady clock stands still and only moves with advance(), nanosleep() and
/// ppoll(), which return at once. A binary that uses this links with --wrap for the three; without
/// such an object they are the real ones.
class VirtualClock {
public:
    using Duration = std::chrono::nanoseconds;

    VirtualClock();
    ~VirtualClock();
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    void advance(Duration time);
    /// Since this object was built.
    Duration elapsed() const;
    /// What each nanosleep() was asked to wait, since the last call of this function.
    std::vector<Duration> take_sleeps();

    /// The next nanosleep() or ppoll() waits `time` and is then cut short by a signal.
    void interrupt_next_wait_after(Duration time);

private:
    friend struct VirtualClockAccess;

    bool interrupted();

    std::chrono::steady_clock::time_point _start;
    std::chrono::steady_clock::time_point _now;
    std::vector<Duration> _sleeps;
    bool _interrupt = false;
    Duration _interrupt_after{0};
};
