// Two phones behind NATs on a network the test builds: each velphone-cli in
// a namespace of its own behind a NAT router, Kamailio and coturn on the
// public segment; alice calls bob through Kamailio with ICE on, and the
// speech must cross both ways, directly when the NATs allow hole punching
// and through coturn's relay when bob's NAT is symmetric.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "interop/support/kamailio_server.h"
#include "interop/support/nat_topology.h"
#include "support/speech.h"
#include "support/temp_dir.h"
#include "support/turn_server.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

struct NatCase {
    const char* name;
    test::NatKind aliceNat;
    test::NatKind bobNat;
    bool relayed;  // whether the pair ICE picks must go through the relay
};

void PrintTo(const NatCase& c, std::ostream* out) { *out << c.name; }

class NatIceTest : public ::testing::TestWithParam<NatCase> {
protected:
    void SetUp() override {
        if (!test::NetworkNamespace::available()) GTEST_SKIP() << "network namespaces need root and iproute2";
        for (const char* program : {"nft", "sysctl", "kamailio", "turnserver"}) {
            if (!test::PeerProcess::installed(program)) GTEST_SKIP() << program << " is not installed (scripts/setup)";
        }
    }
    std::string read(const std::filesystem::path& path) const {
        std::ifstream in(path);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string output(const std::string& user) const { return read(files_.file(user + ".log")); }
    // The stack's log, which the scripts turn on once registered.
    std::string stackLog(const std::string& user) const { return read(files_.file(user) / "Logs" / "sip-log.txt"); }
    // The log lines naming the pair ICE chose.
    std::string chosenPairs(const std::string& user) const {
        std::istringstream lines(stackLog(user));
        std::string pairs;
        for (std::string line; std::getline(lines, line);) {
            if (line.find("component 1 uses ") != std::string::npos) pairs += line + "\n";
        }
        return pairs;
    }
    // velphone-cli as `user` with ICE, STUN and TURN at coturn, its output in `user`.log.
    std::vector<std::string> phone(const std::string& user, const std::string& password, const std::string& script) {
        std::ofstream(files_.file(user + ".txt")) << script;
        const std::string server = std::string(test::NatTopology::kServerIp);
        const std::string domain = server + ":" + std::to_string(kamailio_.port());
        const std::string turn = server + ":" + std::to_string(turn_.port());
        return {"--data", files_.file(user).string(), "--user", user, "--password", password, "--domain", domain,
                "--proxy", domain, "--port", "0", "--ice", "on", "--stun", turn, "--turn", turn, "--turn-user",
                turn_.config().user, "--turn-password", turn_.config().password, "--play",
                files_.file(user + ".wav").string(), "--record-heard", files_.file(user + "-heard.wav").string(),
                "--script", files_.file(user + ".txt").string()};
    }
    bool printed(const std::string& user, const std::string& text, std::chrono::milliseconds within = 20s) {
        return test::waitFor([&] { return output(user).find(text) != std::string::npos; }, within);
    }
    void TearDown() override {
        if (!HasFailure()) return;
        for (const char* user : {"alice", "bob"}) {
            std::cerr << "---- " << user << " ----\n" << output(user) << "\n---- " << user << "'s stack log ----\n"
                      << stackLog(user) << "\n";
        }
        std::cerr << "---- kamailio ----\n" << kamailio_.log() << "\n---- coturn ----\n" << turn_.log() << "\n";
    }

    test::TempDir files_;
    test::KamailioServer kamailio_;
    test::TurnServer turn_;
};

TEST_P(NatIceTest, PhonesBehindNatsConnectWithIceAndHearEachOther) {
    const NatCase& c = GetParam();
    test::NatTopology net;
    ASSERT_TRUE(net.addSite(c.aliceNat) && net.addSite(c.bobNat)) << net.error();

    // The servers live in the public namespace; the test reaches them
    // through the root's link to it.
    const auto enter = net.servers().enter();
    test::KamailioOptions kamailioOptions;
    kamailioOptions.listenAddresses = {test::NatTopology::kServerIp, net.serversFromRoot()};
    kamailio_.runThrough(enter, net.serversFromRoot());
    std::string error;
    ASSERT_TRUE(kamailio_.start(kamailioOptions, &error)) << error << "\n" << kamailio_.log();
    test::TurnServerConfig turnConfig;
    turnConfig.listenIps = {test::NatTopology::kServerIp, net.serversFromRoot()};
    turnConfig.relayIp = test::NatTopology::kServerIp;
    turn_.runThrough(enter, net.serversFromRoot());
    ASSERT_TRUE(turn_.start(turnConfig, &error)) << error << "\n" << turn_.log();

    const auto alice = test::speech(files_.path(), "Hello Bob, this is Alice, calling you across two routers.", 1);
    const auto bob = test::speech(files_.path(), "Good morning Alice, Bob here, your voice comes through fine.", 2);
    ASSERT_FALSE(alice.empty());
    ASSERT_FALSE(bob.empty());
    ASSERT_TRUE(test::writeWav(files_.file("alice.wav"), {8000, alice}));
    ASSERT_TRUE(test::writeWav(files_.file("bob.wav"), {8000, bob}));

    // Declared after the servers and the network: stopped before either goes.
    test::Process bobPhone;
    test::Process alicePhone;
    auto bobRun = net.host(1).inside(VELPHONE_CLI, phone("bob", "bobsecret", "wait-for Registered\nsiplog on\nautoanswer on\nwait-for Call ended within 120\nquit\n"));
    bobRun.logFile = files_.file("bob.log");
    ASSERT_TRUE(bobPhone.start(bobRun, &error)) << error;
    ASSERT_TRUE(printed("bob", "Registered"));
    const std::string dial = "bob@" + std::string(test::NatTopology::kServerIp) + ":" + std::to_string(kamailio_.port());
    auto aliceRun = net.host(0).inside(
        VELPHONE_CLI, phone("alice", "secret",
                            "wait-for Registered\nsiplog on\ndial " + dial + "\nwait-for line 1: Talking\nwait 12\nhangup\n"
                            "wait-for Call ended\nquit\n"));
    aliceRun.logFile = files_.file("alice.log");
    ASSERT_TRUE(alicePhone.start(aliceRun, &error)) << error;

    EXPECT_EQ(alicePhone.waitForExit(60s), 0) << "alice's script did not run to its end";
    EXPECT_EQ(bobPhone.waitForExit(30s), 0) << "bob's script did not run to its end";

    // Both registered from behind their routers: the registrar saw them there.
    EXPECT_NE(kamailio_.log().find("request REGISTER from alice via udp:" + net.routerPublicIp(0) + ":"), std::string::npos);
    EXPECT_NE(kamailio_.log().find("request REGISTER from bob via udp:" + net.routerPublicIp(1) + ":"), std::string::npos);
    for (const char* user : {"alice", "bob"}) {
        EXPECT_NE(stackLog(user).find("ICE connected"), std::string::npos) << user << " never had ICE connected";
    }
    const std::string pairs = chosenPairs("alice") + chosenPairs("bob");
    ASSERT_FALSE(pairs.empty()) << "neither phone logged the pair it chose";
    if (c.relayed) {
        EXPECT_NE(pairs.find(" relay "), std::string::npos) << "the media should go through the relay:\n" << pairs;
    } else {
        EXPECT_EQ(pairs.find(" relay "), std::string::npos) << "the media should go directly:\n" << pairs;
        EXPECT_NE(pairs.find(net.routerPublicIp(0)), std::string::npos) << pairs;
    }

    const auto aliceHeard = test::readWav(files_.file("alice-heard.wav"));
    const auto bobHeard = test::readWav(files_.file("bob-heard.wav"));
    ASSERT_TRUE(aliceHeard && bobHeard);
    EXPECT_GT(test::voiceMatch(aliceHeard->samples, bob), 0.8) << "alice did not hear bob";
    EXPECT_GT(test::voiceMatch(bobHeard->samples, alice), 0.8) << "bob did not hear alice";
}

INSTANTIATE_TEST_SUITE_P(
    Nats, NatIceTest,
    ::testing::Values(NatCase{"BothEndpointIndependentGoDirect", test::NatKind::EndpointIndependent,
                              test::NatKind::EndpointIndependent, false},
                      NatCase{"SymmetricOnOneSideGoesThroughTheRelay", test::NatKind::EndpointIndependent,
                              test::NatKind::Symmetric, true}),
    [](const ::testing::TestParamInfo<NatCase>& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace kelsip
