#pragma once

#include <string>
#include <vector>

namespace pexctl {

/// Those of `candidates` that somebody who typed `name` may have meant, nearest first.
std::vector<std::string> near_names(const std::string& name,
                                    const std::vector<std::string>& candidates);

}  // namespace pexctl
