#include "mqlink/pace.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include "support/virtual_clock.h"

namespace mqlink {
namespace {

using namespace std::chrono_literals;
using Sleeps = std::vector<VirtualClock::Duration>;

class PaceTest : public testing::Test {
protected:
    VirtualClock clock;
    Pace pace;
};

TEST_F(PaceTest, TheTimeBetweenAttemptsGrowsFrom10MsTo1S)
{
    EXPECT_TRUE(pace.wait_for_turn());
    EXPECT_EQ(Sleeps(), clock.take_sleeps());  // nothing before the first
    const std::chrono::milliseconds waits[] = {10ms,  20ms,  40ms,   80ms,   160ms,
                                               320ms, 640ms, 1000ms, 1000ms, 1000ms};
    for (const auto wait : waits) {
        SCOPED_TRACE(wait.count());
        EXPECT_TRUE(pace.wait_for_turn());
        EXPECT_EQ(Sleeps{wait}, clock.take_sleeps());
    }
}

TEST_F(PaceTest, TheWaitCountsFromTheLastAttempt)
{
    pace.wait_for_turn();
    clock.advance(6ms);
    pace.wait_for_turn();
    EXPECT_EQ(Sleeps{4ms}, clock.take_sleeps());
    clock.advance(20ms);  // the second wait is over already
    pace.wait_for_turn();
    EXPECT_EQ(Sleeps(), clock.take_sleeps());
    pace.wait_for_turn();
    EXPECT_EQ(Sleeps{40ms}, clock.take_sleeps());
}

TEST_F(PaceTest, AResetMakesTheNextAttemptDueAtOnce)
{
    for (int i = 0; i < 5; ++i) {
        pace.wait_for_turn();
    }
    clock.take_sleeps();
    pace.reset();
    pace.wait_for_turn();
    pace.wait_for_turn();
    pace.wait_for_turn();
    EXPECT_EQ((Sleeps{10ms, 20ms}), clock.take_sleeps());
}

TEST_F(PaceTest, ASlowerPaceHoldsForOneAttemptAndMayExceed1S)
{
    pace.wait_for_turn();
    pace.slow_down(8s);
    pace.slow_down(10ms);  // shorter, so it changes nothing
    pace.wait_for_turn();
    pace.wait_for_turn();
    EXPECT_EQ((Sleeps{8s, 1s}), clock.take_sleeps());
}

TEST_F(PaceTest, ASignalEndsTheWaitAndTheRestOfItStillHasToPass)
{
    for (int i = 0; i < 9; ++i) {
        pace.wait_for_turn();
    }
    clock.take_sleeps();
    clock.interrupt_next_wait_after(300ms);
    EXPECT_FALSE(pace.wait_for_turn());
    clock.take_sleeps();
    EXPECT_TRUE(pace.wait_for_turn());
    EXPECT_EQ(Sleeps{700ms}, clock.take_sleeps());
}

/// Sends SIGALRM to this process every 20 ms while it lives.
class RepeatedSignal {
public:
    RepeatedSignal()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &_before);
        set_interval(20000);
    }
    ~RepeatedSignal()
    {
        set_interval(0);
        sigaction(SIGALRM, &_before, nullptr);
    }
    RepeatedSignal(const RepeatedSignal&) = delete;
    RepeatedSignal& operator=(const RepeatedSignal&) = delete;

private:
    static void set_interval(int microseconds)
    {
        itimerval timer = {};
        timer.it_interval.tv_usec = microseconds;
        timer.it_value.tv_usec = microseconds;
        setitimer(ITIMER_REAL, &timer, nullptr);
    }

    struct sigaction _before;
};

TEST(PaceRealTimeTest, ThePaceHoldsAndSignalsEndTheWait)
{
    Pace pace;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 7; ++i) {
        EXPECT_TRUE(pace.wait_for_turn());
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 10ms + 20ms + 40ms + 80ms + 160ms + 320ms);
    {
        // The next wait is of 640 ms; the signals come sooner, again and again. On a machine that
        // stalls for so long the wait is over before it begins, and the next one has to tell.
        const RepeatedSignal signal;
        int waits = 0;
        while (pace.wait_for_turn() && waits < 12) {
            ++waits;
        }
        EXPECT_LT(waits, 12);
    }
    EXPECT_TRUE(pace.wait_for_turn());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 630ms + 640ms);
}

}  // namespace
}  // namespace mqlink
