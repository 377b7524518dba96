#pragma once

#include <mosquittopp.h>

#include <functional>
#include <string>
#include <vector>

/// libmosquittopp without a network. The source file defines the members of mosqpp::mosquittopp,
/// lib_init() and lib_cleanup(); in a binary that contains it they win over the shared library's.
/// Everything asked of them is recorded here; the hooks decide what they answer.
struct FakeMosquitto {
    struct Publication {
        std::string topic;
        std::string payload;
        int qos;
        bool retain;
    };

    using Hook = std::function<int()>;

    /// One text per call, in order, such as "connect localhost 1883 keepalive 0", "loop 1000 1",
    /// "subscribe in/cmd/+ qos 1", "publish out/cmd/7", "reinitialise an_id clean", "disconnect".
    /// Not recorded: socket(), want_write() and max_inflight_messages_set().
    std::vector<std::string> calls;
    std::vector<Publication> publications;
    std::vector<std::string> client_ids;  ///< read again when a client is destroyed

    mosqpp::mosquittopp* client = nullptr;  ///< the one built last
    int socket = -1;
    bool wants_write = false;
    unsigned max_inflight = 20;
    int next_mid = 1;  ///< what the next publish() or subscribe() stores, when asked to

    Hook connect = success;
    Hook reinitialise = success;
    Hook loop = success;
    Hook loop_read = success;
    Hook loop_write = success;
    Hook loop_misc = success;
    Hook subscribe = success;
    Hook publish = success;
    Hook disconnect = success;
    Hook lib_init = success;
    Hook lib_cleanup = success;

    static int success() { return MOSQ_ERR_SUCCESS; }
    /// How often `call` was made; matches the beginning of the recorded text.
    int count(const std::string& call) const;
};

/// The one instance; a fixture assigns a new FakeMosquitto to it before each test.
extern FakeMosquitto fake_mosquitto;
