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

namespace pexctl {

namespace {

using std::chrono::milliseconds;

constexpr const char* log_category = "pexctl";
constexpr int suback_failure = 0x80;  // MQTT 3.1.1, section 3.9.3
constexpr milliseconds progress_interval(100);

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
    // mosquitto answers a subscription before it sends what it retains for it. It has sent that
    // when it answers the next one.
    listen("out/cmd/", session_options().client_id, 0, false, [](auto&, auto&) {});
    const std::string what = "Connecting to " + _name;
    connect_within(deadline);
    while (!is_ready()) {
        if (!step(what, deadline) || _refused) {
            throw Failure(no_broker, "");  // the client has said why
        }
    }
    _was_ready = true;
    clear_progress();
}

void BrokerSession::send(const std::string& topic, const std::string& payload, int qos, bool retain,
                         Deadline deadline)
{
    const int size = static_cast<int>(std::min<std::size_t>(payload.size(), INT_MAX));
    const int rc = publish(nullptr, topic.c_str(), size, payload.data(), qos, retain);
    // With QoS 0 nothing is kept for the next connection.
    const bool is_kept = qos > 0 && (rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST ||
                                     rc == MOSQ_ERR_ERRNO || rc == MOSQ_ERR_NOMEM);
    if (rc != MOSQ_ERR_SUCCESS && !is_kept) {
        throw Failure(wrong_usage, "Cannot publish on " + topic + ". " + mosqpp::strerror(rc));
    }
    wait_until([&] { return all_acknowledged(); }, "Sending to " + _name, deadline);
}

void BrokerSession::wait_until(const std::function<bool()>& done, const std::string& what,
                               Deadline deadline)
{
    while (!done()) {
        if (!step(what, deadline)) {
            connect_within(deadline);
        }
    }
    clear_progress();
}

void BrokerSession::on_connect(int rc)
{
    _answered = 0;
    _refused = rc != 0;
    if (rc == 0 && _was_ready) {
        note("Connected to broker " + _name + " again");
    }
    Client::on_connect(rc);
}

void BrokerSession::on_message(const mosquitto_message* message)
{
    if (!_ending) {  // or what comes now, such as our own withdrawal, would be told as lost
        Client::on_message(message);
    }
}

void BrokerSession::on_subscribe(int mid, int qos_count, const int* granted_qos)
{
    const bool refused = qos_count > 0 && granted_qos[0] == suback_failure;
    // They are answered in the order in which they were asked for.
    if (_answered < _listeners.size() && _listeners[_answered++]->required) {
        _refused = _refused || refused;
        Client::on_subscribe(mid, qos_count, granted_qos);
    }
}

void BrokerSession::on_log(int level, const char* text)
{
    if (level == MOSQ_LOG_ERR) {  // what went wrong with TLS is told here only
        note(text);
    }
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

/// One round of the loop. False if there is no connection.
bool BrokerSession::step(const std::string& what, Deadline deadline)
{
    if (const auto failure = reason_to_give_up(deadline)) {
        clear_progress();
        throw *failure;
    }
    show_progress(what);
    const int rc = loop(progress_interval.count(), 1);
    if (rc == MOSQ_ERR_TLS) {  // which no callback tells
        note("Couldn't reach broker " + _name + ". " + mosqpp::strerror(rc));
    }
    return rc != MOSQ_ERR_NO_CONN && rc != MOSQ_ERR_CONN_LOST;
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
