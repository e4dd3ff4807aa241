// Name servers from resolv.conf files.
#include "sip/dns/dns_servers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace kelsip::dns {
namespace {

TEST(ResolvConfTest, TakesNameserverLinesInOrderOrFallsBackToTheLocalHost) {
    const char* lines =
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
    const struct {
        const char* text;  // null: no file
        std::vector<std::string> servers;
        const char* error;
    } cases[] = {
        {lines, {"192.0.2.53:53", "[2001:db8::53]:53", "198.51.100.7:53"}, ""},
        {"search example.test\n", {"127.0.0.1:53"}, ""},
        {nullptr, {}, "cannot read resolv.conf"},
    };
    const auto path = std::filesystem::temp_directory_path() / "velmora-resolv-test.conf";
    for (const auto& c : cases) {
        std::filesystem::remove(path);
        if (c.text != nullptr) std::ofstream(path) << c.text;
        std::string error;
        std::vector<std::string> servers;
        for (const auto& s : readResolvConf(path.string(), &error)) servers.push_back(s.toString());
        EXPECT_EQ(servers, c.servers);
        EXPECT_EQ(error, c.error);
    }
}

}  // namespace
}  // namespace kelsip::dns
