// Big-endian reads and writes for the RTP and RTCP wire formats.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kelsip::wire {

// Callers check the length first; these only assemble the bytes.
[[nodiscard]] inline uint16_t get16(std::span<const uint8_t> b, size_t at) {
    return static_cast<uint16_t>((b[at] << 8) | b[at + 1]);
}

[[nodiscard]] inline uint32_t get32(std::span<const uint8_t> b, size_t at) {
    return (static_cast<uint32_t>(b[at]) << 24) | (static_cast<uint32_t>(b[at + 1]) << 16) |
           (static_cast<uint32_t>(b[at + 2]) << 8) | static_cast<uint32_t>(b[at + 3]);
}

inline void put8(std::vector<uint8_t>& out, unsigned v) { out.push_back(static_cast<uint8_t>(v & 0xffu)); }

inline void put16(std::vector<uint8_t>& out, uint32_t v) {
    put8(out, v >> 8);
    put8(out, v);
}

inline void put32(std::vector<uint8_t>& out, uint32_t v) {
    put16(out, v >> 16);
    put16(out, v);
}

// Overwrites a 16-bit field written earlier, once the length it holds is known.
inline void set16(std::vector<uint8_t>& out, size_t at, uint32_t v) {
    out[at] = static_cast<uint8_t>((v >> 8) & 0xffu);
    out[at + 1] = static_cast<uint8_t>(v & 0xffu);
}

}  // namespace kelsip::wire
