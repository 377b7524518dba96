#include "pexctl/jobs.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <msgpack.hpp>
#include <optional>
#include <utility>

#include "pexctl/terminal.h"
#include "pexctl/text.h"

namespace pexctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

/// How long `submit` and `attach` wait until a withdrawal is confirmed: they have their answer.
constexpr seconds confirmation_limit(10);

constexpr int request_qos = 1;
constexpr int result_qos = 1;

Deadline after(seconds timeout)
{
    return timeout.count() == 0 ? Deadline::max() : Clock::now() + timeout;
}

std::string payload_of(const mosquitto_message& message)
{
    const char* bytes = static_cast<const char*>(message.payload);
    return std::string(bytes == nullptr ? "" : bytes, static_cast<std::size_t>(message.payloadlen));
}

/// What passes the broker about one job id.
class Job {
public:
    Job(BrokerSession& session, const JobOptions& options) : _session(session), _options(options)
    {
        // Not QoS 2: libmosquitto hands a message over only after its handshake, for which
        // wait_for_retained() would not wait.
        session.listen("out/cmd/", options.id, result_qos, true,
                       [this](const mosquitto_message& message, auto&) { on_result(message); });
        // Listening to the requests is not needed, and the broker may forbid it. It shows whether
        // someone else uses the job id.
        session.listen("in/cmd/", options.id, request_qos, false,
                       [this](const mosquitto_message& message, auto&) { on_request(message); });
    }

    /// Throws Failure if the broker holds something of an earlier job.
    void expect_unused() const;
    void request(const std::string& payload, const RequestOptions& how, Deadline deadline);
    /// Waits for the result, shows it, and withdraws the job unless it is to be kept.
    ExitStatus finish(Deadline deadline);
    /// Throws Failure unless the service confirms it in time.
    void withdraw(Deadline deadline);

private:
    void on_result(const mosquitto_message& message);
    bool is_of_earlier_job(const mosquitto_message& message) const;
    void tell_earlier_result(const mosquitto_message& message);
    void on_request(const mosquitto_message& message);

    ExitStatus show(const std::string& if_not_written) const;
    std::string name() const { return "job " + _options.id; }
    std::string left_as_it_is() const { return " Job " + _options.id + " is left as it is. "; }
    std::string command(const char* verb) const;

    BrokerSession& _session;
    const JobOptions& _options;
    std::string _request;        ///< our own, if we sent one
    unsigned _requested_on = 0;  ///< the number of the connection on which it was first sent
    std::optional<std::string> _earlier_result;  ///< of a job before ours
    bool _requested_before = false;
    bool _withdrawing = false;
    bool _withdrawn_by_others = false;
    bool _has_result = false;
    bool _confirmed = false;
    std::string _result;
};

void Job::expect_unused() const
{
    if (_has_result || _requested_before) {
        throw Failure(wrong_usage, "The broker already holds a " +
                                       std::string(_has_result ? "result" : "request") + " of " +
                                       name() + ". Choose another id, or see `" +
                                       command("attach") + "` and `" + command("withdraw") + "`.");
    }
}

void Job::request(const std::string& payload, const RequestOptions& how, Deadline deadline)
{
    _request = payload;
    _requested_on = _session.connections();
    _session.set_parting_words(" Job " + _options.id +
                               " may have been sent. Look for its result: " + command("attach"));
    _session.send("in/cmd/" + _options.id, payload, how.qos, how.retain, deadline);
}

ExitStatus Job::finish(Deadline deadline)
{
    const std::string left = left_as_it_is() + "Wait for its result: " + command("attach");
    if (!_earlier_result) {
        _session.set_parting_words(left);
    }
    _session.wait_until([this] { return _has_result || _withdrawn_by_others; },
                        "Waiting for the result of " + name(), deadline);
    if (!_has_result) {
        throw Failure(job_failed, "Job " + _options.id + " was withdrawn by another client.");
    }
    const ExitStatus status = show(left);
    if (!_options.keep) {
        try {
            withdraw(after(confirmation_limit));
        } catch (const Failure& failure) {  // the job itself is done, and its verdict stands
            note(failure.what());
        }
    }
    return status;
}

/// An answer that cannot be written must not be withdrawn.
ExitStatus Job::show(const std::string& if_not_written) const
try {
    return show_result(_result, _options.view);
} catch (const Failure& failure) {
    throw Failure(failure.status(), failure.what() + if_not_written);
}

void Job::withdraw(Deadline deadline)
{
    _withdrawing = true;
    _session.set_parting_words(" The service has not confirmed the withdrawal of " + name() +
                               ". Repeat it: " + command("withdraw"));
    // Retained, or the broker would keep a retained request.
    _session.send("in/cmd/" + _options.id, "", request_qos, true, deadline);
    _session.wait_until([this] { return _confirmed; }, "Withdrawing " + name(), deadline);
}

void Job::on_result(const mosquitto_message& message)
{
    if (_withdrawing) {
        _confirmed = _confirmed || message.payloadlen == 0;
    } else if (!_has_result && is_of_earlier_job(message)) {
        tell_earlier_result(message);
    } else if (!_has_result && !(_withdrawn_by_others && message.payloadlen == 0)) {
        _has_result = true;
        _result = payload_of(message);
    }
}

/// A broker sets the retain flag on what it already held at the subscription (MQTT 3.1.1, section
/// 3.3.1.3). On the connection on which the request was first sent, that is older than the request.
/// On a later one it may be the answer.
bool Job::is_of_earlier_job(const mosquitto_message& message) const
{
    if (!message.retain || _request.empty() || _options.has_new_id) {
        return false;
    }
    return _session.connections() == _requested_on || payload_of(message) == _earlier_result;
}

void Job::tell_earlier_result(const mosquitto_message& message)
{
    if (!_earlier_result) {
        note("The broker held a result of an earlier job with the id " + _options.id +
             ". It is not the answer, and is neither shown nor withdrawn.");
        _session.set_parting_words(left_as_it_is() + "Until it has a result, `" +
                                   command("attach") + "` shows the earlier one.");
    }
    _earlier_result = payload_of(message);
}

void Job::on_request(const mosquitto_message& message)
{
    if (_withdrawing) {
        return;
    }
    if (message.payloadlen == 0) {
        _withdrawn_by_others = true;
    } else if (_request.empty()) {
        _requested_before = true;
    } else if (payload_of(message) != _request) {
        note("Another client has sent a request with the job id " + _options.id +
             ", too. The answer may be to that one.");
    }
}

/// A command line for users to copy.
std::string Job::command(const char* verb) const
{
    const char* end_of_options = _options.id.substr(0, 1) == "-" ? " -- " : " ";
    return std::string("pexctl ") + verb + _options.as_typed + end_of_options +
           shell_word(_options.id);
}

constexpr std::size_t longest_text = 200;  // characters of an answer in the table

/// A row of the table that `list` prints.
struct Row {
    std::string state;
    std::size_t size;
    std::string text;
};

using Rows = std::multimap<std::string, Row>;

void print(const Rows& rows)
{
    std::size_t id_width = 2;
    for (const auto& [id, row] : rows) {
        id_width = std::max(id_width, id.size());
    }
    const std::size_t columns = terminal_width(STDOUT_FILENO);
    const std::size_t head_width = id_width + 24;
    const std::size_t text_width = columns < head_width + 20 ? longest_text : columns - head_width;
    const auto line = [&](const std::string& id, const std::string& state, const std::string& size,
                          const std::string& text) {
        char head[64];
        std::snprintf(head, sizeof head, "  %-9s  %9s  ", state.c_str(), size.c_str());
        write_all(STDOUT_FILENO, id + std::string(id_width - id.size(), ' ') + head + text + "\n");
    };
    line("ID", "STATE", "BYTES", "ANSWER, REASON OR REQUEST");
    for (const auto& [id, row] : rows) {
        line(id, row.state, std::to_string(row.size),
             cut_line(row.text, std::min(text_width, longest_text)));
    }
}

}  // namespace

std::string shell_word(const std::string& text)
{
    const char* harmless =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:=@%+,";
    if (!text.empty() && text.find_first_not_of(harmless) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return quoted + "'";
}

std::string request_payload(const std::string& script, const std::string& packed_args)
{
    msgpack::sbuffer head;
    msgpack::packer<msgpack::sbuffer> packer(head);
    packer.pack_map(2);
    packer.pack("lua_script");
    packer.pack(script);
    packer.pack("args");
    return std::string(head.data(), head.size()) + packed_args;
}

ExitStatus show_result(const std::string& payload, View view)
{
    const bool terminal = stdout_is_terminal();
    const Verdict verdict = verdict_of(payload);
    // On a terminal a failure of the service is told once, by its reason.
    if (!(verdict.from_the_service && terminal && view == View::automatic)) {
        write_all(STDOUT_FILENO, render(payload, view, terminal));
    }
    if (!verdict.succeeded) {
        note("The job failed: " + verdict.reason);
        return job_failed;
    }
    if (payload.empty()) {
        note("The answer is empty. A server cannot tell that from a withdrawn job.");
    }
    return job_succeeded;
}

ExitStatus submit(const Connection& connection, const std::string& request,
                  const RequestOptions& how, const JobOptions& options)
{
    const Deadline deadline = after(options.timeout);
    BrokerSession session(connection);
    Job job(session, options);
    session.open(deadline);
    if (!options.has_new_id) {
        session.wait_for_retained(deadline);
        job.expect_unused();
    }
    job.request(request, how, deadline);
    if (how.detach) {
        write_all(STDOUT_FILENO, options.id + "\n");
        return job_succeeded;
    }
    return job.finish(deadline);
}

ExitStatus attach(const Connection& connection, const JobOptions& options)
{
    const Deadline deadline = after(options.timeout);
    BrokerSession session(connection);
    Job job(session, options);
    session.open(deadline);
    return job.finish(deadline);
}

ExitStatus withdraw(const Connection& connection, const JobOptions& options)
{
    const Deadline deadline = after(options.timeout);
    BrokerSession session(connection);
    Job job(session, options);
    session.open(deadline);
    job.withdraw(deadline);
    return job_succeeded;
}

ExitStatus list(const Connection& connection, const JobOptions& options)
{
    const Deadline deadline = after(options.timeout);
    BrokerSession session(connection);
    Rows rows;
    const auto add = [&](const mosquitto_message& message, const std::string& id, bool is_result) {
        if (!message.retain || message.payloadlen == 0) {
            return;  // not held by the broker, but on its way through it
        }
        const std::string payload = payload_of(message);
        const char* verdict = verdict_of(payload).succeeded ? "succeeded" : "failed";
        rows.insert({printable(id),
                     {is_result ? verdict : "requested", payload.size(),
                      first_line(payload, longest_text)}});
    };
    session.listen("out/cmd/", "+", 0, true,
                   [&](auto& message, auto& id) { add(message, id, true); });
    session.listen("in/cmd/", "+", 0, true,
                   [&](auto& message, auto& id) { add(message, id, false); });
    session.open(deadline);
    session.wait_for_retained(deadline);
    if (rows.empty()) {
        note("The broker holds no results and no retained requests.");
    } else {
        print(rows);
    }
    return job_succeeded;
}

}  // namespace pexctl
