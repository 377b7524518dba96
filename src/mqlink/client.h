#pragma once

#include <mosquittopp.h>

#include <chrono>
#include <log4cpp/Category.hh>
#include <string>
#include <vector>

#include "mqlink/handler.h"
#include "mqlink/inbox.h"
#include "mqlink/link_log.h"
#include "mqlink/outbox.h"
#include "mqlink/pace.h"

namespace mqlink {

struct ClientSessionOptions {
    const char* client_id;        ///< MQTT client identifier; must stay valid for the client's life
    bool clean_session;           ///< MQTT clean-session flag of each connection
    bool resubscribe_on_connect;  ///< subscribe again on every connection, not on the first alone
    int max_inflight = 1;         ///< messages of QoS 1 and 2 on their way at a time, 1 to 65535
};

/// Connects to one broker and hands its messages to handlers. Call order: registerHandler() for
/// each handler, start(), then loop() again and again, with start() after each loop() that returned
/// MOSQ_ERR_CONN_LOST or MOSQ_ERR_NO_CONN. Single-threaded.
///
/// loop() takes in what the broker has sent, then hands out one message, outside of the library's
/// callbacks. So a handler's publish() writes at once, and the acknowledgements of one result are
/// answered before the next message is handed out. Received messages wait in the inbox of their
/// connection. When it ends, those that still wait are dropped, with a record each: the broker
/// sends retained ones again on the next connection.
///
/// Keeps a copy of each published message until the broker has acknowledged it to the end, and
/// publishes it anew on the next connection: it arrives at least once, and twice if only the
/// acknowledgement was lost. After five connections in a row that ended within seconds of the same
/// oldest message, that message is dropped, with a record.
///
/// Sends no MQTT pings, since a job may block it indefinitely: TCP keepalive finds a broker that
/// vanished, within 60 s.
class Client : public mosqpp::mosquittopp {
public:
    using Clock = std::chrono::steady_clock;

    /// `name` is that of the client's log category. Has the process ignore SIGPIPE, as a write to
    /// a connection that the broker has closed would otherwise end it.
    Client(const ClientSessionOptions& options, const char* name);

    /// Calls no handler. Logs the messages that still wait, waits at most 2 s until the broker has
    /// acknowledged all that was published (and logs how many messages it has not), disconnects.
    ~Client() override;

    // libmosquittopp would let a copy free the same connection twice.
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Keeps `handler`, which is borrowed and must live until the last loop() has returned. To be
    /// called before the first start().
    void registerHandler(Handler* handler);

    /// Connects, or connects again; `host` and `port` go to libmosquitto unchanged, so a socket's
    /// path with port 0 is a Unix socket. Returns a mosq_err_t. Throws nothing.
    ///
    /// Waits before each attempt (exponential backoff, 10 ms to 1 s, reset after 5 s of
    /// connection). If a signal ends the wait, attempts nothing and returns MOSQ_ERR_NO_CONN.
    int start(const char* host, int port);

    /// Waits at most `timeout_ms` for the broker, takes in what it has sent, and hands out one
    /// message. Returns a mosq_err_t; a status that is not MOSQ_ERR_SUCCESS is the connection's,
    /// and nothing is handed out then. Nothing is handed out either after a wait that a signal has
    /// ended. Throws nothing.
    ///
    /// If messages wait, does not wait for more, but gives the last result some time to be
    /// acknowledged: a twentieth of the time that its handlers took, at most a second.
    ///
    /// Hides mosquittopp's loop(), which also works: it hands messages out inside the library's
    /// callback, where a publish() is only queued until the next loop.
    int loop(int timeout_ms, int max_packets);

    /// Whether there can be a message of this length, given MQTT's limit for a packet.
    static bool fitsPacket(const char* topic, int payloadlen);

    /// Hides mosquittopp's publish(), which keeps nothing for the next connection. With QoS 0 it is
    /// that one. Otherwise keeps a copy until the broker has acknowledged the message. Refuses with
    /// MOSQ_ERR_PAYLOAD_SIZE what is too large for MQTT, and with MOSQ_ERR_NOT_SUPPORTED a message
    /// like one that was dropped. Without a connection, when it breaks, or without memory, returns
    /// MOSQ_ERR_NO_CONN, MOSQ_ERR_CONN_LOST, MOSQ_ERR_ERRNO or MOSQ_ERR_NOMEM, and sends the
    /// message later. Throws std::bad_alloc, having done nothing.
    virtual int publish(int* mid, const char* topic, int payloadlen, const void* payload, int qos,
                        bool retain);

protected:
    // Derived classes may override these and must call the base version.
    void on_connect(int rc) override;
    void on_disconnect(int rc) override;
    void on_publish(int mid) override;
    void on_message(const mosquitto_message* msg) override;
    void on_subscribe(int mid, int qos_count, const int* granted_qos) override;

    /// Called when the broker has answered the subscription of `handler`; logs a refusal.
    virtual void on_subscribed(const Handler& handler, bool granted);

    /// In words, why a TLS connection has ended before the broker's answer, as far as is known;
    /// empty without TLS. libmosquitto has one status for all causes.
    virtual std::string tls_failure() const { return ""; }

    /// Called after the libmosquitto handle was recreated, before connecting. Override it to set
    /// credentials or TLS again.
    virtual void on_renewed() {}

    /// Whether the broker has acknowledged everything that was published.
    bool all_acknowledged() const { return _outbox.empty(); }
    /// Whether no received message waits for its handlers.
    bool all_handed_out() const { return _inbox.empty(); }
    /// Hands the oldest message that waits to its handlers, if there is one.
    void hand_out();
    /// Forgets the received messages that wait, without a record.
    void discard_inbox() { _inbox = Inbox(); }

    /// The wait of the destructor. A derived class whose overrides are to be called until the end
    /// calls it in its own destructor. The second call does nothing.
    void stop();

private:
    enum class Link { down, opening, up };

    /// What a wait for the socket has brought.
    struct Ready {
        short events;  ///< of poll(2); 0 if the time ran out or a signal came
        bool interrupted;
    };

    struct Subscription {
        Handler* handler;
        int mid;  ///< of the last SUBSCRIBE packet
    };

    // Connecting
    int renew();
    void subscribe_all();
    int hand_over(Outbox::Publication& publication);
    void publish_again();
    void look_after_connection();
    void give_up_connection();
    void look_for_suspect(bool lived);

    // One round of the loop
    Ready wait_for_socket(Clock::duration time);
    int exchange(short events, int max_packets);
    Clock::duration time_for_handshake() const;

    void deliver(const mosquitto_message* msg);
    void dispatch(Handler& handler, const mosquitto_message* msg);
    void drop_inbox(const char* why);
    void deliver_pending();
    void log_caught(const char* where) noexcept;

    log4cpp::Category& log;
    ClientSessionOptions _options;
    std::vector<Subscription> _subscriptions;
    std::string _broker;  ///< the broker as the log names it

    Link _link = Link::down;
    Clock::time_point _opened;  ///< when the socket was last connected
    bool _given_up = false;     ///< the present connection, by this client
    bool _subscribed_before = false;
    Pace _pace;
    LinkLog _link_log;

    Inbox _inbox;
    bool _is_taking_in = false;          ///< what comes now goes to the inbox
    Clock::time_point _handshake_until;  ///< the last result's time for its acknowledgement
    Outbox _outbox;
    Clock::duration _patience;            ///< with the oldest message's acknowledgement
    bool _library_holds_dropped = false;  ///< a message that was dropped from the outbox
    bool _told_what_is_missing = false;
    bool _stopping = false;
};

}  // namespace mqlink
