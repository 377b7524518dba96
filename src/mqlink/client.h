#pragma once

#include <mosquittopp.h>

#include <chrono>
#include <deque>
#include <log4cpp/Category.hh>
#include <set>
#include <string>
#include <vector>

#include "mqlink/handler.h"

namespace mqlink {

struct ClientSessionOptions {
    const char* client_id;        ///< MQTT client identifier; must stay valid for the client's life
    bool clean_session;           ///< MQTT clean-session flag of each connection
    bool resubscribe_on_connect;  ///< subscribe again on every connection, not on the first alone
};

/// The one broker connection and the handlers that its messages go to. Single-threaded: everything
/// happens inside the calls of its owner, who drives it with start() and loop().
///
/// The client never sends MQTT pings, since a job may block it for any time; the kernel's TCP
/// keepalive finds a broker that vanished, within 60 s. A change of the connection's state is
/// logged once, under the category given at construction: while attempts fail in a row, or
/// connections end within seconds, no line is repeated.
///
/// A broker that does not acknowledge the oldest message, but answers other requests, is left for a
/// new connection after a minute or so.
///
/// What the broker has not acknowledged when a connection ends is published anew on the next one,
/// in the same order: it arrives at least once, and twice if only the acknowledgement was lost.
class Client : public mosqpp::mosquittopp {
public:
    /// `name` is that of the client's log category.
    Client(const ClientSessionOptions& options, const char* name);

    /// Calls no handler. Waits at most 2 s until the broker has acknowledged all that was published
    /// (and logs how many messages it has not), then disconnects.
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
    /// Paces itself: the time from attempt to attempt grows from 10 ms to 1 s, and starts over
    /// after a connection that lived for 5 s. A signal ends the wait; then nothing is attempted
    /// and MOSQ_ERR_NO_CONN returned.
    int start(const char* host, int port);

    /// mosquittopp's loop, with a wait of its own in front, which a signal ends. Gives up on a
    /// broker that took the connection and has not answered the MQTT request for 30 s. Throws
    /// nothing.
    int loop(int timeout_ms, int max_packets);

    /// Whether there can be a message of this length, given MQTT's limit for a packet.
    static bool fitsPacket(const char* topic, int payloadlen);

    /// mosquittopp's publish, which also keeps a copy until the broker has acknowledged the
    /// message, and refuses what is too large for MQTT with MOSQ_ERR_PAYLOAD_SIZE. Without a
    /// connection, when it breaks, or without memory it returns MOSQ_ERR_NO_CONN,
    /// MOSQ_ERR_CONN_LOST, MOSQ_ERR_ERRNO or MOSQ_ERR_NOMEM, and sends the message later; but with
    /// QoS 0 nothing is kept. Throws std::bad_alloc, having done nothing.
    virtual int publish(int* mid, const char* topic, int payloadlen, const void* payload, int qos,
                        bool retain);

protected:
    using Clock = std::chrono::steady_clock;

    // A client of another kind may listen in here, and passes each event on to this class.
    void on_connect(int rc) override;
    void on_disconnect(int rc) override;
    void on_publish(int mid) override;
    void on_message(const mosquitto_message* msg) override;
    void on_subscribe(int mid, int qos_count, const int* granted_qos) override;
    void on_unsubscribe(int mid) override;

    /// Whether the broker has acknowledged everything that was published.
    bool all_acknowledged() const { return _unacknowledged.empty() && _unwritten == 0; }

    /// Called before a connection attempt for which the library's handle was made anew: whatever a
    /// derived class has set on it besides the identifier is to be set again.
    virtual void on_renewed() {}

    /// The wait of the destructor. A derived class that listens in until the end calls it in its
    /// own destructor; once it has been called, it does nothing.
    void stop();

private:
    enum class Link { down, opening, up };

    struct Subscription {
        Handler* handler;
        int mid;  ///< of the last SUBSCRIBE packet
    };

    struct Publication {
        int mid;  ///< the library's packet identifier; 0 while the library does not have it
        std::string topic;
        std::string payload;
        int qos;
        bool retain;
    };

    bool wait_for_turn();
    int renew();
    void expect_acknowledgement();
    void probe_if_due();
    void set_socket_options();
    void set_option(int level, int option, int value);
    void give_up_connection();
    bool wait_for_socket(int timeout_ms);
    void subscribe_all();
    int hand_over(Publication& publication);
    void publish_again();
    void dispatch(Handler& handler, const mosquitto_message* msg);
    void settle_if_due();
    void deliver_pending();
    void log_caught(const char* where) noexcept;
    bool tell(log4cpp::Priority::Value priority, const std::string& text);
    void tell_down(const std::string& text);
    std::string connected_text() const;

    log4cpp::Category& log;
    ClientSessionOptions _options;
    std::vector<Subscription> _subscriptions;
    std::string _broker;  ///< the broker as the log names it

    Link _link = Link::down;
    Clock::time_point _link_since;  ///< when it was last opened, or came up
    bool _subscribed_before = false;
    bool _settled = false;  ///< the connection has lived long enough to count as good

    Clock::time_point _last_attempt;
    std::chrono::milliseconds _pause{0};  ///< least time from _last_attempt to the next one

    std::set<std::string> _told;  ///< lines logged since a connection last settled
    bool _told_up = false;        ///< the last such line about the link says that it is up

    std::deque<Publication> _unacknowledged;  ///< those with QoS 1 and 2, in their order
    int _unwritten = 0;                       ///< number of those with QoS 0 that are not sent yet
    Clock::time_point _waiting_since{};       ///< for an acknowledgement, or since the last probe
    int _probe = 0;            ///< packet identifier of the last UNSUBSCRIBE; 0: none
    int _probes_answered = 0;  ///< since the last acknowledgement
    bool _stopping = false;
};

}  // namespace mqlink
