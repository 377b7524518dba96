#include "mqlink/handler.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "mqlink/client.h"
#include "support/log_capture.h"

namespace mqlink {
namespace {

static_assert(std::is_abstract_v<Handler>, "every concrete handler provides onMessage");
static_assert(std::has_virtual_destructor_v<Handler>);
static_assert(!std::is_copy_constructible_v<Handler>);

class TalkingHandler : public Handler {
public:
    explicit TalkingHandler(bool* destroyed = nullptr)
        : Handler("talker", "a/+/b", 2), _destroyed(destroyed)
    {
    }
    ~TalkingHandler() override
    {
        if (_destroyed != nullptr) {
            *_destroyed = true;
        }
    }

    void onMessage(const FilterVariables&, const mosquitto_message*, Client&) override
    {
        log.info("message");
    }
    void say(const char* text) { log.error("%s", text); }

private:
    bool* _destroyed;
};

TEST(HandlerTest, KeepsItsFilterAndItsOption)
{
    const TalkingHandler handler;
    EXPECT_EQ("a/+/b", handler.topicFilter());
    EXPECT_EQ(2, handler.qos());
}

TEST(HandlerTest, GivesItsSubclassTheCategoryOfItsName)
{
    LogCapture capture;
    TalkingHandler handler;
    handler.say("said");
    EXPECT_EQ(Records{"ERROR talker: said"}, capture.records());
}

TEST(HandlerTest, IsDestroyedThroughItsBase)
{
    bool destroyed = false;
    const Handler* handler = new TalkingHandler(&destroyed);
    delete handler;
    EXPECT_TRUE(destroyed);
}

}  // namespace
}  // namespace mqlink
