// Answers from responses (CNAME chains, rcodes, lifetimes) and the cache that keeps them.
#include "sip/dns/dns_cache.h"

#include <gtest/gtest.h>

#include "sip/dns/dns_answer.h"

namespace kelsip::dns {
namespace {

constexpr int64_t kSecond = 1'000'000'000;

ResourceRecord addressRecord(const std::string& name, uint8_t last, uint32_t ttl) {
    return ResourceRecord{name, RecordType::A, kClassIn, ttl, net::SocketAddress::v4({10, 0, 0, last}, 0)};
}

ResourceRecord cnameRecord(const std::string& name, const std::string& target, uint32_t ttl) {
    return ResourceRecord{name, RecordType::CNAME, kClassIn, ttl, target};
}

Message response(Rcode rcode, std::vector<ResourceRecord> answers, uint32_t soaTtl = 0, uint32_t soaMinimum = 0) {
    Message m;
    m.header.isResponse = true;
    m.header.rcode = rcode;
    m.answers = std::move(answers);
    if (soaTtl != 0) {
        SoaData soa;
        soa.minimum = soaMinimum;
        m.authority = {ResourceRecord{"test", RecordType::SOA, kClassIn, soaTtl, soa}};
    }
    return m;
}

std::vector<uint8_t> lastBytes(const DnsAnswer& a) {
    std::vector<uint8_t> out;
    for (const ResourceRecord& rr : a.records) {
        if (const net::SocketAddress* address = rr.address()) out.push_back(address->bytes()[3]);
    }
    return out;
}

// A CNAME chain lives as long as its shortest link; asking for the alias
// itself gives the CNAME; a loop of aliases ends with nothing found.
TEST(DnsAnswerTest, StatusRecordsAndLifetimeFollowTheRcodeTheChainAndTheSoa) {
    CacheLimits limits;
    limits.maxTtl = std::chrono::seconds(3600);
    limits.negativeTtl = std::chrono::seconds(30);
    limits.maxNegativeTtl = std::chrono::seconds(300);
    const std::vector<ResourceRecord> none;
    const Message chain = response(Rcode::NoError, {
                                                       addressRecord("other.test", 9, 60),
                                                       cnameRecord("h.test", "mid.test", 300),
                                                       cnameRecord("MID.test.", "host.test", 100),
                                                       addressRecord("host.test", 1, 200),
                                                       addressRecord("Host.Test", 2, 150),
                                                   });
    const Message loop =
        response(Rcode::NoError, {cnameRecord("h.test", "b.test", 60), cnameRecord("b.test", "h.test", 60)});
    const auto ok = DnsStatus::Ok;
    const auto noName = DnsStatus::NoSuchName;
    const auto failed = DnsStatus::Failed;
    struct Case {
        const char* what;
        Message message;
        DnsStatus status;
        const char* error;
        uint32_t ttl;
        size_t records = 0;
        RecordType type = RecordType::A;
    } cases[] = {
        {"records", response(Rcode::NoError, {addressRecord("h.test", 1, 90)}), ok, "", 90, 1},
        {"TTL above the cap", response(Rcode::NoError, {addressRecord("h.test", 1, 86400)}), ok, "", 3600, 1},
        {"CNAME chain", chain, ok, "", 100, 2},
        {"the alias asked for", chain, ok, "", 300, 1, RecordType::CNAME},
        {"CNAME loop", loop, ok, "", 30},
        {"no such name, no SOA", response(Rcode::NameError, none), noName, "", 30},
        // The smaller of the SOA's TTL and its minimum field.
        {"no such name, SOA minimum smaller", response(Rcode::NameError, none, 600, 10), noName, "", 10},
        {"no data, SOA TTL smaller", response(Rcode::NoError, none, 20, 900), ok, "", 20},
        {"negative lifetime capped", response(Rcode::NameError, none, 86400, 86400), noName, "", 300},
        {"records only under another name", response(Rcode::NoError, {addressRecord("x.test", 1, 90)}), ok, "", 30},
        {"server failure", response(Rcode::ServerFailure, none), failed, "server failure", 0},
        {"refused", response(Rcode::Refused, none), failed, "refused", 0},
        {"unknown rcode", response(static_cast<Rcode>(9), none), failed, "bad response", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const DnsAnswer a = answerFromResponse(c.message, "h.test", c.type, limits);
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.error, c.error);
        EXPECT_EQ(a.ttlSeconds, c.ttl);
        EXPECT_EQ(a.records.size(), c.records);
    }
    EXPECT_EQ(lastBytes(answerFromResponse(chain, "h.test", RecordType::A)), (std::vector<uint8_t>{1, 2}));
}

DnsAnswer answer(DnsStatus status, uint8_t last, uint32_t ttl, const char* error = "") {
    DnsAnswer a;
    a.status = status;
    if (status == DnsStatus::Ok) a.records = {addressRecord("h.test", last, ttl)};
    a.ttlSeconds = ttl;
    a.error = error;
    return a;
}

TEST(DnsCacheTest, KeepsAnswersForExactlyTheirLifetimeButNotFailuresOrZeroLifetimes) {
    DnsCache cache;
    cache.put("Host.Test.", RecordType::A, answer(DnsStatus::Ok, 1, 60), 0);
    cache.put("gone.test", RecordType::A, answer(DnsStatus::NoSuchName, 0, 5), 0);
    cache.put("slow.test", RecordType::A, answer(DnsStatus::Failed, 0, 60, "timed out"), 0);
    cache.put("zero.test", RecordType::A, answer(DnsStatus::Ok, 1, 0), 0);
    const auto early = cache.get("host.test", RecordType::A, 59 * kSecond + kSecond / 2);
    ASSERT_TRUE(early) << "names are cached without case or final dot";
    EXPECT_TRUE(early->fromCache);
    EXPECT_EQ(early->ttlSeconds, 1U) << "what is left, rounded up";
    EXPECT_EQ(lastBytes(*early), (std::vector<uint8_t>{1}));
    EXPECT_FALSE(cache.get("host.test", RecordType::AAAA, 0)) << "the type is part of the key";
    EXPECT_EQ(cache.get("gone.test", RecordType::A, 4 * kSecond)->status, DnsStatus::NoSuchName);
    EXPECT_FALSE(cache.get("gone.test", RecordType::A, 5 * kSecond));
    EXPECT_FALSE(cache.get("slow.test", RecordType::A, 0));
    EXPECT_FALSE(cache.get("zero.test", RecordType::A, 0));
    EXPECT_FALSE(cache.get("host.test", RecordType::A, 60 * kSecond));
    EXPECT_EQ(cache.size(), 0U) << "an expired answer is dropped when met";
}

TEST(DnsCacheTest, WhenFullDropsExpiredThenSoonestToExpire) {
    DnsCache cache(3);
    cache.put("a.test", RecordType::A, answer(DnsStatus::Ok, 1, 10), 0);
    cache.put("b.test", RecordType::A, answer(DnsStatus::Ok, 2, 100), 0);
    cache.put("c.test", RecordType::A, answer(DnsStatus::Ok, 3, 50), 0);
    // Full, nothing expired: a would have gone first anyway.
    cache.put("d.test", RecordType::A, answer(DnsStatus::Ok, 4, 200), 0);
    EXPECT_FALSE(cache.get("a.test", RecordType::A, 0));
    EXPECT_TRUE(cache.get("c.test", RecordType::A, 0));
    // At 60 s c has expired: it makes the room, b (soonest alive) stays.
    cache.put("e.test", RecordType::A, answer(DnsStatus::Ok, 5, 10), 60 * kSecond);
    EXPECT_EQ(cache.size(), 3U);
    EXPECT_TRUE(cache.get("b.test", RecordType::A, 60 * kSecond));
    EXPECT_TRUE(cache.get("d.test", RecordType::A, 60 * kSecond));
    EXPECT_TRUE(cache.get("e.test", RecordType::A, 60 * kSecond));
}

}  // namespace
}  // namespace kelsip::dns
