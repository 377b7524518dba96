#pragma once

#include <map>
#include <set>
#include <string>

namespace fuzz {

// What docs/protocol.md says of requests, for the fuzzer to compare with.

struct JobScript {
    const char* text;
    std::string answer;  ///< "(type)": the name of the arguments' type in Lua
    const char* reason;  ///< of a failure; null for a success
};

/// By the names of their files.
extern const std::map<std::string, JobScript> job_scripts;

/// All payloads that are right as the result of a message with these bytes, where `job_scripts` are
/// the scripts there are; none where Lua has to panic.
std::set<std::string> right_payloads(const std::string& bytes);

}  // namespace fuzz
