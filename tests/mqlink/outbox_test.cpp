#include "mqlink/outbox.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/failing_allocation.h"
#include "support/virtual_clock.h"

namespace mqlink {
namespace {

using namespace std::chrono_literals;

class OutboxTest : public testing::Test {
protected:
    /// Adds a message that the library takes with this identifier.
    void publish(int mid, const char* topic, const std::string& payload = "x", bool retain = true)
    {
        outbox.add(topic, payload, 2, retain).mid = mid;
    }

    /// Hands over all that is to be published on a new connection, and returns "topic payload".
    std::vector<std::string> publish_again(int first_mid = 100)
    {
        outbox.begin_anew();
        std::vector<std::string> published;
        while (Outbox::Publication* next = outbox.next_to_hand_over()) {
            next->mid = first_mid++;
            published.push_back(next->topic + " " + next->payload);
        }
        outbox.expect_acknowledgement();
        return published;
    }

    /// A connection that ends as soon as everything is published on it.
    std::optional<Outbox::Suspect> end_connection_early()
    {
        const auto suspect = outbox.connection_ended(false);
        publish_again();
        return suspect;
    }

    using Published = std::vector<std::string>;

    VirtualClock clock;
    Outbox outbox;
};

TEST_F(OutboxTest, KeepsEachMessageUntilItsAcknowledgement)
{
    EXPECT_TRUE(outbox.empty());
    publish(11, "a", std::string("1\0", 2));
    publish(12, "b", "");
    publish(13, "c", "3");
    EXPECT_EQ(3u, outbox.count());
    EXPECT_EQ(nullptr, outbox.next_to_hand_over());
    outbox.acknowledge(12);
    outbox.acknowledge(99);  // none of these
    EXPECT_EQ((Published{std::string("a 1\0", 4), "c 3"}), publish_again());
    outbox.acknowledge(100);
    EXPECT_FALSE(outbox.empty());
    outbox.acknowledge(101);
    EXPECT_TRUE(outbox.empty());
}

TEST_F(OutboxTest, WhatTheLibraryRefusesIsTakenBack)
{
    publish(11, "a");
    outbox.add("b", "x", 2, true);
    outbox.remove_newest();
    EXPECT_EQ(1u, outbox.count());
    EXPECT_EQ(Published{"a x"}, publish_again());
}

TEST_F(OutboxTest, WithoutMemoryForTheCopyNothingIsAdded)
{
    publish(11, "a topic that is longer than any small string", "1");
    fail_next_allocation();
    EXPECT_THROW(outbox.add("a topic that is longer than any small string", "2", 2, true),
                 std::bad_alloc);
    EXPECT_EQ(Published{"a topic that is longer than any small string 1"}, publish_again());
}

TEST_F(OutboxTest, ARetainedMessageSupersedesAnOlderOneOnItsTopic)
{
    publish(11, "out/cmd/1", "result");
    publish(12, "out/cmd/2", "other");
    publish(13, "out/cmd/1", "newer");
    EXPECT_EQ(2u, outbox.count());
    EXPECT_EQ((Published{"out/cmd/2 other", "out/cmd/1 newer"}), publish_again());
}

/// A withdrawal came before the result was through: whoever listens is still to get the result.
TEST_F(OutboxTest, AnEmptyMessageLeavesTheOneThatItRemoves)
{
    publish(11, "out/cmd/1", "result");
    publish(12, "out/cmd/1", "");
    publish(13, "out/cmd/1", "");
    EXPECT_EQ((Published{"out/cmd/1 result", "out/cmd/1 "}), publish_again());
    publish(14, "out/cmd/1", "newer");
    EXPECT_EQ(Published{"out/cmd/1 newer"}, publish_again());
}

TEST_F(OutboxTest, MessagesThatAreNotRetainedAreAllKept)
{
    publish(11, "a", "1", false);
    publish(12, "a", "2", true);
    publish(13, "a", "3", false);
    EXPECT_EQ((Published{"a 1", "a 2", "a 3"}), publish_again());
}

/// On the present connection the library still has it, and would bring the old message back.
TEST_F(OutboxTest, ASupersededMessageIsWaitedForUntilTheConnectionEnds)
{
    publish(11, "a", "1");
    publish(12, "a", "2");
    outbox.acknowledge(12);
    EXPECT_FALSE(outbox.empty());
    EXPECT_EQ(0u, outbox.count());
    EXPECT_EQ(Published(), publish_again());
    EXPECT_TRUE(outbox.empty());
}

TEST_F(OutboxTest, ItTellsHowLongTheOldestMessageWaits)
{
    clock.advance(1h);
    publish(11, "a");
    clock.advance(20s);
    publish(12, "b");
    clock.advance(10s);
    EXPECT_EQ(30s, outbox.waited());
    outbox.acknowledge(12);  // a later one: the oldest still waits
    EXPECT_EQ(30s, outbox.waited());
    publish(13, "c");
    outbox.acknowledge(11);
    EXPECT_EQ(0s, outbox.waited());
    clock.advance(10s);
    outbox.was_deaf(9s);  // a job took so long
    EXPECT_EQ(10s, outbox.waited());
    EXPECT_EQ(1s, outbox.listened());
    outbox.acknowledge(13);
    publish(14, "d");
    clock.advance(2s);
    EXPECT_EQ(2s, outbox.listened());
}

TEST_F(OutboxTest, ItRemembersThatThereWasAnAcknowledgement)
{
    publish(11, "a");
    outbox.acknowledge(99);
    EXPECT_FALSE(outbox.has_acknowledgements());
    outbox.acknowledge(11);
    EXPECT_TRUE(outbox.has_acknowledgements());
}

using OutboxSuspectTest = OutboxTest;

TEST_F(OutboxSuspectTest, TheOldestMessageIsSuspectedIfConnectionsEndSoonAfterIt)
{
    publish(11, "a", "large");
    publish(12, "b", "x");
    for (int connection = 1; connection <= 3; ++connection) {
        clock.advance(4999ms);
        const auto suspect = end_connection_early();
        ASSERT_TRUE(suspect);
        EXPECT_EQ("a", suspect->topic);
        EXPECT_EQ(5u, suspect->size);
        EXPECT_EQ(2, suspect->qos);
        EXPECT_TRUE(suspect->retain);
        EXPECT_EQ(connection, suspect->connections);
    }
}

TEST_F(OutboxSuspectTest, TheTimeOfAJobDoesNotMakeAnEndALateOne)
{
    publish(11, "a");
    clock.advance(1h);
    outbox.was_deaf(1h);
    EXPECT_TRUE(outbox.connection_ended(false));
}

TEST_F(OutboxSuspectTest, NoMessageIsSuspectedOfALaterEndOrOnAConnectionWithoutIt)
{
    EXPECT_FALSE(outbox.connection_ended(false));  // there is none
    publish(11, "a");
    clock.advance(5s);
    EXPECT_FALSE(outbox.connection_ended(true));
    outbox.begin_anew();  // and the next connection is not established at all
    EXPECT_FALSE(outbox.connection_ended(false));
}

TEST_F(OutboxSuspectTest, ANewerMessageOfTheSameTopicAndSizeInheritsTheSuspicion)
{
    publish(11, "a", "large");
    EXPECT_EQ(1, end_connection_early()->connections);
    publish(12, "a", "LARGE");  // the job has run again
    EXPECT_EQ(2, end_connection_early()->connections);
    publish(13, "a", "short one");
    outbox.begin_anew();
    publish_again();
    EXPECT_EQ(1, end_connection_early()->connections);
}

TEST_F(OutboxSuspectTest, AnAcknowledgementEndsTheSuspicion)
{
    publish(11, "a");
    end_connection_early();
    end_connection_early();
    outbox.acknowledge(100);
    publish(12, "a");
    EXPECT_EQ(1, end_connection_early()->connections);
}

TEST_F(OutboxSuspectTest, AConnectionThatLivedEndsAllSuspicions)
{
    publish(11, "a");
    end_connection_early();
    clock.advance(5s);
    EXPECT_FALSE(outbox.connection_ended(false));  // it was slow, but has not lived
    publish_again();
    EXPECT_EQ(2, end_connection_early()->connections);
    clock.advance(5s);
    EXPECT_FALSE(outbox.connection_ended(true));
    publish_again();
    EXPECT_EQ(1, end_connection_early()->connections);
}

TEST_F(OutboxSuspectTest, ADroppedMessageIsRememberedByTopicAndSize)
{
    publish(11, "a", "large");
    publish(12, "b", "x");
    outbox.drop(*end_connection_early());
    EXPECT_TRUE(outbox.was_dropped("a", 5));
    EXPECT_FALSE(outbox.was_dropped("a", 0));
    EXPECT_FALSE(outbox.was_dropped("b", 1));
    EXPECT_EQ(Published{"b x"}, publish_again());
    outbox.acknowledge(100);
    outbox.connection_ended(false);
    EXPECT_TRUE(outbox.was_dropped("a", 5));
    outbox.connection_ended(true);
    EXPECT_FALSE(outbox.was_dropped("a", 5));
}

}  // namespace
}  // namespace mqlink
