// Shared pieces of the fuzz targets (fuzz/README.md lists their invariants).
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sip/syntax/message.h"

namespace velmora::fuzz {

inline std::span<const uint8_t> asBytes(std::string_view s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// C-style escaping, so that a report can be pasted into a test or a regression file.
inline std::string escaped(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned>(b));
        out += c == '\\' || c == '"' ? std::string{'\\', c} : b >= 0x20 && b < 0x7f ? std::string(1, c) : hex;
    }
    return out;
}

// Aborts when an invariant does not hold: libFuzzer then saves the input,
// and the corpus replayer fails its CTest test.
inline void require(bool holds, std::string_view invariant, std::string_view input, std::string_view detail = {}) {
    if (holds) return;
    std::fprintf(stderr, "invariant violated: %.*s\n  input:  \"%s\"\n  detail: \"%s\"\n",
                 static_cast<int>(invariant.size()), invariant.data(), escaped(input).c_str(), escaped(detail).c_str());
    std::abort();
}

// An accepted value's text form parses again to a value `same` calls equal,
// and writing that one gives the same text.
template <typename T, typename Parse, typename Same>
void checkTextRoundTrip(std::string_view what, const T& first, std::string_view input, Parse parse, Same same) {
    const std::string text = first.toString();
    const auto again = parse(text);
    const std::string name(what);
    require(again.has_value(), name + ": the text form parses again", input, text);
    require(same(*again, first), name + ": the reparsed value equals the first", input, text);
    require(again->toString() == text, name + ": writing the reparsed value gives the same text", input, text);
}

// The same for a binary packet: `first` writes, the bytes parse to an equal
// value, and writing that gives the same bytes.
template <typename T, typename Parse>
std::vector<uint8_t> checkBinaryRoundTrip(const T& first, std::string_view input, Parse parse) {
    std::vector<uint8_t> out, again;
    std::string error;
    require(first.writeTo(out, &error), "a parsed packet writes", input, error);
    if (out.empty()) return out;
    const auto reparsed = parse(out);
    require(reparsed && *reparsed == first, "the written packet parses to the same packet", input);
    require(reparsed->writeTo(again) && again == out, "writing the reparsed packet gives the same bytes", input);
    return out;
}

// An accepted message survives the text round trip with its body byte for
// byte, and a stream framer cuts its wire form back out whole.
inline void checkMessageRoundTrip(const kelsip::SipMessage& first, std::string_view input) {
    const auto parse = [](std::string_view text) { return kelsip::SipMessage::parse(text); };
    checkTextRoundTrip("message", first, input, parse, [](const auto& a, const auto& b) { return a.body == b.body; });
    std::string buffer = first.toString();
    const auto framed = kelsip::extractStreamMessage(buffer);
    require(framed && *framed == first.toString() && buffer.empty(),
            "a serialised message frames on a stream as exactly itself", input, first.toString());
}

}  // namespace velmora::fuzz

// Defines the libFuzzer entry point around the body that follows, which
// sees the input as `input`.
#define VELMORA_FUZZ_TARGET                                                 \
    static void fuzzOne(std::string_view input);                            \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { \
        fuzzOne(size ? std::string_view(reinterpret_cast<const char*>(data), size) : std::string_view()); \
        return 0;                                                           \
    }                                                                       \
    static void fuzzOne(std::string_view input)
