#pragma once

#include <chrono>

namespace mqlink {

/// The pause between connection attempts: exponential backoff from 10 ms to 1 s.
class Pace {
public:
    /// Waits until the next attempt is due; the first one is due at once. Returns false if a signal
    /// ended the wait: the attempt is still due then, after the rest of the pause.
    bool wait_for_turn();

    /// Starts over: the next attempt is due at once.
    void reset() { _pause = std::chrono::milliseconds(0); }

    /// The next attempt is due no earlier than `pause` after the last one, also beyond 1 s.
    void slow_down(std::chrono::milliseconds pause);

private:
    std::chrono::steady_clock::time_point _last_attempt;
    std::chrono::milliseconds _pause{0};  ///< least time from _last_attempt to the next one
};

}  // namespace mqlink
