// A phone whose address changes mid-call: velphone-cli runs in a network namespace of the test's own,
// registered to Kamailio in the root namespace and talking to a second velphone-cli there; its address
// is moved under the call, and it registers the new one and the speech goes on both ways, over plain
// RTP and over ICE (which gathers again at the new address and restarts).
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "interop/support/interop_test.h"
#include "interop/support/netns.h"
#include "support/speech.h"
#include "support/wav.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class NetworkMoveTest : public test::InteropTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        InteropTest::SetUp();
        if (IsSkipped()) return;
        if (!test::NetworkNamespace::available()) GTEST_SKIP() << "network namespaces need root and iproute2";
    }
    // velphone-cli as `user`, its output in `user`.log.
    test::ProcessOptions phone(const std::string& user, const std::string& password, const std::string& domain,
                               const std::string& bind, const std::string& script) {
        std::ofstream(files_.file(user + ".txt")) << script;
        test::ProcessOptions options;
        options.program = VELPHONE_CLI;
        options.arguments = {"--data", files_.file(user).string(), "--user", user, "--password", password,
                             "--domain", domain, "--proxy", domain, "--bind", bind, "--port", "0",
                             "--play", files_.file(user + ".wav").string(), "--record-heard",
                             files_.file(user + "-heard.wav").string(), "--script", files_.file(user + ".txt").string(),
                             "--ice", GetParam() ? "on" : "off"};
        options.logFile = files_.file(user + ".log");
        return options;
    }
    std::string read(const std::filesystem::path& path) {
        std::ifstream in(path);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string output(const std::string& user) { return read(files_.file(user + ".log")); }
    // The stack's log, which the scripts turn on.
    std::string stackLog(const std::string& user) { return read(files_.file(user) / "Logs" / "sip-log.txt"); }
    bool printed(const std::string& user, const std::string& text, std::chrono::milliseconds within = 20s) {
        return test::waitFor([&] { return output(user).find(text) != std::string::npos; }, within);
    }
    void TearDown() override {
        if (HasFailure()) {
            for (const char* user : {"alice", "bob"}) {
                std::cerr << "---- " << user << " ----\n" << output(user) << "\n---- " << user << "'s stack log ----\n"
                          << stackLog(user) << "\n";
            }
        }
        InteropTest::TearDown();
    }

    test::TempDir files_;
};

TEST_P(NetworkMoveTest, APhoneMovedToANewAddressMidCallRegistersItAndTheSpeechGoesOnBothWays) {
    const std::string subnet = test::NetworkNamespace::subnetForRun(0);
    const std::string root = subnet + "1", first = subnet + "2", second = subnet + "3";
    test::NetworkNamespace ns(root, first);
    ASSERT_TRUE(ns.ok()) << ns.error();

    const auto alice = test::speech(files_.path(), "Hello Bob, this is Alice, still talking while my network moves.", 1);
    const auto bob = test::speech(files_.path(), "Good morning Alice, Bob here, I can hear you after the move.", 2);
    ASSERT_FALSE(alice.empty());
    ASSERT_FALSE(bob.empty());
    ASSERT_TRUE(test::writeWav(files_.file("alice.wav"), {8000, alice}));
    ASSERT_TRUE(test::writeWav(files_.file("bob.wav"), {8000, bob}));
    test::KamailioOptions options;
    options.listenAddresses = {root};
    auto* kamailio = startKamailio(options);
    ASSERT_TRUE(kamailio);
    const std::string domain = root + ":" + std::to_string(kamailio->port());

    test::Process bobPhone;
    test::Process alicePhone;
    std::string error;
    ASSERT_TRUE(bobPhone.start(phone("bob", "bobsecret", domain, root,
                                     "siplog on\nautoanswer on\nwait-for Call ended within 120\nquit\n"),
                               &error))
        << error;
    ASSERT_TRUE(printed("bob", "Registered"));
    // Alice talks for 20 s: her address moves at the start, and the last
    // six seconds her phone and bob's play are well after it.
    const auto aliceOptions = phone("alice", "secret", domain, "0.0.0.0",
                                    "wait-for Registered\nsiplog on\ndial bob@" + domain +
                                        "\nwait-for line 1: Talking\nwait 20\nhangup\nwait-for Call ended\nquit\n");
    auto inside = ns.inside(VELPHONE_CLI, aliceOptions.arguments);
    inside.logFile = aliceOptions.logFile;
    ASSERT_TRUE(alicePhone.start(inside, &error)) << error;
    ASSERT_TRUE(printed("alice", "line 1: Talking"));
    // With ICE the move comes once the first checks have chosen a pair at the old address.
    if (GetParam()) {
        ASSERT_TRUE(test::waitFor([&] { return stackLog("alice").find("ICE completed") != std::string::npos; }, 10s));
    }
    const int saved = kamailio->bindingsSaved("alice");
    ASSERT_GE(saved, 1);

    // The move: the new address comes, the old one goes.
    ASSERT_TRUE(ns.addAddress(second));
    ASSERT_TRUE(ns.removeAddress(first));
    // The phone notices within its poll, registers the new address and
    // withdraws the old; Kamailio now routes alice there.
    EXPECT_TRUE(test::waitFor([&] { return kamailio->bindingsSaved("alice") > saved; }, 15s));
    EXPECT_TRUE(test::waitFor([&] { return kamailio->optionsTo("alice", domain, 1s) == 200; }, 10s));

    EXPECT_EQ(alicePhone.waitForExit(60s), 0) << "alice's script did not run to its end";
    EXPECT_EQ(bobPhone.waitForExit(30s), 0) << "bob's script did not run to its end";
    // The last six seconds of each call, all after the move, hold the other's sentence.
    const auto aliceHeard = test::readWav(files_.file("alice-heard.wav"));
    const auto bobHeard = test::readWav(files_.file("bob-heard.wav"));
    ASSERT_TRUE(aliceHeard && bobHeard);
    EXPECT_GT(test::voiceMatch(aliceHeard->samples, bob), 0.8) << "alice did not hear bob after the move";
    EXPECT_GT(test::voiceMatch(bobHeard->samples, alice), 0.8) << "bob did not hear alice after the move";
    if (GetParam()) {
        EXPECT_NE(stackLog("alice").find("ICE restart at " + second), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(Media, NetworkMoveTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& param) { return param.param ? "Ice" : "PlainRtp"; });

}  // namespace
}  // namespace kelsip
