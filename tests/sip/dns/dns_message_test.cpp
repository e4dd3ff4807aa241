// DNS message codec: queries as bytes, responses field by field, hostile input refused.
#include "sip/dns/dns_message.h"

#include <gtest/gtest.h>

#include <string>

#include "dns_test_support.h"

namespace kelsip::dns {
namespace {

using test::responseHeader;
using test::Wire;

constexpr unsigned kTypeA = 1;
constexpr unsigned kTypeSrv = 33;
constexpr unsigned kTypeNaptr = 35;

TEST(DnsQueryTest, WritesTheHeaderQuestionAndFlags) {
    const auto query = encodeQuery(0x1234, "example.test", RecordType::SRV);
    ASSERT_TRUE(query);
    const std::vector<uint8_t> expected = {
        0x12, 0x34, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // id, RD, one question
        7, 'e', 'x', 'a', 'm', 'p', 'l', 'e', 4, 't', 'e', 's', 't', 0,          // name
        0x00, 0x21, 0x00, 0x01,                                                  // SRV, IN
    };
    EXPECT_EQ(*query, expected);
    const auto noRecursion = encodeQuery(1, "example.test", RecordType::A, false);
    ASSERT_TRUE(noRecursion);
    EXPECT_EQ((*noRecursion)[2], 0x00) << "RD must be clear";
}

TEST(DnsQueryTest, RefusesNamesThatCannotBeWritten) {
    const std::string label63(63, 'a');
    // Three 63-byte labels and one of 61: exactly 255 bytes on the wire.
    const std::string longest = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'b');
    struct Case {
        std::string name;
        const char* error;  // empty: accepted
    } cases[] = {
        {longest, ""},
        {"a\\.b\\065.test", ""},
        {label63 + "a.test", "label too long"},
        {longest + "b", "name too long"},
        {"a..test", "empty label"},
        {"a\\", "bad escape"},
        {"a\\256", "bad escape"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto query = encodeQuery(7, c.name, RecordType::A, true, &error);
        EXPECT_EQ(query.has_value(), *c.error == '\0');
        EXPECT_EQ(error, c.error);
    }
}

// Every section used, names compressed; two more questions: label bytes escaped, and the root.
TEST(DnsDecodeTest, ReadsEverySectionOfACompressedResponse) {
    Wire w = responseHeader(0xBEEF, 0x0580, 3, 3, 1, 3);  // AA, RD, RA
    w.name("example.test").u16(kTypeNaptr).u16(1);       // question at 12
    w.u8(3).text("a.b").u8(2).raw({7, '\\'}).u8(0).u16(kTypeA).u16(1);
    w.u8(0).u16(kTypeA).u16(1);
    // NAPTR 10 50 "s" "SIP+D2U" "" _sip._udp.example.test
    w.pointer(12).record(kTypeNaptr, 300, 2 + 2 + 2 + 8 + 1 + 10 + 2);
    w.u16(10).u16(50).string("s").string("SIP+D2U").string("");
    const size_t replacement = w.size();
    w.u8(4).text("_sip").u8(4).text("_udp").pointer(12);
    // alias.example.test CNAME example.test
    w.u8(5).text("alias").pointer(12).record(5, 60, 2).pointer(12);
    // _sip._udp.example.test SRV 10 60 5070 sip1.example.test
    w.pointer(replacement).record(kTypeSrv, 120, 6 + 5 + 2).u16(10).u16(60).u16(5070);
    const size_t srvTarget = w.size();
    w.u8(4).text("sip1").pointer(12);
    // example.test SOA ns.example.test admin.example.test 1 2 3 4 30
    w.pointer(12).record(6, 3600, 3 + 2 + 6 + 2 + 20);
    w.u8(2).text("ns").pointer(12).u8(5).text("admin").pointer(12).u32(1).u32(2).u32(3).u32(4).u32(30);
    // sip1.example.test A 127.0.0.11; AAAA ::11 with a TTL whose top bit is set
    w.pointer(srvTarget).record(kTypeA, 60, 4).raw({127, 0, 0, 11});
    w.pointer(srvTarget).record(28, 0x80000001u, 16).u32(0).u32(0).u32(0).u32(0x11);
    // A type nobody here reads: skipped, and the reading goes on after it.
    w.pointer(12).record(99, 5, 3).raw({1, 2, 3});
    std::string error;
    const auto m = decodeMessage(w.bytes(), &error);
    ASSERT_TRUE(m) << error;
    EXPECT_EQ(m->header.id, 0xBEEF);
    EXPECT_TRUE(m->header.isResponse && m->header.authoritative && m->header.recursionAvailable);
    ASSERT_EQ(m->questions.size(), 3U);
    EXPECT_EQ(m->questions[1].name, "a\\.b.\\007\\\\");
    EXPECT_EQ(m->questions[2].name, ".");
    EXPECT_FALSE(sameName(m->questions[1].name, "a.b.\\007\\\\")) << "an escaped dot is part of the label";
    ASSERT_EQ(m->answers.size(), 3U);
    const NaptrData* naptr = m->answers[0].naptr();
    ASSERT_TRUE(naptr && m->authority.size() == 1 && m->authority[0].soa());
    EXPECT_EQ(m->answers[0].ttl, 300U);
    EXPECT_EQ(naptr->order + naptr->preference, 60);
    EXPECT_EQ(naptr->flags + "|" + naptr->services + "|" + naptr->regexp + "|" + naptr->replacement,
              "s|SIP+D2U||_sip._udp.example.test");
    EXPECT_EQ(m->answers[1].name, "alias.example.test");
    EXPECT_EQ(m->answers[1].target() ? *m->answers[1].target() : "", "example.test");
    EXPECT_EQ(m->answers[2].name, "_sip._udp.example.test");
    EXPECT_EQ(m->answers[2].srv() ? *m->answers[2].srv() : SrvData{}, (SrvData{10, 60, 5070, "sip1.example.test"}));
    const SoaData* soa = m->authority[0].soa();
    EXPECT_EQ(soa->primary + " " + soa->mailbox, "ns.example.test admin.example.test");
    EXPECT_EQ(soa->minimum, 30U);
    ASSERT_EQ(m->additional.size(), 3U);
    EXPECT_EQ(m->additional[0].address() ? m->additional[0].address()->toString() : "", "127.0.0.11:0");
    EXPECT_EQ(m->additional[1].address() ? m->additional[1].address()->ip() : "", "::11");
    EXPECT_EQ(m->additional[1].ttl, 0U) << "a TTL with the top bit set counts as zero";
    EXPECT_TRUE(std::holds_alternative<std::monostate>(m->additional[2].data));
}

struct BadCase {
    const char* what;
    Wire wire;
    const char* error;
};

std::vector<BadCase> hostileMessages() {
    std::vector<BadCase> cases;
    const std::string label63(63, 'x');
    auto add = [&cases](const char* what, Wire w, const char* error) { cases.push_back({what, std::move(w), error}); };
    add("eleven bytes", Wire().raw({0, 1, 0x80, 0, 0, 1, 0, 0, 0, 0, 0}), "truncated header");
    // Names.
    add("pointer to itself", responseHeader(1, 0, 1, 0).pointer(12), "compression pointer loop");
    {
        // An unread record's data holds a pointer to the next record's name,
        // which points back at it: each is "earlier" than the other.
        Wire w = responseHeader(1, 0, 1, 2);
        w.name("a").u16(kTypeA).u16(1);                    // 12..18
        w.pointer(12).record(99, 0, 2);                    // 19..30
        const size_t first = w.size();                     // 31
        w.pointer(first + 2);                              // data: -> 33
        w.pointer(first).record(kTypeA, 0, 4).raw({1, 2, 3, 4});  // name at 33: -> 31
        add("two pointers pointing at each other", std::move(w), "compression pointer loop");
    }
    add("pointer forward", responseHeader(1, 0, 1, 0).pointer(14).name("a").u16(kTypeA).u16(1),
        "forward compression pointer");
    add("pointer past the end", responseHeader(1, 0, 1, 0).pointer(0x3FFF), "compression pointer out of range");
    add("label past the end", responseHeader(1, 0, 1, 0).u8(5).text("ab"), "truncated name");
    add("label type 01", responseHeader(1, 0, 1, 0).u8(0x41).text("a").u8(0), "bad label type");
    {
        // Each part is short; joined through a pointer the name is too long.
        Wire w = responseHeader(1, 0, 1, 1);
        w.name(label63 + "." + label63 + "." + label63).u16(kTypeA).u16(1);
        w.u8(63).text(label63).pointer(12).record(kTypeA, 0, 4).raw({1, 2, 3, 4});
        add("name made too long by a pointer", std::move(w), "name too long");
    }
    // Questions and records.
    add("question without its class", responseHeader(1, 0, 1, 0).name("a").u16(kTypeA).u8(0), "truncated question");
    add("record data past the end", responseHeader(1, 0, 0, 1).name("a").record(kTypeA, 0, 4).raw({1, 2}),
        "truncated record");
    add("A of five bytes", responseHeader(1, 0, 0, 1).name("a").record(kTypeA, 0, 5).raw({1, 2, 3, 4, 5}),
        "bad address length");
    add("SRV with a byte after its target",
        responseHeader(1, 0, 0, 1).name("a").record(kTypeSrv, 0, 10).u16(1).u16(1).u16(1).name("a").u8(0),
        "bad record data");
    add("NAPTR string longer than its data",
        responseHeader(1, 0, 0, 1).name("a").record(kTypeNaptr, 0, 5).u16(1).u16(1).u8(9).text("sssssssss"),
        "bad record data");
    return cases;
}

TEST(DnsDecodeTest, RefusesHostileMessagesWithTheirText) {
    for (const BadCase& c : hostileMessages()) {
        SCOPED_TRACE(c.what);
        std::string error;
        EXPECT_FALSE(decodeMessage(c.wire.bytes(), &error).has_value());
        EXPECT_EQ(error, c.error);
    }
}

}  // namespace
}  // namespace kelsip::dns
