// SIP, SIPS and tel URIs: the parse rules, the text form and comparison.
#include "sip/syntax/uri.h"

#include <gtest/gtest.h>

namespace kelsip {
namespace {

TEST(SipUriTest, ParsesOrRefusesByTheStackRules) {
    const struct {
        const char* text;
        const char* parts;  // scheme|user|password|host|port; nullptr: refused
    } cases[] = {
        {"SIP:Host", "sip|||Host|0"},
        {"sips:bob:secret@h:5061", "sips|bob|secret|h|5061"},
        {"sip:10.0.0.1:65535", "sip|||10.0.0.1|65535"},
        {"sip:[2001:db8::10]:5070", "sip|||[2001:db8::10]|5070"},
        {"sip:x@y@h", "sip|x@y||h|0"},  // the last "@" ends the user part
        {"sip:user;par=u%40x@h", "sip|user;par=u%40x||h|0"},  // escapes are kept
        {"tel:+1-201-555-0123;phone-context=x", "tel|+1-201-555-0123|||0"},
        {"sip:10.0.0.1:0", nullptr},
        {"sip:10.0.0.1:65536", nullptr},
        {"sip:[::1]x", nullptr},
        {"sip:@10.0.0.1", nullptr},
        {"sip::pw@h", nullptr},
        {"sip:a b", nullptr},
        {"xyz:x", nullptr},
    };
    for (const auto& c : cases) {
        const auto uri = SipUri::parse(c.text);
        ASSERT_EQ(uri.has_value(), c.parts != nullptr) << c.text;
        if (!uri) continue;
        const std::string parts = uri->scheme + "|" + uri->user + "|" + uri->password + "|" + uri->host + "|" +
                                  std::to_string(uri->port);
        EXPECT_EQ(parts, c.parts) << c.text;
    }
}

TEST(SipUriTest, KeepsParametersAndHeadersAsReceivedAndWritesThemBack) {
    const auto uri = SipUri::parse("sip:h;Transport=TCP; lr ;maddr = 10.0.0.1;x=\"a;b\";y=<c;d>?Subject=hi;there");
    ASSERT_TRUE(uri);
    EXPECT_EQ(uri->params, (std::vector<Param>{{"Transport", "TCP", true},
                                                {"lr", "", false},
                                                {"maddr", "10.0.0.1", true},
                                                {"x", "\"a;b\"", true},
                                                {"y", "<c;d>", true}}));
    EXPECT_EQ(uri->headers, "Subject=hi;there");
    EXPECT_EQ(uri->param("transport"), "TCP");
    EXPECT_FALSE(uri->param("ttl"));
    EXPECT_EQ(uri->toString(), "sip:h;Transport=TCP;lr;maddr=10.0.0.1;x=\"a;b\";y=<c;d>?Subject=hi;there");
    EXPECT_EQ(*SipUri::parse(uri->toString()), *uri);
    auto edited = *uri;
    edited.setParam("transport", "udp");  // replaced in place
    edited.removeParam("LR");
    edited.setFlagParam("ob");
    edited.setFlagParam("MADDR");  // its value goes
    edited.headers.clear();
    EXPECT_EQ(edited.toString(), "sip:h;Transport=udp;maddr;x=\"a;b\";y=<c;d>;ob");
}

TEST(SipUriTest, ComparesByRfc3261Rules) {
    const struct {
        const char* a;
        const char* b;
        bool equal;
    } cases[] = {
        {"sip:h", "sip:H", true},
        {"sip:h", "sip:h:5060", false},
        {"sip:h;transport=tcp", "sip:h", false},
        {"sip:h;transport=TCP", "sip:h;transport=tcp", true},
        {"sip:h;foo=1", "sip:h;foo=2", false},
        {"sip:h;user=phone", "sip:h", false},
        {"sip:Alice@h", "sip:alice@h", false},
        {"sip:h?Subject=x", "sip:h", true},
        {"sip:%61lice@h", "sip:alice@h", false},  // user parts compare byte for byte
        {"sip:h;x=1;x=2", "sip:h;x=1", true},  // a repeated name: the first occurrence counts
    };
    for (const auto& c : cases) {
        const auto a = SipUri::parse(c.a);
        const auto b = SipUri::parse(c.b);
        ASSERT_TRUE(a && b) << c.a << " / " << c.b;
        EXPECT_EQ(*a == *b, c.equal) << c.a << " vs " << c.b;
        EXPECT_EQ(*b == *a, c.equal) << c.b << " vs " << c.a;
    }
}

TEST(EscapeUriUserTest, EscapesEverythingOutsideTheUnreservedSet) {
    EXPECT_EQ(escapeUriUser("+1(555)-0123/x:y&z$~*'!_.[]"), "+1(555)-0123/x:y&z$~*'!_.[]");
    EXPECT_EQ(escapeUriUser("a b@;=?%\xC3\xA9"), "a%20b%40%3B%3D%3F%25%C3%A9");
}

}  // namespace
}  // namespace kelsip
