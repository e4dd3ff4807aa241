// Name-addr and Via values: parsing, text form and the branch test.
#include "sip/syntax/address.h"

#include <gtest/gtest.h>

namespace kelsip {
namespace {

TEST(NameAddrTest, ParsesDisplayNameUriAndHeaderParameters) {
    const struct {
        const char* text;
        const char* display;
        const char* uri;
        const char* tag;  // nullptr: no tag parameter
    } cases[] = {
        {"Bob <sip:h>;tag=1", "Bob", "sip:h", "1"}, {"sip:h;tag=1", "", "sip:h", "1"},
        {"<sip:h;transport=tcp>;tag=7", "", "sip:h;transport=tcp", "7"},
        {"  \"Alice \\\"Al\\\" Smith\"   <sip:a@h> ; tag = x ", "Alice \"Al\" Smith", "sip:a@h", "x"},
        {"\"a<b>;c\" <sip:h>", "a<b>;c", "sip:h", nullptr}, {"\"\" <sip:h>", "", "sip:h", nullptr},
        {"Bell, Alexander <sip:a@h>", "Bell, Alexander", "sip:a@h", nullptr}, {"<tel:+4930>", "", "tel:+4930", nullptr},
        {"\"back\\\\slash\" <sip:h>", "back\\slash", "sip:h", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto na = NameAddr::parse(c.text);
        ASSERT_TRUE(na);
        EXPECT_FALSE(na->wildcard);
        EXPECT_EQ(na->displayName, c.display);
        EXPECT_EQ(na->uri.toString(), c.uri);
        if (c.tag != nullptr) {
            EXPECT_EQ(na->param("tag"), c.tag);
        } else {
            EXPECT_FALSE(na->param("tag"));
        }
    }
}

TEST(NameAddrTest, WithoutAngleBracketsEveryParameterBelongsToTheHeader) {
    const auto na = NameAddr::parse("sip:h;transport=tcp;expires=60");
    ASSERT_TRUE(na);
    EXPECT_TRUE(na->uri.params.empty());
    EXPECT_EQ(na->param("transport"), "tcp");
    EXPECT_EQ(na->param("expires"), "60");
}

TEST(NameAddrTest, RefusesBrokenForms) {
    const char* cases[] = {
        "Bob <sip:h",                 // no ">"
        "Bob <sip:h> tag=1",          // text after ">" not led by ";"
        "Bob <sip:h>x",
        "<xyz:h>",                    // unknown scheme
        "\"Mr. J. User <sip:j@h>",    // unbalanced quote hides the "<"
        "< sip:h >",                  // white space inside the brackets
        "", "<>",
        "<sip:h>;x=\"a",              // an open quote in the parameters
        "<sip:h>;x=<a",               // an open "<" in the parameters
    };
    for (const char* c : cases) EXPECT_FALSE(NameAddr::parse(c)) << c;
}

TEST(NameAddrTest, WritesQuotedNameAndBracketedUri) {
    const std::pair<const char*, const char*> cases[] = {
        {"Bob <sip:h>;tag=1", "\"Bob\" <sip:h>;tag=1"}, {"sip:h;tag=1;lr", "<sip:h>;tag=1;lr"},
        {"\"a\\\"b\\\\c\" <sip:h>", "\"a\\\"b\\\\c\" <sip:h>"},
    };
    for (const auto& [in, out] : cases) {
        const auto na = NameAddr::parse(in);
        ASSERT_TRUE(na) << in;
        EXPECT_EQ(na->toString(), out);
        const auto again = NameAddr::parse(na->toString());
        ASSERT_TRUE(again);
        EXPECT_EQ(again->displayName, na->displayName);
        EXPECT_EQ(again->params, na->params);
    }
}

TEST(ViaTest, ParsesSentProtocolSentByAndParameters) {
    const struct {
        const char* text;
        const char* transport;
        const char* host;
        uint16_t port;
        const char* branch;
    } cases[] = {
        {"SIP/2.0/UDP 10.0.0.1:5060;branch=z9hG4bK776;rport", "UDP", "10.0.0.1", 5060, "z9hG4bK776"},
        {"SIP / 2.0 / tcp  host.example.com ;branch=z9hG4bKx", "TCP", "host.example.com", 0, "z9hG4bKx"},
        {"SIP/2.0/UDP [2001:db8::9:1]:5070;branch=b", "UDP", "[2001:db8::9:1]", 5070, "b"},
        {"SIP/2.0/UDP [2001:db8::9:1];received=[2001:db8::9:255]", "UDP", "[2001:db8::9:1]", 0, ""},
        {"SIP/2.0/TLS h:5061 ;branch=z9hG4bK1 (a trailing comment)", "TLS", "h", 5061, "z9hG4bK1"},
        {"sip/2.0/UDP h", "UDP", "h", 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto via = Via::parse(c.text);
        ASSERT_TRUE(via);
        EXPECT_EQ(via->transport, c.transport);
        EXPECT_EQ(via->host, c.host);
        EXPECT_EQ(via->port, c.port);
        EXPECT_EQ(via->branch(), c.branch);
    }
    const auto v = Via::parse("SIP/2.0/UDP h;rport;received=1.2.3.4");
    ASSERT_TRUE(v);
    EXPECT_TRUE(v->hasParam("rport"));
    EXPECT_EQ(v->param("rport"), "");
    EXPECT_EQ(v->param("received"), "1.2.3.4");
}

TEST(ViaTest, RefusesBrokenSentProtocolOrSentBy) {
    const char* cases[] = {
        "SIP/2.0 h",              // two tokens
        "SIP/2.0/UDP",            // no sent-by
        "SIP/2.0/UDPh",           // no white space before the sent-by
        "SIP/3.0/UDP h",          // wrong version
        "XMPP/2.0/UDP h", "SIP/2.0/UDP h:0", "SIP/2.0/UDP h:65536", "SIP/2.0/UDP [::1]x", "SIP/2.0/UDP [::1",
        "SIP/2.0/UDP ;branch=z9hG4bK1", "SIP/2.0/UDP h)",
        "SIP/2.0/UDP h;a=x) (c)",      // a parenthesis outside the trailing comment
        "SIP/2.0/UDP h(x);branch=z9hG4bK1", "SIP//UDP h", "",
    };
    for (const char* c : cases) EXPECT_FALSE(Via::parse(c)) << c;
}

TEST(ViaTest, WritesOneSpaceBetweenProtocolAndSentBy) {
    auto via = Via::parse("SIP / 2.0 / udp   h:5062 ; branch=z9hG4bK1 ; rport");
    ASSERT_TRUE(via);
    via->setParam("rport", "5062");
    via->setParam("received", "192.0.2.7");
    EXPECT_EQ(via->toString(), "SIP/2.0/UDP h:5062;branch=z9hG4bK1;rport=5062;received=192.0.2.7");
}

TEST(ViaTest, Rfc3261BranchNeedsTheMagicCookie) {
    EXPECT_TRUE(isRfc3261Branch(*Via::parse("SIP/2.0/UDP h;branch=z9hG4bK74bf9")));
    EXPECT_FALSE(isRfc3261Branch(*Via::parse("SIP/2.0/UDP h;branch=z9hg4bk74bf9")));  // case matters
    EXPECT_FALSE(isRfc3261Branch(*Via::parse("SIP/2.0/UDP h;branch=1234")));
    EXPECT_FALSE(isRfc3261Branch(*Via::parse("SIP/2.0/UDP h")));
    EXPECT_TRUE(isRfc3261Branch("z9hG4bK"));
}

}  // namespace
}  // namespace kelsip
