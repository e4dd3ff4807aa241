// SIP messages: the parser's error texts, header handling, validation,
// serialisation, typed accessors and responses built from requests.
#include "sip/syntax/message.h"

#include <gtest/gtest.h>

#include <string>

namespace kelsip {
namespace {

// The mandatory headers of a valid INVITE, each line ended by CRLF.
const std::string kInviteHeaders =
    "Via: SIP/2.0/UDP 10.0.0.2:5060;branch=z9hG4bK1\r\n"
    "From: <sip:alice@h>;tag=a1\r\n"
    "To: <sip:bob@h>\r\n"
    "Call-ID: c1@h\r\n"
    "CSeq: 1 INVITE\r\n";

std::string invite(const std::string& extra = "", const std::string& body = "") {
    return "INVITE sip:bob@h SIP/2.0\r\n" + kInviteHeaders + extra + "\r\n" + body;
}

std::string parseError(const std::string& text) {
    std::string error;
    const auto m = SipMessage::parse(text, &error);
    return m ? "" : error;
}

TEST(SipMessageTest, RejectsWithTheExactErrorText) {
    const std::string vias = "Via: SIP/2.0/UDP h;branch=z9hG4bK1\r\n";
    const std::string fromTo = "From: <sip:a@h>;tag=1\r\nTo: <sip:b@h>\r\n";
    const std::string rest = "Call-ID: x\r\nCSeq: 1 OPTIONS\r\n" + vias;
    const struct {
        std::string text;
        const char* error;
    } cases[] = {
        {"", "empty message"}, {"\r\n\r\n", "missing start line"},
        {"INVITE sip:10.0.0.1\r\n" + kInviteHeaders + "\r\n", "bad request line"},
        {"INVITE\r\n\r\n", "bad request line"},
        {"INVITE sip:10.0.0.1 SIP/3.0\r\n" + kInviteHeaders + "\r\n", "unsupported SIP version"},
        {"INVITE sip:10.0.0.1 SIP/2.0 \r\n\r\n", "unsupported SIP version"},
        {"IN(VITE sip:h SIP/2.0\r\n\r\n", "bad method"}, {"INVITE <sip:h> SIP/2.0\r\n\r\n", "bad Request-URI"},
        {"INVITE  sip:h SIP/2.0\r\n\r\n", "bad Request-URI"}, {"INVITE xyz:h SIP/2.0\r\n\r\n", "bad Request-URI"},
        {"SIP/2.0\r\n\r\n", "bad status line"}, {"SIP/3.0 200 OK\r\n\r\n", "unsupported SIP version"},
        {"SIP/2.0 99 Low\r\n\r\n", "bad status code"}, {"SIP/2.0 1000 X\r\n\r\n", "bad status code"},
        {"SIP/2.0 700 X\r\n\r\n", "bad status code"}, {"SIP/2.0 2x0 X\r\n\r\n", "bad status code"},
        {"SIP/2.0  200 OK\r\n\r\n", "bad status code"}, {invite("Bad Name: x\r\n"), "bad header name"},
        {invite(": x\r\n"), "bad header name"}, {invite("NoColonHere\r\n"), "malformed header line"},
        {invite("Content-Length: 5\r\n", "abc"), "truncated body"},
        {invite("Content-Length: -1\r\n"), "bad Content-Length"},
        {invite("Content-Length: abc\r\n"), "bad Content-Length"},
        {invite("Content-Length: 99999999999999999999\r\n"), "bad Content-Length"},
        {"OPTIONS sip:h SIP/2.0\r\nTo: <sip:b@h>\r\n" + rest + "\r\n", "missing/invalid From"},
        {"OPTIONS sip:h SIP/2.0\r\nFrom: <xyz:a>\r\nTo: <sip:b@h>\r\n" + rest + "\r\n", "missing/invalid From"},
        {"OPTIONS sip:h SIP/2.0\r\nFrom: *\r\nTo: <sip:b@h>\r\n" + rest + "\r\n", "missing/invalid From"},
        {"OPTIONS sip:h SIP/2.0\r\nFrom: <sip:a@h>\r\n" + rest + "\r\n", "missing/invalid To"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "CSeq: 1 OPTIONS\r\n" + vias + "\r\n", "missing Call-ID"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "Call-ID:  \r\nCSeq: 1 OPTIONS\r\n" + vias + "\r\n",
         "missing Call-ID"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "Call-ID: x\r\n" + vias + "\r\n", "missing/invalid CSeq"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "Call-ID: x\r\nCSeq: OPTIONS\r\n" + vias + "\r\n",
         "missing/invalid CSeq"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "Call-ID: x\r\nCSeq: 2147483648 OPTIONS\r\n" + vias + "\r\n",
         "missing/invalid CSeq"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "Call-ID: x\r\nCSeq: -1 OPTIONS\r\n" + vias + "\r\n",
         "missing/invalid CSeq"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "Call-ID: x\r\nCSeq: 1 OPTIONS\r\n\r\n", "missing/invalid Via"},
        {"OPTIONS sip:h SIP/2.0\r\n" + fromTo + "Call-ID: x\r\nCSeq: 1 OPTIONS\r\nVia: SIP/2.0/UDP\r\n\r\n",
         "missing/invalid Via"},
        {"INVITE sip:h SIP/2.0\r\n" + fromTo + "Call-ID: x\r\nCSeq: 1 invite\r\n" + vias + "\r\n",
         "CSeq method does not match request method"},
        {invite("Max-Forwards: ten\r\n"), "invalid Max-Forwards"},
    };
    for (const auto& c : cases) EXPECT_EQ(parseError(c.text), c.error) << c.text;
}

TEST(SipMessageTest, AcceptsWhatThePeerMaySendInLenientForms) {
    const std::string cases[] = {
        "\r\n\r\n" + invite(),                                                // leading line breaks
        "INVITE sip:bob@h SIP/2.0\nVia: SIP/2.0/UDP h;branch=z9hG4bK1\nFrom: <sip:a@h>;tag=1\n"
        "To: sip:b@h\nCall-ID: x\nCSeq: 1 INVITE\n\n",                       // bare LF line ends
        invite("Max-Forwards: -3\r\n"),                                       // no range check here
        invite("Max-Forwards:  70 \r\n"),
        "INVITE sip:bob@h SIP/2.0\r\n" + kInviteHeaders,                      // no blank line at all
        invite("X-Empty:\r\n"),
    };
    for (const std::string& c : cases) EXPECT_EQ(parseError(c), "") << c;
}

TEST(SipMessageTest, SplitsListHeadersAndExpandsCompactNames) {
    const auto m = SipMessage::parse(invite(
        "v: SIP/2.0/UDP a;branch=z9hG4bK2, SIP/2.0/UDP b\r\n"
        "Subject: a, b\r\n"
        "Reply-To: <sip:x@h>, \"Doe, J\" <sip:y@h>\r\n"
        "Contact: \"A, B\" <sip:a@h;x=\"p,q\">, <sip:c@h>;q=0.5 , ,\r\n"
        "Allow: INVITE,ACK , BYE\r\n"
        "k: 100rel\r\n"
        "x-my-header: 1\r\n"));
    ASSERT_TRUE(m);
    const std::vector<std::string> vias{"SIP/2.0/UDP 10.0.0.2:5060;branch=z9hG4bK1", "SIP/2.0/UDP a;branch=z9hG4bK2",
                                        "SIP/2.0/UDP b"};
    EXPECT_EQ(m->vias(), vias);
    EXPECT_EQ(m->headers("Subject"), std::vector<std::string>{"a, b"});
    EXPECT_EQ(m->headers("Reply-To"), (std::vector<std::string>{"<sip:x@h>", "\"Doe, J\" <sip:y@h>"}));
    EXPECT_EQ(m->headers("m"), (std::vector<std::string>{"\"A, B\" <sip:a@h;x=\"p,q\">", "<sip:c@h>;q=0.5"}));
    EXPECT_EQ(m->headers("allow"), (std::vector<std::string>{"INVITE", "ACK", "BYE"}));
    EXPECT_EQ(m->header("Supported"), "100rel");
    EXPECT_EQ(m->header("X-MY-HEADER"), "1");
    bool sawCanonicalName = false;
    for (const HeaderField& h : m->headers()) sawCanonicalName |= h.name == "X-My-Header";
    EXPECT_TRUE(sawCanonicalName);
}

TEST(SipMessageTest, UnfoldsContinuationLines) {
    const auto m = SipMessage::parse(invite("Subject: a\r\n   b\r\n\tc\r\nAllow: INVITE,\r\n ACK\r\n"));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->header("Subject"), "a b c");
    EXPECT_EQ(m->headers("Allow"), (std::vector<std::string>{"INVITE", "ACK"}));
    // A continuation with no header before it is a header line by itself.
    const auto first = SipMessage::parse("INVITE sip:bob@h SIP/2.0\r\n " + kInviteHeaders + "\r\n");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->vias().size(), 1U);
}

TEST(SipMessageTest, TakesTheBodyByContentLength) {
    const struct {
        std::string text;
        std::string body;
    } cases[] = {
        {invite("Content-Length: 2\r\n", "abcde"), "ab"}, {invite("Content-Length: 0\r\n", "xyz"), ""},
        {invite("", "no length: all of it"), "no length: all of it"},
        {invite("l: 3\r\n", std::string("a\0b", 3)), std::string("a\0b", 3)},
        {invite("Content-Length: 4\r\nContent-Length: 1\r\n", "abcd"), "abcd"},  // the first one counts
        {invite("Content-Length: 4\r\n", "\r\n\r\n"), "\r\n\r\n"},
    };
    for (const auto& c : cases) {
        const auto m = SipMessage::parse(c.text);
        ASSERT_TRUE(m) << c.text;
        EXPECT_EQ(m->body, c.body);
    }
}

TEST(SipMessageTest, SerialisesWithOneComputedContentLengthLast) {
    auto m = SipMessage::parse(invite("Content-Length: 99\r\nl: 7\r\nContent-Type: text/plain\r\n", std::string(99, 'x')));
    ASSERT_TRUE(m);
    m->body = "hello";
    const std::string wire = m->toString();
    EXPECT_EQ(wire,
              "INVITE sip:bob@h SIP/2.0\r\n" + kInviteHeaders +
                  "Content-Type: text/plain\r\nContent-Length: 5\r\n\r\nhello");
    const auto again = SipMessage::parse(wire);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->toString(), wire);
    SipMessage response;
    response.statusCode = 200;
    response.addHeader("v", "SIP/2.0/UDP h;branch=z9hG4bK1");
    EXPECT_EQ(response.toString(), "SIP/2.0 200 \r\nVia: SIP/2.0/UDP h;branch=z9hG4bK1\r\nContent-Length: 0\r\n\r\n");
}

TEST(SipMessageTest, HeaderIntegersFollowOneRule) {
    const struct {
        const char* text;
        std::optional<int64_t> value;
    } cases[] = {
        {"0", 0}, {" \t70\r\n", 70}, {"-3", -3}, {"\v12\f", 12}, {"9223372036854775807", INT64_MAX},
        {"-9223372036854775808", INT64_MIN}, {"9223372036854775808", std::nullopt},
        {"-9223372036854775809", std::nullopt}, {"", std::nullopt}, {"-", std::nullopt}, {"+5", std::nullopt},
        {"5a", std::nullopt}, {"5 5", std::nullopt}, {"0x10", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(parseHeaderInteger(c.text), c.value) << c.text;
}

TEST(SipMessageTest, CanonicalNamesFollowTheCompactAndIrregularTables) {
    const std::pair<const char*, const char*> cases[] = {
        {"i", "Call-ID"}, {"M", "Contact"}, {"e", "Content-Encoding"}, {"l", "Content-Length"},
        {"c", "Content-Type"}, {"f", "From"}, {"s", "Subject"}, {"k", "Supported"}, {"t", "To"},
        {"V", "Via"}, {"o", "Event"}, {"r", "Refer-To"}, {"u", "Allow-Events"}, {"b", "Referred-By"},
        {"x", "Session-Expires"}, {"a", "Accept-Contact"}, {"j", "Reject-Contact"},
        {"d", "Request-Disposition"}, {"y", "Identity"}, {"z", "Z"}, {"call-id", "Call-ID"},
        {"CSEQ", "CSeq"}, {"www-authenticate", "WWW-Authenticate"}, {"Mime-Version", "MIME-Version"},
        {"RACK", "RAck"}, {"rseq", "RSeq"}, {"x-my-header", "X-My-Header"}, {"X-MY-HEADER", "X-My-Header"},
        {" proxy-authorization ", "Proxy-Authorization"}, {"record-route", "Record-Route"}, {"-x-", "-X-"},
        {"min-se", "Min-SE"}, {"sip-etag", "SIP-ETag"}, {"Sip-If-Match", "SIP-If-Match"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(canonicalHeaderName(in), out) << in;
}

class MakeResponseTest : public ::testing::Test {
protected:
    SipMessage request = *SipMessage::parse(invite(
        "Via: SIP/2.0/UDP proxy;branch=z9hG4bK9\r\n"
        "Record-Route: <sip:p1;lr>, <sip:p2;lr>\r\n"
        "Timestamp: 54\r\n"
        "Subject: not copied\r\n"
        "Content-Type: application/sdp\r\n",
        "v=0\r\n"));
};

TEST_F(MakeResponseTest, CopiesTheDialogHeadersInOrder) {
    const SipMessage r = makeResponse(request, 180, "", "tt");
    std::vector<std::string> names;
    for (const HeaderField& h : r.headers()) names.push_back(h.name);
    EXPECT_EQ(names, (std::vector<std::string>{"Via", "Via", "From", "To", "Call-ID", "CSeq", "Record-Route",
                                                "Record-Route", "Timestamp"}));
    EXPECT_EQ(r.reason, "Ringing");
    EXPECT_EQ(r.vias(), request.vias());
    EXPECT_EQ(r.header("To"), "<sip:bob@h>;tag=tt");
    EXPECT_TRUE(r.body.empty());
    EXPECT_TRUE(r.validate());
}

TEST_F(MakeResponseTest, TagsAndRouteSetsDependOnTheCode) {
    EXPECT_EQ(makeResponse(request, 100, "", "tt").toTag(), "");        // 100 is hop by hop
    EXPECT_EQ(makeResponse(request, 200, "", "").toTag(), "");          // no tag given
    EXPECT_EQ(makeResponse(request, 486, "", "tt").toTag(), "tt");
    EXPECT_TRUE(makeResponse(request, 486, "", "tt").recordRoutes().empty());
    EXPECT_TRUE(makeResponse(request, 100, "", "tt").recordRoutes().empty());
    EXPECT_EQ(makeResponse(request, 101, "", "tt").recordRoutes().size(), 2U);
    EXPECT_EQ(makeResponse(request, 299, "", "tt").recordRoutes().size(), 2U);
    EXPECT_TRUE(makeResponse(request, 300, "", "tt").recordRoutes().empty());
    EXPECT_EQ(makeResponse(request, 603, "Not Today", "").reason, "Not Today");
    // An existing To tag is never replaced; a tag without a value is.
    request.setHeader("To", "sip:bob@h;tag=old");
    EXPECT_EQ(makeResponse(request, 200, "", "new").header("To"), "sip:bob@h;tag=old");
    request.setHeader("To", "<sip:bob@h>;tag;x=1");
    EXPECT_EQ(makeResponse(request, 200, "", "new").header("To"), "<sip:bob@h>;tag=new;x=1");
}

}  // namespace
}  // namespace kelsip
