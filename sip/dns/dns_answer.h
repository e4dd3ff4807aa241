// What a lookup hands back: the records asked for, their lifetime, or why
// there are none; and how a server's response turns into one.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "sip/dns/dns_message.h"
#include "sip/net/socket_address.h"

namespace kelsip::dns {

enum class DnsStatus {
    Ok,         // the name exists; `records` may still be empty (no data of that type)
    NoSuchName, // the server says the name does not exist
    Failed,     // no server gave a usable answer; `error` says why
};

[[nodiscard]] std::string_view dnsStatusName(DnsStatus status);

struct DnsAnswer {
    DnsStatus status = DnsStatus::Failed;
    // Fixed text when Failed: "timed out", "no dns servers", "server
    // failure", "refused", "bad response", "connection failed", "bad name".
    std::string error;
    // Records of the type asked for, under the name asked for or at the end
    // of the CNAME chain the answer section gives for it.
    std::vector<ResourceRecord> records;
    // The response's additional section (the addresses of SRV targets).
    std::vector<ResourceRecord> additional;
    // How long the answer may be reused; 0: not at all.
    uint32_t ttlSeconds = 0;
    bool fromCache = false;
    net::SocketAddress server;  // who answered (not set for failures and cache hits)
};

// How long answers are kept.
struct CacheLimits {
    // Positive answers live for their smallest TTL, at most this long.
    std::chrono::seconds maxTtl{3600};
    // Negative answers (no such name, no data) without an SOA record to say
    // how long: RFC 2308 lets a resolver pick; kept short.
    std::chrono::seconds negativeTtl{30};
    // Negative answers never live longer than this, whatever the SOA says.
    std::chrono::seconds maxNegativeTtl{300};
    size_t capacity = 512;  // answers kept at once
};

// The answer a response gives to the question (name, type). The caller has
// already matched the response to its query. Rcodes other than NoError and
// NameError give a Failed answer ("server failure", "refused" or "bad
// response").
[[nodiscard]] DnsAnswer answerFromResponse(const Message& response, std::string_view name, RecordType type,
                                           const CacheLimits& limits = {});

}  // namespace kelsip::dns
