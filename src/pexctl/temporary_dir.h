#pragma once

#include <string>

namespace pexctl {

/// Makes a new, empty directory and returns its path. Throws Failure.
std::string make_temporary_dir();

}  // namespace pexctl
