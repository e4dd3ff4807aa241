// The parts of the crypto layer every build has.
#include <algorithm>
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

bool AesCounter::apply(const Block& counter, std::span<uint8_t> data) {
    // Counter blocks are encrypted a batch at a time: one call into the
    // platform per batch rather than per block.
    constexpr size_t kBatch = 16;
    Block block = counter;
    uint8_t blocks[16 * kBatch];
    uint8_t stream[16 * kBatch];
    size_t done = 0;
    while (done < data.size()) {
        const size_t want = std::min<size_t>((data.size() - done + 15) / 16, kBatch);
        for (size_t b = 0; b < want; ++b) {
            std::copy(block.begin(), block.end(), blocks + 16 * b);
            const auto low = static_cast<uint16_t>((block[14] << 8 | block[15]) + 1);
            block[14] = static_cast<uint8_t>(low >> 8);
            block[15] = static_cast<uint8_t>(low);
        }
        if (!encryptBlocks(blocks, stream, 16 * want)) return false;
        const size_t n = std::min(data.size() - done, 16 * want);
        for (size_t i = 0; i < n; ++i) data[done + i] ^= stream[i];
        done += n;
    }
    return true;
}

uint32_t crc32(std::span<const uint8_t> data) {
    uint32_t c = 0xFFFFFFFFU;
    for (uint8_t byte : data) c = kCrcTable[(c ^ byte) & 0xFFU] ^ (c >> 8);
    return c ^ 0xFFFFFFFFU;
}

}  // namespace kelsip::crypto
