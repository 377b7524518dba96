#include "pexctl/tls_failure.h"

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

constexpr const char* not_verified =
    "OpenSSL Error[0]: error:0A000086:SSL routines::certificate verify failed";

TEST(TlsFailureTest, IsToldInWords)
{
    const struct {
        Texts texts;
        const char* words;
    } cases[] = {
        {{not_verified}, "Its certificate is not trusted, or not valid now."},
        {{"Error: host name verification failed.", not_verified},
         "Its certificate names another host."},
        {{"OpenSSL Error[0]: error:0A00045C:SSL routines::tlsv13 alert certificate required"},
         "It wants a certificate: give --cert and --key."},
        {{"OpenSSL Error[0]: error:0A000418:SSL routines::tlsv1 alert unknown ca"},
         "It does not accept the certificate."},
        {{"OpenSSL Error[0]: error:0A000415:SSL routines::ssl/tls alert certificate expired"},
         "It does not accept the certificate."},
        {{"OpenSSL Error[0]: error:0A000412:SSL routines::sslv3 alert bad certificate"},
         "It does not accept the certificate."},
        {{"OpenSSL Error[0]: error:0A00042E:SSL routines::tlsv1 alert protocol version"},
         "It refuses the TLS handshake: tlsv1 alert protocol version."},
        {{"OpenSSL Error[0]: error:0A000410:SSL routines::sslv3 alert handshake failure"},
         "It ended the TLS handshake: it may know no TLS at this port, or want a certificate."},
        {{"Error: Unable to load CA certificates, check cafile \"empty.pem\".",
          "OpenSSL Error[0]: error:05880020:x509 certificate routines::BIO lib"},
         "Unable to load CA certificates, check cafile \"empty.pem\"."},
        {{"OpenSSL Error[0]: error:0A000126:SSL routines::unexpected eof while reading"},
         "It ended the TLS handshake: it may know no TLS at this port, or want a certificate."},
        {{}, "It ended the TLS handshake: it may know no TLS at this port, or want a certificate."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.words, pexctl::explain_tls_failure(c.texts, false));
    }
}

TEST(TlsFailureTest, MayBeForTheCertificateThatWasGiven)
{
    EXPECT_EQ(
        "It ended the TLS handshake: it may know no TLS at this port, or not accept the "
        "certificate.",
        pexctl::explain_tls_failure({}, true));
}

}  // namespace
