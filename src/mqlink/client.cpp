#include "mqlink/client.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "mqlink/socket_options.h"

namespace mqlink {

namespace {

using namespace std::chrono_literals;

// 0: no MQTT pings. With any other value the broker would drop a client that a job has kept silent
// for 1.5 keepalives, and with it the requests that wait for their turn.
constexpr int mqtt_keepalive = 0;

constexpr auto connack_limit = 30s;
// mosquitto drops acknowledgements, too, while more than max_queued_messages packets wait for a
// client. MQTT repeats nothing on a living connection (3.1.1, section 4.4).
constexpr Client::Clock::duration first_patience = 1min;
// The part of that in which the client must have listened: no job ran.
constexpr int listening_share = 6;
constexpr auto delivery_limit = 2s;
constexpr int connections_per_suspect = 5;

constexpr int handshake_share = 20;
constexpr Client::Clock::duration longest_handshake = 1s;
// A shorter wait would take longer than it is: by the timer slack (prctl(2), PR_SET_TIMERSLACK).
constexpr Client::Clock::duration shortest_handshake = 50us;

constexpr int suback_failure = 0x80;  // MQTT 3.1.1, section 3.9.3

constexpr int max_remaining_length = 268435455;  // MQTT 3.1.1, section 2.2.3
constexpr int packet_overhead = 4;               // the topic's length and the packet identifier

std::string reason(int rc)
{
    // The library says "see errno" also where a connection ended within a packet and errno is 0.
    const bool unknown = rc == MOSQ_ERR_ERRNO && errno == 0;
    return mosqpp::strerror(unknown ? MOSQ_ERR_CONN_LOST : rc);
}

/// Of a failed connect(): it has not failed before TLS.
bool may_be_of_tls(int rc)
{
    // EPROTO: where the broker refuses our certificate, writing the first packet fails.
    return rc == MOSQ_ERR_TLS || rc == MOSQ_ERR_PROTOCOL ||
           (rc == MOSQ_ERR_ERRNO && errno == EPROTO);
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
      _options(options),
      _link_log(log),
      _patience(first_patience)
{
    signal(SIGPIPE, SIG_IGN);  // libmosquitto does it up to 2.0.14
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
        drop_inbox("Stopping");
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
    drop_inbox("Lost the connection");  // a failed TLS handshake calls no on_disconnect()
    _link_log.refresh();
    if (!_pace.wait_for_turn()) {
        return MOSQ_ERR_NO_CONN;
    }
    _broker = port == 0 ? host : host + (":" + std::to_string(port));
    int rc = renew();
    if (rc == MOSQ_ERR_SUCCESS) {
        max_inflight_messages_set(static_cast<unsigned>(_options.max_inflight));
        rc = connect(host, port, mqtt_keepalive);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        _link = Link::down;
        const std::string in_tls = may_be_of_tls(rc) ? tls_failure() : "";
        _link_log.down("Couldn't reach broker " + _broker + ". " +
                       (in_tls.empty() ? reason(rc) : in_tls));
        return rc;
    }
    set_socket_options(socket());
    _link = Link::opening;
    _opened = Clock::now();  // not before connect(), which may take minutes
    _given_up = false;
    return rc;
} catch (...) {  // mostly std::bad_alloc; the next attempt may have the memory
    log_caught("connection attempt");
    return MOSQ_ERR_NOMEM;
}

int Client::loop(int timeout_ms, int max_packets)
try {
    look_after_connection();
    if (socket() == -1) {
        const int rc = mosquittopp::loop(timeout_ms, max_packets);
        // Its complaint about descriptors that select(2) cannot take comes even without a socket.
        return rc == MOSQ_ERR_INVAL ? MOSQ_ERR_NO_CONN : rc;
    }
    // While a result is under way, its acknowledgement may stand behind any number of requests.
    // Otherwise the first message after a silence is handed out as it comes.
    const bool takes_everything = !_inbox.empty() || !all_acknowledged();
    Ready ready = wait_for_socket(_inbox.empty() ? std::chrono::milliseconds(timeout_ms)
                                                 : time_for_handshake());
    while (ready.events != 0) {
        const int rc = exchange(ready.events, max_packets);
        if (rc != MOSQ_ERR_SUCCESS) {
            return rc;
        }
        if (_inbox.empty() || _inbox.is_full() || !takes_everything) {
            break;
        }
        ready = wait_for_socket(time_for_handshake());
    }
    if (!ready.interrupted) {
        hand_out();
    }
    return MOSQ_ERR_SUCCESS;
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
        return mosquittopp::publish(mid, topic, payloadlen, payload, qos, retain);
    }
    const std::size_t size = static_cast<std::size_t>(payloadlen);
    if (_outbox.was_dropped(topic, size)) {
        return MOSQ_ERR_NOT_SUPPORTED;
    }
    Outbox::Publication& publication =
        _outbox.add(topic, std::string(static_cast<const char*>(payload), size), qos, retain);
    const int rc = hand_over(publication);
    if (mid != nullptr) {
        *mid = publication.mid;
    }
    if (rc == MOSQ_ERR_NOMEM) {  // the library may have taken it all the same, see renew()
        give_up_connection();
    } else if (!is_taken(rc)) {
        _outbox.remove_newest();
    }
    return rc;
}

// The callbacks are called from C code that holds locks: no exception may leave them.

void Client::on_connect(int rc)
try {
    if (rc != 0) {
        _link = Link::down;
        _link_log.down("Broker " + _broker + " refused the connection. " +
                       mosqpp::connack_string(rc));
        return;
    }
    _link = Link::up;
    _link_log.up("Connected to broker " + _broker);
    if (!_stopping && (_options.resubscribe_on_connect || !_subscribed_before)) {
        subscribe_all();
    }
    publish_again();
    _outbox.expect_acknowledgement();
} catch (...) {
    log_caught("on_connect");
    give_up_connection();  // or it could stay without its subscription
}

void Client::on_disconnect(int rc)
try {
    const Link before = _link;
    _link = Link::down;
    _link_log.refresh();
    const bool lived = _link_log.is_settled();
    if (lived) {
        _pace.reset();
    }
    if (before == Link::up) {
        _link_log.down("Lost the connection to broker " + _broker + ". " + reason(rc));
        drop_inbox("Lost the connection");
        if (!_given_up) {
            look_for_suspect(lived);
        }
    } else if (before == Link::opening) {
        const std::string in_tls = tls_failure();
        _link_log.down(in_tls.empty()
                           ? "Broker " + _broker + " closed the connection without an answer. " +
                                 reason(rc)
                           : "Couldn't reach broker " + _broker + ". " + in_tls);
    }
} catch (...) {
    log_caught("on_disconnect");
}

void Client::on_publish(int mid)
{
    _outbox.acknowledge(mid);
    _patience = first_patience;
    // A result is through, and nothing more is sent that would carry the ACK of its last packet.
    // Without the ACK a broker with Nagle's algorithm on keeps its next request to itself, for
    // the 40 ms by which the kernel delays ACKs.
    acknowledge_at_once(socket());
}

void Client::on_message(const mosquitto_message* msg)
try {
    if (_stopping) {
        log.error("Stopping, so the message on %s is not handled", msg->topic);
    } else if (_is_taking_in) {
        _inbox.add(*msg);
    } else {
        deliver(msg);
    }
} catch (...) {
    log_caught("message handler");
    give_up_connection();  // a request that is retained comes again on the next one
}

void Client::on_subscribe(int mid, int qos_count, const int* granted_qos)
try {
    for (const Subscription& subscription : _subscriptions) {
        if (subscription.mid == mid && qos_count > 0) {
            on_subscribed(*subscription.handler, granted_qos[0] != suback_failure);
        }
    }
} catch (...) {
    log_caught("on_subscribe");
}

void Client::on_subscribed(const Handler& handler, bool granted)
{
    if (!granted) {
        _link_log.note("Broker " + _broker + " refused the subscription to " +
                       handler.topicFilter());
    }
}

/// Has the library forget the messages that it has not delivered, if there are any: it would resend
/// the PUBREL of one whose PUBREC has come. The broker forgot the message itself when the clean
/// session ended (MQTT 3.1.1, section 3.1.2.4), answers all the same, and the message would be
/// lost.
int Client::renew()
{
    if (_outbox.empty() && !_library_holds_dropped) {
        return MOSQ_ERR_SUCCESS;
    }
    const int rc = reinitialise(_options.client_id, _options.clean_session);
    if (rc != MOSQ_ERR_SUCCESS) {
        return rc;
    }
    _library_holds_dropped = false;
    _outbox.begin_anew();
    on_renewed();
    return rc;
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
            _link_log.note("Couldn't subscribe to " + filter + ". " + mosqpp::strerror(rc));
        }
    }
    _subscribed_before = true;
}

int Client::hand_over(Outbox::Publication& publication)
{
    return mosquittopp::publish(&publication.mid, publication.topic.c_str(),
                                static_cast<int>(publication.size), publication.payload.data(),
                                publication.qos, publication.retain);
}

/// Once the broker has let the client in. One that finds no memory ends the connection: the library
/// may have taken it all the same, see renew(), and no later message is to overtake it.
void Client::publish_again()
{
    while (Outbox::Publication* publication = _outbox.next_to_hand_over()) {
        const int rc = hand_over(*publication);
        if (!is_taken(rc)) {
            give_up_connection();
            _link_log.note("Couldn't publish on " + publication->topic + " again. " +
                           mosqpp::strerror(rc));
            return;
        }
    }
}

/// What is due by the time alone.
void Client::look_after_connection()
{
    if (_link_log.refresh()) {
        _pace.reset();
    }
    if (_link == Link::opening && Clock::now() - _opened > connack_limit) {
        give_up_connection();
        _link = Link::down;
        _link_log.down("Broker " + _broker + " did not answer the connection request");
    }
    const bool is_overdue = !_outbox.empty() && _outbox.waited() > _patience &&
                            _outbox.listened() > _patience / listening_share;
    if (_link == Link::up && is_overdue && !want_write() && !has_unsent_bytes(socket())) {
        give_up_connection();
        _outbox.expect_acknowledgement();
        _patience *= 2;  // on a slow link the acknowledgement may stand behind a large request
        _link_log.note("Broker " + _broker + " does not acknowledge what was published");
    }
}

/// The next loop reports a lost connection then.
void Client::give_up_connection()
{
    shutdown(socket(), SHUT_RDWR);
    _given_up = true;
}

/// After a connection that has ended: whether a message was the cause. Some brokers end the
/// connection at a message that is too large for them, or of a kind that they do not take, and
/// would do so on each new connection.
void Client::look_for_suspect(bool lived)
{
    const auto suspect = _outbox.connection_ended(lived);
    if (!suspect || suspect->connections < 2) {
        return;
    }
    if (!_outbox.has_acknowledgements() && !_told_what_is_missing) {
        _told_what_is_missing = true;
        log.error("Broker %s ends the connection at a %smessage of QoS %d", _broker.c_str(),
                  suspect->retain ? "retained " : "", suspect->qos);
    }
    if (suspect->connections < connections_per_suspect) {
        _pace.slow_down(std::chrono::seconds(1 << (suspect->connections - 1)));
        return;
    }
    log.error(
        "Broker %s ended %d connections in a row at the message on %s (%zu bytes). The "
        "message is dropped",
        _broker.c_str(), suspect->connections, suspect->topic.c_str(), suspect->size);
    _outbox.drop(*suspect);
    _library_holds_dropped = true;
}

/// Waits until there is something to read, unless the inbox is full, or room for what is to be
/// written, or the connection has ended.
Client::Ready Client::wait_for_socket(Clock::duration time)
{
    const auto left = std::max(std::chrono::nanoseconds(time), 0ns);
    timespec limit;
    limit.tv_sec = static_cast<time_t>(left / 1s);
    limit.tv_nsec = static_cast<long>((left % 1s).count());
    pollfd descriptor = {};
    descriptor.fd = socket();
    descriptor.events =
        static_cast<short>((_inbox.is_full() ? 0 : POLLIN) | (want_write() ? POLLOUT : 0));
    const int count = ppoll(&descriptor, 1, &limit, nullptr);
    return {count > 0 ? descriptor.revents : short{0}, count < 0};
}

/// Has the library read and write, as far as the socket is ready for it.
int Client::exchange(short events, int max_packets)
{
    int rc = MOSQ_ERR_SUCCESS;
    _is_taking_in = true;
    // A TLS handshake goes on in loop_read() alone, also where it has to write.
    if ((events & ~POLLOUT) != 0 || _link == Link::opening) {
        rc = loop_read(max_packets);
    }
    if (rc == MOSQ_ERR_SUCCESS && (events & POLLOUT) != 0) {
        rc = loop_write(max_packets);
    }
    _is_taking_in = false;
    return rc == MOSQ_ERR_SUCCESS ? loop_misc() : rc;
}

/// How long the messages that wait are still to wait for the last result's acknowledgement.
Client::Clock::duration Client::time_for_handshake() const
{
    const bool is_over = all_acknowledged() || _inbox.is_full();
    return is_over ? Clock::duration::zero() : _handshake_until - Clock::now();
}

void Client::hand_out()
{
    if (_inbox.empty()) {
        return;
    }
    const Inbox::Message message = _inbox.take();
    const mosquitto_message record = message.record();
    const auto begin = Clock::now();
    deliver(&record);
    const auto end = Clock::now();
    _outbox.was_deaf(end - begin);
    const auto share = std::min((end - begin) / handshake_share, longest_handshake);
    _handshake_until = end + (share < shortest_handshake ? Clock::duration::zero() : share);
}

void Client::deliver(const mosquitto_message* msg)
{
    for (const Subscription& subscription : _subscriptions) {
        dispatch(*subscription.handler, msg);
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

void Client::drop_inbox(const char* why)
{
    while (!_inbox.empty()) {
        const Inbox::Message message = _inbox.take();
        log.error("%s, so the message on %s is not handled", why, message.topic().c_str());
    }
}

void Client::deliver_pending()
{
    const auto deadline = Clock::now() + delivery_limit;
    while (!all_acknowledged() && socket() != -1 && Clock::now() < deadline) {
        if (const short events = wait_for_socket(deadline - Clock::now()).events) {
            exchange(events, 1);
        }
    }
    if (!all_acknowledged()) {
        log.error("%zu messages were not acknowledged by the broker and may be lost",
                  _outbox.count());
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

}  // namespace mqlink
