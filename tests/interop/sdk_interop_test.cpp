// The flat C interface against real peers: registration at Kamailio, a call
// through it, a blind transfer's progress, the voicemail subscription's
// state and an unsolicited summary from SIPp, each as the event record its
// code promises.
#include <gtest/gtest.h>

#include "interop/support/interop_test.h"
#include "support/sdk_phone.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;
using test::Event;
using test::Phone;

class SdkInteropTest : public test::InteropTest {
protected:
    // Registered at `kamailio` through it as outbound proxy.
    static bool startAt(Phone& phone, const test::KamailioServer& kamailio, const char* user, const char* password) {
        const std::string at = kamailio.hostPort();
        return velmora_start(phone.engine, user, password, at.c_str(), "", at.c_str(), "", "", VELMORA_TRANSPORT_UDP) == 1;
    }
};

TEST_F(SdkInteropTest, RegistrationCallTransferAndVoicemailArriveAsTheirRecords) {
    auto* kamailio = startKamailio();
    ASSERT_TRUE(kamailio);
    Phone alice, bob;
    ASSERT_TRUE(startAt(alice, *kamailio, "alice", "secret"));
    ASSERT_TRUE(startAt(bob, *kamailio, "bob", "bobsecret"));
    const auto registered = [](const Event& e) { return e.a == VELMORA_REG_REGISTERED; };
    const auto reg = alice.waitEvent(VELMORA_EVENT_REGISTRATION, registered);
    ASSERT_TRUE(reg);
    EXPECT_GT(reg->line, 0);
    EXPECT_EQ(reg->b, 200);
    EXPECT_TRUE(alice.find(VELMORA_EVENT_REGISTRATION, [](const Event& e) { return e.a == VELMORA_REG_REGISTERING; }));
    ASSERT_TRUE(bob.waitEvent(VELMORA_EVENT_REGISTRATION, registered));

    // Alice calls bob by his user name; the proxy finds him.
    const int line = velmora_call(alice.engine, "bob");
    ASSERT_GT(line, 0);
    const auto offered = bob.waitEvent(VELMORA_EVENT_INCOMING_CALL);
    ASSERT_TRUE(offered);
    EXPECT_NE(offered->s1.find("alice@"), std::string::npos) << offered->s1;
    ASSERT_TRUE(velmora_answer(bob.engine, offered->line));
    const auto talking = [](const Event& e) { return e.a == VELMORA_CALL_CONNECTED; };
    ASSERT_TRUE(alice.waitEvent(VELMORA_EVENT_CALL_STATE, talking));

    // Bob sends alice on to carol, a phone outside the proxy's domain (on
    // 127.0.0.2): alice's new call goes through the proxy, carol answers,
    // and bob hears of it through the REFER's NOTIFYs.
    Phone carol(std::vector<int16_t>(80, 0), "127.0.0.2");
    ASSERT_TRUE(velmora_start(carol.engine, "carol", "", "", "", "", "", "", VELMORA_TRANSPORT_UDP));
    ASSERT_TRUE(velmora_transfer(bob.engine, offered->line, carol.address().c_str()));
    const auto referred = carol.waitEvent(VELMORA_EVENT_INCOMING_CALL);
    ASSERT_TRUE(referred);
    EXPECT_NE(referred->s1.find("alice@"), std::string::npos) << referred->s1;
    ASSERT_TRUE(velmora_answer(carol.engine, referred->line));
    const auto done = bob.waitEvent(VELMORA_EVENT_TRANSFER, [](const Event& e) { return e.b >= 200; });
    ASSERT_TRUE(done);
    EXPECT_EQ(done->line, offered->line);
    EXPECT_EQ(done->b, 200);
    EXPECT_TRUE(bob.find(VELMORA_EVENT_TRANSFER, [](const Event& e) { return e.b < 200; })) << "no progress before the end";
    // The engine leaves the transferor's call to its owner (the phone core
    // ends it on "Transfer completed").
    ASSERT_TRUE(velmora_hangup(bob.engine, offered->line));
    ASSERT_TRUE(bob.waitEvent(VELMORA_EVENT_CALL_STATE, [](const Event& e) { return e.a == VELMORA_CALL_TERMINATED; }));
    ASSERT_TRUE(velmora_hangup(carol.engine, referred->line));

    // The voicemail subscription goes to the account's own address; whatever
    // the proxy makes of it, its state arrives as event 8.
    ASSERT_TRUE(velmora_subscribe_voicemail(alice.engine));
    const auto subscription = alice.waitEvent(VELMORA_EVENT_SUBSCRIPTION);
    ASSERT_TRUE(subscription);
    EXPECT_GT(subscription->c, 0);
    EXPECT_EQ(subscription->s1, "message-summary");
    EXPECT_NE(subscription->s2.find("alice@" + kamailio->hostPort()), std::string::npos) << subscription->s2;
    EXPECT_FALSE(subscription->s3.empty());
}

TEST_F(SdkInteropTest, AnUnsolicitedSummaryIsReportedWithItsCounts) {
    Phone carol;
    ASSERT_TRUE(velmora_start(carol.engine, "carol", "", "", "", "", "", "", VELMORA_TRANSPORT_UDP));
    const std::string address = carol.address();
    auto* registrar = start<test::SippRunner>(test::SippOptions{"mwi_unsolicited.xml", address.substr(address.find('@') + 1), 1, 10s, {}});
    ASSERT_TRUE(registrar);
    EXPECT_EQ(registrar->waitForExit(10s), 0);
    // Only the readable summary, after an unreadable one and another package.
    const auto summary = carol.waitEvent(VELMORA_EVENT_VOICEMAIL);
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->line, -1);
    EXPECT_EQ(summary->c & 1, 1);
    EXPECT_EQ(summary->a, 2);
    EXPECT_EQ(summary->b, 8);
    EXPECT_EQ(summary->s1, "sip:alice@127.0.0.1");
    const std::lock_guard lock(carol.mutex);
    EXPECT_EQ(std::count_if(carol.events.begin(), carol.events.end(), [](const Event& e) { return e.type == VELMORA_EVENT_VOICEMAIL; }), 1);
}

}  // namespace
}  // namespace kelsip
