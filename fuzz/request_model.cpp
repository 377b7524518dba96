#include "request_model.h"

#include <cstdint>
#include <optional>

#include "script_view.h"
#include "wire.h"

namespace fuzz {

using namespace std::string_literals;

namespace {

const char* const no_load = "Dock command service error. Failed to load command script.";
const char* const no_end =
    "Dock command service error. Command script failure, please consult pex-command logs.";

}  // namespace

const std::map<std::string, JobScript> job_scripts = {
    {"type.lua", {"return type(args)", "(type)", nullptr}},
    {"fails.lua", {"error(args)", "", no_end}},
    {"broken.lua", {"return (", "", no_load}},
    {"nothing.lua", {"args = nil", "", nullptr}},
    {"bytes.lua", {"return 'first', 'a\\0\\xff'", "a\0\xff"s, nullptr}},
};

namespace {

const char* type_name(const Wire& args)
{
    switch (args.kind) {
        case Wire::Kind::nil:
            return "nil";
        case Wire::Kind::boolean:
            return "boolean";
        case Wire::Kind::integer:
        case Wire::Kind::float32:
        case Wire::Kind::float64:
            return "number";
        case Wire::Kind::array:
        case Wire::Kind::map:
            return "table";
        default:
            return "string";
    }
}

std::string failure(const std::string& reason)
{
    std::string text = reason.substr(0, reason.find('\0'));
    const auto size = static_cast<unsigned>(text.size());
    const auto byte = [](unsigned value) {
        return std::string(1, static_cast<char>(value & 0xffU));
    };
    const std::string head = size < 32      ? byte(0xa0 + size)
                             : size < 256   ? byte(0xd9) + byte(size)
                             : size < 65536 ? byte(0xda) + byte(size >> 8U) + byte(size)
                                            : byte(0xdb) + byte(size >> 24U) + byte(size >> 16U) +
                                                  byte(size >> 8U) + byte(size);
    return "\x82\xa6status\xc2\xa6reason" + head + text;
}

/// The payload that has to come, or none where Lua has to panic.
std::optional<std::string> run(const std::string& name, const Wire& args)
{
    const std::string file = name + ".lua";
    const std::string entry = file.substr(0, file.find('\0'));
    if (entry == "." || entry == "..") {  // directory entries, too
        return failure(no_load);
    }
    const auto found = job_scripts.find(entry);
    if (found == job_scripts.end()) {
        return failure("Cannot run job. Script not found \"" + file + "\"");
    }
    const JobScript& script = found->second;
    if (script.reason == no_load) {
        return failure(no_load);
    }
    if (deadly_keys(args) > 0) {
        return std::nullopt;
    }
    if (script.reason != nullptr) {
        return failure(script.reason);
    }
    return script.answer == "(type)" ? type_name(args) : script.answer;
}

std::optional<std::string> answer(const Wire& request)
{
    if (request.kind != Wire::Kind::map) {
        return failure("Expected the command request dictionary with args and lua_script entries");
    }
    std::string name;
    const Wire* args = nullptr;
    for (std::size_t i = 0; i < request.items.size(); i += 2) {
        const Wire& key = request.items[i];
        const Wire& value = request.items[i + 1];
        const bool names_script = key.bytes == "lua_script";
        if (!key.is_text() || (names_script && !value.is_text())) {
            return failure("std::bad_cast");
        }
        name = names_script ? value.bytes : name;
        args = key.bytes == "args" ? &value : args;
    }
    if (args == nullptr || name.empty()) {
        return failure(
            "Can't decipher message. Expected the command request dictionary with args and "
            "lua_script entries");
    }
    return run(name, *args);
}

}  // namespace

std::set<std::string> right_payloads(const std::string& bytes)
{
    if (bytes.empty()) {
        return {""};
    }
    const fuzz::Reading reading = fuzz::read_wire(bytes);
    if (reading.ending == Ending::whole) {
        const std::optional<std::string> payload = answer(reading.object);
        return payload ? std::set<std::string>{*payload} : std::set<std::string>{};
    }
    std::set<std::string> payloads = {
        failure(reading.ending == Ending::malformed ? "parse error" : "insufficient bytes")};
    if (reading.announces_much) {
        payloads.insert(failure("std::bad_alloc"));
    }
    if (sizeof(std::size_t) == 4) {
        for (const char* kind : {"array", "map", "ext"}) {
            payloads.insert(failure(std::string(kind) + " size overflow"));
        }
    }
    return payloads;
}

}  // namespace fuzz
