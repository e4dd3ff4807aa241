// Network namespaces through iproute2: each step one `ip` command, run and
// waited for; the teardown runs whatever the test's outcome.
#include "interop/support/netns.h"

#include <unistd.h>

#include <atomic>
#include <chrono>

namespace kelsip::test {

namespace {

std::atomic<int> made{0};

}  // namespace

bool NetworkNamespace::available() { return geteuid() == 0 && !Process::findProgram("ip").empty(); }

std::string NetworkNamespace::subnetForRun(int index) {
    const int pid = static_cast<int>(getpid());
    return "10." + std::to_string(100 + (pid / 250) % 150) + "." + std::to_string((pid + index) % 250) + ".";
}

bool NetworkNamespace::runIp(const std::vector<std::string>& arguments, std::string* output) {
    Process p;
    ProcessOptions options;
    options.program = Process::findProgram("ip");
    options.arguments = arguments;
    if (!p.start(options, nullptr)) return false;
    const auto code = p.waitForExit(std::chrono::seconds(10));
    if (output != nullptr) *output = p.log();
    return code == 0;
}

NetworkNamespace::NetworkNamespace(const std::string& rootIp, const std::string& insideIp, int prefix)
    : prefix_(std::to_string(prefix)) {
    // Interface names stop at 15 characters: the pid and a count fit.
    const std::string tag = std::to_string(getpid()) + "x" + std::to_string(made++);
    name_ = "vel" + tag;
    root_ = "vr" + tag;
    inside_ = "vn" + tag;
    const auto step = [&](const std::vector<std::string>& arguments) {
        if (!error_.empty()) return;
        std::string out;
        if (!runIp(arguments, &out)) {
            error_ = "ip";
            for (const auto& a : arguments) error_ += " " + a;
            error_ += " failed: " + out;
        }
    };
    step({"netns", "add", name_});
    created_ = error_.empty();
    step({"link", "add", root_, "type", "veth", "peer", "name", inside_});
    step({"link", "set", inside_, "netns", name_});
    step({"addr", "add", rootIp + "/" + prefix_, "dev", root_});
    step({"link", "set", root_, "up"});
    const std::string ipTool = Process::findProgram("ip");
    step({"netns", "exec", name_, ipTool, "link", "set", "lo", "up"});
    step({"netns", "exec", name_, ipTool, "addr", "add", insideIp + "/" + prefix_, "dev", inside_});
    step({"netns", "exec", name_, ipTool, "link", "set", inside_, "up"});
    // Without this, deleting the first address of a subnet takes the others
    // in it along: a move within the subnet would leave none.
    step({"netns", "exec", name_, Process::findProgram("sysctl"), "-q", "-w", "net.ipv4.conf." + inside_ + ".promote_secondaries=1"});
}

NetworkNamespace::NetworkNamespace() {
    name_ = "vel" + std::to_string(getpid()) + "x" + std::to_string(made++);
    std::string out;
    if (!runIp({"netns", "add", name_}, &out)) {
        error_ = "ip netns add " + name_ + " failed: " + out;
        return;
    }
    created_ = true;
    if (!ip({"link", "set", "lo", "up"})) error_ = "cannot bring up the loopback of " + name_;
}

NetworkNamespace::~NetworkNamespace() {
    if (created_) (void)runIp({"netns", "del", name_});
    // Gone with the namespace when its end was moved in; not when a step failed before.
    if (!root_.empty()) (void)runIp({"link", "del", root_});
}

bool NetworkNamespace::ip(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"netns", "exec", name_, Process::findProgram("ip")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runIp(all);
}

bool NetworkNamespace::run(const std::string& program, const std::vector<std::string>& arguments,
                           std::string* output) {
    std::vector<std::string> all{"netns", "exec", name_, Process::findProgram(program)};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runIp(all, output);
}

bool NetworkNamespace::link(NetworkNamespace& other, const std::string& device, const std::string& address,
                            const std::string& otherDevice, const std::string& otherAddress) {
    // Made straight in the two namespaces: the names never meet the root's.
    if (!runIp({"link", "add", "name", device, "netns", name_, "type", "veth", "peer", "name", otherDevice, "netns",
              other.name_})) {
        return false;
    }
    const auto up = [](NetworkNamespace& ns, const std::string& dev, const std::string& addr) {
        return (addr.empty() || ns.ip({"addr", "add", addr, "dev", dev})) && ns.ip({"link", "set", dev, "up"});
    };
    return up(*this, device, address) && up(other, otherDevice, otherAddress);
}

std::vector<std::string> NetworkNamespace::enter() const { return {Process::findProgram("ip"), "netns", "exec", name_}; }

ProcessOptions NetworkNamespace::inside(const std::string& program, std::vector<std::string> arguments) const {
    ProcessOptions options;
    options.program = Process::findProgram("ip");
    options.arguments = {"netns", "exec", name_, program};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    return options;
}

}  // namespace kelsip::test
