// The answer cache: keyed by canonical name and type, expiring by the clock.
#include "sip/dns/dns_cache.h"

namespace kelsip::dns {

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

}  // namespace

void DnsCache::put(std::string_view name, RecordType type, const DnsAnswer& answer, int64_t nowNs) {
    if (capacity_ == 0 || answer.status == DnsStatus::Failed || answer.ttlSeconds == 0) return;
    Key key{canonicalName(name), static_cast<uint16_t>(type)};
    if (entries_.find(key) == entries_.end()) makeRoom(nowNs);
    Entry& entry = entries_[std::move(key)];
    entry.answer = answer;
    entry.answer.fromCache = false;
    entry.expiresNs = nowNs + int64_t{answer.ttlSeconds} * kNsPerSecond;
}

std::optional<DnsAnswer> DnsCache::get(std::string_view name, RecordType type, int64_t nowNs) {
    const auto it = entries_.find(Key{canonicalName(name), static_cast<uint16_t>(type)});
    if (it == entries_.end()) return std::nullopt;
    if (it->second.expiresNs <= nowNs) {
        entries_.erase(it);
        return std::nullopt;
    }
    DnsAnswer answer = it->second.answer;
    answer.fromCache = true;
    // Rounded up: an answer with any time left still says it has some.
    answer.ttlSeconds = static_cast<uint32_t>((it->second.expiresNs - nowNs + kNsPerSecond - 1) / kNsPerSecond);
    return answer;
}

void DnsCache::makeRoom(int64_t nowNs) {
    if (entries_.size() < capacity_) return;
    for (auto it = entries_.begin(); it != entries_.end();) {
        it = it->second.expiresNs <= nowNs ? entries_.erase(it) : std::next(it);
    }
    while (entries_.size() >= capacity_) {
        auto soonest = entries_.begin();
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (it->second.expiresNs < soonest->second.expiresNs) soonest = it;
        }
        entries_.erase(soonest);
    }
}

}  // namespace kelsip::dns
