// A real dnsmasq for the tests: started on 127.0.0.1 with a free port and a
// configuration in a temporary folder, killed when the object goes.
#pragma once

#include <string>
#include <vector>

#include "sip/net/socket_address.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace kelsip::test {

class DnsmasqServer {
public:
    DnsmasqServer();
    ~DnsmasqServer();
    DnsmasqServer(const DnsmasqServer&) = delete;
    DnsmasqServer& operator=(const DnsmasqServer&) = delete;

    // False where dnsmasq cannot run at all (Windows, and so Wine).
    [[nodiscard]] static bool supported();
    // The dnsmasq program, or empty when it is not installed.
    [[nodiscard]] static std::string findBinary();

    // Writes `configLines` (dnsmasq.conf syntax) beside the fixed options,
    // starts dnsmasq and waits until it answers a query. On failure the
    // reason is in `error` and the program's output in log().
    [[nodiscard]] bool start(const std::vector<std::string>& configLines, std::string* error);
    // Kills it now; the destructor does the same.
    void stop();

    [[nodiscard]] net::SocketAddress address() const;
    [[nodiscard]] std::string log() const;

private:
    TempDir dir_{"velmora-dnsmasq"};
    Process process_;
    uint16_t port_ = 0;
};

}  // namespace kelsip::test
