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

    /// Subscribes to `topic` + `job_id`, or to all jobs if that is "+", on each connection.
    /// `sink` is called within the waits below. With `required` false a refusal does not matter.
    void listen(const std::string& topic, const std::string& job_id, int qos, bool required,
                Sink sink);

    /// Connects; returns when the broker has answered all subscriptions and sent what it retains
    /// for them. Throws Failure at once if it cannot be reached or refuses.
    void open(Deadline deadline);

    /// What is added to the text when a wait ends at its deadline or at SIGINT from now on.
    void set_parting_words(const std::string& text) { _parting_words = text; }

    /// Publishes and waits until the broker has taken it.
    void send(const std::string& topic, const std::string& payload, int qos, bool retain,
              Deadline deadline);

    /// Runs the conversation until `done`. `what` is shown meanwhile.
    void wait_until(const std::function<bool()>& done, const std::string& what, Deadline deadline);

private:
    class Listener;

    void on_renewed() override { log_in(); }
    void on_connect(int rc) override;
    void on_message(const mosquitto_message* message) override;
    void on_subscribe(int mid, int qos_count, const int* granted_qos) override;
    void on_log(int level, const char* text) override;

    void log_in();
    void connect_within(Deadline deadline);
    bool step(const std::string& what, Deadline deadline);
    std::optional<Failure> reason_to_give_up(Deadline deadline) const;
    bool is_ready() const { return _answered == _listeners.size(); }

    Connection _connection;  ///< with port 0 for a Unix socket
    std::string _name;       ///< of the broker, for people
    std::vector<std::unique_ptr<Listener>> _listeners;
    std::size_t _answered = 0;  ///< subscriptions, on this connection
    bool _refused = false;
    bool _was_ready = false;
    bool _ending = false;
    std::string _parting_words;
};

}  // namespace pexctl
