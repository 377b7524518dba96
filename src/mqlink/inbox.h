#pragma once

#include <mosquitto.h>

#include <cstddef>
#include <deque>
#include <string>

namespace mqlink {

/// The messages that one connection has brought and that no handler has seen yet, in the order of
/// their arrival.
class Inbox {
public:
    /// A copy of a received message.
    class Message {
    public:
        explicit Message(const mosquitto_message& message);

        const std::string& topic() const { return _topic; }
        /// What the library would hand over. Its pointers are valid while this object lives and is
        /// not moved.
        mosquitto_message record() const;
        /// The memory that it takes, in bytes.
        std::size_t size() const { return sizeof *this + _topic.size() + _payload.size(); }

    private:
        int _mid;
        std::string _topic;
        std::string _payload;
        int _qos;
        bool _retain;
    };

    /// From this size on, in bytes, the inbox is full. It still takes what is added.
    static constexpr std::size_t limit = 1 << 20;

    /// Throws std::bad_alloc, having added nothing.
    void add(const mosquitto_message& message);
    /// Removes the oldest message and returns it. There must be one.
    Message take();

    bool empty() const { return _messages.empty(); }
    bool is_full() const { return _size >= limit; }

private:
    std::deque<Message> _messages;
    std::size_t _size = 0;  ///< of all messages
};

}  // namespace mqlink
