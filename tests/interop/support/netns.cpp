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

bool NetworkNamespace::run(const std::vector<std::string>& arguments, std::string* output) {
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
        if (!run(arguments, &out)) {
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

NetworkNamespace::~NetworkNamespace() {
    if (created_) (void)run({"netns", "del", name_});
    // Gone with the namespace when its end was moved in; not when a step failed before.
    (void)run({"link", "del", root_});
}

bool NetworkNamespace::ip(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"netns", "exec", name_, Process::findProgram("ip")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run(all);
}

ProcessOptions NetworkNamespace::inside(const std::string& program, std::vector<std::string> arguments) const {
    ProcessOptions options;
    options.program = Process::findProgram("ip");
    options.arguments = {"netns", "exec", name_, program};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    return options;
}

}  // namespace kelsip::test
