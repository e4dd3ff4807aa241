// A throw-away CA and the certificates the TLS tests present, made with the
// `openssl` command in a test's folder.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace kelsip::test {

struct CertificatePair {
    std::filesystem::path certificate;
    std::filesystem::path key;
};

struct TestCertificates {
    std::filesystem::path ca;  // the CA's certificate, to trust
    CertificatePair server;      // for test.local (DNS and sip: URI names), signed by the CA
    CertificatePair wrongName;   // for wrong.local, signed by the CA
    CertificatePair selfSigned;  // for test.local, signed by nobody we trust
};

// Empty, with the reason, when `openssl` is missing or fails (and always
// under Wine, where the tests cannot start programs).
[[nodiscard]] std::optional<TestCertificates> makeTestCertificates(const std::filesystem::path& folder,
                                                                   std::string* error);

}  // namespace kelsip::test
