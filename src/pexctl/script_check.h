#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pexctl/finding.h"

namespace pexctl {

/// Loads every script of the directories, which end in '/' and are in the order of the search, and
/// runs none. Stores how many there are in `count`.
Findings check_scripts(const std::vector<std::string>& dirs, std::size_t& count);

}  // namespace pexctl
