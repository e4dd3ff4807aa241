// The system's name servers on Windows: the DNS servers of every adapter
// that is up, from GetAdaptersAddresses.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "sip/dns/dns_servers.h"
#include "sip/net/sockaddr_convert.h"

namespace kelsip::dns {

namespace {

// Windows lists fec0:0:0:ffff::1..3 on adapters without configured IPv6
// name servers; those site-local placeholders answer nothing.
bool isSiteLocalPlaceholder(const net::SocketAddress& a) {
    return a.isV6() && a.bytes()[0] == 0xFE && (a.bytes()[1] & 0xC0) == 0xC0;
}

}  // namespace

std::vector<net::SocketAddress> systemDnsServers(std::string* error) {
    const ULONG flags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_FRIENDLY_NAME;
    ULONG size = 16 * 1024;
    std::vector<unsigned char> buffer;
    ULONG rc = ERROR_BUFFER_OVERFLOW;
    // The list can grow between the sizing call and the real one.
    for (int attempt = 0; attempt < 4 && rc == ERROR_BUFFER_OVERFLOW; ++attempt) {
        buffer.resize(size);
        rc = ::GetAdaptersAddresses(AF_UNSPEC, flags, nullptr,
                                    reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
    }
    std::vector<net::SocketAddress> servers;
    if (rc != NO_ERROR) {
        if (error) *error = "cannot read adapter addresses";
        return servers;
    }
    for (auto* adapter = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); adapter; adapter = adapter->Next) {
        if (adapter->OperStatus != IfOperStatusUp) continue;
        for (auto* dns = adapter->FirstDnsServerAddress; dns; dns = dns->Next) {
            const SOCKET_ADDRESS& sa = dns->Address;
            if (!sa.lpSockaddr || sa.iSockaddrLength <= 0 ||
                static_cast<size_t>(sa.iSockaddrLength) > sizeof(sockaddr_storage)) {
                continue;
            }
            sockaddr_storage storage{};
            std::memcpy(&storage, sa.lpSockaddr, static_cast<size_t>(sa.iSockaddrLength));
            auto address = net::detail::fromSockaddr(storage);
            if (!address || isSiteLocalPlaceholder(*address)) continue;
            address->setPort(kDnsPort);
            if (std::find(servers.begin(), servers.end(), *address) == servers.end()) servers.push_back(*address);
        }
    }
    if (servers.empty() && error) *error = "no dns servers";
    return servers;
}

}  // namespace kelsip::dns
