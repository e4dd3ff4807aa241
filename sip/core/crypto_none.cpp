// A build without a crypto provider: SRTP and authenticated STUN are off.
#include "sip/core/crypto.h"

namespace kelsip::crypto {

bool available() { return false; }

std::unique_ptr<AesCounter> AesCounter::create(std::span<const uint8_t>) { return nullptr; }

std::unique_ptr<HmacSha1> HmacSha1::create(std::span<const uint8_t>) { return nullptr; }

}  // namespace kelsip::crypto
