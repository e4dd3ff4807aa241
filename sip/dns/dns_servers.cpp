// resolv.conf parsing, shared by every platform (and by the tests).
#include "sip/dns/dns_servers.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace kelsip::dns {

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

std::string_view firstWord(std::string_view& rest) {
    rest = trim(rest);
    size_t end = 0;
    while (end < rest.size() && rest[end] != ' ' && rest[end] != '\t') ++end;
    const std::string_view word = rest.substr(0, end);
    rest.remove_prefix(end);
    return word;
}

}  // namespace

std::vector<net::SocketAddress> parseResolvConf(std::string_view text) {
    std::vector<net::SocketAddress> servers;
    while (!text.empty()) {
        const size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
        const size_t comment = line.find_first_of("#;");
        if (comment != std::string_view::npos) line = line.substr(0, comment);
        if (firstWord(line) != "nameserver") continue;
        const std::string_view address = firstWord(line);
        const auto parsed = net::SocketAddress::parse(address, kDnsPort);
        if (parsed && std::find(servers.begin(), servers.end(), *parsed) == servers.end()) {
            servers.push_back(*parsed);
        }
    }
    return servers;
}

std::vector<net::SocketAddress> readResolvConf(const std::string& path, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error) *error = "cannot read resolv.conf";
        return {};
    }
    std::ostringstream text;
    text << in.rdbuf();
    auto servers = parseResolvConf(text.str());
    if (servers.empty()) servers.push_back(net::SocketAddress::loopback(net::AddressFamily::V4, kDnsPort));
    return servers;
}

}  // namespace kelsip::dns
