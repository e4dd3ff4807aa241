// The parts of the crypto layer every build has.
#include <array>

#include "sip/core/crypto.h"

namespace kelsip::crypto {

namespace {

constexpr std::array<uint32_t, 256> makeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1U) != 0 ? 0xEDB88320U ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kCrcTable = makeCrcTable();

}  // namespace

uint32_t crc32(std::span<const uint8_t> data) {
    uint32_t c = 0xFFFFFFFFU;
    for (uint8_t byte : data) c = kCrcTable[(c ^ byte) & 0xFFU] ^ (c >> 8);
    return c ^ 0xFFFFFFFFU;
}

}  // namespace kelsip::crypto
