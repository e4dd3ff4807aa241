// SIP, SIPS and tel URIs: the parse rules, the text form and comparison.
#include "sip/syntax/uri.h"

#include <gtest/gtest.h>

namespace kelsip {
namespace {

struct UriCase {
    const char* text;
    bool ok;
    const char* scheme = "";
    const char* user = "";
    const char* password = "";
    const char* host = "";
    uint16_t port = 0;
};

TEST(SipUriTest, ParsesOrRefusesByTheStackRules) {
    const UriCase cases[] = {
        {"sip:alice@example.com", true, "sip", "alice", "", "example.com", 0},
        {"SIP:Host", true, "sip", "", "", "Host", 0},
        {"sips:bob:secret@h:5061", true, "sips", "bob", "secret", "h", 5061},
        {"sip:10.0.0.1:65535", true, "sip", "", "", "10.0.0.1", 65535},
        {"sip:10.0.0.1:1", true, "sip", "", "", "10.0.0.1", 1}, {"sip:10.0.0.1:0", false},
        {"sip:10.0.0.1:65536", false}, {"sip:10.0.0.1:", false}, {"sip:10.0.0.1:50x", false},
        {"sip:[::1]:5070", true, "sip", "", "", "[::1]", 5070},
        {"sip:[2001:db8::10]", true, "sip", "", "", "[2001:db8::10]", 0}, {"sip:[::1]x", false}, {"sip:[::1", false},
        {"sip:[]", false},
        // The last "@" separates the user part; the user keeps its escapes.
        {"sip:a%20b@h", true, "sip", "a%20b", "", "h", 0}, {"sip:x@y@h", true, "sip", "x@y", "", "h", 0},
        {"sip:@10.0.0.1", false}, {"sip::pw@h", false},
        {"sip:user;par=u%40x@h", true, "sip", "user;par=u%40x", "", "h", 0}, {"sip:", false}, {"sip:;a=b", false},
        {"sip:a b", false}, {"sip:a\"b", false}, {"sip:u@a<b", false}, {"sip:u>x@h", false}, {"xyz:x", false},
        {":x", false}, {"nocolon", false}, {"", false},
        {"tel:+1-201-555-0123;phone-context=x", true, "tel", "+1-201-555-0123", "", "", 0}, {"tel:", false},
        {"tel:;x", false},
    };
    for (const UriCase& c : cases) {
        SCOPED_TRACE(c.text);
        const auto uri = SipUri::parse(c.text);
        ASSERT_EQ(uri.has_value(), c.ok);
        if (!c.ok) continue;
        EXPECT_EQ(uri->scheme, c.scheme);
        EXPECT_EQ(uri->user, c.user);
        EXPECT_EQ(uri->password, c.password);
        EXPECT_EQ(uri->host, c.host);
        EXPECT_EQ(uri->port, c.port);
    }
}

TEST(SipUriTest, KeepsParametersAndHeadersAsReceived) {
    const auto uri = SipUri::parse("sip:h;Transport=TCP; lr ;maddr = 10.0.0.1;x=\"a;b\";y=<c;d>?Subject=hi;there");
    ASSERT_TRUE(uri);
    ASSERT_EQ(uri->params.size(), 5U);
    EXPECT_EQ(uri->params[0], (Param{"Transport", "TCP", true}));
    EXPECT_EQ(uri->params[1], (Param{"lr", "", false}));
    EXPECT_EQ(uri->params[2], (Param{"maddr", "10.0.0.1", true}));
    EXPECT_EQ(uri->params[3], (Param{"x", "\"a;b\"", true}));
    EXPECT_EQ(uri->params[4], (Param{"y", "<c;d>", true}));
    EXPECT_EQ(uri->headers, "Subject=hi;there");
    EXPECT_EQ(uri->param("transport"), "TCP");
    EXPECT_EQ(uri->param("LR"), "");
    EXPECT_FALSE(uri->param("ttl"));
}

TEST(SipUriTest, WritesTheCanonicalTextForm) {
    const std::pair<const char*, const char*> cases[] = {
        {"SIP:Alice@Example.COM", "sip:Alice@Example.COM"},
        {"sip:bob:pw@[::1]:5070;transport=tcp;lr?X=1", "sip:bob:pw@[::1]:5070;transport=tcp;lr?X=1"},
        {"sip:h; lr ;a = b", "sip:h;lr;a=b"}, {"tel:+4930;phone-context=+49", "tel:+4930;phone-context=+49"},
    };
    for (const auto& [in, out] : cases) {
        const auto uri = SipUri::parse(in);
        ASSERT_TRUE(uri) << in;
        EXPECT_EQ(uri->toString(), out);
        const auto again = SipUri::parse(uri->toString());
        ASSERT_TRUE(again);
        EXPECT_EQ(*again, *uri);
    }
    SipUri built;
    built.host = "example.com";
    built.user = "alice";
    built.port = 5080;
    EXPECT_EQ(built.toString(), "sip:alice@example.com:5080");
}

TEST(SipUriTest, ComparesByRfc3261Rules) {
    const struct {
        const char* a;
        const char* b;
        bool equal;
    } cases[] = {
        {"sip:h", "sip:H", true}, {"sip:h", "sip:h:5060", false}, {"sip:h;transport=tcp", "sip:h", false},
        {"sip:h;transport=TCP", "sip:h;transport=tcp", true}, {"sip:h;foo=1", "sip:h", true},
        {"sip:h;foo=1", "sip:h;foo=2", false}, {"sip:h;foo=1", "sip:h;bar=2", true}, {"sip:h;maddr=a", "sip:h", false},
        {"sip:h;user=phone", "sip:h", false}, {"sip:h;ttl=1", "sip:h;TTL=1", true},
        {"sip:h;method=INVITE", "sip:h", false}, {"sip:Alice@h", "sip:alice@h", false},
        {"sip:a:PW@h", "sip:a:pw@h", false}, {"sip:h", "sips:h", false}, {"sip:h?Subject=x", "sip:h", true},
        {"sip:%61lice@h", "sip:alice@h", false},  // user parts compare byte for byte
        {"sip:h;x=1;X=2", "sip:h;x=1;X=2", true},  // a repeated name: the first occurrence counts
        {"sip:h;x=1;x=2", "sip:h;x=1", true},
    };
    for (const auto& c : cases) {
        const auto a = SipUri::parse(c.a);
        const auto b = SipUri::parse(c.b);
        ASSERT_TRUE(a && b) << c.a << " / " << c.b;
        EXPECT_EQ(*a == *b, c.equal) << c.a << " vs " << c.b;
        EXPECT_EQ(*b == *a, c.equal) << c.b << " vs " << c.a;
    }
}

TEST(SipUriTest, SetsReplacesAndRemovesParameters) {
    auto uri = SipUri::parse("sip:h;a=1;LR;b=2");
    ASSERT_TRUE(uri);
    uri->setParam("A", "9");           // replaced in place, keeping its position
    uri->setParam("transport", "tcp"); // appended
    uri->removeParam("lr");
    uri->setFlagParam("ob");
    EXPECT_EQ(uri->toString(), "sip:h;a=9;b=2;transport=tcp;ob");
    uri->setFlagParam("a");
    EXPECT_EQ(uri->toString(), "sip:h;a;b=2;transport=tcp;ob");
    EXPECT_TRUE(uri->hasParam("TRANSPORT"));
}

TEST(EscapeUriUserTest, EscapesEverythingOutsideTheUnreservedSet) {
    EXPECT_EQ(escapeUriUser("a b#c"), "a%20b%23c");
    EXPECT_EQ(escapeUriUser("+1(555)-0123/x:y&z$~*'!_.[]"), "+1(555)-0123/x:y&z$~*'!_.[]");
    EXPECT_EQ(escapeUriUser("a@b;c=d?e%"), "a%40b%3Bc%3Dd%3Fe%25");
    EXPECT_EQ(escapeUriUser("\xC3\xA9\x01"), "%C3%A9%01");  // bytes, upper-case hex
    EXPECT_EQ(escapeUriUser(""), "");
}

}  // namespace
}  // namespace kelsip
