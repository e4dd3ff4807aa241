// Header-name knowledge inside the message code: the names the stack knows
// by their canonical spelling, which of them carry comma-separated lists, and
// the ones the parser keeps track of while it reads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelsip {

// Headers the parser remembers the first of, for the body and for validation.
enum class HeaderId : uint8_t { Other, Via, From, To, CallId, CSeq, MaxForwards, ContentLength };
inline constexpr size_t kTrackedHeaderCount = 8;  // HeaderId values, Other included

struct KnownHeader {
    std::string_view canonical;
    bool isList = false;  // the value is split at top-level commas into one pair per element
    HeaderId id = HeaderId::Other;
    uint8_t index = 0;    // its own position in the table
};

// The entry for a name in any letter case, compact forms included; nullptr
// for a name outside the table, which is never list-valued and takes its
// spelling from capitaliseHeaderWords.
[[nodiscard]] const KnownHeader* findKnownHeader(std::string_view name);

// The same as a position in the table (KnownHeader::index), which a message
// stores in place of the name; kOtherHeader for a name outside it.
inline constexpr uint8_t kOtherHeader = 0xFF;
[[nodiscard]] uint8_t knownHeaderIndex(std::string_view name);
[[nodiscard]] const KnownHeader& knownHeaderAt(uint8_t index);

// The regular spelling: each word of the name capitalised ("x-my-header" ->
// "X-My-Header").
[[nodiscard]] std::string capitaliseHeaderWords(std::string_view name);
// The same, rewriting the name where it stands.
void capitaliseHeaderWords(char* name, size_t size);

}  // namespace kelsip
