#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mqlink/client.h"
#include "pexctl/failure.h"

namespace pexctl {

/// Where the broker is and how to log in there. Empty texts mean "not given".
struct Connection {
    std::string host = "localhost";  ///< with a '/' in it, the path of a Unix socket
    int port = 1883;
    std::string user;
    std::string password;
    std::string ca_file;
    std::string ca_dir;
    std::string cert_file;
    std::string key_file;
    bool insecure = false;  ///< TLS without checking that the certificate is for this host

    bool uses_tls() const { return !ca_file.empty() || !ca_dir.empty(); }
};

/// 12 hexadecimal digits that nobody has used before.
std::string random_job_id();

using Deadline = std::chrono::steady_clock::time_point;

/// The server's side of a conversation: the daemon's broker client, with a log-in of its own, that
/// leaves what it has to say about the connection on standard error. All waits show their progress
/// there, end with Failure at their deadline or at SIGINT, and survive a lost connection.
class BrokerSession : public mqlink::Client {
public:
    using Sink = std::function<void(const mosquitto_message& message, const std::string& job_id)>;

    /// Connects to nothing yet. Throws Failure for log-in data that cannot be used.
    explicit BrokerSession(const Connection& connection);
    ~BrokerSession() override;

    /// Subscribes to `topic` + `job_id`, or to all jobs if that is "+", on each connection. To be
    /// called before open(). `sink` is called within the waits below, and must not publish. With
    /// `required` false a refusal does not matter.
    void listen(const std::string& topic, const std::string& job_id, int qos, bool required,
                Sink sink);

    /// Connects; returns when the broker has answered all subscriptions. Throws Failure at once if
    /// it cannot be reached or refuses.
    void open(Deadline deadline);

    /// To be called after open(). Returns when nothing retained has arrived for a moment: a tenth
    /// of a second longer than the broker took to answer the subscriptions. Throws Failure also if
    /// the connection is lost.
    void wait_for_retained(Deadline deadline);

    /// How many connections the broker has accepted so far. Messages that a sink receives are of
    /// the last one.
    unsigned connections() const { return _connections; }

    /// What is added to the text when a wait ends at its deadline or at SIGINT from now on.
    void set_parting_words(const std::string& text) { _parting_words = text; }

    /// Publishes and waits until the broker has acknowledged it. `qos` is 1 or 2. Throws Failure
    /// also if the broker does not take the message.
    void send(const std::string& topic, const std::string& payload, int qos, bool retain,
              Deadline deadline);

    /// Runs the conversation until `done`. `what` is shown meanwhile.
    void wait_until(const std::function<bool()>& done, const std::string& what, Deadline deadline);

private:
    class Listener;

    void on_renewed() override { log_in(); }
    void on_connect(int rc) override;
    void on_disconnect(int rc) override;
    void on_publish(int mid) override;
    void on_message(const mosquitto_message* message) override;
    void on_subscribed(const mqlink::Handler& handler, bool granted) override;
    void on_log(int level, const char* text) override;
    std::string tls_failure() const override;

    void log_in();
    void connect_within(Deadline deadline);
    bool step(const std::string& what, Deadline deadline, std::chrono::milliseconds time);
    std::optional<Failure> reason_to_give_up(Deadline deadline) const;
    bool is_ready() const;
    void count_loss();
    void look_after_losses();

    Connection _connection;               ///< with port 0 for a Unix socket
    std::string _name;                    ///< of the broker, for people
    std::vector<std::string> _tls_texts;  ///< libmosquitto's, while a TLS connection is opened
    std::vector<std::unique_ptr<Listener>> _listeners;
    bool _refused = false;
    bool _was_ready = false;
    bool _ending = false;
    std::string _parting_words;

    unsigned _connections = 0;
    bool _is_up = false;
    bool _has_ended = false;      ///< the present attempt, and the client has said why
    Clock::time_point _up_since;  ///< when the present connection, or else the last one, began
    int _losses = 0;              ///< of connections in a row, the later ones within seconds

    Clock::duration _time_to_answer{};  ///< from the present connection to its last SUBACK
    Clock::time_point _retained_came;   ///< when the last retained message arrived
    unsigned _received = 0;             ///< messages
    std::string _sending;               ///< the topic of the message that send() waits for
    bool _is_taken = false;             ///< that message, by the broker
};

}  // namespace pexctl
