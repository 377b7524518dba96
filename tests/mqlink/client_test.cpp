#include "mqlink/client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "support/failing_allocation.h"
#include "support/fake_mosquittopp.h"
#include "support/log_capture.h"
#include "support/loopback_connection.h"
#include "support/virtual_clock.h"

namespace mqlink {
namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

static_assert(std::is_base_of_v<mosqpp::mosquittopp, Client>);
static_assert(!std::is_copy_constructible_v<Client> && !std::is_copy_assignable_v<Client>);
static_assert(std::is_aggregate_v<ClientSessionOptions>);

/// Keeps what it is called with, and then runs `action`.
class RecordingHandler : public Handler {
public:
    explicit RecordingHandler(const std::string& filter, int qos = 1)
        : Handler("recorder", filter, qos)
    {
    }

    void onMessage(const FilterVariables& vars, const mosquitto_message* msg,
                   Client& client) override
    {
        received.push_back(std::string(msg->topic) + " " + values(vars));
        last_message = msg;
        last_client = &client;
        if (action) {
            action(client);
        }
    }

    std::vector<std::string> received;  ///< "in/cmd/42 [42]", the values in brackets
    const mosquitto_message* last_message = nullptr;
    const Client* last_client = nullptr;
    std::function<void(Client&)> action;

private:
    static std::string values(const FilterVariables& vars)
    {
        std::string text;
        try {
            for (int i = 0;; ++i) {
                text += "[" + vars.get(i).value + "]";
            }
        } catch (const std::out_of_range&) {
            return text;
        }
    }
};

/// A message as the library hands it over.
class Message {
public:
    Message(std::string topic, std::string payload)
        : _topic(std::move(topic)), _payload(std::move(payload))
    {
        _message.mid = 5;
        _message.topic = _topic.data();
        _message.payload = _payload.data();
        _message.payloadlen = static_cast<int>(_payload.size());
        _message.qos = 1;
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    const mosquitto_message* get() const { return &_message; }

private:
    std::string _topic;
    std::string _payload;
    mosquitto_message _message = {};
};

class ClientTest : public testing::Test {
protected:
    ClientTest() { fake_mosquitto = FakeMosquitto(); }
    ~ClientTest() override
    {
        client.reset();
        fake_mosquitto = FakeMosquitto();
    }

    void build(const ClientSessionOptions& options = {"an_id", true, true})
    {
        client.emplace(options, "broker_log");
        fake_mosquitto.calls.clear();
    }

    void build_with(Handler& handler, const ClientSessionOptions& options = {"an_id", true, true})
    {
        build(options);
        client->registerHandler(&handler);
    }

    /// The library's side: its callbacks are called on the base.
    mosqpp::mosquittopp& library() { return *client; }

    int start() { return client->start("localhost", 1883); }

    void come_up()
    {
        ASSERT_EQ(MOSQ_ERR_SUCCESS, start());
        library().on_connect(0);
    }

    void receive(const std::string& topic, const std::string& payload = "payload")
    {
        const Message message(topic, payload);
        library().on_message(message.get());
    }

    /// Destroys the client and returns what that asked of the library.
    Calls calls_of_destruction()
    {
        fake_mosquitto.calls.clear();
        client.reset();
        return fake_mosquitto.calls;
    }

    int publish(int* mid = nullptr) { return client->publish(mid, "out/cmd/7", 3, "abc", 2, true); }

    /// The log since the last call of this function.
    Records take_log()
    {
        const Records records = capture.records();
        capture.clear();
        return records;
    }

    LogCapture capture;
    VirtualClock clock;
    std::optional<Client> client;
};

TEST_F(ClientTest, PassesItsIdentifierAndSessionFlagOn)
{
    client.emplace(ClientSessionOptions{"an_id", true, true}, "broker_log");
    EXPECT_EQ(Calls{"mosquittopp an_id clean"}, fake_mosquitto.calls);
    build();
    client.emplace(ClientSessionOptions{"another", false, true}, "broker_log");
    EXPECT_EQ("mosquittopp another kept", fake_mosquitto.calls.back());
}

TEST_F(ClientTest, IsTheMosquittoppObjectItself)
{
    build();
    EXPECT_EQ(static_cast<void*>(&*client), static_cast<void*>(fake_mosquitto.client));
}

TEST_F(ClientTest, DoesNothingBeforeItIsStarted)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
    EXPECT_EQ(Records(), capture.records());
}

using ClientStartTest = ClientTest;

TEST_F(ClientStartTest, StartConnectsToTheBrokerWithoutMqttPings)
{
    build();
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->start("broker.example", 8883));
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->start("/run/broker.sock", 0));
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->start("", -1));  // nothing is checked here
    EXPECT_EQ((Calls{"connect broker.example 8883 keepalive 0",
                     "connect /run/broker.sock 0 keepalive 0", "connect  -1 keepalive 0"}),
              fake_mosquitto.calls);
}

TEST_F(ClientStartTest, StartReturnsTheStatusOfTheAttempt)
{
    build();
    for (const int status : {MOSQ_ERR_SUCCESS, MOSQ_ERR_INVAL, MOSQ_ERR_ERRNO, MOSQ_ERR_EAI,
                             MOSQ_ERR_CONN_REFUSED, MOSQ_ERR_NO_CONN}) {
        fake_mosquitto.connect = [status] { return status; };
        EXPECT_EQ(status, start());
    }
    EXPECT_EQ(6, fake_mosquitto.count("connect"));
}

TEST_F(ClientStartTest, EveryConnectionGetsItsSocketOptions)
{
    build();
    for (int attempt = 1; attempt <= 3; ++attempt) {
        SCOPED_TRACE(attempt);
        const LoopbackConnection connection;
        const int socket = connection.socket();
        fake_mosquitto.connect = [socket] {
            fake_mosquitto.socket = socket;
            return MOSQ_ERR_SUCCESS;
        };
        start();
        EXPECT_EQ(FD_CLOEXEC, fcntl(socket, F_GETFD));
        EXPECT_EQ(1, connection.option(IPPROTO_TCP, TCP_NODELAY));
        EXPECT_EQ(1, connection.option(SOL_SOCKET, SO_KEEPALIVE));
        library().on_connect(0);
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
    fake_mosquitto.socket = -1;
}

/// libmosquitto sets it back when its handle is made anew.
TEST_F(ClientStartTest, EveryConnectionGetsItsNumberOfMessagesInFlight)
{
    const struct {
        ClientSessionOptions options;
        unsigned max_inflight;
    } cases[] = {
        {{"an_id", true, true}, 1},
        {{"an_id", true, true, 20}, 20},
        {{"an_id", true, true, 7}, 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.max_inflight);
        build(c.options);
        come_up();
        EXPECT_EQ(c.max_inflight, fake_mosquitto.max_inflight);
        publish();
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
        come_up();
        EXPECT_EQ(1, fake_mosquitto.count("reinitialise"));
        EXPECT_EQ(c.max_inflight, fake_mosquitto.max_inflight);
    }
}

/// A write to a connection that the broker has closed would end the process.
TEST_F(ClientStartTest, SigpipeIsIgnoredFromTheBeginning)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    ASSERT_EQ(0, sigaction(SIGPIPE, &action, nullptr));
    build();
    ASSERT_EQ(0, sigaction(SIGPIPE, nullptr, &action));
    EXPECT_EQ(SIG_IGN, action.sa_handler);
}

/// A broker that delays small packets would keep the next request until the ACK comes by itself.
TEST_F(ClientStartTest, ThePacketThatEndsAPublicationIsAcknowledgedAtOnce)
{
    build();
    const LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    come_up();
    publish();
    const int off = 0;  // as the kernel does after a few answers to packets
    ASSERT_EQ(0, setsockopt(connection.socket(), IPPROTO_TCP, TCP_QUICKACK, &off, sizeof off));
    ASSERT_EQ(0, connection.option(IPPROTO_TCP, TCP_QUICKACK));
    library().on_publish(1);
    EXPECT_EQ(1, connection.option(IPPROTO_TCP, TCP_QUICKACK));
}

using ClientPaceTest = ClientTest;

TEST_F(ClientPaceTest, FailedAttemptsHaveTheSamePace)
{
    build();
    fake_mosquitto.connect = [] { return MOSQ_ERR_ERRNO; };
    for (int i = 0; i < 4; ++i) {
        start();
    }
    EXPECT_EQ((std::vector<VirtualClock::Duration>{10ms, 20ms, 40ms}), clock.take_sleeps());
}

TEST_F(ClientPaceTest, ThePaceStartsOverAfterAConnectionThatLivedFor5S)
{
    build();
    start();
    start();
    come_up();
    clock.take_sleeps();
    clock.advance(5s);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    start();  // at once
    EXPECT_EQ(0u, clock.take_sleeps().size());
    start();
    start();
    EXPECT_EQ((std::vector<VirtualClock::Duration>{10ms, 20ms}), clock.take_sleeps());
}

TEST_F(ClientPaceTest, TheLoopNoticesThatAConnectionHasLived)
{
    build();
    start();
    start();
    come_up();
    clock.take_sleeps();
    clock.advance(5s);
    client->loop(1000, 1);
    start();
    EXPECT_EQ(0u, clock.take_sleeps().size());
}

TEST_F(ClientPaceTest, AShorterConnectionDoesNotChangeThePace)
{
    build();
    for (int i = 0; i < 9; ++i) {
        start();
    }
    clock.take_sleeps();
    for (int i = 0; i < 3; ++i) {
        start();
        library().on_connect(0);
        clock.advance(400ms);
        client->loop(1000, 1);
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
    EXPECT_EQ((std::vector<VirtualClock::Duration>{1000ms, 600ms, 600ms}), clock.take_sleeps());

    start();
    library().on_connect(0);
    clock.advance(4999ms);
    client->loop(1000, 1);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    start();
    start();
    EXPECT_EQ((std::vector<VirtualClock::Duration>{600ms, 1000ms}), clock.take_sleeps());
}

TEST_F(ClientPaceTest, TheLifeOfAConnectionCountsFromItsAnswer)
{
    build();
    start();
    start();
    start();
    clock.take_sleeps();
    clock.advance(20s);  // a slow broker
    library().on_connect(0);
    clock.advance(1s);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    start();
    start();
    EXPECT_EQ(std::vector<VirtualClock::Duration>{80ms}, clock.take_sleeps());
}

TEST_F(ClientPaceTest, ASignalEndsTheWaitAndTheAttempt)
{
    build();
    for (int i = 0; i < 9; ++i) {
        start();
    }
    clock.take_sleeps();
    fake_mosquitto.calls.clear();
    clock.interrupt_next_wait_after(300ms);
    EXPECT_EQ(MOSQ_ERR_NO_CONN, start());
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
    clock.take_sleeps();
    // What was left of the wait still has to pass.
    EXPECT_EQ(MOSQ_ERR_SUCCESS, start());
    EXPECT_EQ(std::vector<VirtualClock::Duration>{700ms}, clock.take_sleeps());
    EXPECT_EQ(1, fake_mosquitto.count("connect"));
}

TEST(ClientRealTimeTest, TheEndWaitsForAcknowledgements)
{
    fake_mosquitto = FakeMosquitto();
    const LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    std::optional<Client> client;
    client.emplace(ClientSessionOptions{"an_id", true, true}, "broker_log");
    client->publish(nullptr, "out/cmd/7", 3, "abc", 2, true);
    const auto begin = std::chrono::steady_clock::now();
    client.reset();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1900ms);
    EXPECT_EQ(1, fake_mosquitto.count("disconnect"));
}

using ClientSubscriptionTest = ClientTest;

TEST_F(ClientSubscriptionTest, SubscribesEveryHandlerOnEveryConnection)
{
    RecordingHandler first("in/cmd/+", 1);
    RecordingHandler second("other/#", 2);
    RecordingHandler third("plain", 0);
    build_with(first);
    client->registerHandler(&second);
    client->registerHandler(&third);
    for (int connection = 1; connection <= 3; ++connection) {
        SCOPED_TRACE(connection);
        start();
        fake_mosquitto.calls.clear();
        library().on_connect(0);
        EXPECT_EQ(
            (Calls{"subscribe in/cmd/+ qos 1", "subscribe other/# qos 2", "subscribe plain qos 0"}),
            fake_mosquitto.calls);
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
}

TEST_F(ClientSubscriptionTest, WithoutResubscribeSubscribesOnTheFirstConnectionAlone)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler, {"an_id", false, false});
    start();
    library().on_connect(3);  // refused, so this is none
    EXPECT_EQ(0, fake_mosquitto.count("subscribe"));
    for (int connection = 1; connection <= 3; ++connection) {
        start();
        library().on_connect(0);
        EXPECT_EQ(1, fake_mosquitto.count("subscribe"));
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
}

TEST_F(ClientSubscriptionTest, ARefusedConnectionIsNotSubscribedOn)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    start();
    for (const int refusal : {1, 2, 3, 4, 5, 6, 255}) {
        library().on_connect(refusal);
    }
    EXPECT_EQ(0, fake_mosquitto.count("subscribe"));
}

TEST_F(ClientSubscriptionTest, StartAloneSubscribesNothing)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    start();
    EXPECT_EQ(0, fake_mosquitto.count("subscribe"));
}

TEST_F(ClientSubscriptionTest, ASubscriptionThatCannotBeSentIsLogged)
{
    RecordingHandler first("in/cmd/+");
    RecordingHandler second("bad/#/filter");
    build_with(first);
    client->registerHandler(&second);
    fake_mosquitto.subscribe = [] {
        return fake_mosquitto.count("subscribe") == 2 ? MOSQ_ERR_INVAL : MOSQ_ERR_SUCCESS;
    };
    come_up();
    EXPECT_EQ((Records{"INFO broker_log: Connected to broker localhost:1883",
                       std::string("ERROR broker_log: Couldn't subscribe to bad/#/filter. ") +
                           mosqpp::strerror(MOSQ_ERR_INVAL)}),
              capture.records());
    EXPECT_EQ(2, fake_mosquitto.count("subscribe"));
}

TEST_F(ClientSubscriptionTest, AFailedSubscriptionDoesNotKeepTheNextFromBeingSent)
{
    RecordingHandler first("in/cmd/+");
    RecordingHandler second("other/#");
    build_with(first);
    client->registerHandler(&second);
    fake_mosquitto.subscribe = [] { return MOSQ_ERR_NOMEM; };
    come_up();
    EXPECT_EQ(2, fake_mosquitto.count("subscribe"));
    EXPECT_EQ((Records{"INFO broker_log: Connected to broker localhost:1883",
                       "ERROR broker_log: Couldn't subscribe to in/cmd/+. Out of memory.",
                       "ERROR broker_log: Couldn't subscribe to other/#. Out of memory."}),
              capture.records());
}

TEST_F(ClientSubscriptionTest, ARefusedSubscriptionIsLogged)
{
    RecordingHandler first("in/cmd/+");
    RecordingHandler second("other/#");
    build_with(first);
    client->registerHandler(&second);
    fake_mosquitto.next_mid = 41;
    come_up();
    take_log();
    const int refused[] = {0x80};
    const int granted[] = {1};
    library().on_subscribe(41, 1, granted);
    library().on_subscribe(99, 1, refused);  // none of ours
    library().on_subscribe(42, 0, refused);  // no answer in it
    EXPECT_EQ(Records(), capture.records());
    library().on_subscribe(42, 1, refused);
    EXPECT_EQ(
        Records{"ERROR broker_log: Broker localhost:1883 refused the subscription to other/#"},
        take_log());
    library().on_subscribe(41, 1, refused);
    EXPECT_EQ(
        Records{"ERROR broker_log: Broker localhost:1883 refused the subscription to in/cmd/+"},
        take_log());
}

TEST_F(ClientSubscriptionTest, ARefusalIsMatchedToTheLastSubscription)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    fake_mosquitto.next_mid = 41;
    come_up();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    come_up();
    take_log();
    const int refused[] = {0x80};
    library().on_subscribe(41, 1, refused);
    EXPECT_EQ(Records(), capture.records());
    library().on_subscribe(42, 1, refused);
    EXPECT_EQ(1u, capture.records().size());
}

using ClientMessageTest = ClientTest;

TEST_F(ClientMessageTest, AMessageReachesEveryHandlerWhoseFilterMatches)
{
    RecordingHandler command("in/cmd/+");
    RecordingHandler all("#");
    RecordingHandler two("+/cmd/#");
    RecordingHandler plain("in/cmd/42");
    build_with(command);
    client->registerHandler(&all);
    client->registerHandler(&two);
    client->registerHandler(&plain);
    come_up();
    for (const char* topic : {"in/cmd/42", "in/cmd/", "in/cmd/1/2", "in/cmd", "$SYS/load", "x"}) {
        receive(topic);
    }
    EXPECT_EQ((Calls{"in/cmd/42 [42]", "in/cmd/ []"}), command.received);
    EXPECT_EQ((Calls{"in/cmd/42 [in/cmd/42]", "in/cmd/ [in/cmd/]", "in/cmd/1/2 [in/cmd/1/2]",
                     "in/cmd [in/cmd]", "x [x]"}),
              all.received);
    EXPECT_EQ(
        (Calls{"in/cmd/42 [in][42]", "in/cmd/ [in][]", "in/cmd/1/2 [in][1/2]", "in/cmd [in][]"}),
        two.received);
    EXPECT_EQ(Calls{"in/cmd/42 "}, plain.received);
}

TEST_F(ClientMessageTest, HandlersAreCalledInTheOrderOfTheirRegistration)
{
    RecordingHandler first("in/cmd/+");
    RecordingHandler second("in/cmd/+");
    std::string order;
    first.action = [&](Client&) { order += "first "; };
    second.action = [&](Client&) { order += "second "; };
    build_with(second);
    client->registerHandler(&first);
    come_up();
    receive("in/cmd/1");
    EXPECT_EQ("second first ", order);
}

TEST_F(ClientMessageTest, AHandlerGetsTheMessageAndTheClientUnchanged)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    come_up();
    const Message message("in/cmd/7", std::string("a\0b", 3));
    library().on_message(message.get());
    EXPECT_EQ(message.get(), handler.last_message);
    EXPECT_EQ(&*client, handler.last_client);
    const Message empty("in/cmd/7", "");
    library().on_message(empty.get());
    EXPECT_EQ(2u, handler.received.size());
}

TEST_F(ClientMessageTest, AHandlerRunsInsideTheLoopAndMayPublish)
{
    RecordingHandler handler("in/cmd/+");
    handler.action = [](Client& given) {
        EXPECT_EQ(0, given.publish(nullptr, "out/cmd/7", 3, "abc", 2, true));
    };
    build_with(handler);
    come_up();
    fake_mosquitto.calls.clear();
    fake_mosquitto.loop = [this] {
        receive("in/cmd/7");
        fake_mosquitto.calls.push_back("loop returns");
        return MOSQ_ERR_SUCCESS;
    };
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->loop(1000, 1));
    EXPECT_EQ((Calls{"loop 1000 1", "publish out/cmd/7", "loop returns"}), fake_mosquitto.calls);
}

TEST_F(ClientMessageTest, WhatAHandlerThrowsIsLoggedAndGoesNoFurther)
{
    const struct {
        const char* fact;
        std::function<void()> raise;
        const char* record;
    } cases[] = {
        {"standard", [] { throw std::runtime_error("no luck"); },
         "ERROR broker_log: Exception in message handler: no luck"},
        {"with a format in it", [] { throw std::logic_error("100%s"); },
         "ERROR broker_log: Exception in message handler: 100%s"},
        {"not standard", [] { throw 42; },
         "ERROR broker_log: Exception in message handler: not a standard exception"},
    };
    RecordingHandler thrower("in/cmd/+");
    RecordingHandler next("in/cmd/+");
    build_with(thrower);
    client->registerHandler(&next);
    come_up();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        take_log();
        next.received.clear();
        thrower.action = [&](Client&) { c.raise(); };
        EXPECT_NO_THROW(receive("in/cmd/1"));
        EXPECT_EQ(Records{c.record}, take_log());
        EXPECT_EQ(Calls{"in/cmd/1 [1]"}, next.received);  // the next handler
        thrower.action = nullptr;
        thrower.received.clear();
        receive("in/cmd/2");
        EXPECT_EQ(Calls{"in/cmd/2 [2]"}, thrower.received);  // and the next message
    }
}

TEST_F(ClientMessageTest, NothingThrownLeavesACallback)
{
    const int refused[] = {0x80};
    const struct {
        const char* fact;
        std::function<void()> before;
        std::function<void()> call;
        const char* record;
    } cases[] = {
        {"on_connect", [] {}, [this] { library().on_connect(0); },
         "ERROR broker_log: Exception in on_connect: std::bad_alloc"},
        {"on_connect, refused", [] {}, [this] { library().on_connect(5); },
         "ERROR broker_log: Exception in on_connect: std::bad_alloc"},
        {"on_disconnect", [] {}, [this] { library().on_disconnect(MOSQ_ERR_CONN_LOST); },
         "ERROR broker_log: Exception in on_disconnect: std::bad_alloc"},
        {"on_subscribe", [this] { library().on_connect(0); },
         [&] { library().on_subscribe(fake_mosquitto.next_mid - 1, 1, refused); },
         "ERROR broker_log: Exception in on_subscribe: std::bad_alloc"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        RecordingHandler handler("in/cmd/+");
        build_with(handler);
        start();
        c.before();
        take_log();
        fail_next_allocation();
        EXPECT_NO_THROW(c.call());
        EXPECT_EQ(Records{c.record}, take_log());
    }
}

TEST_F(ClientMessageTest, NothingOfAnotherKindLeavesACallback)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    start();
    fake_mosquitto.subscribe = []() -> int { throw 42; };
    EXPECT_NO_THROW(library().on_connect(0));
    EXPECT_EQ((Records{"INFO broker_log: Connected to broker localhost:1883",
                       "ERROR broker_log: Exception in on_connect: not a standard exception"}),
              take_log());
}

TEST_F(ClientMessageTest, WithoutMemoryForAMessageTheNextOneIsHandled)
{
    RecordingHandler handler("in/cmd/a job id that is longer than any small string/+");
    build_with(handler);
    come_up();
    take_log();
    const Message message("in/cmd/a job id that is longer than any small string/1", "payload");
    fail_next_allocation();
    EXPECT_NO_THROW(library().on_message(message.get()));
    EXPECT_EQ(Records{"ERROR broker_log: Exception in message handler: std::bad_alloc"},
              take_log());
    EXPECT_EQ(0u, handler.received.size());
    library().on_message(message.get());
    EXPECT_EQ(1u, handler.received.size());
}

/// A broker whose connection the client shuts down, which its loop then reports as lost.
class ClientMemoryTest : public ClientTest {
protected:
    ClientMemoryTest() { fake_mosquitto.socket = connection.socket(); }
    ~ClientMemoryTest() override { fake_mosquitto.socket = -1; }  // nothing is waited for

    bool was_given_up() const { return !connection.is_open(); }

    LoopbackConnection connection;
};

TEST_F(ClientMemoryTest, AnAttemptWithoutMemoryFailsAndTheNextIsMade)
{
    build();
    const std::string host = "a.host.whose.name.is.no.small.string.example";
    fail_next_allocation();
    EXPECT_EQ(MOSQ_ERR_NOMEM, client->start(host.c_str(), 1883));
    EXPECT_EQ(0, fake_mosquitto.count("connect"));
    EXPECT_EQ(Records{"ERROR broker_log: Exception in connection attempt: std::bad_alloc"},
              take_log());
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->start(host.c_str(), 1883));
    EXPECT_EQ(1, fake_mosquitto.count("connect"));
}

TEST_F(ClientMemoryTest, ALoopWithoutMemoryGoesOn)
{
    build();
    start();
    clock.advance(31s);  // the broker has not answered, which is to be logged
    fail_next_allocation();
    EXPECT_EQ(MOSQ_ERR_NOMEM, client->loop(1000, 1));
    EXPECT_EQ(Records{"ERROR broker_log: Exception in loop: std::bad_alloc"}, take_log());
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->loop(1000, 1));
}

TEST_F(ClientMemoryTest, AConnectionThatIsNotSubscribedForWantOfMemoryIsGivenUp)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    fake_mosquitto.subscribe = [] { return MOSQ_ERR_INVAL; };
    come_up();
    EXPECT_FALSE(was_given_up());
    fake_mosquitto.subscribe = [] { return MOSQ_ERR_NOMEM; };
    come_up();
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientMemoryTest, AConnectionWhoseAnswerCannotBeHandledIsGivenUp)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    start();
    fail_next_allocation();
    library().on_connect(0);
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientMemoryTest, AResultThatFindsNoMemoryIsPublishedOnTheNextConnection)
{
    build();
    come_up();
    fake_mosquitto.publish = [] { return MOSQ_ERR_NOMEM; };
    EXPECT_EQ(MOSQ_ERR_NOMEM, publish());
    EXPECT_TRUE(was_given_up());
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.publish = FakeMosquitto::success;
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ(1, fake_mosquitto.count("reinitialise"));
    EXPECT_EQ(1, fake_mosquitto.count("publish out/cmd/7"));
}

/// The library may have taken it, which the next connection makes undone, and a withdrawal that is
/// published meanwhile must not come before the result.
TEST_F(ClientMemoryTest, AConnectionOnWhichAResultCannotBeRepeatedIsGivenUpAndTheOrderIsKept)
{
    build();
    come_up();
    client->publish(nullptr, "out/cmd/1", 1, "a", 2, true);
    client->publish(nullptr, "out/cmd/2", 1, "b", 2, true);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.publish = [] { return MOSQ_ERR_NOMEM; };
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_TRUE(was_given_up());
    EXPECT_EQ(1, fake_mosquitto.count("publish"));
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.publish = FakeMosquitto::success;
    client->publish(nullptr, "out/cmd/3", 0, "", 2, true);
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ((Calls{"reinitialise an_id clean", "connect localhost 1883 keepalive 0",
                     "publish out/cmd/1", "publish out/cmd/2", "publish out/cmd/3"}),
              fake_mosquitto.calls);
}

TEST_F(ClientMemoryTest, ARequestThatCannotBeHandledEndsTheConnectionSoThatItComesAgain)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    come_up();
    EXPECT_FALSE(was_given_up());
    fail_next_allocation();
    receive("in/cmd/7");
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientMemoryTest, AConnectionThatIsLostWithoutMemoryIsMadeAgain)
{
    build();
    come_up();
    take_log();
    fail_next_allocation();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    EXPECT_EQ(Records{"ERROR broker_log: Exception in on_disconnect: std::bad_alloc"}, take_log());
    fake_mosquitto.socket = -1;
    fake_mosquitto.loop = [] { return MOSQ_ERR_INVAL; };
    EXPECT_EQ(MOSQ_ERR_NO_CONN, client->loop(0, 1));  // that of a client without a connection
    EXPECT_EQ(MOSQ_ERR_SUCCESS, start());
}

using ClientPublishTest = ClientTest;

TEST_F(ClientPublishTest, PublishPassesEverythingOn)
{
    build();
    int mid = 0;
    fake_mosquitto.next_mid = 77;
    EXPECT_EQ(0, client->publish(&mid, "a/b", 3, "x\0y", 1, false));
    EXPECT_EQ(77, mid);
    EXPECT_EQ(0, client->publish(nullptr, "c", 0, nullptr, 2, true));
    EXPECT_EQ(0, client->publish(nullptr, "d", 0, "", 0, true));
    ASSERT_EQ(3u, fake_mosquitto.publications.size());
    const auto& [first, second, third] =
        std::tie(fake_mosquitto.publications[0], fake_mosquitto.publications[1],
                 fake_mosquitto.publications[2]);
    EXPECT_EQ("a/b", first.topic);
    EXPECT_EQ(std::string("x\0y", 3), first.payload);
    EXPECT_EQ(1, first.qos);
    EXPECT_FALSE(first.retain);
    EXPECT_EQ("", second.payload);
    EXPECT_EQ(2, second.qos);
    EXPECT_TRUE(second.retain);
    EXPECT_EQ("d", third.topic);
    EXPECT_EQ(0, third.qos);
}

TEST_F(ClientPublishTest, PublishReturnsTheStatus)
{
    build();
    for (const int status : {MOSQ_ERR_SUCCESS, MOSQ_ERR_NO_CONN, MOSQ_ERR_PAYLOAD_SIZE,
                             MOSQ_ERR_MALFORMED_UTF8, MOSQ_ERR_NOMEM}) {
        fake_mosquitto.publish = [status] { return status; };
        EXPECT_EQ(status, publish());
    }
    EXPECT_EQ(Records(), capture.records());  // the caller logs it
}

TEST_F(ClientPublishTest, WhatExceedsMqttsPacketLimitIsRefused)
{
    // A topic's length takes 2 bytes of the 268,435,455, the packet identifier 2 more.
    const struct {
        std::string topic;
        int size;
        bool fits;
    } cases[] = {
        {"out/cmd/7", 268435442, true},
        {"out/cmd/7", 268435443, false},
        {"out/cmd/7", 268435451, false},
        {"out/cmd/7", 268435455, false},
        {"out/cmd/7", 2147483647, false},
        {std::string(65535, 'x'), 268369916, true},
        {std::string(65535, 'x'), 268369917, false},
        {"out/cmd/7", -1, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.topic.size()) + " and " + std::to_string(c.size));
        EXPECT_EQ(c.fits, Client::fitsPacket(c.topic.c_str(), c.size));
        if (!c.fits) {
            build();
            EXPECT_EQ(MOSQ_ERR_PAYLOAD_SIZE,
                      client->publish(nullptr, c.topic.c_str(), c.size, nullptr, 2, true));
            EXPECT_EQ((Calls{"disconnect", "~mosquittopp"}), calls_of_destruction());
            EXPECT_EQ(Records(), take_log());  // nor is it waited for at the end
        }
    }
}

TEST_F(ClientPublishTest, TheLargestMessageThatFitsIsPublished)
{
    build();
    const std::string largest(268435442, 'x');
    EXPECT_EQ(MOSQ_ERR_SUCCESS,
              client->publish(nullptr, "out/cmd/7", 268435442, largest.data(), 2, true));
    EXPECT_EQ(largest, fake_mosquitto.publications.at(0).payload);
}

using ClientRedeliveryTest = ClientTest;

TEST_F(ClientRedeliveryTest, WhatWasNotAcknowledgedIsPublishedAnewOnTheNextConnection)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    come_up();
    client->publish(nullptr, "out/cmd/1", 3, "a\0b", 2, true);
    client->publish(nullptr, "out/cmd/2", 0, "", 1, false);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    fake_mosquitto.publications.clear();
    come_up();
    EXPECT_EQ((Calls{"reinitialise an_id clean", "connect localhost 1883 keepalive 0",
                     "subscribe in/cmd/+ qos 1", "publish out/cmd/1", "publish out/cmd/2"}),
              fake_mosquitto.calls);
    ASSERT_EQ(2u, fake_mosquitto.publications.size());
    const FakeMosquitto::Publication& first = fake_mosquitto.publications[0];
    EXPECT_EQ(std::string("a\0b", 3), first.payload);
    EXPECT_EQ(2, first.qos);
    EXPECT_TRUE(first.retain);
    const FakeMosquitto::Publication& second = fake_mosquitto.publications[1];
    EXPECT_EQ("", second.payload);
    EXPECT_EQ(1, second.qos);
    EXPECT_FALSE(second.retain);
}

TEST_F(ClientRedeliveryTest, WhatWasAcknowledgedIsNotPublishedAgain)
{
    build();
    come_up();
    fake_mosquitto.next_mid = 11;
    client->publish(nullptr, "out/cmd/1", 1, "a", 2, true);
    client->publish(nullptr, "out/cmd/2", 1, "b", 2, true);
    client->publish(nullptr, "out/cmd/3", 1, "c", 2, true);
    library().on_publish(12);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ((Calls{"publish out/cmd/1", "publish out/cmd/3"}),
              Calls(fake_mosquitto.calls.begin() + 2, fake_mosquitto.calls.end()));
}

TEST_F(ClientRedeliveryTest, WithNothingUnfinishedTheLibraryGoesOnAsItIs)
{
    build();
    come_up();
    publish();
    library().on_publish(1);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ(Calls{"connect localhost 1883 keepalive 0"}, fake_mosquitto.calls);
}

TEST_F(ClientRedeliveryTest, ItIsRepeatedOnEachConnectionUntilTheAcknowledgement)
{
    build();
    come_up();
    publish();
    for (int connection = 1; connection <= 3; ++connection) {
        SCOPED_TRACE(connection);
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
        fake_mosquitto.calls.clear();
        fake_mosquitto.next_mid = 20 + connection;
        come_up();
        EXPECT_EQ(1, fake_mosquitto.count("publish"));
    }
    library().on_publish(23);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ(0, fake_mosquitto.count("publish"));
}

TEST_F(ClientRedeliveryTest, ItWaitsUntilTheBrokerHasAcceptedTheConnection)
{
    build();
    come_up();
    publish();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    fake_mosquitto.connect = [] { return MOSQ_ERR_CONN_REFUSED; };
    start();
    fake_mosquitto.connect = FakeMosquitto::success;
    start();
    library().on_connect(5);
    start();
    EXPECT_EQ(0, fake_mosquitto.count("publish"));
    library().on_connect(0);
    EXPECT_EQ(1, fake_mosquitto.count("publish"));
}

TEST_F(ClientRedeliveryTest, WhatIsPublishedWithoutAConnectionIsPublishedOnTheNextOne)
{
    build();
    come_up();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.publish = [] { return MOSQ_ERR_NO_CONN; };
    EXPECT_EQ(MOSQ_ERR_NO_CONN, publish());
    fake_mosquitto.publish = FakeMosquitto::success;
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ(1, fake_mosquitto.count("reinitialise"));
    EXPECT_EQ(1, fake_mosquitto.count("publish out/cmd/7"));
}

TEST_F(ClientRedeliveryTest, WhatTheLibraryRefusedIsNotKept)
{
    build();
    come_up();
    fake_mosquitto.publish = [] { return MOSQ_ERR_INVAL; };
    publish();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ(0, fake_mosquitto.count("publish"));
}

TEST_F(ClientRedeliveryTest, NothingIsKeptOfQos0)
{
    build();
    come_up();
    client->publish(nullptr, "a", 1, "x", 0, false);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ(Calls{"connect localhost 1883 keepalive 0"}, fake_mosquitto.calls);
}

TEST_F(ClientRedeliveryTest, WithoutMemoryForTheLibraryTheAttemptFailsAndNothingIsLost)
{
    build();
    come_up();
    publish();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    take_log();
    fake_mosquitto.calls.clear();
    fake_mosquitto.reinitialise = [] { return MOSQ_ERR_NOMEM; };
    EXPECT_EQ(MOSQ_ERR_NOMEM, start());
    EXPECT_EQ(0, fake_mosquitto.count("connect"));
    EXPECT_EQ(Records{"ERROR broker_log: Couldn't reach broker localhost:1883. Out of memory."},
              take_log());
    fake_mosquitto.reinitialise = FakeMosquitto::success;
    come_up();
    EXPECT_EQ(1, fake_mosquitto.count("publish"));
}

TEST_F(ClientRedeliveryTest, AMessageThatCannotBePublishedAgainNowIsOnTheNextConnection)
{
    build();
    come_up();
    publish();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    take_log();
    fake_mosquitto.publish = [] { return MOSQ_ERR_NOMEM; };
    come_up();
    EXPECT_EQ(Records{"ERROR broker_log: Couldn't publish on out/cmd/7 again. Out of memory."},
              take_log());
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.publish = FakeMosquitto::success;
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ(1, fake_mosquitto.count("publish out/cmd/7"));
}

TEST_F(ClientRedeliveryTest, ADerivedClassIsToldThatTheLibraryBeginsAnew)
{
    class Listening : public Client {
    public:
        using Client::Client;

    private:
        void on_renewed() override { fake_mosquitto.calls.emplace_back("on_renewed"); }
    };
    Listening listening({"an_id", false, true}, "broker_log");
    listening.start("localhost", 1883);
    fake_mosquitto.client->on_connect(0);
    listening.publish(nullptr, "a", 1, "x", 1, false);
    fake_mosquitto.client->on_disconnect(MOSQ_ERR_CONN_LOST);
    fake_mosquitto.calls.clear();
    listening.start("localhost", 1883);
    EXPECT_EQ(
        (Calls{"reinitialise an_id kept", "on_renewed", "connect localhost 1883 keepalive 0"}),
        fake_mosquitto.calls);
}

TEST_F(ClientRedeliveryTest, WithoutMemoryForTheCopyNothingIsPublished)
{
    build();
    come_up();
    fake_mosquitto.calls.clear();
    fail_next_allocation();
    EXPECT_THROW(client->publish(nullptr, "a topic beyond a short string's room", 1, "x", 2, true),
                 std::bad_alloc);
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
    EXPECT_EQ((Calls{"disconnect", "~mosquittopp"}), calls_of_destruction());
    EXPECT_EQ(0u, take_log().size() - 1);  // "Connected"; nothing is waited for
}

/// A broker that acknowledges nothing any more.
class ClientAcknowledgementTest : public ClientMemoryTest {
protected:
    ClientAcknowledgementTest()
    {
        build();
        come_up();
        fake_mosquitto.next_mid = 11;
    }

    void wait(VirtualClock::Duration time)
    {
        clock.advance(time);
        client->loop(0, 1);
    }
};

TEST_F(ClientAcknowledgementTest, ABrokerThatAcknowledgesNothingForAMinuteIsLeft)
{
    publish();
    wait(1min);
    EXPECT_FALSE(was_given_up());
    take_log();
    wait(1ms);
    EXPECT_TRUE(was_given_up());
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 does not acknowledge what was "
                      "published"},
              take_log());
}

TEST_F(ClientAcknowledgementTest, AcknowledgementsOfLaterMessagesDoNotHideThatOneIsLost)
{
    publish();  // 11
    publish();  // 12
    publish();  // 13
    clock.advance(30s);
    library().on_publish(12);  // a later one
    wait(31s);
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientAcknowledgementTest, TheWaitCountsFromTheLastAcknowledgement)
{
    publish();  // 11
    publish();  // 12
    clock.advance(30s);
    library().on_publish(11);
    wait(1min);
    EXPECT_FALSE(was_given_up());
    wait(1ms);
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientAcknowledgementTest, ASlowConnectionIsNotLeftWhileItStillSends)
{
    publish();
    fake_mosquitto.wants_write = true;
    wait(1h);
    fake_mosquitto.wants_write = false;
    EXPECT_FALSE(was_given_up());
    EXPECT_EQ(0, client->loop(0, 1));
    EXPECT_TRUE(was_given_up());  // now everything was sent
}

TEST_F(ClientAcknowledgementTest, WithNothingToAcknowledgeTheConnectionStays)
{
    wait(1h);
    publish();  // 11
    library().on_publish(11);
    wait(1h);
    EXPECT_FALSE(was_given_up());
}

TEST_F(ClientAcknowledgementTest, ANewConnectionHasItsTime)
{
    publish();
    clock.advance(30s);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    wait(1h);
    come_up();
    wait(1min);
    EXPECT_FALSE(was_given_up());
}

/// On a slow link the acknowledgement may stand behind a large request, on each connection.
TEST_F(ClientAcknowledgementTest, ThePatienceDoublesUntilAnAcknowledgementComes)
{
    publish();
    for (const auto patience : {1min, 2min, 4min, 8min}) {
        SCOPED_TRACE(patience.count());
        const LoopbackConnection next;
        fake_mosquitto.socket = next.socket();
        come_up();
        wait(patience);
        EXPECT_TRUE(next.is_open());
        wait(1ms);
        EXPECT_FALSE(next.is_open());
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
    fake_mosquitto.socket = connection.socket();
    come_up();
    library().on_publish(fake_mosquitto.next_mid - 1);
    publish();
    wait(1min + 1ms);
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientAcknowledgementTest, AfterALongJobTheBrokerStillHas10S)
{
    RecordingHandler handler("in/cmd/+");
    handler.action = [this](Client&) {
        publish();
        clock.advance(1h);
    };
    client->registerHandler(&handler);
    connection.send_from_peer("x");
    fake_mosquitto.loop_read = [this] {
        char byte;
        recv(connection.socket(), &byte, 1, 0);
        receive("in/cmd/1");
        return MOSQ_ERR_SUCCESS;
    };
    client->loop(0, 1);
    EXPECT_EQ(1u, handler.received.size());
    wait(10s);
    EXPECT_FALSE(was_given_up());
    wait(1ms);
    EXPECT_TRUE(was_given_up());
}

/// A dock that is never idle would otherwise not notice, and no result would leave.
TEST_F(ClientAcknowledgementTest, JobsOneAfterTheOtherDoNotHideThatAnAcknowledgementIsLost)
{
    RecordingHandler handler("in/cmd/+");
    handler.action = [this](Client&) { clock.advance(5s); };
    client->registerHandler(&handler);
    fake_mosquitto.loop_read = [this] {
        char byte;
        recv(connection.socket(), &byte, 1, 0);
        clock.advance(1s);
        receive("in/cmd/1");
        return MOSQ_ERR_SUCCESS;
    };
    publish();
    for (int job = 1; job <= 12; ++job) {
        SCOPED_TRACE(job);
        EXPECT_FALSE(was_given_up());
        connection.send_from_peer("x");
        client->loop(0, 1);
    }
    EXPECT_TRUE(was_given_up());  // after 66 s, 11 of them without a job
}

TEST_F(ClientAcknowledgementTest, WithoutMemoryForTheRecordTheConnectionIsLeftAllTheSame)
{
    publish();
    clock.advance(2min);
    fail_next_allocation();
    client->loop(0, 1);
    EXPECT_TRUE(was_given_up());
}

/// A connection on which each packet of the broker is an action of the test: one byte, which makes
/// the socket readable, and what the library does when it reads it.
class ClientInboxTest : public ClientTest {
protected:
    ClientInboxTest() : handler("in/cmd/+")
    {
        handler.action = [this](Client& given) {
            note("job");
            clock.advance(job_time);
            if (publishes) {
                given.publish(nullptr, "out/cmd/7", 3, "abc", 2, false);
            }
        };
        build_with(handler);
        fake_mosquitto.socket = connection.socket();
        come_up();
        fake_mosquitto.next_mid = 11;
        fake_mosquitto.loop_read = [this] { return read_packet(); };
        fake_mosquitto.calls.clear();
        take_log();
    }
    ~ClientInboxTest() override { fake_mosquitto.socket = -1; }  // nothing is waited for

    void send(std::function<int()> packet)
    {
        packets.push_back(std::move(packet));
        connection.send_from_peer("x");
    }
    void send_request(const std::string& topic, const std::string& payload = "payload")
    {
        send([=] {
            note("received " + topic);
            receive(topic, payload);
            return MOSQ_ERR_SUCCESS;
        });
    }
    void send_acknowledgement(int mid)
    {
        send([=] {
            note("acknowledged");
            library().on_publish(mid);
            return MOSQ_ERR_SUCCESS;
        });
    }
    void send_end()
    {
        send([this] {
            library().on_disconnect(MOSQ_ERR_CONN_LOST);
            return MOSQ_ERR_CONN_LOST;
        });
    }

    int read_packet()
    {
        char byte;
        EXPECT_EQ(1, recv(connection.socket(), &byte, 1, 0));
        const auto packet = std::move(packets.front());
        packets.pop_front();
        return packet();
    }

    void note(const std::string& what) { events.push_back(what); }

    /// What has happened since the last call of this function.
    Calls take_events() { return std::exchange(events, {}); }

    int loop() { return client->loop(1000, 1); }

    LoopbackConnection connection;
    RecordingHandler handler;
    bool publishes = true;
    VirtualClock::Duration job_time{0};
    std::deque<std::function<int()>> packets;
    Calls events;
};

TEST_F(ClientInboxTest, AMessageIsHandedOutAfterTheLibraryHasReturned)
{
    send([this] {
        receive("in/cmd/1");
        note("library returns");
        return MOSQ_ERR_SUCCESS;
    });
    EXPECT_EQ(MOSQ_ERR_SUCCESS, loop());
    EXPECT_EQ((Calls{"library returns", "job"}), take_events());
    EXPECT_EQ((Calls{"loop_read 1", "loop_misc", "publish out/cmd/7"}), fake_mosquitto.calls);
}

TEST_F(ClientInboxTest, WhileAResultIsUnderWayEverythingIsTakenInBeforeOneMessageIsHandedOut)
{
    send_request("in/cmd/1");
    loop();
    take_events();
    send_request("in/cmd/2");
    send_request("in/cmd/3");
    send_acknowledgement(11);
    send_request("in/cmd/4");
    EXPECT_EQ(MOSQ_ERR_SUCCESS, loop());
    EXPECT_EQ((Calls{"received in/cmd/2", "received in/cmd/3", "acknowledged", "received in/cmd/4",
                     "job"}),
              take_events());
    EXPECT_EQ((Calls{"in/cmd/1 [1]", "in/cmd/2 [2]"}), handler.received);
    loop();
    EXPECT_EQ(Calls{"job"}, take_events());
    loop();
    loop();
    EXPECT_EQ((Calls{"in/cmd/1 [1]", "in/cmd/2 [2]", "in/cmd/3 [3]", "in/cmd/4 [4]"}),
              handler.received);
}

TEST_F(ClientInboxTest, RequestsAndWithdrawalsStayInTheirOrder)
{
    std::vector<std::string> payloads;
    handler.action = [&](Client&) {
        payloads.emplace_back(static_cast<const char*>(handler.last_message->payload) == nullptr
                                  ? "withdrawn"
                                  : "requested");
    };
    publish();  // so that everything is taken in
    for (const char* payload : {"x", "", "x", "x", ""}) {
        send_request("in/cmd/1", payload);
    }
    for (int i = 0; i < 5; ++i) {
        loop();
    }
    EXPECT_EQ((Calls{"requested", "withdrawn", "requested", "requested", "withdrawn"}), payloads);
}

TEST_F(ClientInboxTest, WhatWaitsIsHandedOutWithoutAWaitForMore)
{
    publish();
    publishes = false;
    send_request("in/cmd/1");
    send_request("in/cmd/2");
    loop();
    library().on_publish(11);
    const auto begin = clock.elapsed();
    loop();
    EXPECT_EQ(0s, clock.elapsed() - begin);
    EXPECT_EQ(2u, handler.received.size());
    loop();  // and now there is nothing
    EXPECT_EQ(1s, clock.elapsed() - begin);
}

TEST_F(ClientInboxTest, TheBrokerIsReadBeforeEachMessageThatWaits)
{
    publish();
    publishes = false;
    send_request("in/cmd/1");
    send_request("in/cmd/2");
    loop();
    library().on_publish(11);  // nothing is under way any more
    take_events();
    send_request("in/cmd/3");
    loop();
    EXPECT_EQ((Calls{"received in/cmd/3", "job"}), take_events());
}

TEST_F(ClientInboxTest, TheMessagesOfAConnectionAreDroppedWithItAndLogged)
{
    publish();
    send_request("in/cmd/1");
    send_request("in/cmd/2");
    send_request("in/cmd/3");
    loop();
    take_log();
    send_end();
    EXPECT_EQ(MOSQ_ERR_CONN_LOST, loop());
    EXPECT_EQ((Records{"ERROR broker_log: Lost the connection to broker localhost:1883. The "
                       "connection was lost.",
                       "ERROR broker_log: Lost the connection, so the message on in/cmd/2 is not "
                       "handled",
                       "ERROR broker_log: Lost the connection, so the message on in/cmd/3 is not "
                       "handled"}),
              take_log());
    come_up();
    loop();
    EXPECT_EQ(Calls{"in/cmd/1 [1]"}, handler.received);
}

/// After a TLS failure the library calls nothing.
TEST_F(ClientInboxTest, MessagesOfAConnectionThatEndsInSilenceAreDroppedByTheNextAttempt)
{
    publish();
    send_request("in/cmd/1");
    send([] { return MOSQ_ERR_TLS; });
    EXPECT_EQ(MOSQ_ERR_TLS, loop());
    take_log();
    start();
    EXPECT_EQ(Records{"ERROR broker_log: Lost the connection, so the message on in/cmd/1 is not "
                      "handled"},
              take_log());
    EXPECT_EQ(Calls(), handler.received);
}

TEST_F(ClientInboxTest, AStatusOfTheConnectionIsReturnedAndNothingIsHandedOut)
{
    for (const int status : {MOSQ_ERR_CONN_LOST, MOSQ_ERR_NO_CONN, MOSQ_ERR_ERRNO}) {
        SCOPED_TRACE(status);
        send([=] {
            receive("in/cmd/1");
            return status;
        });
        EXPECT_EQ(status, loop());
        EXPECT_EQ(Calls(), handler.received);
        start();  // drops it
        library().on_connect(0);
    }
}

/// No job starts after SIGTERM.
TEST_F(ClientInboxTest, NothingIsHandedOutAfterAWaitThatASignalHasEnded)
{
    job_time = 10s;  // so that there is a wait for the acknowledgement of its result
    publish();
    send_request("in/cmd/1");
    send_request("in/cmd/2");
    loop();
    ASSERT_EQ(1u, handler.received.size());
    clock.interrupt_next_wait_after(1ms);
    EXPECT_EQ(MOSQ_ERR_SUCCESS, loop());
    EXPECT_EQ(1u, handler.received.size());
    EXPECT_EQ(MOSQ_ERR_SUCCESS, loop());
    EXPECT_EQ(2u, handler.received.size());
}

TEST_F(ClientInboxTest, MessagesThatWaitAtTheStopAreLoggedOneByOne)
{
    publish();
    send_request("in/cmd/1");
    send_request("in/cmd/2");
    send_request("in/cmd/3");
    loop();
    take_log();
    fake_mosquitto.socket = -1;
    client.reset();
    const Records log = take_log();
    ASSERT_EQ(3u, log.size());
    EXPECT_EQ("ERROR broker_log: Stopping, so the message on in/cmd/2 is not handled", log[0]);
    EXPECT_EQ("ERROR broker_log: Stopping, so the message on in/cmd/3 is not handled", log[1]);
    EXPECT_EQ(Calls{"in/cmd/1 [1]"}, handler.received);
}

TEST_F(ClientInboxTest, AFullInboxStopsReadingUntilAMessageIsHandedOut)
{
    publish();
    publishes = false;
    send_request("in/cmd/1", std::string(600000, 'x'));
    send_request("in/cmd/2", std::string(600000, 'x'));
    send_request("in/cmd/3");
    send_request("in/cmd/4");
    loop();
    EXPECT_EQ((Calls{"received in/cmd/1", "received in/cmd/2", "job"}), take_events());
    loop();  // there is room again
    EXPECT_EQ((Calls{"received in/cmd/3", "received in/cmd/4", "job"}), take_events());
}

TEST_F(ClientInboxTest, AFullInboxNeitherWaitsNorKeepsResultsFromBeingWritten)
{
    job_time = 10s;
    publish();
    send_request("in/cmd/0");
    send_request("in/cmd/1", std::string(2000000, 'x'));
    send_request("in/cmd/2");
    loop();
    take_events();
    fake_mosquitto.wants_write = true;
    fake_mosquitto.loop_write = [this] {
        note("written");
        fake_mosquitto.wants_write = false;
        return MOSQ_ERR_SUCCESS;
    };
    const auto begin = clock.elapsed();
    loop();
    EXPECT_EQ((Calls{"written", "job"}), take_events());
    EXPECT_EQ(job_time, clock.elapsed() - begin);
}

TEST_F(ClientInboxTest, TheEndOfTheConnectionIsNoticedAlthoughTheInboxIsFull)
{
    publish();
    publishes = false;
    send_request("in/cmd/0");
    send_request("in/cmd/1", std::string(2000000, 'x'));
    loop();
    packets.push_back([this] {
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
        return MOSQ_ERR_CONN_LOST;
    });
    connection.reset_from_peer();
    fake_mosquitto.loop_read = [this] { return packets.front()(); };
    EXPECT_EQ(MOSQ_ERR_CONN_LOST, loop());
    EXPECT_EQ(1u, handler.received.size());
}

TEST_F(ClientInboxTest, TheNextMessageWaitsATwentiethOfTheJobForTheAcknowledgementOfItsResult)
{
    const struct {
        VirtualClock::Duration job;
        VirtualClock::Duration wait;
    } cases[] = {
        {2s, 100ms}, {20s, 1s},   {1h, 1s},
        {1ms, 50us}, {999us, 0s},  // shorter than the kernel can wait
        {0s, 0s},
    };
    publishes = false;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.job.count());
        publish();
        job_time = c.job;
        send_request("in/cmd/1");
        send_request("in/cmd/2");
        loop();
        const auto begin = clock.elapsed();
        loop();
        EXPECT_EQ(c.job + c.wait, clock.elapsed() - begin);
    }
}

TEST_F(ClientInboxTest, TheAcknowledgementEndsTheWait)
{
    job_time = 20s;
    send_request("in/cmd/1");
    loop();
    send_request("in/cmd/2");
    send_acknowledgement(11);
    take_events();
    const auto begin = clock.elapsed();
    loop();
    EXPECT_EQ((Calls{"received in/cmd/2", "acknowledged", "job"}), take_events());
    EXPECT_EQ(job_time, clock.elapsed() - begin);
}

TEST_F(ClientInboxTest, AMessageIsMovedOutBeforeItIsHandedOut)
{
    publish();
    send_request("in/cmd/1");
    send_request("in/cmd/2");
    handler.action = [](Client&) { throw std::runtime_error("no luck"); };
    loop();
    loop();
    EXPECT_EQ((Calls{"in/cmd/1 [1]", "in/cmd/2 [2]"}), handler.received);
}

TEST_F(ClientInboxTest, WithoutMemoryForAMessageTheConnectionIsGivenUp)
{
    send([this] {
        const Message message("in/cmd/a job id that is longer than any small string", "payload");
        fail_next_allocation();
        library().on_message(message.get());
        return MOSQ_ERR_SUCCESS;
    });
    loop();
    EXPECT_EQ(Records{"ERROR broker_log: Exception in message handler: std::bad_alloc"},
              take_log());
    EXPECT_FALSE(connection.is_open());
    EXPECT_EQ(Calls(), handler.received);
}

TEST_F(ClientInboxTest, TheBasesLoopStillDeliversInsideTheCallback)
{
    fake_mosquitto.loop = [this] {
        receive("in/cmd/1");
        note("library returns");
        return MOSQ_ERR_SUCCESS;
    };
    static_cast<mosqpp::mosquittopp&>(*client).loop(1000, 1);
    EXPECT_EQ((Calls{"job", "library returns"}), take_events());
}

/// A broker that ends each connection soon after a message.
class ClientSuspectTest : public ClientTest {
protected:
    ClientSuspectTest()
    {
        build();
        come_up();
        take_log();
    }

    void publish(const char* topic, const std::string& payload = "abc")
    {
        status = client->publish(nullptr, topic, static_cast<int>(payload.size()), payload.data(),
                                 2, true);
    }

    /// The connection ends; a new one is made, on which everything is published again.
    void end_connection()
    {
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
        fake_mosquitto.calls.clear();
        fake_mosquitto.next_mid = 11;
        come_up();
    }

    /// Until the first message is dropped.
    void end_connections()
    {
        for (int connection = 1; connection <= 5; ++connection) {
            end_connection();
        }
    }

    int status = -1;
};

TEST_F(ClientSuspectTest, AMessageAtWhichFiveConnectionsEndedIsDroppedAndTheOthersGoOn)
{
    publish("out/cmd/0");
    library().on_publish(1);
    publish("out/cmd/1", std::string(2000000, 'x'));
    publish("out/cmd/2");
    for (int connection = 1; connection <= 4; ++connection) {
        end_connection();
        EXPECT_EQ(1, fake_mosquitto.count("publish out/cmd/1"));
    }
    take_log();
    end_connection();
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 ended 5 connections in a row at the "
                      "message on out/cmd/1 (2000000 bytes). The message is dropped"},
              take_log());
    EXPECT_EQ(0, fake_mosquitto.count("publish out/cmd/1"));
    EXPECT_EQ(1, fake_mosquitto.count("publish out/cmd/2"));
}

/// It was sent on and on by the library, which still had it.
TEST_F(ClientSuspectTest, TheLibraryForgetsADroppedMessageToo)
{
    publish("out/cmd/1");
    end_connections();
    EXPECT_EQ((Calls{"reinitialise an_id clean", "connect localhost 1883 keepalive 0"}),
              fake_mosquitto.calls);
    end_connection();
    EXPECT_EQ(Calls{"connect localhost 1883 keepalive 0"}, fake_mosquitto.calls);
}

TEST_F(ClientSuspectTest, ThePauseBetweenSuchConnectionsGrowsTo8S)
{
    publish("out/cmd/1");
    clock.take_sleeps();
    end_connections();
    EXPECT_EQ((std::vector<VirtualClock::Duration>{10ms, 2s, 4s, 8s, 1s}), clock.take_sleeps());
}

/// The request is retained, so the job runs on each connection.
TEST_F(ClientSuspectTest, TheResultOfAJobThatRunsAgainIsRefusedOnceItWasDropped)
{
    publish("out/cmd/1");
    for (int connection = 1; connection <= 5; ++connection) {
        end_connection();
        publish("out/cmd/1", "ABC");
        EXPECT_EQ(connection == 5 ? MOSQ_ERR_NOT_SUPPORTED : MOSQ_ERR_SUCCESS, status);
    }
    publish("out/cmd/1", "");  // the end of transaction
    EXPECT_EQ(MOSQ_ERR_SUCCESS, status);
}

TEST_F(ClientSuspectTest, AfterAConnectionThatLivedTheMessageGetsAnotherChance)
{
    publish("out/cmd/1");
    end_connections();
    clock.advance(5s);
    end_connection();
    publish("out/cmd/1");
    EXPECT_EQ(MOSQ_ERR_SUCCESS, status);
}

TEST_F(ClientSuspectTest, ABrokerThatRefusesEverythingIsNamedOnce)
{
    for (const char* topic : {"out/cmd/1", "out/cmd/2", "out/cmd/3"}) {
        publish(topic);
    }
    std::size_t told = 0;
    for (int connection = 1; connection <= 15; ++connection) {
        end_connection();
        for (const std::string& record : take_log()) {
            told += record ==
                    "ERROR broker_log: Broker localhost:1883 ends the connection at a "
                    "retained message of QoS 2";
        }
        EXPECT_EQ(connection == 1 ? 0u : 1u, told);
    }
    EXPECT_EQ(0, fake_mosquitto.count("publish"));  // all three were dropped
}

TEST_F(ClientSuspectTest, ABrokerThatHasAcknowledgedSomethingIsNotSaidToRefuseEverything)
{
    publish("out/cmd/1");
    library().on_publish(1);
    publish("out/cmd/2");
    take_log();
    end_connections();
    EXPECT_EQ((Records{"ERROR broker_log: Lost the connection to broker localhost:1883. The "
                       "connection was lost.",
                       "ERROR broker_log: Broker localhost:1883 ended 5 connections in a row at "
                       "the message on out/cmd/2 (3 bytes). The message is dropped"}),
              take_log());
}

TEST_F(ClientSuspectTest, ConnectionsThatTheClientGivesUpDoNotCount)
{
    const LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    RecordingHandler handler("in/cmd/+");
    handler.action = [](Client&) { throw std::bad_alloc(); };
    client->registerHandler(&handler);
    publish("out/cmd/1");
    for (int i = 0; i < 10; ++i) {
        receive("in/cmd/1");
        end_connection();
    }
    EXPECT_EQ(1, fake_mosquitto.count("publish out/cmd/1"));
    fake_mosquitto.socket = -1;
}

using ClientEndTest = ClientTest;

TEST_F(ClientEndTest, WithNothingToDeliverTheEndIsADisconnect)
{
    build();
    come_up();
    const LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    take_log();
    EXPECT_EQ((Calls{"disconnect", "~mosquittopp"}), calls_of_destruction());
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ClientEndTest, AClientThatWasNeverStartedEndsTheSameWay)
{
    build();
    EXPECT_EQ((Calls{"disconnect", "~mosquittopp"}), calls_of_destruction());
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ClientEndTest, AcknowledgedMessagesNeedNoDelivery)
{
    build();
    come_up();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    publish();
    publish();
    library().on_publish(1);
    library().on_publish(2);
    connection.send_from_peer("x");  // readable, but nobody's business any more
    EXPECT_EQ((Calls{"disconnect", "~mosquittopp"}), calls_of_destruction());
}

TEST_F(ClientEndTest, TheEndDrivesTheConnectionUntilAllIsAcknowledged)
{
    build();
    come_up();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    fake_mosquitto.wants_write = true;
    publish();
    publish();
    take_log();
    fake_mosquitto.loop_write = [&] {  // the broker answers what is written
        connection.send_from_peer("acknowledged");
        fake_mosquitto.wants_write = false;
        return MOSQ_ERR_SUCCESS;
    };
    int mid = 0;
    fake_mosquitto.loop_read = [&] {
        fake_mosquitto.client->on_publish(++mid);
        return MOSQ_ERR_SUCCESS;
    };
    EXPECT_EQ((Calls{"loop_write 1", "loop_misc", "loop_read 1", "loop_misc", "loop_read 1",
                     "loop_misc", "disconnect", "~mosquittopp"}),
              calls_of_destruction());
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ClientEndTest, TheEndWaitsForRoomToWriteOnlyWhenThereIsSomething)
{
    for (const bool wants_write : {false, true}) {
        SCOPED_TRACE(wants_write);
        build();
        const LoopbackConnection connection;  // writable, and silent
        fake_mosquitto.socket = connection.socket();
        fake_mosquitto.wants_write = wants_write;
        int mid = 0;
        fake_mosquitto.loop_write = [&] {
            fake_mosquitto.client->on_publish(mid);
            return MOSQ_ERR_SUCCESS;
        };
        publish(&mid);
        const auto begin = clock.elapsed();
        client.reset();
        EXPECT_EQ(wants_write ? 0s : 2s, clock.elapsed() - begin);
    }
}

TEST_F(ClientEndTest, TheEndWaitsAtMost2SAndLogsWhatIsLeft)
{
    build();
    come_up();
    const LoopbackConnection connection;  // its peer stays silent
    fake_mosquitto.socket = connection.socket();
    for (const char* topic : {"out/cmd/1", "out/cmd/2", "out/cmd/3"}) {
        client->publish(nullptr, topic, 3, "abc", 2, true);
    }
    library().on_publish(1);
    take_log();
    const auto begin = clock.elapsed();
    EXPECT_EQ((Calls{"disconnect", "~mosquittopp"}), calls_of_destruction());
    EXPECT_EQ(2s, clock.elapsed() - begin);
    EXPECT_EQ(
        Records{"ERROR broker_log: 2 messages were not acknowledged by the broker and may be lost"},
        capture.records());
}

TEST_F(ClientEndTest, ABusyConnectionDoesNotProlongTheEnd)
{
    build();
    come_up();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    connection.send_from_peer("x");  // readable all the time
    publish();
    take_log();
    fake_mosquitto.loop_read = [this] {
        clock.advance(300ms);
        return MOSQ_ERR_SUCCESS;
    };
    const auto begin = clock.elapsed();
    calls_of_destruction();
    EXPECT_GE(clock.elapsed() - begin, 2s);
    EXPECT_EQ(7, fake_mosquitto.count("loop_read"));
    EXPECT_EQ(1, fake_mosquitto.count("disconnect"));
    EXPECT_EQ(
        Records{"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"},
        capture.records());
}

TEST_F(ClientEndTest, ASignalDoesNotEndTheDelivery)
{
    build();
    come_up();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    connection.send_from_peer("x");
    publish();
    fake_mosquitto.loop_read = [] {
        fake_mosquitto.client->on_publish(1);
        return MOSQ_ERR_SUCCESS;
    };
    clock.interrupt_next_wait_after(10ms);
    EXPECT_EQ((Calls{"loop_read 1", "loop_misc", "disconnect", "~mosquittopp"}),
              calls_of_destruction());
}

TEST_F(ClientEndTest, WithoutAConnectionNothingIsWaitedFor)
{
    build();
    client->publish(nullptr, "out/cmd/1", 3, "abc", 2, true);
    client->publish(nullptr, "out/cmd/2", 3, "abc", 2, true);
    const auto begin = clock.elapsed();
    EXPECT_EQ((Calls{"disconnect", "~mosquittopp"}), calls_of_destruction());
    EXPECT_EQ(0s, clock.elapsed() - begin);
    EXPECT_EQ(
        Records{"ERROR broker_log: 2 messages were not acknowledged by the broker and may be lost"},
        capture.records());
}

TEST_F(ClientEndTest, ALostConnectionEndsTheDelivery)
{
    build();
    come_up();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    connection.send_from_peer("x");
    publish();
    fake_mosquitto.loop_read = [] {
        fake_mosquitto.socket = -1;
        return MOSQ_ERR_CONN_LOST;
    };
    const auto begin = clock.elapsed();
    EXPECT_EQ((Calls{"loop_read 1", "disconnect", "~mosquittopp"}), calls_of_destruction());
    EXPECT_EQ(0s, clock.elapsed() - begin);
}

TEST_F(ClientEndTest, MessagesThatTheLibraryKeepsAreCountedAndRefusedOnesAreNot)
{
    const struct {
        int status;
        Records log;
    } cases[] = {
        {MOSQ_ERR_SUCCESS,
         {"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"}},
        {MOSQ_ERR_NO_CONN,  // reported, but kept and sent later
         {"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"}},
        {MOSQ_ERR_CONN_LOST,  // the same
         {"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"}},
        {MOSQ_ERR_ERRNO,  // the same: the write failed
         {"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"}},
        {MOSQ_ERR_NOMEM,  // the same
         {"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"}},
        {MOSQ_ERR_INVAL, {}},
        {MOSQ_ERR_PAYLOAD_SIZE, {}},
        {MOSQ_ERR_MALFORMED_UTF8, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        build();
        fake_mosquitto.publish = [&] { return c.status; };
        publish();
        take_log();
        client.reset();
        EXPECT_EQ(c.log, take_log());
    }
}

TEST_F(ClientEndTest, NoHandlerIsCalledDuringTheEnd)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    come_up();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    connection.send_from_peer("x");
    int mid = 0;
    publish(&mid);
    take_log();
    const Message message("in/cmd/7", "request");
    fake_mosquitto.loop_read = [&] {
        fake_mosquitto.client->on_message(message.get());
        fake_mosquitto.client->on_publish(mid);
        return MOSQ_ERR_SUCCESS;
    };
    client.reset();
    EXPECT_EQ(Calls(), handler.received);
    EXPECT_EQ(Records{"ERROR broker_log: Stopping, so the message on in/cmd/7 is not handled"},
              capture.records());
}

TEST_F(ClientEndTest, NothingIsSubscribedDuringTheEnd)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    start();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    connection.send_from_peer("x");
    publish();
    fake_mosquitto.loop_read = [] {  // the answer to start() comes this late
        fake_mosquitto.client->on_connect(0);
        fake_mosquitto.client->on_publish(1);
        return MOSQ_ERR_SUCCESS;
    };
    EXPECT_EQ((Calls{"loop_read 1", "loop_misc", "disconnect", "~mosquittopp"}),
              calls_of_destruction());
}

TEST_F(ClientEndTest, TheDisconnectAtTheEndIsNotLoggedAsALoss)
{
    build();
    come_up();
    take_log();
    fake_mosquitto.disconnect = [] {
        fake_mosquitto.client->on_disconnect(0);
        return MOSQ_ERR_SUCCESS;
    };
    client.reset();
    EXPECT_EQ(Records(), capture.records());
}

TEST_F(ClientEndTest, ADerivedClassThatListensUntilTheEndWaitsOnce)
{
    class Listening : public Client {
    public:
        using Client::Client;
        ~Listening() override { stop(); }
    };
    {
        Listening listening({"an_id", true, true}, "broker_log");
        listening.publish(nullptr, "out/cmd/7", 3, "abc", 2, true);
    }
    EXPECT_EQ(
        Records{"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"},
        capture.records());
}

TEST_F(ClientEndTest, NothingThrownLeavesTheDestructor)
{
    const struct {
        const char* fact;
        std::function<void()> raise;
        const char* record;
    } cases[] = {
        {"standard", [] { throw std::runtime_error("no luck"); },
         "ERROR broker_log: Exception in delivery at the end: no luck"},
        {"not standard", [] { throw 42; },
         "ERROR broker_log: Exception in delivery at the end: not a standard exception"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        build();
        LoopbackConnection connection;
        fake_mosquitto.socket = connection.socket();
        connection.send_from_peer("x");
        publish();
        take_log();
        fake_mosquitto.loop_read = [&] {
            c.raise();
            return MOSQ_ERR_SUCCESS;
        };
        EXPECT_EQ((Calls{"loop_read 1", "disconnect", "~mosquittopp"}), calls_of_destruction());
        EXPECT_EQ(Records{c.record}, take_log());
    }
}

using ClientLogTest = ClientTest;

TEST_F(ClientLogTest, AConnectionIsLoggedOnceItIsConfirmed)
{
    build();
    start();
    EXPECT_EQ(Records(), take_log());
    library().on_connect(0);
    EXPECT_EQ(Records{"INFO broker_log: Connected to broker localhost:1883"}, take_log());
}

TEST_F(ClientLogTest, AUnixSocketIsNamedByItsPathAlone)
{
    build();
    client->start("/run/broker.sock", 0);
    library().on_connect(0);
    EXPECT_EQ(Records{"INFO broker_log: Connected to broker /run/broker.sock"}, take_log());
}

TEST_F(ClientLogTest, ABrokerThatCannotBeReachedIsLoggedWithTheReason)
{
    build();
    fake_mosquitto.connect = [] {
        errno = ECONNREFUSED;
        return MOSQ_ERR_ERRNO;
    };
    start();
    EXPECT_EQ(Records{"ERROR broker_log: Couldn't reach broker localhost:1883. Connection refused"},
              take_log());
    fake_mosquitto.connect = [] {
        errno = 0;  // which says nothing here
        return MOSQ_ERR_EAI;
    };
    client->start("nowhere.invalid", 1884);
    EXPECT_EQ(
        Records{"ERROR broker_log: Couldn't reach broker nowhere.invalid:1884. Lookup error."},
        take_log());
}

TEST_F(ClientLogTest, AFailureOfTlsIsLoggedInTheWordsOfTheDerivedClass)
{
    class WithTls : public Client {
        using Client::Client;
        std::string tls_failure() const override { return "No TLS."; }
    };
    const struct {
        int status;
        int error;
        const char* text;
    } cases[] = {
        {MOSQ_ERR_TLS, 0, "No TLS."},
        {MOSQ_ERR_PROTOCOL, 0, "No TLS."},
        {MOSQ_ERR_ERRNO, EPROTO, "No TLS."},
        {MOSQ_ERR_ERRNO, ECONNREFUSED, "Connection refused"},
        {MOSQ_ERR_EAI, EPROTO, "Lookup error."},
        {MOSQ_ERR_SUCCESS, 0, "No TLS."},  // it fails later
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        WithTls with_tls({"an_id", true, true}, "broker_log");
        fake_mosquitto.connect = [&] {
            errno = c.error;
            return c.status;
        };
        if (with_tls.start("localhost", 1883) == MOSQ_ERR_SUCCESS) {
            static_cast<mosqpp::mosquittopp&>(with_tls).on_disconnect(MOSQ_ERR_PROTOCOL);
        }
        EXPECT_EQ(Records{std::string("ERROR broker_log: Couldn't reach broker localhost:1883. ") +
                          c.text},
                  take_log());
    }
}

TEST_F(ClientLogTest, ARefusalIsLoggedWithTheBrokersReason)
{
    const struct {
        int code;
        const char* record;
    } cases[] = {
        {1,
         "ERROR broker_log: Broker localhost:1883 refused the connection. Connection Refused: "
         "unacceptable protocol version."},
        {2,
         "ERROR broker_log: Broker localhost:1883 refused the connection. Connection Refused: "
         "identifier rejected."},
        {3,
         "ERROR broker_log: Broker localhost:1883 refused the connection. Connection Refused: "
         "broker unavailable."},
        {4,
         "ERROR broker_log: Broker localhost:1883 refused the connection. Connection Refused: "
         "bad user name or password."},
        {5,
         "ERROR broker_log: Broker localhost:1883 refused the connection. Connection Refused: "
         "not authorised."},
        {6,
         "ERROR broker_log: Broker localhost:1883 refused the connection. Connection Refused: "
         "unknown reason."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        build();
        start();
        library().on_connect(c.code);
        library().on_disconnect(MOSQ_ERR_CONN_REFUSED);  // as the library reports it too
        EXPECT_EQ(Records{c.record}, take_log());
        client.reset();
    }
}

TEST_F(ClientLogTest, ALostConnectionIsLoggedWithTheReason)
{
    const struct {
        int code;
        const char* record;
    } cases[] = {
        {MOSQ_ERR_CONN_LOST,
         "ERROR broker_log: Lost the connection to broker localhost:1883. The connection was "
         "lost."},
        {MOSQ_ERR_PROTOCOL,
         "ERROR broker_log: Lost the connection to broker localhost:1883. A network protocol error "
         "occurred when communicating with the broker."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        build();
        come_up();
        take_log();
        errno = 0;  // which says nothing here
        library().on_disconnect(c.code);
        EXPECT_EQ(Records{c.record}, take_log());
    }
}

TEST_F(ClientLogTest, ALossWithASystemErrorIsLoggedWithItsText)
{
    const struct {
        int error;
        const char* text;
    } cases[] = {
        {ETIMEDOUT, "Connection timed out"},
        {0, "The connection was lost."},  // where the library knows none, and not "Success"
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        build();
        come_up();
        take_log();
        errno = c.error;
        library().on_disconnect(MOSQ_ERR_ERRNO);
        EXPECT_EQ(Records{std::string("ERROR broker_log: Lost the connection to broker "
                                      "localhost:1883. ") +
                          c.text},
                  take_log());

        build();
        start();
        errno = c.error;
        library().on_disconnect(MOSQ_ERR_ERRNO);
        EXPECT_EQ(Records{std::string("ERROR broker_log: Broker localhost:1883 closed the "
                                      "connection without an answer. ") +
                          c.text},
                  take_log());

        build();
        fake_mosquitto.connect = [&] {
            errno = c.error;
            return MOSQ_ERR_ERRNO;
        };
        start();
        EXPECT_EQ(Records{std::string("ERROR broker_log: Couldn't reach broker localhost:1883. ") +
                          c.text},
                  take_log());
        fake_mosquitto.connect = FakeMosquitto::success;
    }
}

TEST_F(ClientLogTest, AConnectionClosedWithoutAnAnswerIsLogged)
{
    build();
    start();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 closed the connection without an "
                      "answer. The connection was lost."},
              take_log());
}

TEST_F(ClientLogTest, NoLineIsRepeatedWhileAttemptsFail)
{
    build();
    fake_mosquitto.connect = [] {
        errno = ECONNREFUSED;
        return MOSQ_ERR_ERRNO;
    };
    for (int i = 0; i < 50; ++i) {
        start();
    }
    EXPECT_EQ(1u, take_log().size());
    fake_mosquitto.connect = FakeMosquitto::success;
    for (int i = 0; i < 50; ++i) {
        start();
        library().on_connect(5);
        library().on_disconnect(MOSQ_ERR_CONN_REFUSED);
    }
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 refused the connection. Connection "
                      "Refused: not authorised."},
              take_log());
    for (int i = 0; i < 50; ++i) {
        start();
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 closed the connection without an "
                      "answer. The connection was lost."},
              take_log());
}

TEST_F(ClientLogTest, ABrokerThatComesUpLaterIsLoggedOnce)
{
    build();
    fake_mosquitto.connect = [] { return MOSQ_ERR_EAI; };
    for (int i = 0; i < 5; ++i) {
        start();
    }
    fake_mosquitto.connect = FakeMosquitto::success;
    come_up();
    clock.advance(1min);
    client->loop(1000, 1);
    clock.advance(1min);
    client->loop(1000, 1);
    EXPECT_EQ((Records{"ERROR broker_log: Couldn't reach broker localhost:1883. Lookup error.",
                       "INFO broker_log: Connected to broker localhost:1883"}),
              take_log());
}

TEST_F(ClientLogTest, EveryLossOfASettledConnectionIsLoggedAndEveryReturn)
{
    build();
    come_up();
    take_log();
    for (int outage = 1; outage <= 4; ++outage) {
        SCOPED_TRACE(outage);
        clock.advance(5s);
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
        EXPECT_EQ(Records{"ERROR broker_log: Lost the connection to broker localhost:1883. The "
                          "connection was lost."},
                  take_log());
        fake_mosquitto.connect = [] { return MOSQ_ERR_EAI; };
        start();
        start();
        EXPECT_EQ(Records{"ERROR broker_log: Couldn't reach broker localhost:1883. Lookup error."},
                  take_log());
        fake_mosquitto.connect = FakeMosquitto::success;
        come_up();
        EXPECT_EQ(Records{"INFO broker_log: Connected to broker localhost:1883"}, take_log());
    }
}

TEST_F(ClientLogTest, AFightOverTheClientIdIsLoggedOnce)
{
    build();
    for (int i = 0; i < 50; ++i) {
        come_up();
        clock.advance(100ms);
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
    EXPECT_EQ((Records{"INFO broker_log: Connected to broker localhost:1883",
                       "ERROR broker_log: Lost the connection to broker localhost:1883. The "
                       "connection was lost."}),
              take_log());
}

TEST_F(ClientLogTest, TheConnectionThatSettlesAfterAFightIsLoggedAgain)
{
    build();
    for (int i = 0; i < 3; ++i) {
        come_up();
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
    come_up();
    take_log();
    clock.advance(4999ms);
    client->loop(1000, 1);
    EXPECT_EQ(Records(), take_log());
    clock.advance(1ms);
    client->loop(1000, 1);
    EXPECT_EQ(Records{"INFO broker_log: Connected to broker localhost:1883"}, take_log());
    clock.advance(1min);
    client->loop(1000, 1);
    EXPECT_EQ(Records(), take_log());
}

TEST_F(ClientLogTest, AReturnIsLoggedAtOnceAlsoAfterAFight)
{
    // The second connection after a fight was logged 5 s late: the line of the settled one still
    // counted as just said.
    build();
    come_up();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    come_up();
    clock.advance(5s);
    client->loop(1000, 1);  // settled, and logged as connected again
    clock.advance(1h);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    take_log();
    come_up();
    EXPECT_EQ(Records{"INFO broker_log: Connected to broker localhost:1883"}, take_log());
}

TEST_F(ClientLogTest, ARefusedSubscriptionIsLoggedAgainOnlyAfterASettledConnection)
{
    RecordingHandler handler("in/cmd/+");
    build_with(handler);
    const int refused[] = {0x80};
    const auto refuse = [&] {
        come_up();
        take_log();
        library().on_subscribe(fake_mosquitto.next_mid - 1, 1, refused);
        return take_log();
    };
    const Records line = {
        "ERROR broker_log: Broker localhost:1883 refused the subscription to in/cmd/+"};
    EXPECT_EQ(line, refuse());
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    EXPECT_EQ(Records(), refuse());
    clock.advance(5s);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    EXPECT_EQ(line, refuse());
}

using ClientLoopTest = ClientTest;

TEST_F(ClientLoopTest, LoopPassesItsArgumentsAndItsStatusOn)
{
    build();
    come_up();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    connection.send_from_peer("x");
    fake_mosquitto.wants_write = true;
    for (auto* hook :
         {&fake_mosquitto.loop_read, &fake_mosquitto.loop_write, &fake_mosquitto.loop_misc}) {
        for (int status = -4; status <= 31; ++status) {
            *hook = [status] { return status; };
            EXPECT_EQ(status, client->loop(1000, 1));
        }
        *hook = FakeMosquitto::success;
    }
    fake_mosquitto.calls.clear();
    client->loop(1000, 1);
    client->loop(250, 20);
    EXPECT_EQ((Calls{"loop_read 1", "loop_write 1", "loop_misc", "loop_read 20", "loop_write 20",
                     "loop_misc"}),
              fake_mosquitto.calls);
    fake_mosquitto.socket = -1;
    fake_mosquitto.calls.clear();
    client->loop(250, 20);
    EXPECT_EQ(Calls{"loop 250 20"}, fake_mosquitto.calls);
}

TEST_F(ClientLoopTest, DescriptorsOutOfReachCountAsNoConnection)
{
    // The library's loop says INVAL when its descriptors are above select's reach, also when there
    // is no connection, and an event loop that waits for NO_CONN would spin for ever.
    build();
    const auto expect_statuses = [this] {
        for (int status = -4; status <= 31; ++status) {
            fake_mosquitto.loop = [status] { return status; };
            EXPECT_EQ(status == MOSQ_ERR_INVAL ? MOSQ_ERR_NO_CONN : status, client->loop(1000, 1));
        }
    };
    expect_statuses();
    fake_mosquitto.connect = [] { return MOSQ_ERR_ERRNO; };
    start();
    expect_statuses();
    fake_mosquitto.connect = FakeMosquitto::success;
    come_up();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    expect_statuses();
}

TEST_F(ClientLoopTest, LoopWaitsForTheSocketItself)
{
    // With keepalive 0 the library's own loop does not wait at all.
    build();
    const LoopbackConnection connection;  // silent
    fake_mosquitto.socket = connection.socket();
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->loop(1000, 1));
    EXPECT_EQ(1s, clock.elapsed());
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->loop(250, 1));
    EXPECT_EQ(1250ms, clock.elapsed());
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
}

TEST_F(ClientLoopTest, LoopRunsAtOnceWhenThereIsSomethingToReadOrToWrite)
{
    build();
    come_up();
    fake_mosquitto.calls.clear();
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    fake_mosquitto.wants_write = true;
    client->loop(1000, 1);
    fake_mosquitto.wants_write = false;
    connection.send_from_peer("x");
    client->loop(1000, 1);
    EXPECT_EQ((Calls{"loop_write 1", "loop_misc", "loop_read 1", "loop_misc"}),
              fake_mosquitto.calls);
    EXPECT_EQ(0s, clock.elapsed());
}

/// The library goes on with it where it reads, and nowhere else.
TEST_F(ClientLoopTest, ATlsHandshakeThatHasToWriteGoesOn)
{
    build();
    start();
    fake_mosquitto.calls.clear();
    const LoopbackConnection connection;  // silent, and there is room
    fake_mosquitto.socket = connection.socket();
    fake_mosquitto.wants_write = true;
    client->loop(1000, 1);
    EXPECT_EQ((Calls{"loop_read 1", "loop_write 1", "loop_misc"}), fake_mosquitto.calls);
}

TEST_F(ClientLoopTest, LoopWithoutASocketLeavesItToTheLibrary)
{
    build();
    fake_mosquitto.loop = [] { return MOSQ_ERR_NO_CONN; };
    EXPECT_EQ(MOSQ_ERR_NO_CONN, client->loop(1000, 1));
    EXPECT_EQ(0s, clock.elapsed());
}

TEST_F(ClientLoopTest, ASignalEndsTheWaitOfTheLoop)
{
    build();
    const LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    clock.interrupt_next_wait_after(300ms);
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->loop(1000, 1));
    EXPECT_EQ(300ms, clock.elapsed());
    EXPECT_EQ(Calls(), fake_mosquitto.calls);
}

TEST_F(ClientLoopTest, ABrokerThatDoesNotAnswerFor30SIsGivenUp)
{
    build();
    const LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    start();
    clock.advance(30s);
    client->loop(0, 1);
    EXPECT_EQ(Records(), take_log());
    EXPECT_TRUE(connection.is_open());

    clock.advance(1ms);
    fake_mosquitto.loop_read = [&] {
        EXPECT_FALSE(connection.is_open());
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
        return MOSQ_ERR_CONN_LOST;
    };
    EXPECT_EQ(MOSQ_ERR_CONN_LOST, client->loop(0, 1));
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 did not answer the connection "
                      "request"},
              take_log());
}

TEST_F(ClientLoopTest, ABrokerThatHasAnsweredIsNotGivenUp)
{
    build();
    const LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    start();
    clock.advance(29s);
    library().on_connect(0);
    clock.advance(1h);
    client->loop(1000, 1);
    client->loop(1000, 1);
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(Records{"INFO broker_log: Connected to broker localhost:1883"}, take_log());
}

TEST_F(ClientLoopTest, AnAttemptThatFailedIsNotGivenUpLater)
{
    build();
    fake_mosquitto.connect = [] { return MOSQ_ERR_EAI; };
    start();
    take_log();
    clock.advance(1h);
    client->loop(1000, 1);
    EXPECT_EQ(Records(), take_log());
}

TEST_F(ClientLoopTest, The30SBeginWhenTheConnectionIsOpen)
{
    build();
    fake_mosquitto.connect = [this] {
        clock.advance(2min);  // one address after the other
        return MOSQ_ERR_SUCCESS;
    };
    start();
    clock.advance(30s);
    client->loop(1000, 1);
    EXPECT_EQ(Records(), take_log());
    clock.advance(1ms);
    client->loop(1000, 1);
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 did not answer the connection "
                      "request"},
              take_log());
}

TEST_F(ClientLoopTest, EachAttemptHasItsOwn30S)
{
    build();
    start();
    clock.advance(20s);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    start();
    take_log();
    clock.advance(20s);
    client->loop(1000, 1);
    EXPECT_EQ(Records(), take_log());
}

}  // namespace
}  // namespace mqlink
