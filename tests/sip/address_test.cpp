// Name-addr and Via values: parsing, text form and the branch test.
#include "sip/syntax/address.h"

#include <gtest/gtest.h>

namespace kelsip {
namespace {

TEST(NameAddrTest, ParsesDisplayNameUriAndHeaderParametersAndWritesThemBack) {
    const struct {
        const char* text;
        const char* display;
        const char* tag;  // nullptr: no tag parameter
        const char* written;
    } cases[] = {
        {"Bob <sip:h>;tag=1", "Bob", "1", "\"Bob\" <sip:h>;tag=1"},
        {"sip:h;transport=tcp;tag=1", "", "1", "<sip:h>;transport=tcp;tag=1"},  // all parameters the header's
        {"  \"Al \\\"Z\\\" \\\\\"   <sip:h> ; tag = x ", "Al \"Z\" \\", "x", "\"Al \\\"Z\\\" \\\\\" <sip:h>;tag=x"},
        {"\"a<b>;c\" <sip:h>", "a<b>;c", nullptr, "\"a<b>;c\" <sip:h>"},
        {"Bell, Alexander <sip:h>", "Bell, Alexander", nullptr, "\"Bell, Alexander\" <sip:h>"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto na = NameAddr::parse(c.text);
        ASSERT_TRUE(na);
        EXPECT_EQ(na->displayName, c.display);
        EXPECT_EQ(na->uri.toString(), "sip:h");
        EXPECT_EQ(na->param("tag").value_or("(none)"), c.tag != nullptr ? c.tag : "(none)");
        EXPECT_EQ(na->toString(), c.written);
    }
}

TEST(NameAddrTest, RefusesBrokenForms) {
    const char* cases[] = {
        "Bob <sip:h",               // no ">"
        "Bob <sip:h> tag=1",        // text after ">" not led by ";"
        "<xyz:h>",                  // unknown scheme
        "\"Mr. J. User <sip:j@h>",  // unbalanced quote hides the "<"
        "<sip:h>;x=\"a",  // an open quote in the parameters
        "<sip:h>;x=<a",   // an open "<" in the parameters
    };
    for (const char* c : cases) EXPECT_FALSE(NameAddr::parse(c)) << c;
}

TEST(ViaTest, ParsesSentProtocolSentByAndParameters) {
    const struct {
        const char* text;
        const char* sentBy;  // transport|host|port|branch
    } cases[] = {
        {"SIP/2.0/UDP 10.0.0.1:5060;branch=z9hG4bK776;rport", "UDP|10.0.0.1|5060|z9hG4bK776"},
        {"SIP / 2.0 / tcp  host.example.com ;branch=z9hG4bKx", "TCP|host.example.com|0|z9hG4bKx"},
        {"SIP/2.0/UDP [2001:db8::9:1]:5070;branch=b", "UDP|[2001:db8::9:1]|5070|b"},
        {"SIP/2.0/TLS h:5061 ;branch=z9hG4bK1 (a trailing comment)", "TLS|h|5061|z9hG4bK1"},
    };
    for (const auto& c : cases) {
        const auto via = Via::parse(c.text);
        ASSERT_TRUE(via) << c.text;
        EXPECT_EQ(via->transport + "|" + via->host + "|" + std::to_string(via->port) + "|" + via->branch(), c.sentBy);
    }
    auto via = Via::parse("SIP / 2.0 / udp   h:5062 ; branch=z9hG4bK1 ; rport");
    ASSERT_TRUE(via);
    EXPECT_EQ(via->param("rport"), "");
    via->setParam("rport", "5062");
    via->setParam("received", "192.0.2.7");
    EXPECT_EQ(via->toString(), "SIP/2.0/UDP h:5062;branch=z9hG4bK1;rport=5062;received=192.0.2.7");
}

TEST(ViaTest, RefusesBrokenSentProtocolOrSentBy) {
    const char* cases[] = {
        "SIP/2.0 h",      // two tokens
        "SIP/2.0/UDP",    // no sent-by
        "SIP/2.0/UDPh",   // no white space before the sent-by
        "SIP/3.0/UDP h",  // wrong version
        "SIP/2.0/UDP h:0",
        "SIP/2.0/UDP h;a=x) (c)",  // a parenthesis outside the trailing comment
    };
    for (const char* c : cases) EXPECT_FALSE(Via::parse(c)) << c;
}

TEST(ViaTest, Rfc3261BranchNeedsTheMagicCookie) {
    EXPECT_TRUE(isRfc3261Branch(*Via::parse("SIP/2.0/UDP h;branch=z9hG4bK74bf9")));
    EXPECT_FALSE(isRfc3261Branch(*Via::parse("SIP/2.0/UDP h;branch=z9hg4bk74bf9")));  // case matters
    EXPECT_FALSE(isRfc3261Branch(*Via::parse("SIP/2.0/UDP h")));
}

}  // namespace
}  // namespace kelsip
