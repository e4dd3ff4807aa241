// coturn on the process runner: everything on the command line, its user
// database in the temporary folder, ready once it answers a Binding request.
#include "support/turn_server.h"

#include "sip/net/socket.h"
#include "sip/net/stun_message.h"
#include "support/free_port.h"

namespace kelsip::test {

namespace {

// True when the server answers a Binding request within 50 ms.
bool answers(const net::SocketAddress& server) {
    net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    if (!socket.valid() || !socket.setNonBlocking(true) ||
        !socket.bind(server.isLoopback() ? net::SocketAddress::loopback(net::AddressFamily::V4)
                                         : net::SocketAddress::any(net::AddressFamily::V4))) {
        return false;
    }
    const auto request = stun::encode(stun::Message::request(stun::Method::Binding));
    static_cast<void>(socket.sendTo(request.data(), request.size(), server));
    net::PollEntry entry;
    entry.socket = socket.native();
    entry.wantRead = true;
    if (net::poll(std::span<net::PollEntry>(&entry, 1), 50) <= 0 || !entry.readable) return false;
    uint8_t buffer[512];
    net::SocketAddress from;
    const auto got = socket.receiveFrom(buffer, sizeof buffer, from);
    return got.ok() && from == server && stun::parse(std::span<const uint8_t>(buffer, got.bytes)).has_value();
}

}  // namespace

bool TurnServer::start(const TurnServerConfig& config, std::string* error) {
    config_ = config;
    Launch turn;
    turn.program = "turnserver";
    turn.package = "coturn";
    turn.prepare = [&](ProcessOptions& run, std::string*) {
        // Relayed ports from a range starting at another free port; coturn
        // skips those of the range someone else holds.
        uint16_t low = freeLoopbackPort();
        if (low == 0 || low > 65535 - config_.relayPorts) low = 49152;
        run.arguments = {"-n", "--lt-cred-mech", "--user", config_.user + ':' + config_.password,
                         "--realm", config_.realm, "--relay-ip", config_.relayIp, "--listening-port", std::to_string(port_), "--min-port", std::to_string(low),
                         "--max-port", std::to_string(low + config_.relayPorts), "--no-tls", "--no-dtls",
                         "--no-tcp-relay", "--allow-loopback-peers", "--no-cli", "--log-file", "stdout",
                         "--simple-log", "--verbose", "--pidfile", dir_.file("turnserver.pid").string(), "--userdb",
                         dir_.file("turndb").string()};
        for (const std::string& ip : config_.listenIps) {
            run.arguments.insert(run.arguments.end(), {"--listening-ip", ip});
        }
        run.stopGrace = std::chrono::milliseconds(500);
        return true;
    };
    turn.ready = [&] { return answers(address()); };
    turn.lostPort = [&] {
        const std::string text = log();
        return text.find("Address already in use") != std::string::npos ||
               text.find("Cannot bind") != std::string::npos;
    };
    return launch(turn, error);
}

}  // namespace kelsip::test
