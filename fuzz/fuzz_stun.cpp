// Fuzz target for STUN parsing and the integrity and fingerprint checks.
#include "fuzz/fuzz_support.h"
#include "sip/net/stun_message.h"

VELMORA_FUZZ_TARGET {
    const auto bytes = velmora::fuzz::asBytes(input);
    static const std::vector<uint8_t> key{'k', 'e', 'y'};
    (void)kelsip::stun::checkIntegrity(bytes, key);
    (void)kelsip::stun::checkFingerprint(bytes);
    const auto first = kelsip::stun::parse(bytes);
    if (!first) return;
    for (const auto& a : first->attributes) {
        (void)first->address(a.type);
        (void)first->uint64(a.type);
    }
    (void)first->errorCode();
    (void)kelsip::stun::describe(*first);
    // What we write from a parsed message reads back the same, and our own
    // integrity and fingerprint hold on it.
    const auto wire = kelsip::stun::encode(*first, {key, true});
    const auto again = kelsip::stun::parse(wire);
    velmora::fuzz::require(again && again->method == first->method && again->messageClass == first->messageClass &&
                               again->transaction == first->transaction,
                           "an encoded message parses to the same header", input);
    velmora::fuzz::require(again->attributes.size() == first->attributes.size(), "the attributes survive", input);
    velmora::fuzz::require(kelsip::stun::checkFingerprint(wire) && kelsip::stun::checkIntegrity(wire, key),
                           "our own checks hold", input);
}
