#include "mqlink/client.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

namespace mqlink {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// 0: no MQTT pings. With any other value the broker would drop a client that a job has kept silent
// for 1.5 keepalives, and with it the requests that wait for their turn.
constexpr int mqtt_keepalive = 0;

// mosquitto answers what it is sent in its order. So when it has answered an UNSUBSCRIBE, for a
// filter that is not subscribed, it has acknowledged what was sent before, or it never will: it
// drops acknowledgements, too, when more than max_queued_messages packets wait for a client. Two in
// a row, since one message of QoS 2 takes two acknowledgements. A broker that acknowledges later
// than it answers is left each minute, and has the messages twice.
constexpr const char* probe_filter = "not/subscribed";
constexpr auto probe_interval = seconds(30);
constexpr int probes_in_vain = 2;

// A peer that vanished is found by probes after 20 s of silence, every 10 s, or by data that stays
// unacknowledged; either way the kernel gives up at the first check past 45 s (tcp(7)).
constexpr int tcp_keepidle_s = 20;
constexpr int tcp_keepintvl_s = 10;
constexpr int tcp_user_timeout_ms = 45000;

constexpr milliseconds shortest_pause(10);
constexpr milliseconds longest_pause(1000);
constexpr seconds settling_time(5);
constexpr seconds connack_limit(30);
constexpr seconds delivery_limit(2);

constexpr int suback_failure = 0x80;  // MQTT 3.1.1, section 3.9.3

constexpr int max_remaining_length = 268435455;  // MQTT 3.1.1, section 2.2.3
constexpr int packet_overhead = 4;               // the topic's length and the packet identifier

std::string reason(int rc)
{
    // The library says "see errno" also where a connection ended within a packet and errno is 0.
    const bool unknown = rc == MOSQ_ERR_ERRNO && errno == 0;
    return mosqpp::strerror(unknown ? MOSQ_ERR_CONN_LOST : rc);
}

/// Without a connection, or when it breaks now, the library says so, but takes the message.
bool is_taken(int rc)
{
    return rc == MOSQ_ERR_SUCCESS || rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST ||
           rc == MOSQ_ERR_ERRNO;
}

}  // namespace

Client::Client(const ClientSessionOptions& options, const char* name)
    : mosqpp::mosquittopp(options.client_id, options.clean_session),
      log(log4cpp::Category::getInstance(name)),
      _options(options)
{
}

Client::~Client()
{
    stop();
    _link = Link::down;
    disconnect();
}

void Client::stop()
{
    if (_stopping) {
        return;
    }
    _stopping = true;
    try {
        deliver_pending();
    } catch (...) {
        log_caught("delivery at the end");
    }
}

void Client::registerHandler(Handler* handler)
{
    _subscriptions.push_back({handler, 0});
}

int Client::start(const char* host, int port)
try {
    if (!wait_for_turn()) {
        return MOSQ_ERR_NO_CONN;
    }
    _broker = port == 0 ? host : host + (":" + std::to_string(port));
    int rc = renew();
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = connect(host, port, mqtt_keepalive);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        tell_down("Couldn't reach broker " + _broker + ". " + reason(rc));
        return rc;
    }
    if (socket() >= FD_SETSIZE) {  // libmosquitto's loop waits with select(2), which takes no more
        disconnect();
        tell_down("Couldn't reach broker " + _broker + ". Too many open files");
        return MOSQ_ERR_NO_CONN;
    }
    set_socket_options();
    _link = Link::opening;
    _link_since = Clock::now();  // not before connect(), which may take minutes
    return rc;
} catch (...) {  // mostly std::bad_alloc; the next attempt may have the memory
    log_caught("connection attempt");
    return MOSQ_ERR_NOMEM;
}

int Client::loop(int timeout_ms, int max_packets)
try {
    settle_if_due();
    if (_link == Link::opening && Clock::now() - _link_since > connack_limit) {
        give_up_connection();
        tell_down("Broker " + _broker + " did not answer the connection request");
    }
    // With keepalive 0 libmosquitto's loop does not wait at all: it would use up a whole core.
    const bool is_due = socket() == -1 || wait_for_socket(timeout_ms);
    const int rc = is_due ? mosquittopp::loop(timeout_ms, max_packets) : MOSQ_ERR_SUCCESS;
    probe_if_due();
    // Its complaint about descriptors that select(2) cannot take comes even without a connection.
    return rc == MOSQ_ERR_INVAL && _link == Link::down ? MOSQ_ERR_NO_CONN : rc;
} catch (...) {
    log_caught("loop");
    return MOSQ_ERR_NOMEM;
}

bool Client::fitsPacket(const char* topic, int payloadlen)
{
    return payloadlen >= 0 && payloadlen <= max_remaining_length - packet_overhead -
                                                static_cast<int>(std::strlen(topic));
}

int Client::publish(int* mid, const char* topic, int payloadlen, const void* payload, int qos,
                    bool retain)
{
    // The library itself lets a few bytes more pass, finds that the packet exceeds MQTT's limit,
    // and keeps it for good.
    if (!fitsPacket(topic, payloadlen)) {
        return MOSQ_ERR_PAYLOAD_SIZE;
    }
    if (qos == 0) {
        ++_unwritten;  // first, since the library may call on_publish() before it returns
        const int rc = mosquittopp::publish(mid, topic, payloadlen, payload, qos, retain);
        _unwritten -= rc == MOSQ_ERR_SUCCESS ? 0 : 1;
        return rc;
    }
    if (_unacknowledged.empty()) {
        expect_acknowledgement();
    }
    const std::size_t size = static_cast<std::size_t>(payloadlen);
    _unacknowledged.push_back(
        {0, topic, std::string(static_cast<const char*>(payload), size), qos, retain});
    const int rc = hand_over(_unacknowledged.back());
    if (mid != nullptr) {
        *mid = _unacknowledged.back().mid;
    }
    if (rc == MOSQ_ERR_NOMEM) {  // the library may have taken it all the same, see renew()
        give_up_connection();
    } else if (!is_taken(rc)) {
        _unacknowledged.pop_back();
    }
    return rc;
}

// The callbacks are called from C code that holds locks: no exception may leave them.

void Client::on_connect(int rc)
try {
    if (rc != 0) {
        tell_down("Broker " + _broker + " refused the connection. " + mosqpp::connack_string(rc));
        return;
    }
    _link = Link::up;
    _link_since = Clock::now();
    _settled = false;
    if (tell(log4cpp::Priority::INFO, connected_text())) {
        _told_up = true;
    }
    if (!_stopping && (_options.resubscribe_on_connect || !_subscribed_before)) {
        subscribe_all();
    }
    publish_again();
    expect_acknowledgement();
} catch (...) {
    log_caught("on_connect");
    give_up_connection();  // or it could stay without its subscription
}

void Client::on_disconnect(int rc)
try {
    settle_if_due();
    if (_link == Link::up) {
        tell_down("Lost the connection to broker " + _broker + ". " + reason(rc));
    } else if (_link == Link::opening) {
        tell_down("Broker " + _broker + " closed the connection without an answer. " + reason(rc));
    }
} catch (...) {
    _link = Link::down;
    log_caught("on_disconnect");
}

void Client::on_publish(int mid)
{
    const auto acknowledged =
        std::find_if(_unacknowledged.begin(), _unacknowledged.end(),
                     [mid](const Publication& publication) { return publication.mid == mid; });
    if (acknowledged != _unacknowledged.end()) {
        const bool was_awaited = acknowledged == _unacknowledged.begin();
        _unacknowledged.erase(acknowledged);
        if (was_awaited) {
            expect_acknowledgement();
        }
    } else if (_unwritten > 0) {
        --_unwritten;
    }
    // A result is through, and nothing more is sent that would carry the ACK of its last packet.
    // Without the ACK a broker with Nagle's algorithm on keeps its next request to itself, for
    // the 40 ms by which the kernel delays ACKs. The option does not last (tcp(7)).
    set_option(IPPROTO_TCP, TCP_QUICKACK, 1);
}

void Client::on_message(const mosquitto_message* msg)
{
    if (_stopping) {
        log.error("Stopping, so the message on %s is not handled", msg->topic);
        return;
    }
    for (const Subscription& subscription : _subscriptions) {
        dispatch(*subscription.handler, msg);
    }
}

void Client::on_subscribe(int mid, int qos_count, const int* granted_qos)
try {
    for (const Subscription& subscription : _subscriptions) {
        if (subscription.mid == mid && qos_count > 0 && granted_qos[0] == suback_failure) {
            tell(log4cpp::Priority::ERROR, "Broker " + _broker + " refused the subscription to " +
                                               subscription.handler->topicFilter());
        }
    }
} catch (...) {
    log_caught("on_subscribe");
}

/// Waits until the next attempt is due. False if a signal came first.
bool Client::wait_for_turn()
{
    const auto wait =
        std::chrono::duration_cast<std::chrono::nanoseconds>(_last_attempt + _pause - Clock::now());
    if (_pause.count() > 0 && wait.count() > 0) {
        timespec time;
        time.tv_sec = static_cast<time_t>(wait.count() / 1000000000);
        time.tv_nsec = static_cast<long>(wait.count() % 1000000000);
        if (nanosleep(&time, nullptr) != 0) {
            return false;
        }
    }
    _last_attempt = Clock::now();
    _pause = std::clamp(2 * _pause, shortest_pause, longest_pause);
    return true;
}

/// Has the library forget the messages that it has not delivered, if there are any: it would resend
/// the PUBREL of one whose PUBREC has come. The broker forgot the message itself when the clean
/// session ended (MQTT 3.1.1, section 3.1.2.4), answers all the same, and the message would be
/// lost.
int Client::renew()
{
    if (_unacknowledged.empty()) {
        return MOSQ_ERR_SUCCESS;
    }
    const int rc = reinitialise(_options.client_id, _options.clean_session);
    if (rc != MOSQ_ERR_SUCCESS) {
        return rc;
    }
    for (Publication& publication : _unacknowledged) {
        publication.mid = 0;
    }
    on_renewed();
    return rc;
}

/// Begins to wait for the acknowledgement of the oldest message.
void Client::expect_acknowledgement()
{
    _waiting_since = Clock::now();
    _probe = 0;
    _probes_answered = 0;
}

/// Asks the broker for a sign that it has handled what was sent, if it is silent for long.
void Client::probe_if_due()
{
    if (_link == Link::up && !_unacknowledged.empty() &&
        Clock::now() - _waiting_since >= probe_interval) {
        _waiting_since = Clock::now();
        unsubscribe(&_probe, probe_filter);  // if this fails, the next one is due in 30 s
    }
}

void Client::on_unsubscribe(int mid)
try {
    if (mid == _probe && ++_probes_answered == probes_in_vain) {
        give_up_connection();
        tell(log4cpp::Priority::ERROR,
             "Broker " + _broker + " does not acknowledge what was published");
    }
} catch (...) {
    log_caught("on_unsubscribe");
}

void Client::set_socket_options()
{
    fcntl(socket(), F_SETFD, FD_CLOEXEC);     // a script's children must not hold the connection
    set_option(IPPROTO_TCP, TCP_NODELAY, 1);  // or each small packet waits for the peer's next ACK
    set_option(SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(IPPROTO_TCP, TCP_KEEPIDLE, tcp_keepidle_s);
    set_option(IPPROTO_TCP, TCP_KEEPINTVL, tcp_keepintvl_s);
    set_option(IPPROTO_TCP, TCP_USER_TIMEOUT, tcp_user_timeout_ms);
}

/// On a Unix socket, options of TCP fail without harm.
void Client::set_option(int level, int option, int value)
{
    setsockopt(socket(), level, option, &value, sizeof value);
}

/// The next loop reports a lost connection then.
void Client::give_up_connection()
{
    shutdown(socket(), SHUT_RDWR);
}

/// Waits until there is something to read, or room for what is to be written. False if the time
/// ran out or a signal came first.
bool Client::wait_for_socket(int timeout_ms)
{
    pollfd ready = {};
    ready.fd = socket();
    ready.events = static_cast<short>(want_write() ? POLLIN | POLLOUT : POLLIN);
    return poll(&ready, 1, timeout_ms) > 0;
}

void Client::subscribe_all()
{
    for (Subscription& subscription : _subscriptions) {
        const std::string& filter = subscription.handler->topicFilter();
        const int rc = subscribe(&subscription.mid, filter.c_str(), subscription.handler->qos());
        if (rc != MOSQ_ERR_SUCCESS) {
            if (rc == MOSQ_ERR_NOMEM) {
                give_up_connection();  // the next one may find the memory
            }
            tell(log4cpp::Priority::ERROR,
                 "Couldn't subscribe to " + filter + ". " + mosqpp::strerror(rc));
        }
    }
    _subscribed_before = true;
}

int Client::hand_over(Publication& publication)
{
    return mosquittopp::publish(&publication.mid, publication.topic.c_str(),
                                static_cast<int>(publication.payload.size()),
                                publication.payload.data(), publication.qos, publication.retain);
}

/// Once the broker has let the client in. One that finds no memory ends the connection: the library
/// may have taken it all the same, see renew(), and no later message is to overtake it.
void Client::publish_again()
{
    for (Publication& publication : _unacknowledged) {
        if (publication.mid != 0) {
            continue;
        }
        const int rc = hand_over(publication);
        if (!is_taken(rc)) {
            give_up_connection();
            tell(log4cpp::Priority::ERROR,
                 "Couldn't publish on " + publication.topic + " again. " + mosqpp::strerror(rc));
            return;
        }
    }
}

void Client::dispatch(Handler& handler, const mosquitto_message* msg)
try {
    if (const auto vars = FilterVariables::match(handler.topicFilter(), msg->topic)) {
        handler.onMessage(*vars, msg, *this);
    }
} catch (const std::bad_alloc&) {
    log_caught("message handler");
    give_up_connection();  // a request that is retained comes again on the next one
} catch (...) {
    log_caught("message handler");
}

void Client::settle_if_due()
{
    if (_link != Link::up || _settled || Clock::now() - _link_since < settling_time) {
        return;
    }
    _settled = true;
    _pause = milliseconds(0);
    _told.clear();
    if (!_told_up) {
        log.info("%s", connected_text().c_str());
        _told_up = true;
    }
}

void Client::deliver_pending()
{
    const auto deadline = Clock::now() + delivery_limit;
    while (!all_acknowledged() && socket() != -1) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            break;
        }
        if (wait_for_socket(static_cast<int>(left.count()))) {
            loop_write(1);
            loop_read(1);
            loop_misc();
        }
    }
    if (!all_acknowledged()) {
        log.error("%d messages were not acknowledged by the broker and may be lost",
                  static_cast<int>(_unacknowledged.size()) + _unwritten);
    }
}

/// To be called in a catch block: logs what was caught.
void Client::log_caught(const char* where) noexcept
{
    try {
        throw;
    } catch (const std::exception& caught) {
        log.error("Exception in %s: %s", where, caught.what());
    } catch (...) {
        log.error("Exception in %s: not a standard exception", where);
    }
}

/// Logs a line, unless it was logged since a connection last settled. Returns whether it did.
bool Client::tell(log4cpp::Priority::Value priority, const std::string& text)
{
    const bool is_news = _told.insert(text).second;
    if (is_news) {
        log.log(priority, text);
    }
    return is_news;
}

void Client::tell_down(const std::string& text)
{
    _link = Link::down;
    if (tell(log4cpp::Priority::ERROR, text)) {
        _told_up = false;
    }
}

std::string Client::connected_text() const
{
    return "Connected to broker " + _broker;
}

}  // namespace mqlink
