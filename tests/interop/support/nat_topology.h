// A small internet of the test's own, all in network namespaces: a public
// segment (198.51.100.0/24) holding a servers' namespace, and sites behind
// NAT routers, each with one host on a private subnet. Only the routers
// forward; the root namespace keeps its settings and reaches the servers'
// namespace through one link of its own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "interop/support/netns.h"

namespace kelsip::test {

enum class NatKind {
    // Linux's plain masquerade keeps the source port: one inside address
    // and port maps to one outside port whatever the destination.
    EndpointIndependent,
    // A fresh random outside port for each destination.
    Symmetric,
};

[[nodiscard]] const char* toString(NatKind kind);

class NatTopology {
public:
    // The servers' address on the public segment.
    static constexpr const char* kServerIp = "198.51.100.1";

    // The public segment and the servers' namespace; `index` picks this
    // run's subnet for the root's link (NetworkNamespace::subnetForRun).
    explicit NatTopology(int index = 0);
    NatTopology(const NatTopology&) = delete;
    NatTopology& operator=(const NatTopology&) = delete;

    [[nodiscard]] bool ok() const { return error_.empty(); }
    [[nodiscard]] const std::string& error() const { return error_; }

    // Site n (from 0): a router at 198.51.100.(10+n) masquerading
    // 10.1.n.0/24, and a host at 10.1.n.2 routed through it. False when a
    // step failed, with the step in error().
    bool addSite(NatKind kind);

    [[nodiscard]] NetworkNamespace& servers() { return *servers_; }
    // Where the root namespace reaches the servers' namespace.
    [[nodiscard]] const std::string& serversFromRoot() const { return serversFromRoot_; }
    [[nodiscard]] NetworkNamespace& host(int site) { return *sites_.at(static_cast<size_t>(site)).host; }
    [[nodiscard]] std::string routerPublicIp(int site) const { return "198.51.100." + std::to_string(10 + site); }
    [[nodiscard]] std::string hostIp(int site) const { return "10.1." + std::to_string(site) + ".2"; }

private:
    bool fail(const std::string& step);

    struct Site {
        std::unique_ptr<NetworkNamespace> router;
        std::unique_ptr<NetworkNamespace> host;
    };
    std::unique_ptr<NetworkNamespace> servers_;
    std::string serversFromRoot_;
    // Hosts go before routers, routers before the servers: each namespace
    // leaves while the links it holds still have their other end.
    std::vector<Site> sites_;
    std::string error_;
};

}  // namespace kelsip::test
