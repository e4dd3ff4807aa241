// A network namespace the test makes for itself: one veth pair to the root
// namespace with an address at each end, programs run inside it, addresses
// added and removed while they run, and everything torn down when it goes.
#pragma once

#include <string>
#include <vector>

#include "support/process.h"

namespace kelsip::test {

class NetworkNamespace {
public:
    // A namespace with a name of its own for this run ("velNNNNNx"), its
    // veth pair up, `rootIp` on the root's end and `insideIp` on the other,
    // both in `prefix`-bit subnets. On failure `error` says which step.
    NetworkNamespace(const std::string& rootIp, const std::string& insideIp, int prefix = 24);
    // A namespace with its loopback up and no link yet: link() gives it its
    // links to other namespaces.
    NetworkNamespace();
    // Deletes the namespace, which takes its end of the pair and so the pair.
    ~NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    [[nodiscard]] bool ok() const { return error_.empty(); }
    [[nodiscard]] const std::string& error() const { return error_; }
    [[nodiscard]] const std::string& name() const { return name_; }
    // The inside end of the pair.
    [[nodiscard]] const std::string& device() const { return inside_; }

    // Runs `ip` with `arguments` inside the namespace; false when it failed.
    bool ip(const std::vector<std::string>& arguments);
    bool addAddress(const std::string& ip) { return this->ip({"addr", "add", ip + "/" + prefix_, "dev", inside_}); }
    bool removeAddress(const std::string& ip) { return this->ip({"addr", "del", ip + "/" + prefix_, "dev", inside_}); }
    // Runs `program` (nft, sysctl...) inside the namespace and waits for it;
    // false when it failed, with its output in `output`.
    bool run(const std::string& program, const std::vector<std::string>& arguments, std::string* output = nullptr);
    // A veth pair between this namespace and `other`, both ends up: `device`
    // here with `address` ("10.1.2.3/24", none when empty), `otherDevice`
    // with `otherAddress` there. Device names are each namespace's own.
    bool link(NetworkNamespace& other, const std::string& device, const std::string& address,
              const std::string& otherDevice, const std::string& otherAddress);
    // The command that runs the rest of its line inside the namespace.
    [[nodiscard]] std::vector<std::string> enter() const;
    // The command line that runs `program` inside the namespace.
    [[nodiscard]] ProcessOptions inside(const std::string& program, std::vector<std::string> arguments) const;

    // Whether this machine lets the test make namespaces (root, `ip` installed).
    [[nodiscard]] static bool available();
    // A /24 of 10.0.0.0/8 that this run has to itself, as "10.A.B." (pid-based).
    [[nodiscard]] static std::string subnetForRun(int index);

private:
    static bool runIp(const std::vector<std::string>& arguments, std::string* output = nullptr);

    std::string name_;
    std::string root_;
    std::string inside_;
    std::string prefix_;
    std::string error_;
    bool created_ = false;
};

}  // namespace kelsip::test
