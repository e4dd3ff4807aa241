// Registers alice of test.local over TLS through the proxy at 127.0.0.1:PORT,
// trusting the CA file given, and prints how it ended: "registered" or
// "failed: <reason>". Run under Wine by tls_wine_test.py, which starts the
// Kamailio it talks to; this is the Schannel path end to end.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "sip/ua/user_agent.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: tls_register_probe PROXY_PORT CA_FILE\n");
        return 2;
    }
    kelsip::UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = -1;
    config.tcpPort = -1;
    config.tlsPort = 0;
    config.tls.caFile = argv[2];
    kelsip::UserAgent ua(config);
    std::string error;
    if (!ua.start(&error)) {
        std::printf("failed: %s\n", error.c_str());
        return 1;
    }
    kelsip::LineConfig line;
    line.user = "alice";
    line.password = "secret";
    line.domain = "test.local";
    line.outboundProxy = std::string("sip:127.0.0.1:") + argv[1] + ";transport=tls";
    line.transport = kelsip::TransportKind::Tls;
    line.reregisterOnFailure = false;
    const int id = ua.addLine(line);
    if (id <= 0 || !ua.registerLine(id)) {
        std::printf("failed: line refused\n");
        return 1;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (;;) {
        const auto state = ua.registrationState(id);
        if (state == kelsip::RegistrationState::Registered) {
            std::printf("registered\n");
            break;
        }
        if (state == kelsip::RegistrationState::Failed) {
            std::printf("failed: %s\n", ua.lineInfo(id)->reason.c_str());
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            std::printf("failed: no answer\n");
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // a process of its own: nothing to wait on
    }
    std::fflush(stdout);
    (void)ua.shutdown(std::chrono::milliseconds(0));
    return 0;
}
