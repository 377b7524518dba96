#pragma once

#include <string>
#include <vector>

namespace pexctl {

/// Why a TLS connection to a broker did not come about: one sentence whose subject is the broker.
/// `texts` are libmosquitto's error texts since the attempt began, which depend on its version and
/// on OpenSSL's. `has_certificate`: the client has one of its own.
std::string explain_tls_failure(const std::vector<std::string>& texts, bool has_certificate);

}  // namespace pexctl
