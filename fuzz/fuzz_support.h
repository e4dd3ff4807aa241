// Shared pieces of the fuzz targets: the invariant check that aborts with a
// readable report, and the round trip every parsed message must survive.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "sip/syntax/message.h"

namespace velmora::fuzz {

inline std::string_view asText(const uint8_t* data, size_t size) {
    return size == 0 ? std::string_view() : std::string_view(reinterpret_cast<const char*>(data), size);
}

// C-style escaping, so that a report can be pasted into a test or a regression file.
inline std::string escaped(std::string_view bytes) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 4);
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        switch (c) {
            case '\r': out += "\\r"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\\': out += "\\\\"; break;
            case '"': out += "\\\""; break;
            default:
                if (b < 0x20 || b >= 0x7f) {
                    out += "\\x";
                    out += hex[b >> 4];
                    out += hex[b & 0xf];
                } else {
                    out += c;
                }
        }
    }
    return out;
}

// Aborts the run when an invariant does not hold; libFuzzer then saves the
// input, and the corpus replayer fails its CTest test.
inline void require(bool holds, const char* invariant, std::string_view input, std::string_view detail = {}) {
    if (holds) return;
    std::fprintf(stderr, "invariant violated: %s\n  input:  \"%s\"\n", invariant, escaped(input).c_str());
    if (!detail.empty()) std::fprintf(stderr, "  detail: \"%s\"\n", escaped(detail).c_str());
    std::fflush(stderr);
    std::abort();
}

// What holds for every message the parser accepts, whatever it came from:
// - its wire form parses again, and serialising that gives the same text
//   (what we send is what the peer reads, and a proxy-like re-send is stable);
// - a stream framer cuts the wire form back out whole, leaving nothing behind
//   (our own messages on a TCP or TLS connection frame as exactly themselves).
inline void checkMessageRoundTrip(const kelsip::SipMessage& first, std::string_view input) {
    const std::string wire = first.toString();
    std::string error;
    const auto again = kelsip::SipMessage::parse(wire, &error);
    require(again.has_value(), "a serialised message parses again", input, wire + " -> " + error);
    const std::string rewire = again->toString();
    require(rewire == wire, "serialising the reparsed message gives the same text", input,
            wire + " -> " + rewire);
    require(again->body == first.body, "the body survives the round trip byte for byte", input, wire);

    std::string buffer = wire;
    error.clear();
    const auto framed = kelsip::extractStreamMessage(buffer, &error);
    require(framed.has_value() && *framed == wire && buffer.empty(),
            "a serialised message frames on a stream as exactly itself", input, wire + " -> " + error);
}

}  // namespace velmora::fuzz
