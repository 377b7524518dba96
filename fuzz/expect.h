#pragma once

#include <string>

namespace fuzz {

/// Both end the process as a finding, with what was promised and what came instead, unless the
/// promise holds.
void expect(bool holds, const std::string& promise);
void expect_equal(const std::string& promise, const std::string& expected,
                  const std::string& actual);

}  // namespace fuzz
