#include "pexctl/broker_session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <random>
#include <thread>
#include <utility>

#include "pexctl/terminal.h"
#include "pexctl/tls_failure.h"

namespace pexctl {

namespace {

using std::chrono::milliseconds;

constexpr const char* log_category = "pexctl";
constexpr milliseconds progress_interval(100);
constexpr std::chrono::seconds settling_time(5);

// MQTT 3.1.1 lets a broker send retained messages before its answer to the subscription or at any
// time behind it, and marks no end of them. Brokers send them within milliseconds. A network adds
// what it varies by, which the time of an answer stands for.
constexpr milliseconds shortest_silence(100);

volatile sig_atomic_t sigint_came = 0;

void interrupt_handler(int)
{
    sigint_came = 1;
}

mqlink::ClientSessionOptions session_options()
{
    static const std::string id = "pexctl-" + random_job_id();
    mqlink::ClientSessionOptions options;
    options.client_id = id.c_str();
    options.clean_session = true;
    options.resubscribe_on_connect = true;
    return options;
}

Connection with_port(Connection connection)
{
    if (connection.host.find('/') != std::string::npos) {
        connection.port = 0;
    }
    return connection;
}

const char* or_null(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace

std::string random_job_id()
{
    std::random_device random;
    std::string id;
    for (int i = 0; i < 12; ++i) {
        id += "0123456789abcdef"[random() % 16];
    }
    return id;
}

class BrokerSession::Listener : public mqlink::Handler {
public:
    Listener(const std::string& topic, const std::string& job_id, int qos, bool required, Sink sink)
        : mqlink::Handler(log_category, topic + job_id, qos),
          required(required),
          _job_id(job_id),
          _sink(std::move(sink))
    {
    }

    void onMessage(const mqlink::FilterVariables& vars, const mosquitto_message* message,
                   mqlink::Client&) override
    {
        _sink(*message, _job_id == "+" ? vars.get(0).value : _job_id);
    }

    const bool required;
    bool is_answered = false;  ///< the subscription, on this connection

private:
    std::string _job_id;
    Sink _sink;
};

BrokerSession::BrokerSession(const Connection& connection)
    : mqlink::Client(session_options(), log_category),
      _connection(with_port(connection)),
      _name(_connection.host +
            (_connection.port == 0 ? "" : ":" + std::to_string(_connection.port)))
{
    log_to_notes(log_category);
    // That it has connected is no news.
    log4cpp::Category::getInstance(log_category).setPriority(log4cpp::Priority::NOTICE);
    log_in();

    struct sigaction action = {};
    action.sa_handler = interrupt_handler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
}

BrokerSession::~BrokerSession()
{
    _ending = true;
    discard_inbox();  // or messages that matter no more would be reported as lost
    stop();
}

void BrokerSession::listen(const std::string& topic, const std::string& job_id, int qos,
                           bool required, Sink sink)
{
    _listeners.push_back(std::make_unique<Listener>(topic, job_id, qos, required, std::move(sink)));
    registerHandler(_listeners.back().get());
}

void BrokerSession::open(Deadline deadline)
{
    const std::string what = "Connecting to " + _name;
    connect_within(deadline);
    while (!is_ready()) {
        if (!step(what, deadline, progress_interval) || _refused) {
            throw Failure(no_broker, "");  // the client has said why
        }
    }
    _was_ready = true;
    clear_progress();
}

void BrokerSession::wait_for_retained(Deadline deadline)
{
    const std::string what = "Receiving what " + _name + " retains";
    _retained_came = Clock::now();
    milliseconds left;
    unsigned received_before;
    // The last round does not wait. It finds what arrived while this process was suspended.
    do {
        left = std::chrono::ceil<milliseconds>(_retained_came + _time_to_answer + shortest_silence -
                                               Clock::now());
        received_before = _received;
        if (!step(what, deadline, std::clamp(left, milliseconds(0), progress_interval))) {
            throw Failure(no_broker, "");  // the client has said why
        }
    } while (left.count() > 0 || _received != received_before || !all_handed_out());
    clear_progress();
}

void BrokerSession::send(const std::string& topic, const std::string& payload, int qos, bool retain,
                         Deadline deadline)
{
    _sending = topic;
    _is_taken = false;
    const int size = static_cast<int>(std::min<std::size_t>(payload.size(), INT_MAX));
    const int rc = publish(nullptr, topic.c_str(), size, payload.data(), qos, retain);
    const bool is_kept = rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST ||
                         rc == MOSQ_ERR_ERRNO || rc == MOSQ_ERR_NOMEM;
    if (rc != MOSQ_ERR_SUCCESS && !is_kept) {
        throw Failure(wrong_usage, "Cannot publish on " + topic + ". " + mosqpp::strerror(rc));
    }
    wait_until([&] { return all_acknowledged(); }, "Sending to " + _name, deadline);
    if (!_is_taken) {  // the client has dropped it, and said why
        throw Failure(no_broker,
                      "Broker " + _name + " does not take the message on " + topic + ".");
    }
}

void BrokerSession::wait_until(const std::function<bool()>& done, const std::string& what,
                               Deadline deadline)
{
    while (!done()) {
        if (!step(what, deadline, progress_interval)) {
            connect_within(deadline);
        }
    }
    clear_progress();
}

void BrokerSession::on_connect(int rc)
{
    for (const auto& listener : _listeners) {
        listener->is_answered = false;
    }
    _refused = rc != 0;
    if (rc == 0) {
        ++_connections;
        _is_up = true;
        _up_since = Clock::now();
        if (_losses == 1) {
            note("Connected to broker " + _name + " again");
        }
    }
    Client::on_connect(rc);
}

void BrokerSession::on_disconnect(int rc)
{
    // The sinks only take notes, so they may be called in here. An end of transaction that was
    // dropped with the connection would not come again.
    while (!all_handed_out()) {
        hand_out();
    }
    const bool was_up = _is_up;
    _is_up = false;
    _has_ended = true;
    Client::on_disconnect(rc);
    if (was_up && !_ending) {
        count_loss();
    }
}

void BrokerSession::on_publish(int mid)
{
    _is_taken = true;  // one message is sent at a time
    Client::on_publish(mid);
}

void BrokerSession::on_message(const mosquitto_message* message)
{
    if (_ending) {  // or what comes now, such as our own withdrawal, would be reported as lost
        return;
    }
    ++_received;
    if (message->retain) {
        _retained_came = Clock::now();
    }
    Client::on_message(message);
}

void BrokerSession::on_subscribed(const mqlink::Handler& handler, bool granted)
{
    for (const auto& listener : _listeners) {
        if (listener.get() == &handler) {
            listener->is_answered = true;
            if (listener->required) {
                _refused = _refused || !granted;
                Client::on_subscribed(handler, granted);
            }
        }
    }
    _time_to_answer = Clock::now() - _up_since;
}

void BrokerSession::on_log(int level, const char* text)
{
    if (level != MOSQ_LOG_ERR) {
        return;
    }
    if (_connection.uses_tls() && !_is_up) {
        _tls_texts.push_back(text);
    } else {
        note(text);
    }
}

std::string BrokerSession::tls_failure() const
{
    return _connection.uses_tls() ? explain_tls_failure(_tls_texts, !_connection.cert_file.empty())
                                  : "";
}

void BrokerSession::log_in()
{
    for (const std::string& path :
         {_connection.ca_file, _connection.ca_dir, _connection.cert_file, _connection.key_file}) {
        if (!path.empty() && access(path.c_str(), R_OK) != 0) {
            throw Failure(wrong_usage, path + ": " + std::strerror(errno));
        }
    }
    int rc = MOSQ_ERR_SUCCESS;
    if (!_connection.user.empty()) {
        rc = username_pw_set(_connection.user.c_str(), or_null(_connection.password));
    }
    if (rc == MOSQ_ERR_SUCCESS && _connection.uses_tls()) {
        rc = tls_set(or_null(_connection.ca_file), or_null(_connection.ca_dir),
                     or_null(_connection.cert_file), or_null(_connection.key_file));
    }
    if (rc == MOSQ_ERR_SUCCESS && _connection.insecure) {
        rc = tls_insecure_set(true);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        throw Failure(wrong_usage,
                      std::string("Cannot use this log-in data. ") + mosqpp::strerror(rc));
    }
}

/// Makes one attempt, which shows its result by the connection alone. Neither a look-up nor
/// connect(2) can be called off, so it runs on a thread of its own, and giving up ends the process.
void BrokerSession::connect_within(Deadline deadline)
{
    _has_ended = false;
    _tls_texts.clear();
    std::packaged_task<void()> attempt(
        [this] { start(_connection.host.c_str(), _connection.port); });
    std::future<void> end = attempt.get_future();
    std::thread thread(std::move(attempt));
    while (end.wait_for(progress_interval) != std::future_status::ready) {
        show_progress("Connecting to " + _name);
        if (const auto failure = reason_to_give_up(deadline)) {
            note(failure->what());
            std::_Exit(failure->status());
        }
    }
    thread.join();
}

/// One round of the loop, which waits at most `time`. False if there is no connection.
bool BrokerSession::step(const std::string& what, Deadline deadline, milliseconds time)
{
    if (const auto failure = reason_to_give_up(deadline)) {
        clear_progress();
        throw *failure;
    }
    show_progress(what);
    const int rc = loop(static_cast<int>(time.count()), 1);
    look_after_losses();
    // Of a handshake. Some versions of libmosquitto call on_disconnect() for it.
    if (rc == MOSQ_ERR_TLS && !_has_ended) {
        note("Couldn't reach broker " + _name + ". " + tls_failure());
    }
    return rc != MOSQ_ERR_NO_CONN && rc != MOSQ_ERR_CONN_LOST;
}

bool BrokerSession::is_ready() const
{
    return std::all_of(_listeners.begin(), _listeners.end(),
                       [](const auto& listener) { return listener->is_answered; });
}

/// A connection was lost. The client says it once, and why, until a connection has settled.
void BrokerSession::count_loss()
{
    const bool had_settled = Clock::now() - _up_since > settling_time;
    _losses = had_settled ? 1 : _losses + 1;
    if (_losses != 2) {
        return;
    }
    std::string when = ", within seconds each time";
    if (!all_acknowledged()) {
        when = ", before the broker has acknowledged the message on " + _sending;
    } else if (!is_ready()) {
        when = ", before the broker has answered the subscriptions";
    }
    note("The connection to broker " + _name + " breaks repeatedly" + when);
}

/// Says that the connection has settled, if it had broken repeatedly before.
void BrokerSession::look_after_losses()
{
    if (_is_up && _losses > 0 && Clock::now() - _up_since > settling_time) {
        if (_losses > 1) {
            note("Connected to broker " + _name + " again");
        }
        _losses = 0;
    }
}

std::optional<Failure> BrokerSession::reason_to_give_up(Deadline deadline) const
{
    if (sigint_came != 0) {
        return Failure(interrupted, "Interrupted." + _parting_words);
    }
    if (std::chrono::steady_clock::now() < deadline) {
        return std::nullopt;
    }
    if (!_was_ready) {
        return Failure(no_broker, "Couldn't reach broker " + _name + " in time." + _parting_words);
    }
    return Failure(timed_out, "No answer in time." + _parting_words);
}

}  // namespace pexctl
