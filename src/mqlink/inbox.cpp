#include "mqlink/inbox.h"

#include <utility>

namespace mqlink {

Inbox::Message::Message(const mosquitto_message& message)
    : _mid(message.mid), _topic(message.topic), _qos(message.qos), _retain(message.retain)
{
    if (message.payloadlen > 0) {
        _payload.assign(static_cast<const char*>(message.payload),
                        static_cast<std::size_t>(message.payloadlen));
    }
}

mosquitto_message Inbox::Message::record() const
{
    mosquitto_message message = {};
    message.mid = _mid;
    message.topic = const_cast<char*>(_topic.c_str());
    message.payload = _payload.empty() ? nullptr : const_cast<char*>(_payload.data());
    message.payloadlen = static_cast<int>(_payload.size());
    message.qos = _qos;
    message.retain = _retain;
    return message;
}

void Inbox::add(const mosquitto_message& message)
{
    _messages.emplace_back(message);
    _size += _messages.back().size();
}

Inbox::Message Inbox::take()
{
    Message oldest = std::move(_messages.front());
    _messages.pop_front();
    _size -= oldest.size();
    return oldest;
}

}  // namespace mqlink
