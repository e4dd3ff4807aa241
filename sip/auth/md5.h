// MD5 message digests, incremental and one-shot, for digest authentication.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelsip {

// MD5 is broken as a collision-resistant hash; the stack needs it only
// because SIP digest authentication is defined over it.
class Md5 {
public:
    using Digest = std::array<uint8_t, 16>;

    Md5() { reset(); }

    void update(std::string_view data);
    void update(const void* data, size_t size);

    // Pads, returns the digest of everything given since the last reset, and
    // resets, so that one object can hash one message after another.
    [[nodiscard]] Digest finish();
    // The same as 32 lower-case hex digits.
    [[nodiscard]] std::string finishHex();

    void reset();

private:
    void transform(const uint8_t* block);

    std::array<uint32_t, 4> state_{};
    std::array<uint8_t, 64> buffer_{};
    uint64_t length_ = 0;  // bytes given so far; the bit count wraps as MD5 defines
};

// 32 lower-case hex digits of a digest.
[[nodiscard]] std::string toHex(const Md5::Digest& digest);

// MD5 of `data` as 32 lower-case hex digits.
[[nodiscard]] std::string md5Hex(std::string_view data);

}  // namespace kelsip
