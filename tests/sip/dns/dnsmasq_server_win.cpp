// dnsmasq does not run on Windows (nor under Wine): the tests that need it skip.
#include "dnsmasq_server.h"

namespace kelsip::test {

struct DnsmasqServer::Process {};

DnsmasqServer::DnsmasqServer() = default;
DnsmasqServer::~DnsmasqServer() = default;

bool DnsmasqServer::supported() { return false; }
std::string DnsmasqServer::findBinary() { return {}; }

bool DnsmasqServer::start(const std::vector<std::string>&, std::string* error) {
    if (error) *error = "dnsmasq does not run on windows";
    return false;
}

void DnsmasqServer::stop() {}
net::SocketAddress DnsmasqServer::address() const { return {}; }
std::string DnsmasqServer::log() const { return {}; }

}  // namespace kelsip::test
