// MD5 (RFC 1321) over 64-byte blocks, little-endian words read byte by byte.
#include "sip/auth/md5.h"

#include <algorithm>
#include <cstring>

namespace kelsip {

namespace {

// Per-step left rotations, four per round.
constexpr uint32_t kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// floor(abs(sin(i + 1)) * 2^32), written out so that no floating point runs.
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr uint32_t rotateLeft(uint32_t x, uint32_t n) { return (x << n) | (x >> (32 - n)); }

}  // namespace

void Md5::reset() {
    state_ = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    length_ = 0;
}

void Md5::transform(const uint8_t* block) {
    uint32_t x[16];
    for (size_t i = 0; i < 16; ++i) {
        x[i] = static_cast<uint32_t>(block[i * 4]) | static_cast<uint32_t>(block[i * 4 + 1]) << 8 |
               static_cast<uint32_t>(block[i * 4 + 2]) << 16 | static_cast<uint32_t>(block[i * 4 + 3]) << 24;
    }
    uint32_t a = state_[0];
    uint32_t b = state_[1];
    uint32_t c = state_[2];
    uint32_t d = state_[3];
    for (uint32_t i = 0; i < 64; ++i) {
        const uint32_t round = i / 16;
        uint32_t f = 0;
        uint32_t g = 0;
        switch (round) {
            case 0: f = (b & c) | (~b & d); g = i; break;
            case 1: f = (d & b) | (~d & c); g = (5 * i + 1) % 16; break;
            case 2: f = b ^ c ^ d; g = (3 * i + 5) % 16; break;
            default: f = c ^ (b | ~d); g = (7 * i) % 16; break;
        }
        const uint32_t rotated = rotateLeft(a + f + kSine[i] + x[g], kShift[round][i % 4]);
        a = d;
        d = c;
        c = b;
        b += rotated;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
}

void Md5::update(std::string_view data) { update(data.data(), data.size()); }

void Md5::update(const void* data, size_t size) {
    if (size == 0) return;  // `data` may then be null, which memcpy must not see
    const auto* in = static_cast<const uint8_t*>(data);
    size_t used = static_cast<size_t>(length_ % 64);
    length_ += size;
    // Top up a partly filled block first; whole blocks are then hashed in place.
    if (used > 0) {
        const size_t take = std::min(size, 64 - used);
        std::memcpy(buffer_.data() + used, in, take);
        in += take;
        size -= take;
        used += take;
        if (used < 64) return;
        transform(buffer_.data());
    }
    for (; size >= 64; in += 64, size -= 64) transform(in);
    if (size > 0) std::memcpy(buffer_.data(), in, size);
}

Md5::Digest Md5::finish() {
    const uint64_t bits = length_ * 8;
    // A 0x80 byte, zeros up to 56 mod 64, then the bit count: a message of 56
    // to 63 bytes in its last block needs a whole extra block of padding.
    const size_t used = static_cast<size_t>(length_ % 64);
    const size_t padding = (used < 56 ? 56 : 120) - used;
    uint8_t tail[72] = {0x80};
    for (size_t i = 0; i < 8; ++i) tail[padding + i] = static_cast<uint8_t>(bits >> (8 * i));
    update(tail, padding + 8);

    Digest out{};
    for (size_t i = 0; i < 4; ++i) {
        for (size_t j = 0; j < 4; ++j) out[i * 4 + j] = static_cast<uint8_t>(state_[i] >> (8 * j));
    }
    reset();
    return out;
}

std::string Md5::finishHex() { return toHex(finish()); }

std::string toHex(const Md5::Digest& digest) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(digest.size() * 2);
    for (const uint8_t b : digest) {
        out += kHex[b >> 4];
        out += kHex[b & 0xf];
    }
    return out;
}

std::string md5Hex(std::string_view data) {
    Md5 md5;
    md5.update(data);
    return md5.finishHex();
}

}  // namespace kelsip
