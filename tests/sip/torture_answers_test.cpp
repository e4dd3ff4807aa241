// What the user agent answers to each published torture request sent to it
// over UDP: a status for every request that can be answered, silence for
// the rest. Each message gets "rport" in its top Via so that the answer
// comes back to the test's socket; nothing else is changed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "sip/ua/user_agent.h"
#include "support/scripted_peer.h"

namespace kelsip {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// The first answer other than 100 to each request file; 0: none. Files
// that are responses are left out (a response gets no answer).
const std::map<std::string, int> kAnswers = {
    {"rfc4475/wsinv.dat", 180},
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
    test::ScriptedPeer peer;
    const auto to = ua.localAddress(TransportKind::Udp);
    int sentinel = 0;
    std::map<std::string, int> seen;
    for (const char* dir : {"rfc4475", "rfc5118"}) {
        for (const auto& entry : fs::directory_iterator(fs::path(VELMORA_TORTURE_DIR) / dir)) {
            std::ifstream in(entry.path(), std::ios::binary);
            std::ostringstream bytes;
            bytes << in.rdbuf();
            if (bytes.str().starts_with("SIP/2.0")) continue;
            peer.send(withRport(bytes.str()), to);
            // An OPTIONS behind it: its answer closes the wait for the message's.
            const std::string probe = "probe-" + std::to_string(++sentinel);
            peer.send("OPTIONS sip:alice@" + to.toString() + " SIP/2.0\r\nVia: SIP/2.0/UDP " + peer.hostPort() +
                          ";rport;branch=z9hG4bK" + probe + "\r\nMax-Forwards: 70\r\nFrom: <sip:t@x>;tag=1\r\nTo: <sip:alice@x>\r\nCall-ID: " +
                          probe + "\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n",
                      to);
            int status = 0;
            while (const auto r = peer.expectResponse(0, nullptr, 2s)) {
                if (r->callId() == probe) break;
                if (status == 0 && r->statusCode != 100) status = r->statusCode;
            }
            seen[std::string(dir) + "/" + entry.path().filename().string()] = status;
        }
    }
    for (const auto& [file, status] : seen) {
        const auto it = kAnswers.find(file);
        EXPECT_EQ(status, it == kAnswers.end() ? -1 : it->second) << file;
    }
}

}  // namespace
}  // namespace kelsip
