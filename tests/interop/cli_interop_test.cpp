// velphone-cli, as a user runs it, against baresip through Kamailio (both
// started here): it registers, calls bob and is called by him with speech
// both ways checked by content, sends digits, holds and resumes, records,
// transfers bob to a third phone, and shows a voicemail summary SIPp sends it.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "interop/support/interop_test.h"
#include "support/baresip_peer.h"
#include "support/free_port.h"
#include "support/scripted_peer.h"
#include "support/sdk_phone.h"
#include "support/speech.h"
#include "support/wav.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

class CliInteropTest : public test::InteropTest {
protected:
    // velphone-cli as alice at `kamailio`, running `script`; its output in log().
    bool startCli(const test::KamailioServer& kamailio, uint16_t port, const std::string& script) {
        std::ofstream(files_.file("script.txt")) << script;
        test::ProcessOptions options;
        options.program = VELPHONE_CLI;
        options.arguments = {"--data", files_.file("data").string(), "--user", "alice", "--password", "secret",
                             "--domain", kamailio.hostPort(), "--proxy", kamailio.hostPort(), "--bind", "127.0.0.1",
                             "--port", std::to_string(port), "--play", files_.file("alice.wav").string(),
                             "--record-heard", files_.file("heard.wav").string(), "--script",
                             files_.file("script.txt").string()};
        options.logFile = files_.file("cli.log");
        std::string error;
        const bool started = cli_.start(options, &error);
        EXPECT_TRUE(started) << error;
        return started;
    }
    std::string output() {
        std::ifstream in(files_.file("cli.log"));
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    bool printed(const std::string& text, std::chrono::milliseconds within = 15s) {
        return test::waitFor([&] { return output().find(text) != std::string::npos; }, within);
    }
    void TearDown() override {
        if (HasFailure()) std::cerr << "---- velphone-cli ----\n" << output() << "\n";
        InteropTest::TearDown();
    }

    test::TempDir files_;
    test::Process cli_;
};

TEST_F(CliInteropTest, RegistersCallsBothWaysWithSpeechAndShowsEveryStep) {
    const auto alice = test::speech(files_.path(), "Hello Bob, this is Alice calling from the terminal phone.", 1);
    const auto bob = test::speech(files_.path(), "Good morning Alice, Bob here, the weather is fine today.", 2);
    ASSERT_FALSE(alice.empty());
    ASSERT_FALSE(bob.empty());
    ASSERT_TRUE(test::writeWav(files_.file("alice.wav"), {8000, alice}));
    // baresip plays its file once: long enough for both calls.
    std::vector<int16_t> bobLonger;
    for (int i = 0; i < 8; ++i) bobLonger.insert(bobLonger.end(), bob.begin(), bob.end());
    ASSERT_TRUE(test::writeWav(files_.file("bob.wav"), {8000, bobLonger}));
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    auto* baresip = start<test::BaresipPeer>(test::BaresipOptions{"bob", "bobsecret", kamailio->hostPort(),
                                                                  TransportKind::Udp, true, files_.file("bob.wav"), {}});
    ASSERT_TRUE(baresip);
    ASSERT_TRUE(baresip->waitForEvent("REGISTER_OK"));
    // Carol, outside the proxy's domain (127.0.0.2), takes the call alice transfers.
    test::Phone carol(std::vector<int16_t>(80, 0), "127.0.0.2");
    ASSERT_TRUE(velmora_start(carol.engine, "carol", "", "", "", "", "", "", VELMORA_TRANSPORT_UDP));
    const uint16_t port = test::freeLoopbackPort();
    ASSERT_TRUE(startCli(*kamailio, port,
                         "wait-for Registered\n"
                         "dial bob@" + kamailio->hostPort() + "\n"
                         "wait-for line 1: Talking\n"
                         "wait 6\n"
                         "dtmf 159\n"
                         "hold\n"
                         "wait-for line 1: On hold\n"
                         "resume\n"
                         "wait-for line 1: Talking\n"
                         "record on\n"
                         "wait 2\n"
                         "record off\n"
                         "wait-for Recording saved\n"
                         "hangup\n"
                         "wait-for Call ended\n"
                         "autoanswer on\n"
                         "wait-for line 1: Talking within 60\n"
                         "transfer " + carol.address() + "\n"
                         "wait-for Transfer completed\n"
                         "wait-for line 1: Call ended\n"
                         "wait-for Voicemail: 2 new, 8 old within 60\n"
                         "recent\n"
                         "quit\n"));
    ASSERT_TRUE(printed("registration: \u25CF Registered"));
    ASSERT_TRUE(printed("line 1: Talking", 20s));
    ASSERT_TRUE(printed("Recording saved", 40s));
    ASSERT_TRUE(printed("line 1: Call ended"));
    EXPECT_EQ(baresip->receivedDigits(), "159");

    // Bob calls back; alice answers at once and sends him on to carol; her
    // phone ends its part once the transfer completes.
    ASSERT_TRUE(printed("auto answer on"));
    ASSERT_TRUE(baresip->command("dial", "sip:alice@" + kamailio->hostPort()));
    const auto referred = carol.waitEvent(VELMORA_EVENT_INCOMING_CALL);
    ASSERT_TRUE(referred) << "bob was not sent on to carol";
    ASSERT_TRUE(velmora_answer(carol.engine, referred->line));
    ASSERT_TRUE(printed("Transfer completed", 30s));

    auto* voicemail = start<test::SippRunner>(test::SippOptions{"mwi_unsolicited.xml", "127.0.0.1:" + std::to_string(port), 1, 10s, {}});
    ASSERT_TRUE(voicemail);
    EXPECT_EQ(voicemail->waitForExit(15s), 0);
    EXPECT_EQ(cli_.waitForExit(30s), 0) << "the script did not run to its end";
    const std::string out = output();
    for (const char* text : {"line 1: Calling", "line 1: On hold", "Recording to call_", "Voicemail: 2 new, 8 old",
                             "notice: Incoming call", "out  bob@", "in  sip:bob@"}) {
        EXPECT_NE(out.find(text), std::string::npos) << "missing: " << text;
    }

    // Speech crossed both ways: bob's recording of the first call holds
    // alice's sentence, and what alice's loudspeaker played holds bob's.
    const auto recordings = baresip->recordings();
    ASSERT_FALSE(recordings.empty());
    const auto bobHeard = test::readWav(recordings.front());
    ASSERT_TRUE(bobHeard);
    EXPECT_GT(test::voiceMatch(bobHeard->samples, alice), 0.8) << "bob did not hear alice";
    const auto aliceHeard = test::readWav(files_.file("heard.wav"));
    ASSERT_TRUE(aliceHeard);
    EXPECT_GT(test::voiceMatch(aliceHeard->samples, bob), 0.8) << "alice did not hear bob";
    // The recording went to the data folder's Recordings, named by the time.
    bool recorded = false;
    for (const auto& entry : std::filesystem::directory_iterator(files_.file("data") / "Recordings")) {
        recorded |= entry.path().filename().string().rfind("call_", 0) == 0 && std::filesystem::file_size(entry.path()) > 8000;
    }
    EXPECT_TRUE(recorded);
}

// Ctrl+C on a registered phone: it un-registers, then exits with 0.
TEST_F(CliInteropTest, CtrlCUnregistersAndExits) {
    test::ScriptedPeer registrar;
    test::ProcessOptions options;
    options.program = VELPHONE_CLI;
    options.arguments = {"--data", files_.file("data").string(), "--user", "alice", "--domain", registrar.hostPort(),
                         "--bind", "127.0.0.1", "--port", "0", "--play", files_.file("quiet.wav").string(),
                         "--script", files_.file("script.txt").string()};
    options.logFile = files_.file("cli.log");
    ASSERT_TRUE(test::writeWav(files_.file("quiet.wav"), {8000, std::vector<int16_t>(800, 0)}));
    std::ofstream(files_.file("script.txt")) << "wait 60\n";
    std::string error;
    ASSERT_TRUE(cli_.start(options, &error)) << error;
    const auto reg = registrar.expect("REGISTER", nullptr);
    ASSERT_TRUE(reg);
    registrar.answer(*reg, 200, "Contact: " + reg->header("Contact").value_or("") + ";expires=3600\r\n");
    ASSERT_TRUE(printed("registration: \u25CF Registered"));
    ASSERT_TRUE(cli_.interrupt());
    const auto unreg = registrar.expect("REGISTER", nullptr);
    ASSERT_TRUE(unreg);
    EXPECT_EQ(unreg->header("Expires").value_or(""), "0") << unreg->toString();
    registrar.answer(*unreg, 200);
    EXPECT_EQ(cli_.waitForExit(10s), 0);
    EXPECT_TRUE(printed("interrupted: un-registering", 1s));
}

// Refusals: a clear line on standard error and a non-zero exit.
TEST_F(CliInteropTest, BadOptionsStoresAndPortsAreRefused) {
    // A port taken on both transports.
    auto udp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    auto tcp = net::Socket::open(net::AddressFamily::V4, net::SocketType::Tcp);
    ASSERT_TRUE(udp.bind(net::SocketAddress::loopback(net::AddressFamily::V4)));
    const uint16_t busy = udp.localAddress()->port();
    ASSERT_TRUE(tcp.bind(net::SocketAddress::loopback(net::AddressFamily::V4, busy)));
    std::ofstream(files_.file("not-a-folder")) << "x";
    const std::string data = files_.file("data").string();
    struct Case {
        std::vector<std::string> arguments;
        int exit;
        const char* says;
    };
    const Case cases[] = {
        {{"--bogus"}, 2, "unknown option --bogus"},
        {{"--port", "70000"}, 2, "--port needs a number"},
        {{"--user"}, 2, "--user needs a value"},
        {{"--play", files_.file("none.wav").string()}, 2, "cannot be read"},
        {{"--data", files_.file("not-a-folder").string(), "--user", "a"}, 1, "cannot use the data folder"},
        {{"--data", data}, 1, "Enter a user name"},
        {{"--data", data, "--user", "a", "--bind", "127.0.0.1", "--port", std::to_string(busy)}, 1, "Start failed"},
    };
    for (const Case& c : cases) {
        test::Process cli;
        test::ProcessOptions options{VELPHONE_CLI, c.arguments, {}, files_.file("refused.log"), 2000ms};
        ASSERT_TRUE(cli.start(options, nullptr));
        EXPECT_EQ(cli.waitForExit(10s), c.exit) << c.says;
        EXPECT_NE(cli.log().find(c.says), std::string::npos) << cli.log();
    }
}

}  // namespace
}  // namespace kelsip
