#include "mqlink/inbox.h"

#include <gtest/gtest.h>

#include "support/failing_allocation.h"

namespace mqlink {
namespace {

mosquitto_message message(std::string& topic, std::string& payload)
{
    mosquitto_message made = {};
    made.mid = 5;
    made.topic = topic.data();
    made.payload = payload.empty() ? nullptr : payload.data();
    made.payloadlen = static_cast<int>(payload.size());
    made.qos = 1;
    made.retain = true;
    return made;
}

void add(Inbox& inbox, std::string topic, std::string payload = "x")
{
    inbox.add(message(topic, payload));
}

TEST(InboxTest, MessagesComeOutInTheOrderOfTheirArrival)
{
    Inbox inbox;
    EXPECT_TRUE(inbox.empty());
    add(inbox, "in/cmd/1");
    add(inbox, "in/cmd/2");
    EXPECT_FALSE(inbox.empty());
    EXPECT_EQ("in/cmd/1", inbox.take().topic());
    add(inbox, "in/cmd/1", "");
    EXPECT_EQ("in/cmd/2", inbox.take().topic());
    EXPECT_EQ("in/cmd/1", inbox.take().topic());
    EXPECT_TRUE(inbox.empty());
}

TEST(InboxTest, AMessageIsCopiedWhole)
{
    std::string topic = "in/cmd/42";
    std::string payload("a\0b", 3);
    Inbox inbox;
    inbox.add(message(topic, payload));
    topic.assign(9, '?');
    payload.assign(3, '?');
    const Inbox::Message taken = inbox.take();
    const mosquitto_message record = taken.record();
    EXPECT_EQ(5, record.mid);
    EXPECT_STREQ("in/cmd/42", record.topic);
    EXPECT_EQ(std::string("a\0b", 3), std::string(static_cast<char*>(record.payload), 3));
    EXPECT_EQ(3, record.payloadlen);
    EXPECT_EQ(1, record.qos);
    EXPECT_TRUE(record.retain);
}

TEST(InboxTest, AnEmptyPayloadStaysANullPointer)
{
    Inbox inbox;
    add(inbox, "in/cmd/42", "");
    const Inbox::Message taken = inbox.take();
    EXPECT_EQ(nullptr, taken.record().payload);
    EXPECT_EQ(0, taken.record().payloadlen);
}

TEST(InboxTest, ItIsFullFrom1MiBOnAndCountsEachMessagesOwnMemory)
{
    Inbox inbox;
    add(inbox, "t", std::string(1048576 - sizeof(Inbox::Message) - 2, 'x'));
    EXPECT_FALSE(inbox.is_full());
    inbox.take();
    add(inbox, "t", std::string(1048576 - sizeof(Inbox::Message) - 1, 'x'));
    EXPECT_TRUE(inbox.is_full());
    add(inbox, "t");  // it is for its owner to stop
    inbox.take();
    EXPECT_FALSE(inbox.is_full());
    inbox.take();

    int small = 0;
    while (!inbox.is_full()) {
        add(inbox, "in/cmd/1", "");
        ++small;
    }
    EXPECT_EQ(1 + 1048575 / static_cast<int>(sizeof(Inbox::Message) + 8), small);
}

TEST(InboxTest, WithoutMemoryNothingIsAdded)
{
    Inbox inbox;
    std::string topic(100, 't');
    std::string payload = "x";
    const mosquitto_message large = message(topic, payload);
    fail_next_allocation();
    EXPECT_THROW(inbox.add(large), std::bad_alloc);
    EXPECT_TRUE(inbox.empty());
    inbox.add(large);
    EXPECT_EQ(topic, inbox.take().topic());
}

}  // namespace
}  // namespace mqlink
