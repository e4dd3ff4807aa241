// dnsmasq started with posix_spawn, its output in the temporary folder, and
// killed (SIGKILL, then reaped) however the test ends.
#include "dnsmasq_server.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sip/dns/dns_message.h"
#include "sip/net/socket.h"

extern char** environ;

namespace kelsip::test {

namespace fs = std::filesystem;

struct DnsmasqServer::Process {
    fs::path dir;
    pid_t pid = -1;
    uint16_t port = 0;
};

namespace {

// A port free for both UDP and TCP on 127.0.0.1 a moment ago. dnsmasq may
// still lose a race for it; start() then tries another.
uint16_t freePort() {
    const auto loopback = net::SocketAddress::loopback(net::AddressFamily::V4);
    for (int attempt = 0; attempt < 20; ++attempt) {
        net::Socket udp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
        if (!udp.valid() || !udp.bind(loopback)) continue;
        const auto local = udp.localAddress();
        if (!local) continue;
        net::Socket tcp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Tcp);
        if (tcp.valid() && tcp.bind(*local)) return local->port();
    }
    return 0;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// True once dnsmasq answers anything on its port; false when the process
// has exited or `timeout` passes first.
bool waitUntilAnswering(pid_t pid, const net::SocketAddress& server, std::chrono::milliseconds timeout) {
    net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    if (!socket.valid() || !socket.setNonBlocking(true) ||
        !socket.bind(net::SocketAddress::loopback(net::AddressFamily::V4))) {
        return false;
    }
    const auto query = dns::encodeQuery(0x5151, "probe.invalid", dns::RecordType::A);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) return false;
        static_cast<void>(socket.sendTo(query->data(), query->size(), server));
        net::PollEntry entry;
        entry.socket = socket.native();
        entry.wantRead = true;
        if (net::poll(std::span<net::PollEntry>(&entry, 1), 50) > 0 && entry.readable) {
            uint8_t buffer[512];
            net::SocketAddress from;
            if (socket.receiveFrom(buffer, sizeof buffer, from).ok() && from == server) return true;
        }
    }
    return false;
}

}  // namespace

DnsmasqServer::DnsmasqServer() : process_(std::make_unique<Process>()) {}

DnsmasqServer::~DnsmasqServer() {
    stop();
    if (!process_->dir.empty()) {
        std::error_code ec;
        fs::remove_all(process_->dir, ec);
    }
}

bool DnsmasqServer::supported() { return true; }

std::string DnsmasqServer::findBinary() {
    // Debian installs it in /usr/sbin, which a non-root PATH often lacks.
    for (const char* candidate : {"/usr/sbin/dnsmasq", "/sbin/dnsmasq", "/usr/local/sbin/dnsmasq"}) {
        if (::access(candidate, X_OK) == 0) return candidate;
    }
    return {};
}

bool DnsmasqServer::start(const std::vector<std::string>& configLines, std::string* error) {
    const std::string binary = findBinary();
    if (binary.empty()) {
        *error = "dnsmasq not found: install dnsmasq-base (scripts/setup does)";
        return false;
    }
    if (process_->dir.empty()) {
        std::string pattern = (fs::temp_directory_path() / "velmora-dnsmasq-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) {
            *error = "cannot create a temporary folder";
            return false;
        }
        process_->dir = pattern;
    }
    const fs::path config = process_->dir / "dnsmasq.conf";
    const fs::path logFile = process_->dir / "dnsmasq.log";
    {
        std::ofstream out(config, std::ios::trunc);
        for (const std::string& line : configLines) out << line << '\n';
    }

    for (int attempt = 0; attempt < 5; ++attempt) {
        stop();
        process_->port = freePort();
        if (process_->port == 0) continue;
        const std::vector<std::string> args = {
            binary,
            "--conf-file=" + config.string(),
            "-k",
            "--port=" + std::to_string(process_->port),
            "--no-resolv",
            "--no-hosts",
            "--listen-address=127.0.0.1",
            "--bind-interfaces",
            "--log-queries",
            "--log-facility=-",
            "--pid-file=" + (process_->dir / "dnsmasq.pid").string(),
        };
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        pid_t pid = -1;
        const int rc = ::posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            *error = "cannot start dnsmasq";
            return false;
        }
        process_->pid = pid;
        const auto server = address();
        if (waitUntilAnswering(pid, server, std::chrono::seconds(10))) return true;
        // Lost the port to someone else: try another one; any other
        // reason to exit is the configuration's fault.
        if (log().find("Address already in use") == std::string::npos) break;
    }
    stop();
    *error = "dnsmasq did not start";
    return false;
}

void DnsmasqServer::stop() {
    if (process_->pid <= 0) return;
    ::kill(process_->pid, SIGKILL);
    int status = 0;
    ::waitpid(process_->pid, &status, 0);
    process_->pid = -1;
}

net::SocketAddress DnsmasqServer::address() const {
    return net::SocketAddress::loopback(net::AddressFamily::V4, process_->port);
}

std::string DnsmasqServer::log() const {
    return process_->dir.empty() ? std::string() : readFile(process_->dir / "dnsmasq.log");
}

}  // namespace kelsip::test
