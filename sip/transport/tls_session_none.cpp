// A build without TLS: every attempt to set it up fails with the fixed text.
#include "sip/transport/tls_session.h"

namespace kelsip {

bool tlsSupported() { return false; }

std::unique_ptr<TlsEngine> makeTlsEngine(const TlsContext& /*context*/, std::string* error) {
    if (error != nullptr) *error = std::string(kTlsNotCompiled);
    return nullptr;
}

}  // namespace kelsip
