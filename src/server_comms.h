#pragma once

#include <csignal>
#include <log4cpp/Category.hh>
#include <string>
#include <vector>

#include "mqlink/client.h"
#include "properties.h"

namespace pex {

/// The run flag: 1 from the start, cleared for good by SIGINT or SIGTERM. Defined in main.cpp.
extern volatile sig_atomic_t program_running;

/// The service's link to its broker: builds the command handler from the configuration, connects
/// and drives the broker client until the run flag is cleared.
class ServerCommunicator {
public:
    /// Builds the client; nothing connects yet.
    explicit ServerCommunicator(cProperties props);
    ~ServerCommunicator();
    ServerCommunicator(const ServerCommunicator&) = delete;
    ServerCommunicator& operator=(const ServerCommunicator&) = delete;

    /// Serves requests on the calling thread; returns when the run flag is 0. Throws
    /// std::runtime_error if "script.staging_dir" is missing, or what CommandHandler's constructor
    /// throws. The client stays connected until this object is destroyed.
    void start();

    mqlink::Client setup_client();

    /// Splits at each ':' and ends every entry in '/'; null gives an empty list.
    static std::vector<std::string> parse_search_dirs(const char* search_dirs_str);

    /// A thread start routine that calls start() on `instance`, a communicator. The service itself
    /// runs start() on its main thread and does not use this.
    static void* event_loop_thread(void* instance);

private:
    std::string _id;  ///< declared before the client, which borrows its text
    log4cpp::Category& log;
    cProperties _props;
    mqlink::Client _client;
};

/// `directory`, with one '/' appended unless it ends in one.
std::string clean_dir_path(std::string directory);

}  // namespace pex
