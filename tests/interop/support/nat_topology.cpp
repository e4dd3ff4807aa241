// The NAT topology through ip, sysctl and nft run in the namespaces.
#include "interop/support/nat_topology.h"

namespace kelsip::test {

const char* toString(NatKind kind) {
    return kind == NatKind::Symmetric ? "symmetric" : "endpoint-independent";
}

NatTopology::NatTopology(int index) {
    const std::string subnet = NetworkNamespace::subnetForRun(index);
    serversFromRoot_ = subnet + "2";
    servers_ = std::make_unique<NetworkNamespace>(subnet + "1", serversFromRoot_);
    if (!servers_->ok()) {
        error_ = servers_->error();
        return;
    }
    // The segment is a bridge, so that site reaches site without routing.
    if (!servers_->ip({"link", "add", "pub", "type", "bridge"}) ||
        !servers_->ip({"addr", "add", std::string(kServerIp) + "/24", "dev", "pub"}) ||
        !servers_->ip({"link", "set", "pub", "up"})) {
        error_ = "cannot make the public segment";
        return;
    }
    // Packets to addresses nobody routes (a phone's private host candidate)
    // leave quietly, as on the internet: with no route at all the sender
    // gets an error, and coturn drops the allocation that sent it.
    // The route leads into a veth pair toward a made-up neighbour, whose
    // frames the far end discards.
    if (!servers_->ip({"link", "add", "nowhere", "type", "veth", "peer", "name", "nowhere-end"}) ||
        !servers_->ip({"link", "set", "nowhere", "up"}) || !servers_->ip({"link", "set", "nowhere-end", "up"}) ||
        !servers_->ip({"neigh", "add", "192.0.2.1", "lladdr", "02:00:00:00:00:01", "dev", "nowhere", "nud", "permanent"}) ||
        !servers_->ip({"route", "add", "default", "via", "192.0.2.1", "dev", "nowhere", "onlink"})) {
        error_ = "cannot give the public segment its default route";
    }
}

bool NatTopology::fail(const std::string& step) {
    error_ = "site " + std::to_string(sites_.size()) + ": " + step;
    return false;
}

bool NatTopology::addSite(NatKind kind) {
    if (!ok()) return false;
    const int n = static_cast<int>(sites_.size());
    const std::string lan = "10.1." + std::to_string(n) + ".";
    const std::string port = "site" + std::to_string(n);
    Site site{std::make_unique<NetworkNamespace>(), std::make_unique<NetworkNamespace>()};
    NetworkNamespace& router = *site.router;
    NetworkNamespace& host = *site.host;
    sites_.push_back(std::move(site));
    if (!router.ok() || !host.ok()) return fail(router.ok() ? host.error() : router.error());
    if (!router.link(*servers_, "wan", routerPublicIp(n) + "/24", port, "") ||
        !servers_->ip({"link", "set", port, "master", "pub"})) {
        return fail("cannot link the router to the public segment");
    }
    if (!router.link(host, "lan", lan + "1/24", "eth0", hostIp(n) + "/24") ||
        !host.ip({"route", "add", "default", "via", lan + "1"})) {
        return fail("cannot link the host to its router");
    }
    if (!router.run("sysctl", {"-q", "-w", "net.ipv4.ip_forward=1"})) return fail("cannot turn forwarding on");
    // Unasked packets to the router itself are dropped, as a home router
    // does: left to reach a closed port, each would leave a conntrack entry
    // that makes the next outgoing packet to its sender take another port,
    // and hole punching would never meet.
    const std::string rules = std::string("add table ip nat; ") +
                              "add chain ip nat post { type nat hook postrouting priority srcnat; }; " +
                              "add rule ip nat post oifname \"wan\" masquerade" +
                              (kind == NatKind::Symmetric ? " fully-random" : "") + "; " +
                              "add table ip filter; " +
                              "add chain ip filter input { type filter hook input priority filter; }; " +
                              "add rule ip filter input iifname \"wan\" ct state new drop";
    std::string output;
    if (!router.run("nft", {rules}, &output)) return fail("nft failed: " + output);
    return true;
}

}  // namespace kelsip::test
