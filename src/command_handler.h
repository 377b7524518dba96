#pragma once

#include <string>
#include <vector>

#include "lua_tools/lua_agent.h"
#include "mqlink/client.h"
#include "mqlink/handler.h"

namespace pex {

/// The service's one topic handler: decodes a request on in/cmd/<job id>, runs its job and
/// publishes the one result on out/cmd/<job id>; docs/protocol.md has the bytes. Keeps no state
/// between messages.
class CommandHandler : public mqlink::Handler {
public:
    /// `controller_id` is deliberately unused: no identifier of the device enters a topic or the
    /// log. `staging_dir` must not be null. Throws what LuaAgent's constructor throws.
    CommandHandler(std::string controller_id, std::vector<std::string> search_dirs,
                   const char* staging_dir);

    void onMessage(const mqlink::FilterVariables& vars, const mosquitto_message* msg,
                   mqlink::Client& client) override;
    ~CommandHandler() override;

private:
    /// Leaves `result` without its answer.
    void publish_result(mqlink::Client& client, const std::string& topic, JobResult& result);
    void end_transaction(mqlink::Client& client, const std::string& topic);

    std::string _result_dest;
    LuaAgent _lua_agent;
};

}  // namespace pex
