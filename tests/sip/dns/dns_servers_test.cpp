// Name servers from resolv.conf text and files.
#include "sip/dns/dns_servers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace kelsip::dns {
namespace {

std::vector<std::string> texts(const std::vector<net::SocketAddress>& servers) {
    std::vector<std::string> out;
    for (const auto& s : servers) out.push_back(s.toString());
    return out;
}

TEST(ResolvConfTest, TakesNameserverLinesInOrder) {
    const char* text =
        "# written by the network manager\n"
        "search example.test\n"
        "nameserver 192.0.2.53\n"
        "  nameserver\t2001:db8::53   # the second\n"
        "nameserver 192.0.2.53\n"          // repeated
        "nameserver fe80::1%eth0\n"       // a zone a SocketAddress cannot hold
        "nameserver not-an-address\n"
        ";nameserver 192.0.2.99\n"
        "nameservers 192.0.2.98\n"
        "options timeout:2 attempts:3\r\n"
        "nameserver 198.51.100.7";        // no final line break
    EXPECT_EQ(texts(parseResolvConf(text)),
              (std::vector<std::string>{"192.0.2.53:53", "[2001:db8::53]:53", "198.51.100.7:53"}));
    EXPECT_TRUE(parseResolvConf("").empty());
}

TEST(ResolvConfTest, ReadsAFileAndFallsBackToTheLocalHost) {
    const auto dir = std::filesystem::temp_directory_path();
    const auto withServers = dir / "velmora-resolv-test-1.conf";
    const auto withoutServers = dir / "velmora-resolv-test-2.conf";
    std::ofstream(withServers) << "nameserver 203.0.113.1\n";
    std::ofstream(withoutServers) << "search example.test\n";
    std::string error;
    EXPECT_EQ(texts(readResolvConf(withServers.string(), &error)), (std::vector<std::string>{"203.0.113.1:53"}));
    // The C library's rule: no "nameserver" line means this host.
    EXPECT_EQ(texts(readResolvConf(withoutServers.string(), &error)), (std::vector<std::string>{"127.0.0.1:53"}));
    EXPECT_TRUE(error.empty());
    EXPECT_TRUE(readResolvConf((dir / "velmora-no-such-file.conf").string(), &error).empty());
    EXPECT_EQ(error, "cannot read resolv.conf");
    std::filesystem::remove(withServers);
    std::filesystem::remove(withoutServers);
}

}  // namespace
}  // namespace kelsip::dns
