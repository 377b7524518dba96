#include "server_comms.h"

#include <stdexcept>
#include <utility>

#include "command_handler.h"
#include "memory_reserve.h"

namespace pex {

ServerCommunicator::ServerCommunicator(cProperties props)
    : _id("command_service"),
      log(log4cpp::Category::getInstance("server_comms")),
      _props(std::move(props)),
      _client(setup_client())
{
}

ServerCommunicator::~ServerCommunicator() = default;

void ServerCommunicator::start()
{
    log.debug("server comms service starting");
    const char* host = _props.getString("server_comms.host", "localhost");
    const int port = _props.getInt("server_comms.port", 1883);
    // Shown in the log and nothing more: results are always published with QoS 2.
    const int qos = _props.getInt("server_comms.qos", 2);
    log.infoStream() << "Server comms config: \n"
                     << "  id   : " << _id << "\n"
                     << "  host : " << host << " port: " << port << "\n"
                     << "  QoS  : " << qos;

    const std::vector<std::string> search_dirs =
        parse_search_dirs(_props.getString("script.search_dirs", nullptr));
    const char* staging_dir = _props.getString("script.staging_dir", nullptr);
    if (staging_dir == nullptr) {
        throw std::runtime_error("script.staging_dir has not been configured");
    }
    CommandHandler commandHandler(_id, search_dirs, staging_dir);
    _client.registerHandler(&commandHandler);

    _client.start(host, port);
    while (program_running != 0) {
        hold_memory_reserve();  // again, if the last job needed it
        const int status = _client.loop(1000, 1);
        if (status == MOSQ_ERR_CONN_LOST || status == MOSQ_ERR_NO_CONN) {
            _client.start(host, port);
        }
    }
    log.info("Closing server comms service");
}

mqlink::Client ServerCommunicator::setup_client()
{
    mqlink::ClientSessionOptions options;
    options.client_id = _id.c_str();
    options.clean_session = true;
    options.resubscribe_on_connect = true;
    const int max_inflight = _props.getInt("server_comms.max_inflight", options.max_inflight);
    if (max_inflight >= 1 && max_inflight <= 20) {
        options.max_inflight = max_inflight;
    }
    return mqlink::Client(options, "server_comms");
}

std::vector<std::string> ServerCommunicator::parse_search_dirs(const char* search_dirs_str)
{
    std::vector<std::string> search_dirs;
    if (search_dirs_str == nullptr) {
        return search_dirs;
    }
    const std::string tmp_dirs = search_dirs_str;
    std::size_t begin = 0;
    std::size_t pos;
    while ((pos = tmp_dirs.find(':', begin)) != std::string::npos) {
        search_dirs.push_back(clean_dir_path(tmp_dirs.substr(begin, pos - begin)));
        begin = pos + 1;
    }
    search_dirs.push_back(clean_dir_path(tmp_dirs.substr(begin)));
    return search_dirs;
}

void* ServerCommunicator::event_loop_thread(void* instance)
{
    ServerCommunicator* comms = static_cast<ServerCommunicator*>(instance);
    comms->start();
    return nullptr;
}

std::string clean_dir_path(std::string directory)
{
    // An empty entry becomes "/": a stray colon adds the root directory to the search.
    if (directory.empty() || directory.back() != '/') {
        directory += '/';
    }
    return directory;
}

}  // namespace pex
