// The system's name servers on POSIX: /etc/resolv.conf.
#include "sip/dns/dns_servers.h"

namespace kelsip::dns {

std::vector<net::SocketAddress> systemDnsServers(std::string* error) {
    return readResolvConf("/etc/resolv.conf", error);
}

}  // namespace kelsip::dns
