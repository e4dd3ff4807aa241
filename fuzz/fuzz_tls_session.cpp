// Fuzz target for a TLS client session fed what a server might send: records
// split anywhere, alerts, garbage. It must fail with one of its fixed texts,
// or keep waiting, and never read past what it was given.
#include <memory>

#include "fuzz/fuzz_support.h"
#include "sip/transport/tls_session.h"

VELMORA_FUZZ_TARGET {
    static const std::unique_ptr<kelsip::TlsEngine> engine = [] {
        kelsip::TlsContext context;
        return kelsip::makeTlsEngine(context, nullptr);
    }();
    if (!engine) return;
    auto session = engine->startSession(kelsip::TlsRole::Client, "fuzz.local");
    if (!session) return;
    std::string sink;
    session->takeCiphertext(sink);
    // The first byte cuts the input in two feeds.
    const size_t cut = input.empty() ? 0 : static_cast<unsigned char>(input[0]) % input.size();
    const bool first = session->feed(input.substr(0, cut));
    const bool second = session->feed(input.substr(cut));
    session->takePlaintext(sink);
    session->takeCiphertext(sink);
    velmora::fuzz::require(first || !second, "a failed session stays failed", input);
    velmora::fuzz::require(second || session->error().rfind("TLS ", 0) == 0, "a failure has its fixed text", input,
                           session->error());
}
