#include "support/virtual_clock.h"

#include <poll.h>
#include <time.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

using std::chrono::steady_clock;

namespace {

VirtualClock* active = nullptr;

}  // namespace

/// What the wrapped functions do to the active clock.
struct VirtualClockAccess {
    static steady_clock::time_point now() { return active->_now; }

    static bool interrupted() { return active->interrupted(); }

    static void sleep(VirtualClock::Duration time)
    {
        active->_sleeps.push_back(time);
        if (!active->_interrupt) {
            active->advance(time);
        }
    }
};

extern "C" {

steady_clock::time_point __real__ZNSt6chrono3_V212steady_clock3nowEv();
steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv();
int __real_nanosleep(const timespec* time, timespec* left);
int __wrap_nanosleep(const timespec* time, timespec* left);
int __real_ppoll(pollfd* descriptors, nfds_t count, const timespec* limit, const sigset_t* mask);
int __wrap_ppoll(pollfd* descriptors, nfds_t count, const timespec* limit, const sigset_t* mask);

steady_clock::time_point __wrap__ZNSt6chrono3_V212steady_clock3nowEv()
{
    return active ? VirtualClockAccess::now() : __real__ZNSt6chrono3_V212steady_clock3nowEv();
}

int __wrap_nanosleep(const timespec* time, timespec* left)
{
    if (!active) {
        return __real_nanosleep(time, left);
    }
    VirtualClockAccess::sleep(std::chrono::seconds(time->tv_sec) +
                              std::chrono::nanoseconds(time->tv_nsec));
    if (VirtualClockAccess::interrupted()) {
        errno = EINTR;
        return -1;
    }
    return 0;
}

int __wrap_ppoll(pollfd* descriptors, nfds_t count, const timespec* limit, const sigset_t* mask)
{
    if (!active) {
        return __real_ppoll(descriptors, count, limit, mask);
    }
    if (limit == nullptr) {
        throw std::logic_error("ppoll would wait for ever");
    }
    if (VirtualClockAccess::interrupted()) {
        errno = EINTR;
        return -1;
    }
    const timespec at_once = {};
    const int ready = __real_ppoll(descriptors, count, &at_once, mask);
    if (ready == 0) {
        active->advance(std::chrono::seconds(limit->tv_sec) +
                        std::chrono::nanoseconds(limit->tv_nsec));
    }
    return ready;
}

}  // extern "C"

VirtualClock::VirtualClock() : _start(__real__ZNSt6chrono3_V212steady_clock3nowEv()), _now(_start)
{
    active = this;
}

VirtualClock::~VirtualClock()
{
    active = nullptr;
}

void VirtualClock::advance(Duration time)
{
    _now += time;
}

VirtualClock::Duration VirtualClock::elapsed() const
{
    return _now - _start;
}

std::vector<VirtualClock::Duration> VirtualClock::take_sleeps()
{
    return std::exchange(_sleeps, {});
}

void VirtualClock::interrupt_next_wait_after(Duration time)
{
    _interrupt = true;
    _interrupt_after = time;
}

bool VirtualClock::interrupted()
{
    if (!_interrupt) {
        return false;
    }
    _interrupt = false;
    advance(_interrupt_after);
    return true;
}
