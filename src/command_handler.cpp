#include "command_handler.h"

#include <algorithm>
#include <climits>
#include <msgpack.hpp>
#include <stdexcept>
#include <utility>

namespace pex {

namespace {

constexpr int result_qos = 2;
constexpr bool result_retain = true;

}  // namespace

CommandHandler::CommandHandler(std::string /*controller_id*/, std::vector<std::string> search_dirs,
                               const char* staging_dir)
    : mqlink::Handler("commandHandler", "in/cmd/+", 1),
      _result_dest("out/cmd/"),
      _lua_agent(std::move(search_dirs), staging_dir)
{
}

CommandHandler::~CommandHandler() = default;

void CommandHandler::onMessage(const mqlink::FilterVariables& vars, const mosquitto_message* msg,
                               mqlink::Client& client)
{
    const std::string job_id = vars.get(0).value;
    const std::string topic = _result_dest + job_id;
    if (msg->payloadlen == 0) {
        log.infoStream() << "server has deregistered " << job_id << " job";
        end_transaction(client, topic);
        return;
    }
    log.infoStream() << "Received command request, job_id: " << job_id;
    try {
        // Without a reference callback, so the tree holds copies and does not point into `msg`.
        const msgpack::object_handle request_obj = msgpack::unpack(
            static_cast<const char*>(msg->payload), static_cast<std::size_t>(msg->payloadlen));
        const msgpack::object& request = request_obj.get();
        if (request.type != msgpack::type::MAP) {
            throw std::runtime_error(
                "Expected the command request dictionary with args and lua_script entries");
        }

        std::string lua_script;
        const msgpack::object_kv* kv_args = nullptr;
        for (std::uint32_t i = 0; i < request.via.map.size; ++i) {
            const msgpack::object_kv& kv = request.via.map.ptr[i];
            const std::string key = kv.key.as<std::string>();
            if (key == "lua_script") {
                lua_script = kv.val.as<std::string>();
            } else if (key == "args") {
                kv_args = &kv;
            }
        }
        if (kv_args == nullptr || lua_script.empty()) {
            throw std::runtime_error(
                "Can't decipher message. Expected the command request dictionary with args and "
                "lua_script entries");
        }

        log.infoStream() << "job (" << job_id << ") is to run lua script: " << lua_script;
        JobResult result = _lua_agent.runJob(lua_script + ".lua", kv_args->val);
        publish_result(client, topic, result);
    } catch (const std::exception& exp) {
        log.errorStream() << "job (" << job_id << ") request error: " << exp.what();
        JobResult failure_result(false, exp.what());
        publish_result(client, topic, failure_result);
    }
}

void CommandHandler::publish_result(mqlink::Client& client, const std::string& topic,
                                    JobResult& result)
{
    msgpack::sbuffer result_buf;
    if (result.getStatus()) {
        // An empty answer is a zero-length retained message, which a server cannot tell from an
        // end of transaction.
        std::vector<unsigned char>& answer = result.getAnswer();
        if (!answer.empty()) {
            result_buf.write(reinterpret_cast<const char*>(answer.data()), answer.size());
            std::vector<unsigned char>().swap(answer);  // publishing makes three copies more
        }
    } else {
        msgpack::packer<msgpack::sbuffer> packer(result_buf);
        packer.pack_map(2);
        packer.pack("status");
        packer.pack(result.getStatus());
        packer.pack("reason");
        packer.pack(result.getReason());
    }
    log.infoStream() << "Publishing result "
                     << " on " << topic
                     << "\n                                Payload size: " << result_buf.size();

    // MQTT's own limit is far below INT_MAX, so a size that would not fit is refused as it is.
    const int size = static_cast<int>(std::min<std::size_t>(result_buf.size(), INT_MAX));
    const int rc =
        client.publish(nullptr, topic.c_str(), size, result_buf.data(), result_qos, result_retain);
    if (rc != MOSQ_ERR_SUCCESS) {
        // Same text as in end_transaction, although here a result was refused: one line to watch
        // for both.
        log.errorStream() << "Failed to end transaction. " << mosqpp::strerror(rc);
    }
}

void CommandHandler::end_transaction(mqlink::Client& client, const std::string& topic)
{
    log.debugStream() << "Ending transaction on " << topic;
    const int rc = client.publish(nullptr, topic.c_str(), 0, "", result_qos, result_retain);
    if (rc != MOSQ_ERR_SUCCESS) {
        log.errorStream() << "Failed to end transaction. " << mosqpp::strerror(rc);
    }
}

}  // namespace pex
