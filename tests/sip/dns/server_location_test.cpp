// Server location: SRV ordering with a fixed random source, and whole lookups against dnsmasq.
#include "sip/dns/server_location.h"

#include <gtest/gtest.h>

#include <deque>
#include <optional>

#include "dnsmasq_fixture.h"

namespace kelsip::dns {
namespace {

using test::runUntil;

template <typename T, typename F>
std::vector<std::string> texts(const std::vector<T>& items, F text) {
    std::vector<std::string> out;
    for (const T& item : items) out.push_back(text(item));
    return out;
}

TEST(SrvOrderTest, SortsByPriorityThenDrawsByWeight) {
    // Priority 10's running sums in draw order: z 0, a 60, b 80; a draw takes the first sum >= r.
    const std::vector<SrvData> records = {
        {20, 0, 5060, "c"}, {10, 60, 5060, "a"}, {10, 20, 5060, "b"}, {10, 0, 5060, "z"}, {30, 5, 5060, "d"},
    };
    struct Case {
        const char* what;
        std::deque<uint32_t> draws;
        std::vector<std::string> order;
        std::vector<uint32_t> bounds;
    } cases[] = {
        {"b drawn first, then a", {70, 30, 0, 0, 3}, {"b", "a", "z", "c", "d"}, {80, 60, 0, 0, 5}},
        {"a drawn first, then b", {1, 61, 0, 0, 0}, {"a", "b", "z", "c", "d"}, {80, 20, 0, 0, 5}},
        {"zero draws the weight-0 record", {0, 80, 60, 0, 5}, {"z", "b", "a", "c", "d"}, {80, 80, 60, 0, 5}},
        {"a draw past the bound counts as the bound", {1000, 1000, 1000, 1000, 1000}, {"b", "a", "z", "c", "d"},
         {80, 60, 0, 0, 5}},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<uint32_t> bounds;
        const RandomSource random = [&](uint32_t bound) {
            bounds.push_back(bound);
            const uint32_t v = c.draws.front();
            c.draws.pop_front();
            return v;
        };
        EXPECT_EQ(texts(orderSrvRecords(records, random), [](const SrvData& r) { return r.target; }), c.order);
        EXPECT_EQ(bounds, c.bounds);
    }
}

// One zone for every resolution case; dnsmasq answers for *.test and nothing else.
const std::vector<std::string> kZone = {
    "local=/test/", "local-ttl=60",
    // NAPTR -> SRV -> A/AAAA. By order: SCTP (unknown here), TLS (not built), TCP, UDP.
    "naptr-record=naptr.test,1,10,s,SIP+D2S,,_sip._sctp.naptr.test",
    "naptr-record=naptr.test,5,10,s,SIPS+D2T,,_sips._tcp.naptr.test",
    "naptr-record=naptr.test,20,10,s,SIP+D2U,,_sip._udp.naptr.test",
    "naptr-record=naptr.test,10,10,s,SIP+D2T,,_sip._tcp.naptr.test",
    "naptr-record=naptr.test,10,20,a,SIP+D2U,,udp.naptr.test",
    "srv-host=_sip._sctp.naptr.test,sctp.naptr.test,5090,0,0",
    "srv-host=_sips._tcp.naptr.test,tls.naptr.test,5061,0,0",
    "srv-host=_sip._tcp.naptr.test,tcp.naptr.test,5070,0,0",
    "srv-host=_sip._udp.naptr.test,udp.naptr.test,5080,0,0",
    "host-record=sctp.naptr.test,127.0.0.20",
    "host-record=tls.naptr.test,127.0.0.23",
    // Sent along in the SRV answer's additional section.
    "host-record=tcp.naptr.test,127.0.0.21,::21",
    // Not sent along: needs its own A/AAAA lookups.
    "address=/udp.naptr.test/127.0.0.22",
    // SRV only, two priorities for UDP, one TCP record.
    "srv-host=_sip._udp.prio.test,second.prio.test,5002,20,0",
    "srv-host=_sip._udp.prio.test,first.prio.test,5001,10,0",
    "srv-host=_sip._tcp.prio.test,tcp.prio.test,5003,10,0",
    "host-record=first.prio.test,127.0.0.31",
    "host-record=second.prio.test,127.0.0.32",
    "host-record=tcp.prio.test,127.0.0.33",
    // No NAPTR, no SRV: addresses only.
    "host-record=plain.test,127.0.0.51,::51",
};

using ServerLocationDnsmasqTest = test::DnsmasqTest;

using enum TransportKind;
using enum AddressOrder;
const std::vector<TransportKind> kUdpTcp = {Udp, Tcp};

TEST_F(ServerLocationDnsmasqTest, LocatesByNaptrSrvAndAddressesOrByTheUriAlone) {
    test::VirtualClient* dns = startClient(kZone);
    ASSERT_TRUE(dns);
    struct Case {
        const char* uri;
        std::vector<std::string> targets;
        uint64_t queries;  // sent to dnsmasq for this URI, the cache cleared before
        const char* error = "";
        std::vector<TransportKind> transports = kUdpTcp;
        AddressOrder order = V4First;
    } cases[] = {
        // Numeric hosts and URIs refused as they are need no DNS.
        {"sip:192.0.2.1", {"UDP 192.0.2.1:5060"}, 0},
        {"sip:alice@192.0.2.1:5070;transport=TCP", {"TCP 192.0.2.1:5070"}, 0},
        {"sip:[2001:db8::1]:5080;transport=tcp", {"TCP [2001:db8::1]:5080"}, 0},
        {"sip:proxy.test;maddr=192.0.2.7;transport=tcp", {"TCP 192.0.2.7:5060"}, 0},
        {"sips:192.0.2.1", {}, 0, "transport not enabled"},
        {"sip:192.0.2.1;transport=sctp", {}, 0, "unknown transport"},
        {"sips:192.0.2.1;transport=udp", {}, 0, "sips over udp"},
        {"tel:+1-201-555-0123", {}, 0, "tel uri is not routed"},
        // By NAPTR order; SCTP, TLS and the record without the "s" flag passed over.
        {"sip:naptr.test", {"TCP 127.0.0.21:5070", "TCP [::21]:5070", "UDP 127.0.0.22:5080"}, 5},
        {"sip:naptr.test", {"TCP [::21]:5070", "TCP 127.0.0.21:5070", "UDP 127.0.0.22:5080"}, 5, "", kUdpTcp, V6First},
        {"sip:naptr.test", {"TLS 127.0.0.23:5061", "TCP 127.0.0.21:5070", "TCP [::21]:5070", "UDP 127.0.0.22:5080"},
         6, "", {Udp, Tcp, Tls}},
        {"sips:naptr.test", {"TLS 127.0.0.23:5061"}, 2, "", {Udp, Tcp, Tls}},
        {"sips:naptr.test", {}, 1, "transport not enabled"},
        // Without NAPTR: SRV per transport in the order configured, each in priority order.
        {"sip:prio.test", {"UDP 127.0.0.31:5001", "UDP 127.0.0.32:5002", "TCP 127.0.0.33:5003"}, 3},
        {"sip:prio.test", {"TCP 127.0.0.33:5003", "UDP 127.0.0.31:5001", "UDP 127.0.0.32:5002"}, 3, "", {Tcp, Udp}},
        // Nothing published but addresses: UDP on 5060, or TCP where UDP is not used.
        {"sip:plain.test", {"UDP 127.0.0.51:5060", "UDP [::51]:5060"}, 5},
        {"sip:plain.test", {"TCP 127.0.0.51:5060", "TCP [::51]:5060"}, 4, "", {Tcp}},
        // An explicit port: only A and AAAA, whatever NAPTR and SRV say.
        {"sip:plain.test:5099;transport=tcp", {"TCP 127.0.0.51:5099", "TCP [::51]:5099"}, 2},
        {"sip:naptr.test:5099", {}, 2, "no server found"},
        // A transport parameter: that transport's SRV, else its default port.
        {"sip:naptr.test;transport=udp", {"UDP 127.0.0.22:5080"}, 3},
        {"sip:naptr.test;transport=TCP", {"TCP 127.0.0.21:5070", "TCP [::21]:5070"}, 1},
        {"sip:plain.test;transport=tcp", {"TCP 127.0.0.51:5060", "TCP [::51]:5060"}, 3},
        {"sip:nowhere.test", {}, 5, "no server found"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.uri);
        dns->client.clearCache();
        const uint64_t before = dns->client.stats().udpQueriesSent;
        ServerLocationOptions options;
        options.transports = c.transports;
        options.addressOrder = c.order;
        ServerLocator locator(dns->client, options);
        const auto uri = SipUri::parse(c.uri);
        ASSERT_TRUE(uri);
        std::optional<LocateResult> result;
        locator.locate(*uri, [&](LocateResult r) { result = std::move(r); });
        EXPECT_FALSE(result) << "results never arrive inside locate()";
        ASSERT_TRUE(runUntil(dns->loop, [&] { return result.has_value(); }));
        EXPECT_EQ(texts(result->targets, [](const SipTarget& t) { return t.toString(); }), c.targets);
        EXPECT_EQ(result->error, c.error);
        EXPECT_EQ(dns->client.stats().udpQueriesSent - before, c.queries);
    }
}

TEST_F(ServerLocationDnsmasqTest, CancelledOrDestroyedLocatorsNeverCallBack) {
    test::VirtualClient* dns = startClient(kZone);
    ASSERT_TRUE(dns);
    bool called = false;
    const auto call = [&](LocateResult) { called = true; };
    ServerLocator locator(dns->client);
    locator.cancel(locator.locate(*SipUri::parse("sip:192.0.2.1"), call));
    ServerLocator(dns->client).locate(*SipUri::parse("sip:plain.test"), call);
    dns->loop.runDue();
    EXPECT_FALSE(called);
}

}  // namespace
}  // namespace kelsip::dns
