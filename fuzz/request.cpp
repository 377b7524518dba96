// The payload of a message on in/cmd/7: exactly one result, as docs/protocol.md says.

#include <cstdint>
#include <vector>

#include "command_handler.h"
#include "expect.h"
#include "lua_panic.h"
#include "request_model.h"
#include "support/temp_dir.h"

namespace {

using fuzz::expect;

class RecordingClient : public mqlink::Client {
public:
    RecordingClient() : mqlink::Client({"fuzz", true, true}, "fuzz") {}

    int publish(int*, const char* topic, int size, const void* payload, int qos,
                bool retain) override
    {
        expect(topic == std::string("out/cmd/7"), "a result goes to its job's topic");
        expect(qos == 2 && retain, "a result has QoS 2 and is retained");
        const char* const bytes = static_cast<const char*>(payload);
        payloads.emplace_back(bytes, bytes + size);
        return MOSQ_ERR_SUCCESS;
    }

    std::vector<std::string> payloads;
};

std::string script_folder(const TempDir& folder)
{
    for (const auto& [name, script] : fuzz::job_scripts) {
        folder.write(name, script.text);
    }
    return folder.path() + "/";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const TempDir folder;
    static pex::CommandHandler handler("fuzz", {script_folder(folder)}, "/staging");
    static RecordingClient client;

    std::string bytes(data, data + size);
    const std::set<std::string> right = fuzz::right_payloads(bytes);
    if (right.empty() && !fuzz::can_survive_panic) {
        return 0;
    }
    mosquitto_message message = {};
    message.payload = bytes.data();
    message.payloadlen = static_cast<int>(size);
    client.payloads.clear();
    bool panicked = false;
    try {
        handler.onMessage(*mqlink::FilterVariables::match("in/cmd/+", "in/cmd/7"), &message,
                          client);
    } catch (const fuzz::LuaPanic&) {
        panicked = true;
    }
    expect(panicked == right.empty(), "nil and NaN keys, and nothing else, end the daemon");
    expect(client.payloads.size() == (panicked ? 0 : 1), "each message has exactly one answer");
    if (!panicked && right.count(client.payloads[0]) == 0) {
        fuzz::expect_equal("the answer is the one of docs/protocol.md", *right.begin(),
                           client.payloads[0]);
    }
    return 0;
}
