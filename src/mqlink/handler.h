#pragma once

#include <mosquitto.h>

#include <log4cpp/Category.hh>
#include <string>

#include "mqlink/filter_vars.h"

namespace mqlink {

class Client;

/// Base of what is called for each received message whose topic matches one filter.
class Handler {
public:
    /// `name` is that of the handler's log category; `option` is the QoS of its subscription.
    Handler(std::string name, std::string topic_filter, int option);
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

    /// Runs inside Client::loop(), on its thread. `vars` and `msg` are borrowed for this call. May
    /// publish through `client`, but must not call its start() or loop functions. What it throws is
    /// logged by the client and goes no further.
    virtual void onMessage(const FilterVariables& vars, const mosquitto_message* msg,
                           Client& client) = 0;
    virtual ~Handler();

    const std::string& topicFilter() const { return _topic_filter; }
    int qos() const { return _option; }

protected:
    log4cpp::Category& log;

private:
    std::string _topic_filter;
    int _option;
};

}  // namespace mqlink
