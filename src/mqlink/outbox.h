#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace mqlink {

/// Copies of the messages that the broker has not acknowledged to the end, in the order in which
/// they were published. A retained message supersedes an older retained one on its topic, which is
/// then not published again. But an empty message, which removes the retained one, supersedes only
/// an empty one: subscribers still get the message that it removes.
///
/// Also finds the message at which a broker ends each connection, so that it does not keep the
/// others from being delivered for ever.
class Outbox {
public:
    using Duration = std::chrono::steady_clock::duration;

    struct Publication {
        int mid;  ///< the library's packet identifier; 0 until it was handed over
        std::string topic;
        std::string payload;  ///< empty once it was superseded
        std::size_t size;     ///< of the payload, in bytes
        int qos;
        bool retain;
        bool superseded;
    };

    /// A message at which connections ended.
    struct Suspect {
        std::string topic;
        std::size_t size;  ///< of the payload, in bytes
        int qos;
        bool retain;
        int connections;  ///< how many have ended, in a row
    };

    /// Adds a copy, which the caller then hands over to the library. The reference is valid until
    /// the next call. Throws std::bad_alloc, having done nothing.
    Publication& add(const char* topic, std::string payload, int qos, bool retain);
    /// Takes the newest message back, which the library has refused.
    void remove_newest() { _publications.pop_back(); }

    /// The broker has acknowledged the message with this identifier, if there is one.
    void acknowledge(int mid);

    /// The library has forgotten every message: all are to be handed over again, but for those that
    /// were superseded, which are dropped.
    void begin_anew();
    /// The oldest message that is to be handed over, or null.
    Publication* next_to_hand_over();

    bool empty() const { return _publications.empty(); }
    /// Number of messages, but for those that were superseded.
    std::size_t count() const;

    // The acknowledgement of the oldest message

    /// Begins to wait for it: the message is with the library, and the connection is up.
    void expect_acknowledgement();
    /// How long it has been waited for.
    Duration waited() const { return std::chrono::steady_clock::now() - _waiting_since; }
    /// The part of waited() in which it could have been received.
    Duration listened() const { return waited() - _deaf; }
    /// Nothing could be received for this long.
    void was_deaf(Duration time) { _deaf += time; }
    /// Whether the broker has acknowledged any message so far.
    bool has_acknowledgements() const { return _has_acknowledgements; }

    // Messages at which connections end

    /// The broker, or the network, has ended the connection. Returns the oldest message if it was
    /// handed over within the last 5 s, in which the time of jobs does not count. Otherwise, and if
    /// the connection had `lived`, forgets what it suspected and what was dropped. May throw
    /// std::bad_alloc.
    std::optional<Suspect> connection_ended(bool lived);
    /// Removes the suspect, and remembers it.
    void drop(const Suspect& suspect);
    /// Whether a message like this was dropped.
    bool was_dropped(const char* topic, std::size_t size) const;

private:
    using Key = std::pair<std::string, std::size_t>;  ///< topic, and size of the payload

    std::deque<Publication> _publications;
    std::chrono::steady_clock::time_point _waiting_since{};
    Duration _deaf{0};  ///< since then
    bool _has_acknowledgements = false;
    std::map<Key, int> _suspicions;  ///< how many connections ended at it; `dropped` if given up
};

}  // namespace mqlink
