// Turning a matched response into an answer: the CNAME chain, the records
// asked for and how long they may be cached.
#include "sip/dns/dns_answer.h"

#include <algorithm>

namespace kelsip::dns {

namespace {

// Long enough for any sane chain, short enough that a loop of CNAMEs ends.
constexpr int kMaxCnameHops = 8;

uint32_t clampSeconds(uint32_t seconds, std::chrono::seconds limit) {
    const auto cap = static_cast<uint64_t>(std::max<int64_t>(limit.count(), 0));
    return static_cast<uint32_t>(std::min<uint64_t>(seconds, cap));
}

// RFC 2308: a negative answer lives as long as the smaller of the SOA
// record's own TTL and its minimum field.
uint32_t negativeLifetime(const Message& response, const CacheLimits& limits) {
    for (const ResourceRecord& rr : response.authority) {
        if (const SoaData* soa = rr.soa()) {
            return clampSeconds(std::min(rr.ttl, soa->minimum), limits.maxNegativeTtl);
        }
    }
    return clampSeconds(static_cast<uint32_t>(std::max<int64_t>(limits.negativeTtl.count(), 0)),
                        limits.maxNegativeTtl);
}

}  // namespace

std::string_view dnsStatusName(DnsStatus status) {
    switch (status) {
        case DnsStatus::Ok: return "ok";
        case DnsStatus::NoSuchName: return "no such name";
        case DnsStatus::Failed: return "failed";
    }
    return "failed";
}

DnsAnswer answerFromResponse(const Message& response, std::string_view name, RecordType type,
                             const CacheLimits& limits) {
    DnsAnswer answer;
    switch (response.header.rcode) {
        case Rcode::NoError: answer.status = DnsStatus::Ok; break;
        case Rcode::NameError: answer.status = DnsStatus::NoSuchName; break;
        case Rcode::ServerFailure: answer.error = "server failure"; return answer;
        case Rcode::Refused: answer.error = "refused"; return answer;
        default: answer.error = "bad response"; return answer;
    }

    // Follow the chain the server gave: each hop's CNAME must be for the
    // name reached so far; the records wanted sit under its last name.
    std::string current(name);
    uint32_t ttl = UINT32_MAX;
    for (int hop = 0; hop <= kMaxCnameHops; ++hop) {
        for (const ResourceRecord& rr : response.answers) {
            if (rr.type == type && rr.recordClass == kClassIn && sameName(rr.name, current)) {
                answer.records.push_back(rr);
                ttl = std::min(ttl, rr.ttl);
            }
        }
        if (!answer.records.empty() || type == RecordType::CNAME) break;
        const ResourceRecord* alias = nullptr;
        const std::string* aliasTarget = nullptr;
        for (const ResourceRecord& rr : response.answers) {
            if (rr.type != RecordType::CNAME || !sameName(rr.name, current)) continue;
            aliasTarget = rr.target();
            if (aliasTarget) {
                alias = &rr;
                break;
            }
        }
        if (!alias || !aliasTarget) break;
        ttl = std::min(ttl, alias->ttl);
        current = *aliasTarget;
    }
    answer.additional = response.additional;

    if (answer.records.empty()) {
        answer.ttlSeconds = negativeLifetime(response, limits);
    } else {
        answer.ttlSeconds = clampSeconds(ttl, limits.maxTtl);
    }
    return answer;
}

}  // namespace kelsip::dns
