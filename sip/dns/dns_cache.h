// Answers kept for their lifetime, on whatever clock the caller reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "sip/dns/dns_answer.h"

namespace kelsip::dns {

// Times are nanoseconds on the caller's monotonic clock (the event loop's),
// so that tests move them by hand. Not thread-safe: the client guards it.
class DnsCache {
public:
    explicit DnsCache(size_t capacity = 512) : capacity_(capacity) {}

    // Keeps a copy of `answer` for its ttlSeconds; failures and answers with
    // no lifetime are not kept. When full, expired answers go first, then
    // the one that would expire soonest.
    void put(std::string_view name, RecordType type, const DnsAnswer& answer, int64_t nowNs);
    // The answer, if kept and not yet expired, marked fromCache, its
    // ttlSeconds reduced to the time it has left.
    [[nodiscard]] std::optional<DnsAnswer> get(std::string_view name, RecordType type, int64_t nowNs);

    [[nodiscard]] size_t size() const { return entries_.size(); }
    void clear() { entries_.clear(); }

private:
    struct Entry {
        DnsAnswer answer;
        int64_t expiresNs = 0;
    };
    using Key = std::pair<std::string, uint16_t>;

    void makeRoom(int64_t nowNs);

    size_t capacity_;
    std::map<Key, Entry> entries_;
};

}  // namespace kelsip::dns
