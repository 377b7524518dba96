#pragma once

#include <nlohmann/json.hpp>

#include "wire.h"

namespace fuzz {

// What docs/pexctl.md says of JSON and MessagePack, for the fuzzer to compare with.

/// Whether an answer's JSON says exactly what the answer is.
bool says(const nlohmann::ordered_json& json, const Wire& object);

/// Whether arguments are what their JSON says.
bool is_written_as(const Wire& object, const nlohmann::ordered_json& json);

}  // namespace fuzz
