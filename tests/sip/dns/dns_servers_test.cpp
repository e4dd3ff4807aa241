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
    const auto path = std::filesystem::temp_directory_path() / "velmora-resolv-test.conf";
    std::ofstream(path) << "search example.test\n";
    std::string error;
    // The C library's rule: no "nameserver" line means this host.
    EXPECT_EQ(texts(readResolvConf(path.string(), &error)), (std::vector<std::string>{"127.0.0.1:53"}));
    EXPECT_TRUE(error.empty());
    std::filesystem::remove(path);
    EXPECT_TRUE(readResolvConf(path.string(), &error).empty());
    EXPECT_EQ(error, "cannot read resolv.conf");
}

}  // namespace
}  // namespace kelsip::dns
