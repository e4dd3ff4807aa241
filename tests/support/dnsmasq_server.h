// A real dnsmasq for the tests: started on 127.0.0.1 with a free port and a
// configuration in a temporary folder, killed when the object goes.
#pragma once

#include <string>
#include <vector>

#include "support/peer_process.h"

namespace kelsip::test {

class DnsmasqServer : public PeerProcess {
public:
    DnsmasqServer() : PeerProcess("dnsmasq") {}
    // Writes `configLines` (dnsmasq.conf syntax) beside the fixed options,
    // starts dnsmasq and waits until it answers a query. On failure the
    // reason is in `error` and the program's output in log().
    [[nodiscard]] bool start(const std::vector<std::string>& configLines, std::string* error);
};

}  // namespace kelsip::test
