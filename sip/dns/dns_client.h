// The stack's own DNS client: queries over UDP (TCP when truncated) on a
// worker thread, answers cached, completions handed to the event loop.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "sip/dns/dns_answer.h"
#include "sip/dns/dns_message.h"
#include "sip/core/event_loop.h"
#include "sip/net/socket_address.h"

namespace kelsip::dns {

struct DnsClientOptions {
    // Servers asked in this order, each with its port. Empty: the system's
    // (systemDnsServers()).
    std::vector<net::SocketAddress> servers;
    // How long one try waits for its answer, on the event loop's clock.
    std::chrono::milliseconds tryTimeout{1000};
    // Tries sent to one server before the next one is asked.
    int triesPerServer = 2;
    CacheLimits cache;
};

struct DnsClientStats {
    uint64_t udpQueriesSent = 0;    // datagrams, retries included
    uint64_t tcpQueriesSent = 0;    // queries repeated over TCP after truncation
    uint64_t cacheHits = 0;
    uint64_t answersFromNetwork = 0;
};

class DnsClient {
public:
    using QueryId = uint64_t;
    // Runs on the event loop's thread with the answer or the failure.
    using Callback = std::function<void(const DnsAnswer& answer)>;

    // Starts the worker thread. The loop must outlive the client.
    explicit DnsClient(EventLoop& loop, DnsClientOptions options = {});
    // Stops the worker; callbacks not yet run never run. Destroy the client
    // on the loop thread, or once the loop no longer runs.
    ~DnsClient();
    DnsClient(const DnsClient&) = delete;
    DnsClient& operator=(const DnsClient&) = delete;

    // Looks up `name`'s records of `type`. `done` runs once, later, on the
    // loop thread, never inside this call: from the cache, from the network,
    // or with a failure. Lookups of the same name and type while one is on
    // the network share it. Callable from any thread. Ids start at 1.
    QueryId query(std::string_view name, RecordType type, Callback done);
    // `done` of that query will not run. On the loop thread.
    void cancel(QueryId id);

    [[nodiscard]] EventLoop& loop() const { return loop_; }
    [[nodiscard]] const std::vector<net::SocketAddress>& servers() const { return servers_; }
    [[nodiscard]] DnsClientStats stats() const;
    void clearCache();

    struct Shared;

private:
    class Worker;

    EventLoop& loop_;
    std::vector<net::SocketAddress> servers_;
    std::shared_ptr<Shared> shared_;
    std::unique_ptr<Worker> worker_;
};

}  // namespace kelsip::dns
