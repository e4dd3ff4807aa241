// Locating SIP servers (RFC 3263, client side): from a URI to the ordered
// list of transports, addresses and ports that failover walks.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sip/dns/dns_client.h"
#include "sip/dns/dns_message.h"
#include "sip/transport/sip_target.h"
#include "sip/syntax/uri.h"

namespace kelsip::dns {

// Which address family a host's addresses are tried in first. Both A and
// AAAA are always looked up; this only orders what they give.
enum class AddressOrder { V4First, V6First };

// A uniform random integer in [0, bound].
using RandomSource = std::function<uint32_t(uint32_t bound)>;

struct ServerLocationOptions {
    // The transports this stack can use; NAPTR records and SRV lookups for
    // any other are skipped. This product builds no TLS, so by default a
    // sips URI leads nowhere. Without NAPTR records, SRV lookups go in this
    // order.
    std::vector<TransportKind> transports{TransportKind::Udp, TransportKind::Tcp};
    // IPv4 first: where a host has both, an IPv6 route that is published
    // but broken is still common on client networks, and a failed first
    // target costs a whole transaction time-out.
    AddressOrder addressOrder = AddressOrder::V4First;
    // For the weighted order among SRV records of equal priority. Empty: a
    // generator seeded from the system's secure random source.
    RandomSource random;
};

struct LocateResult {
    std::vector<SipTarget> targets;  // in the order to try them
    // When there are no targets, a fixed text: "tel uri is not routed",
    // "unknown transport", "sips over udp", "transport not enabled", "bad
    // host", "no server found".
    std::string error;
};

// RFC 2782 order: by priority, then within each priority a weighted random
// order (records of weight 0 first in the draw, so they are rarely picked
// before the others).
[[nodiscard]] std::vector<SrvData> orderSrvRecords(std::vector<SrvData> records, const RandomSource& random);

// Lives on the event loop of the DnsClient it uses: locate, cancel and the
// destructor are called on the loop thread, and results arrive there. It
// must be destroyed before that DnsClient.
class ServerLocator {
public:
    using LocateId = uint64_t;
    using Callback = std::function<void(LocateResult result)>;

    explicit ServerLocator(DnsClient& dns, ServerLocationOptions options = {});
    // Lookups still running are dropped; their callbacks never run.
    ~ServerLocator();
    ServerLocator(const ServerLocator&) = delete;
    ServerLocator& operator=(const ServerLocator&) = delete;

    // Resolves where requests for `uri` go: its maddr parameter or host,
    // its port and transport parameter, then NAPTR, SRV and A/AAAA records
    // as RFC 3263 orders them. `done` runs once, later, on the loop thread,
    // never inside this call. Ids start at 1.
    LocateId locate(const SipUri& uri, Callback done);
    // `done` of that lookup will not run.
    void cancel(LocateId id);

    struct Job;

private:
    [[nodiscard]] bool enabled(TransportKind kind) const;
    void startJob(Job& job, const SipUri& uri);
    void queryNaptr(Job& job);
    void onNaptr(Job& job, const DnsAnswer& answer);
    void querySrv(Job& job);
    void onSrvDone(Job& job);
    void queryAddresses(Job& job);
    void finishAddresses(Job& job);
    void fail(Job& job, const char* error);
    void finish(Job& job);
    void deliver(Job& job);
    // One DNS query for `job`; `then` runs with its answer unless the job has
    // been cancelled or has ended by then.
    void ask(Job& job, const std::string& name, RecordType type, std::function<void(Job&, const DnsAnswer&)> then);

    DnsClient& dns_;
    ServerLocationOptions options_;
    std::map<LocateId, std::unique_ptr<Job>> jobs_;
    LocateId nextId_ = 1;
    // Results are posted to the loop; a post that outlives the locator
    // finds this gone and does nothing.
    std::shared_ptr<char> lifeline_;
};

}  // namespace kelsip::dns
