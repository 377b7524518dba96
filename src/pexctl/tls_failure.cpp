#include "pexctl/tls_failure.h"

#include <algorithm>

namespace pexctl {

std::string explain_tls_failure(const std::vector<std::string>& texts, bool has_certificate)
{
    const auto told = [&](const char* part) {
        return std::any_of(texts.begin(), texts.end(), [&](const std::string& text) {
            return text.find(part) != std::string::npos;
        });
    };
    if (told("host name verification failed")) {
        return "Its certificate names another host.";
    }
    if (told("alert certificate required")) {
        return "It wants a certificate: give --cert and --key.";
    }
    // An alert is the broker's word. These are of RFC 8446, section 6.2, and about our certificate.
    for (const char* alert : {"alert unknown ca", "alert bad certificate", "alert certificate",
                              "alert unsupported certificate"}) {
        if (told(alert)) {
            return "It does not accept the certificate.";
        }
    }
    if (told("certificate verify failed")) {
        return "Its certificate is not trusted, or not valid now.";
    }
    const std::string own_fault = "Error: ";  // a file that cannot be used
    for (const std::string& text : texts) {
        if (text.compare(0, own_fault.size(), own_fault) == 0) {
            return text.substr(own_fault.size());
        }
        // "handshake failure" is also what TLS 1.2 says where a certificate is wanted.
        if (text.find("alert") != std::string::npos && !told("handshake failure")) {
            return "It refuses the TLS handshake: " + text.substr(text.rfind(':') + 1) + ".";
        }
    }
    return std::string("It ended the TLS handshake: it may know no TLS at this port, or ") +
           (has_certificate ? "not accept the certificate." : "want a certificate.");
}

}  // namespace pexctl
