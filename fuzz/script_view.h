#pragma once

#include <cstddef>
#include <string>

#include "wire.h"

namespace fuzz {

// What docs/scripting.md says of arguments, for the fuzzers to compare with.

/// The number of map keys, nil and NaN, that end the daemon.
std::size_t deadly_keys(const Wire& args);

/// The number of values and keys that a script does not get as they were sent.
std::size_t losses(const Wire& args);

/// A Lua script that returns its arguments as text, and the text that it has to return.
extern const char* const show_args;
std::string shown(const Wire& args);

}  // namespace fuzz
