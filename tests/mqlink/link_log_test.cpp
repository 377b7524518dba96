#include "mqlink/link_log.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/virtual_clock.h"

namespace mqlink {
namespace {

using namespace std::chrono_literals;

class LinkLogTest : public testing::Test {
protected:
    /// The log since the last call of this function.
    Records take_log()
    {
        const Records records = capture.records();
        capture.clear();
        return records;
    }

    /// As the owner does: looks at the clock again and again.
    void wait(std::chrono::seconds time)
    {
        for (auto second = 0s; second < time; ++second) {
            clock.advance(1s);
            link_log.refresh();
        }
    }

    LogCapture capture;
    VirtualClock clock;
    LinkLog link_log{log4cpp::Category::getInstance("broker_log")};
};

TEST_F(LinkLogTest, EachChangeIsLoggedOnceWhileItIsUnstable)
{
    for (int i = 0; i < 50; ++i) {
        link_log.up("connected");
        clock.advance(100ms);
        link_log.down("lost");
        link_log.down("refused");
    }
    EXPECT_EQ((Records{"INFO broker_log: connected", "ERROR broker_log: lost",
                       "ERROR broker_log: refused"}),
              take_log());
}

TEST_F(LinkLogTest, AfterAConnectionThatLivedEachLineMayBeRepeated)
{
    link_log.up("connected");
    link_log.note("subscription refused");
    wait(5s);
    take_log();
    link_log.note("subscription refused");
    link_log.down("lost");
    link_log.up("connected");
    EXPECT_EQ((Records{"ERROR broker_log: subscription refused", "ERROR broker_log: lost",
                       "INFO broker_log: connected"}),
              take_log());
}

TEST_F(LinkLogTest, AConnectionThatLivesAfterAFightIsLoggedAgain)
{
    for (int i = 0; i < 3; ++i) {
        link_log.up("connected");
        link_log.down("lost");
    }
    link_log.up("connected");
    take_log();
    clock.advance(4999ms);
    EXPECT_FALSE(link_log.refresh());
    EXPECT_EQ(Records(), take_log());
    clock.advance(1ms);
    EXPECT_TRUE(link_log.refresh());
    EXPECT_EQ(Records{"INFO broker_log: connected"}, take_log());
    wait(60s);
    EXPECT_EQ(Records(), take_log());
}

/// Two quick restarts of the broker, then a long absence: the last record said "connected" while
/// the broker was away for a day.
TEST_F(LinkLogTest, AnOutageThatLastsIsLoggedAlthoughItsLinesWereLoggedBefore)
{
    link_log.up("connected");
    wait(5s);
    for (int restart = 1; restart <= 2; ++restart) {
        link_log.down("lost");
        link_log.down("refused");
        link_log.up("connected");
    }
    link_log.down("lost");
    link_log.down("refused");
    EXPECT_EQ("INFO broker_log: connected", take_log().back());
    wait(4s);
    EXPECT_EQ(Records(), take_log());
    link_log.down("refused");  // each further attempt fails, too
    wait(1s);
    EXPECT_EQ(Records{"ERROR broker_log: refused"}, take_log());
    for (int i = 0; i < 60; ++i) {
        wait(1s);
        link_log.down("refused");
    }
    EXPECT_EQ(Records(), take_log());
    link_log.up("connected");  // its line was logged before, so it has to prove itself
    EXPECT_EQ(Records(), take_log());
    wait(5s);
    EXPECT_EQ(Records{"INFO broker_log: connected"}, take_log());
}

TEST_F(LinkLogTest, RefreshTellsOnceThatAConnectionHasLived)
{
    EXPECT_FALSE(link_log.refresh());
    link_log.up("connected");
    EXPECT_FALSE(link_log.refresh());
    EXPECT_FALSE(link_log.is_settled());
    clock.advance(5s);
    EXPECT_TRUE(link_log.refresh());
    EXPECT_TRUE(link_log.is_settled());
    EXPECT_FALSE(link_log.refresh());
    EXPECT_TRUE(link_log.is_settled());
    link_log.down("lost");
    EXPECT_FALSE(link_log.is_settled());
    clock.advance(5s);
    EXPECT_FALSE(link_log.refresh());  // an outage is no life
    EXPECT_FALSE(link_log.is_settled());
}

TEST_F(LinkLogTest, NothingIsLoggedBeforeTheFirstChange)
{
    wait(10s);
    EXPECT_EQ(Records(), take_log());
}

}  // namespace
}  // namespace mqlink
