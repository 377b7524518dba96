#include "mqlink/client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>

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

/// The value of a socket option.
int option_of(int socket, int level, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, getsockopt(socket, level, option, &value, &length));
    return value;
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
        EXPECT_EQ(1, option_of(socket, IPPROTO_TCP, TCP_NODELAY));
        EXPECT_EQ(1, option_of(socket, SOL_SOCKET, SO_KEEPALIVE));
        EXPECT_EQ(20, option_of(socket, IPPROTO_TCP, TCP_KEEPIDLE));
        EXPECT_EQ(10, option_of(socket, IPPROTO_TCP, TCP_KEEPINTVL));
        EXPECT_EQ(45000, option_of(socket, IPPROTO_TCP, TCP_USER_TIMEOUT));
        library().on_connect(0);
        library().on_disconnect(MOSQ_ERR_CONN_LOST);
    }
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
    ASSERT_EQ(0, option_of(connection.socket(), IPPROTO_TCP, TCP_QUICKACK));
    library().on_publish(1);
    EXPECT_EQ(1, option_of(connection.socket(), IPPROTO_TCP, TCP_QUICKACK));
}

TEST_F(ClientStartTest, AUnixSocketIsKeptFromChildrenAndOtherwiseLeftAlone)
{
    build();
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    fake_mosquitto.socket = ends[0];
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client->start("/run/broker.sock", 0));
    EXPECT_EQ(FD_CLOEXEC, fcntl(ends[0], F_GETFD));
    EXPECT_EQ(Records(), capture.records());
    fake_mosquitto.socket = -1;
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ClientStartTest, ADescriptorThatSelectCannotTakeCountsAsUnreachable)
{
    // libmosquitto's loop would return MOSQ_ERR_INVAL for ever on such a connection.
    build();
    fake_mosquitto.socket = 1024;
    EXPECT_EQ(MOSQ_ERR_NO_CONN, start());
    EXPECT_EQ((Calls{"connect localhost 1883 keepalive 0", "disconnect"}), fake_mosquitto.calls);
    EXPECT_EQ(
        Records{"ERROR broker_log: Couldn't reach broker localhost:1883. Too many open files"},
        take_log());
    fake_mosquitto.calls.clear();
    fake_mosquitto.socket = 1023;
    EXPECT_EQ(MOSQ_ERR_SUCCESS, start());
    EXPECT_EQ(Calls{"connect localhost 1883 keepalive 0"}, fake_mosquitto.calls);
    fake_mosquitto.socket = -1;
}

using ClientPaceTest = ClientTest;

TEST_F(ClientPaceTest, TheTimeBetweenAttemptsGrowsFrom10MsTo1S)
{
    build();
    start();
    EXPECT_EQ(0u, clock.take_sleeps().size());  // nothing before the first
    const std::chrono::milliseconds waits[] = {10ms,  20ms,  40ms,   80ms,   160ms,
                                               320ms, 640ms, 1000ms, 1000ms, 1000ms};
    for (const auto wait : waits) {
        SCOPED_TRACE(wait.count());
        start();
        EXPECT_EQ(std::vector<VirtualClock::Duration>{wait}, clock.take_sleeps());
    }
    EXPECT_EQ(11, fake_mosquitto.count("connect"));
}

TEST_F(ClientPaceTest, FailedAttemptsHaveTheSamePace)
{
    build();
    fake_mosquitto.connect = [] { return MOSQ_ERR_ERRNO; };
    for (int i = 0; i < 4; ++i) {
        start();
    }
    EXPECT_EQ((std::vector<VirtualClock::Duration>{10ms, 20ms, 40ms}), clock.take_sleeps());
}

TEST_F(ClientPaceTest, TheWaitCountsFromTheLastAttempt)
{
    build();
    start();
    clock.advance(6ms);
    start();
    EXPECT_EQ(std::vector<VirtualClock::Duration>{4ms}, clock.take_sleeps());
    clock.advance(20ms);  // the second wait is over already
    start();
    EXPECT_EQ(0u, clock.take_sleeps().size());
    start();
    EXPECT_EQ(std::vector<VirtualClock::Duration>{40ms}, clock.take_sleeps());
}

TEST_F(ClientPaceTest, TimeSpentInAnAttemptCounts)
{
    build();
    fake_mosquitto.connect = [this] {
        clock.advance(2min);  // a black hole
        return MOSQ_ERR_ERRNO;
    };
    for (int i = 0; i < 12; ++i) {
        start();
    }
    EXPECT_EQ(0u, clock.take_sleeps().size());
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

TEST(ClientRealTimeTest, ThePaceHoldsAndSignalsEndTheWait)
{
    fake_mosquitto = FakeMosquitto();
    Client client({"an_id", true, true}, "broker_log");
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(MOSQ_ERR_SUCCESS, client.start("localhost", 1883));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 10ms + 20ms + 40ms + 80ms + 160ms + 320ms);
    EXPECT_EQ(7, fake_mosquitto.count("connect"));
    {
        // The next wait is of 640 ms; the signals come sooner, again and again. On a machine that
        // stalls for so long the wait is over before it begins, and the next attempt has to tell.
        const RepeatedSignal signal;
        int attempts = 7;
        int status = MOSQ_ERR_SUCCESS;
        while (status == MOSQ_ERR_SUCCESS && attempts < 20) {
            attempts = fake_mosquitto.count("connect");
            status = client.start("localhost", 1883);
        }
        EXPECT_EQ(MOSQ_ERR_NO_CONN, status);
        EXPECT_EQ(attempts, fake_mosquitto.count("connect"));
    }
    EXPECT_EQ(MOSQ_ERR_SUCCESS, client.start("localhost", 1883));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 630ms + 640ms);
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
                       "ERROR broker_log: Couldn't subscribe to bad/#/filter. Invalid function "
                       "arguments provided."}),
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
    come_up();
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    come_up();  // untold, so that it will be when the connection has lived
    clock.advance(5s);
    take_log();
    connection.send_from_peer("x");
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
    client->publish(nullptr, "out/cmd/1", 0, "", 2, true);
    fake_mosquitto.calls.clear();
    come_up();
    EXPECT_EQ((Calls{"reinitialise an_id clean", "connect localhost 1883 keepalive 0",
                     "publish out/cmd/1", "publish out/cmd/2", "publish out/cmd/1"}),
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

class ClientProbeTest : public ClientMemoryTest {
protected:
    ClientProbeTest()
    {
        build();
        come_up();
        fake_mosquitto.next_mid = 11;
    }

    int probes() const { return fake_mosquitto.count("unsubscribe not/subscribed"); }

    void wait(VirtualClock::Duration time)
    {
        clock.advance(time);
        client->loop(0, 1);
    }
};

TEST_F(ClientProbeTest, ABrokerThatAnswersTwoProbesAndAcknowledgesNothingIsLeft)
{
    publish();  // 11
    take_log();
    wait(29s);
    EXPECT_EQ(0, probes());
    wait(1s);
    EXPECT_EQ(1, probes());  // 12
    library().on_unsubscribe(12);
    wait(29s);
    EXPECT_EQ(1, probes());
    wait(1s);
    EXPECT_EQ(2, probes());  // 13
    EXPECT_FALSE(was_given_up());
    library().on_unsubscribe(13);
    EXPECT_TRUE(was_given_up());
    EXPECT_EQ(Records{"ERROR broker_log: Broker localhost:1883 does not acknowledge what was "
                      "published"},
              take_log());
}

TEST_F(ClientProbeTest, AnAcknowledgementBeginsTheWaitAnew)
{
    publish();  // 11
    publish();  // 12
    wait(30s);  // 13
    library().on_unsubscribe(13);
    clock.advance(29s);
    library().on_publish(11);
    wait(29s);
    EXPECT_EQ(1, probes());
    wait(1s);
    library().on_unsubscribe(14);
    EXPECT_FALSE(was_given_up());
    wait(30s);
    library().on_unsubscribe(15);
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientProbeTest, AcknowledgementsOfLaterMessagesDoNotHideThatOneIsLost)
{
    publish();  // 11
    for (int mid = 12; mid <= 14; ++mid) {
        publish();
    }
    clock.advance(20s);
    library().on_publish(12);
    wait(10s);  // 15
    library().on_unsubscribe(15);
    clock.advance(20s);
    library().on_publish(13);
    wait(10s);  // 16
    EXPECT_FALSE(was_given_up());
    library().on_unsubscribe(16);
    EXPECT_TRUE(was_given_up());
}

TEST_F(ClientProbeTest, AProbeBeforeTheAcknowledgementDoesNotCount)
{
    publish();  // 11
    publish();  // 12
    wait(30s);  // 13
    library().on_publish(11);
    library().on_unsubscribe(13);
    wait(30s);  // 14
    library().on_unsubscribe(14);
    EXPECT_FALSE(was_given_up());
}

TEST_F(ClientProbeTest, ASlowBrokerIsWaitedFor)
{
    publish();                     // 11
    wait(30s);                     // 12
    wait(30s);                     // 13
    library().on_unsubscribe(12);  // too late to count
    library().on_unsubscribe(13);
    EXPECT_EQ(2, probes());
    EXPECT_FALSE(was_given_up());
}

TEST_F(ClientProbeTest, WithNothingToAcknowledgeNobodyIsAsked)
{
    wait(2min);
    publish();  // 11
    wait(29s);
    library().on_publish(11);
    wait(2min);
    EXPECT_EQ(0, probes());
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    publish();
    wait(2min);
    EXPECT_EQ(0, probes());
}

TEST_F(ClientProbeTest, ANewConnectionHasItsTime)
{
    publish();  // 11
    wait(30s);  // 12
    library().on_unsubscribe(12);
    library().on_disconnect(MOSQ_ERR_CONN_LOST);
    clock.advance(20s);
    come_up();  // 13
    wait(29s);
    EXPECT_EQ(1, probes());
    wait(1s);  // 14
    library().on_unsubscribe(14);
    EXPECT_FALSE(was_given_up());
}

TEST_F(ClientProbeTest, WithoutMemoryForTheRecordTheConnectionIsLeftAllTheSame)
{
    publish();
    wait(30s);
    library().on_unsubscribe(12);
    wait(30s);
    fail_next_allocation();
    library().on_unsubscribe(13);
    EXPECT_TRUE(was_given_up());
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
        if (fake_mosquitto.wants_write) {
            connection.send_from_peer("acknowledged");
        }
        fake_mosquitto.wants_write = false;
        return MOSQ_ERR_SUCCESS;
    };
    int mid = 0;
    fake_mosquitto.loop_read = [&] {
        fake_mosquitto.client->on_publish(++mid);
        return MOSQ_ERR_SUCCESS;
    };
    EXPECT_EQ((Calls{"loop_write 1", "loop_read 1", "loop_misc", "loop_write 1", "loop_read 1",
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
    publish();
    publish();
    publish();
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
    EXPECT_EQ((Calls{"loop_write 1", "loop_read 1", "loop_misc", "disconnect", "~mosquittopp"}),
              calls_of_destruction());
}

TEST_F(ClientEndTest, WithoutAConnectionNothingIsWaitedFor)
{
    build();
    publish();
    publish();
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
    EXPECT_EQ((Calls{"loop_write 1", "loop_read 1", "loop_misc", "disconnect", "~mosquittopp"}),
              calls_of_destruction());
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
    EXPECT_EQ((Calls{"loop_write 1", "loop_read 1", "loop_misc", "disconnect", "~mosquittopp"}),
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

TEST_F(ClientEndTest, AMessageWithQos0IsWaitedForUntilItIsWritten)
{
    const struct {
        const char* fact;
        int status;
        std::vector<int> written;
        Records log;
    } cases[] = {
        {"written", MOSQ_ERR_SUCCESS, {1}, {}},
        {"more written than there was", MOSQ_ERR_SUCCESS, {1, 2, 3}, {}},
        {"not written",
         MOSQ_ERR_SUCCESS,
         {},
         {"ERROR broker_log: 1 messages were not acknowledged by the broker and may be lost"}},
        {"refused", MOSQ_ERR_NO_CONN, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        build();
        fake_mosquitto.publish = [&] { return c.status; };
        EXPECT_EQ(c.status, client->publish(nullptr, "a", 1, "x", 0, false));
        for (const int mid : c.written) {
            library().on_publish(mid);
        }
        client.reset();
        EXPECT_EQ(c.log, take_log());
    }
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
        EXPECT_EQ((Calls{"loop_write 1", "loop_read 1", "disconnect", "~mosquittopp"}),
                  calls_of_destruction());
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
    for (int status = -4; status <= 31; ++status) {
        fake_mosquitto.loop = [status] { return status; };
        EXPECT_EQ(status, client->loop(1000, 1));
    }
    fake_mosquitto.calls.clear();
    client->loop(1000, 1);
    client->loop(250, 20);
    EXPECT_EQ((Calls{"loop 1000 1", "loop 250 20"}), fake_mosquitto.calls);
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
    LoopbackConnection connection;
    fake_mosquitto.socket = connection.socket();
    fake_mosquitto.wants_write = true;
    client->loop(1000, 1);
    fake_mosquitto.wants_write = false;
    connection.send_from_peer("x");
    client->loop(1000, 1);
    EXPECT_EQ((Calls{"loop 1000 1", "loop 1000 1"}), fake_mosquitto.calls);
    EXPECT_EQ(0s, clock.elapsed());
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
    fake_mosquitto.loop = [&] {
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
