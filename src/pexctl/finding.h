#pragma once

#include <string>
#include <vector>

#include "properties.h"

namespace pexctl {

/// One thing that is wrong, or may surprise.
struct Finding {
    enum Level { error, warning };  ///< error: something would fail

    Level level;
    std::string where;  ///< "FILE:LINE", or a path
    std::string text;   ///< whole sentences, or what a library said
};

using Findings = std::vector<Finding>;

/// "FILE:LINE" of the assignment to `key` that counts; "FILE" if there is none.
std::string place_of(const std::string& key, const cProperties& config, const std::string& file);

/// Whether getInt() takes the key's value.
bool is_whole_number(const std::string& key, const cProperties& config);

}  // namespace pexctl
