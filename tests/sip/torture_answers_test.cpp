// What the user agent answers to each published torture request sent to it
// over UDP: a status for every request that can be answered, silence for
// the rest. Each message gets "rport" in its top Via so that the answer
// comes back to the test's socket; nothing else is changed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "sip/ua/user_agent.h"
#include "sip/net/socket.h"

namespace kelsip {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// The first answer other than 100 each request file gets (responses are
// left out: they get none). Valid INVITEs ring (180); valid requests in a
// dialog we do not know get 481; REGISTER and unknown methods 405 (we are
// no registrar); what the parser refuses gets 400, 416 or 505 from the
// transport; what the user agent refuses gets its own status. Lenient on
// purpose: badinv01's empty separators and baddn's display name are taken.
// ipv4-mapped-ipv6 offers only an IPv6 media address: 488.
const std::pair<int, const char*> kAnswers[] = {
    {0, "rfc4475/test"},  // not a message
    {180, "rfc4475/baddate rfc4475/badinv01 rfc4475/esc01 rfc4475/escruri rfc4475/inv2543 rfc4475/longreq"},
    {200, "rfc4475/badbranch rfc4475/baddn rfc4475/lwsdisp rfc4475/mpart01 rfc4475/semiuri rfc4475/transports "
          "rfc4475/zeromf rfc5118/ipv6-bug-abnf-3-colons rfc5118/ipv6-correct-abnf-2-colons "
          "rfc5118/via-received-param-no-delim"},
    {400, "rfc4475/badaspec rfc4475/clerr rfc4475/insuf rfc4475/ltgtruri rfc4475/lwsruri rfc4475/lwsstart "
          "rfc4475/mcl01 rfc4475/mismatch01 rfc4475/mismatch02 rfc4475/multi01 rfc4475/ncl rfc4475/quotbal "
          "rfc4475/scalar02 rfc4475/trws rfc4475/unksm2 rfc5118/ipv6-bad rfc5118/ipv6-in-sdp rfc5118/mult-ip-in-sdp"},
    {405, "rfc4475/cparam01 rfc4475/cparam02 rfc4475/dblreq rfc4475/esc02 rfc4475/escnull rfc4475/intmeth "
          "rfc4475/regaut01 rfc4475/regbadct rfc4475/regescrt rfc5118/ipv6-good rfc5118/port-ambiguous "
          "rfc5118/port-unambiguous"},
    {406, "rfc4475/sdp01"},  // Accept without SDP
    {415, "rfc4475/invut"},
    {416, "rfc4475/novelsc rfc4475/unkscm"},
    {420, "rfc4475/bext01"},
    {481, "rfc4475/wsinv rfc5118/mult-ip-in-header rfc5118/via-received-param-with-delim"},
    {488, "rfc5118/ipv4-mapped-ipv6"},
    {505, "rfc4475/badvers"},
};

// The request with "rport" in its top Via (after the first ';' of the
// header, or at its end), so that the answer comes back to the sender.
std::string withRport(std::string text) {
    for (size_t line = 0; line < text.size(); line = text.find('\n', line) + 1) {
        const size_t colon = text.find_first_not_of(" \t", text.find_first_not_of("ViaViA", line));
        const std::string name = text.substr(line, text.find_first_of(" \t:", line) - line);
        if (colon >= text.size() || text[colon] != ':' || (name != "v" && name != "V" && name.size() != 3) ||
            (name.size() == 3 && name.find_first_not_of("viaVIA") != std::string::npos)) {
            if (text.find('\n', line) == std::string::npos) break;
            continue;
        }
        size_t end = text.find('\n', colon);
        while (end != std::string::npos && end + 1 < text.size() && (text[end + 1] == ' ' || text[end + 1] == '\t')) {
            end = text.find('\n', end + 1);
        }
        const size_t semicolon = text.find(';', colon);
        if (semicolon < end) return text.insert(semicolon + 1, "rport;");
        return text.insert(end - (text[end - 1] == '\r'), ";rport");
    }
    return text;
}

TEST(TortureAnswersTest, EachRequestGetsItsStatusOrNothing) {
    UserAgentConfig config;
    config.bindAddress = "127.0.0.1";
    config.udpPort = 0;
    config.tcpPort = -1;
    config.maxCalls = 100;
    UserAgent ua(config);
    ASSERT_TRUE(ua.start());
    LineConfig line;
    line.user = "alice";
    ASSERT_GT(ua.addLine(line), 0);
    // Answers are read raw: one that copies a request's broken header is
    // not a message our parser would take, and must still arrive.
    net::Socket peer = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    ASSERT_TRUE(peer.bind(net::SocketAddress::loopback(net::AddressFamily::V4)));
    const std::string here = peer.localAddress().value_or(net::SocketAddress{}).toString();
    const auto to = ua.localAddress(TransportKind::Udp);
    auto send = [&](const std::string& text) { (void)peer.sendTo(text.data(), text.size(), to); };
    auto receive = [&] {
        net::PollEntry e{peer.native(), true, false};
        char buf[65536];
        net::SocketAddress from;
        if (net::poll({&e, 1}, 2000) <= 0) return std::string();
        const auto r = peer.receiveFrom(buf, sizeof buf, from);
        return r.ok() ? std::string(buf, r.bytes) : std::string();
    };
    int sentinel = 0;
    std::map<std::string, int> seen;
    for (const char* dir : {"rfc4475", "rfc5118"}) {
        for (const auto& entry : fs::directory_iterator(fs::path(VELMORA_TORTURE_DIR) / dir)) {
            std::ifstream in(entry.path(), std::ios::binary);
            std::ostringstream bytes;
            bytes << in.rdbuf();
            if (bytes.str().starts_with("SIP/2.0")) continue;
            send(withRport(bytes.str()));
            // An OPTIONS behind it: its answer closes the wait for the message's.
            const std::string probe = "probe-" + std::to_string(++sentinel);
            send("OPTIONS sip:alice@" + to.toString() + " SIP/2.0\r\nVia: SIP/2.0/UDP " + here + ";rport;branch=z9hG4bK" +
                 probe + "\r\nMax-Forwards: 70\r\nFrom: <sip:t@x>;tag=1\r\nTo: <sip:alice@x>\r\nCall-ID: " + probe +
                 "\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n");
            int status = 0;
            for (std::string r = receive(); !r.empty() && r.find("Call-ID: " + probe + "\r\n") == std::string::npos;
                 r = receive()) {
                const int code = r.starts_with("SIP/2.0 ") ? std::atoi(r.c_str() + 8) : 0;
                if (status == 0 && code != 100) status = code;
            }
            seen[std::string(dir) + "/" + entry.path().filename().string()] = status;
        }
    }
    std::map<std::string, int> expected;
    for (const auto& [status, files] : kAnswers) {
        std::istringstream names(files);
        for (std::string name; names >> name;) expected[name + ".dat"] = status;
    }
    EXPECT_EQ(seen, expected);
}

}  // namespace
}  // namespace kelsip
