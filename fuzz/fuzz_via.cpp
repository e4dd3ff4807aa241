// Fuzz target for Via::parse.
#include "fuzz/fuzz_support.h"
#include "sip/syntax/address.h"

VELMORA_FUZZ_TARGET {
    const auto via = kelsip::Via::parse(input);
    if (!via) return;
    velmora::fuzz::checkTextRoundTrip("Via", *via, input, [](std::string_view t) { return kelsip::Via::parse(t); },
                                      [](const auto& a, const auto& b) {
                                          return a.transport == b.transport && a.host == b.host && a.port == b.port &&
                                                 a.params == b.params;
                                      });
    (void)kelsip::isRfc3261Branch(*via);
}
