// Fuzz target for SRTP and SRTCP unprotect, and protect's round trip.
#include "fuzz/fuzz_support.h"
#include "media/srtp/srtp_context.h"

namespace {

using kelsip::srtp::Context;
using kelsip::srtp::MasterKey;
using kelsip::srtp::Status;
using kelsip::srtp::Suite;

MasterKey key(bool mki) {
    MasterKey k;
    for (size_t i = 0; i < k.key.size(); ++i) k.key[i] = static_cast<uint8_t>(0x30 + i);
    for (size_t i = 0; i < k.salt.size(); ++i) k.salt[i] = static_cast<uint8_t>(0x60 + i);
    if (mki) k.mki = {0, 1};
    return k;
}

}  // namespace

VELMORA_FUZZ_TARGET {
    const auto bytes = velmora::fuzz::asBytes(input);
    for (const Suite suite : {Suite::AesCm128HmacSha1_80, Suite::AesCm128HmacSha1_32}) {
        for (const bool mki : {false, true}) {
            for (const bool rtcp : {false, true}) {
                // Arbitrary bytes as a received packet: refused or shorter by its trailer.
                auto receiver = Context::create(suite, key(mki));
                std::vector<uint8_t> packet(bytes.begin(), bytes.end());
                const Status got = rtcp ? receiver->unprotectRtcp(packet) : receiver->unprotectRtp(packet);
                velmora::fuzz::require(got != Status::Ok || packet.size() < bytes.size(),
                                       "an accepted packet loses its tag", input);
                // The same bytes as a packet we send: what protect makes, unprotect gives back.
                auto sender = Context::create(suite, key(mki));
                auto peer = Context::create(suite, key(mki));
                std::vector<uint8_t> sent(bytes.begin(), bytes.end());
                if ((rtcp ? sender->protectRtcp(sent) : sender->protectRtp(sent)) != Status::Ok) continue;
                const Status back = rtcp ? peer->unprotectRtcp(sent) : peer->unprotectRtp(sent);
                velmora::fuzz::require(back == Status::Ok, "a protected packet is accepted", input,
                                       kelsip::srtp::toString(back));
                velmora::fuzz::require(std::equal(sent.begin(), sent.end(), bytes.begin(), bytes.end()),
                                       "a protected packet decrypts to itself", input);
            }
        }
    }
}
