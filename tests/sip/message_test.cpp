// SIP messages: parse errors, header handling, serialisation and responses built from requests.
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

TEST(SipMessageTest, RejectsWithTheExactErrorTextOrAcceptsLenientForms) {
    const std::string options = "OPTIONS sip:h SIP/2.0\r\nFrom: <sip:a@h>;tag=1\r\nTo: <sip:b@h>\r\n";
    const std::string via = "Via: SIP/2.0/UDP h;branch=z9hG4bK1\r\n";
    const struct {
        std::string text;
        const char* error;  // "": accepted
    } cases[] = {
        {"", "empty message"},
        {"\r\n\r\n", "missing start line"},
        {"INVITE\r\n\r\n", "bad request line"},
        {"IN(VITE sip:h SIP/2.0\r\n\r\n", "bad method"},
        {"SIP/2.0\r\n\r\n", "bad status line"},
        {"SIP/2.0 99 Low\r\n\r\n", "bad status code"},
        {invite("Bad Name: x\r\n"), "bad header name"},
        {invite("NoColonHere\r\n"), "malformed header line"},
        {invite("Content-Length: abc\r\n"), "bad Content-Length"},
        {invite("Content-Length: 4\r\nl: 4\r\n", "abcd"), "repeated Content-Length header"},
        {options + "CSeq: 1 OPTIONS\r\n" + via + "\r\n", "missing Call-ID"},
        {options + "Call-ID: x\r\nCSeq: OPTIONS\r\n" + via + "\r\n", "missing/invalid CSeq"},
        {options + "Call-ID: x\r\nCSeq: 1 OPTIONS\r\nVia: SIP/2.0/UDP\r\n\r\n", "missing/invalid Via"},
        {invite("Max-Forwards: ten\r\n"), "invalid Max-Forwards"},
        {"INVITE sip:bob@h SIP/2.0\nVia: SIP/2.0/UDP h;branch=z9hG4bK1\nFrom: <sip:a@h>;tag=1\n"
         "To: sip:b@h\nCall-ID: x\nCSeq: 1 INVITE\n\n",
         ""},  // bare LF line ends
        {"INVITE sip:bob@h SIP/2.0\r\n" + kInviteHeaders, ""},  // no blank line at all
    };
    for (const auto& c : cases) {
        std::string error;
        const auto m = SipMessage::parse(c.text, &error);
        EXPECT_EQ(m ? "" : error, c.error) << c.text;
    }
}

TEST(SipMessageTest, SplitsListHeadersUnfoldsLinesAndExpandsCompactNames) {
    const auto m = SipMessage::parse(invite(
        "v: SIP/2.0/UDP a;branch=z9hG4bK2, SIP/2.0/UDP b\r\n"
        "Subject: a, b\r\n   c\r\n"
        "Contact: \"A, B\" <sip:a@h;x=\"p,q\">, <sip:c@h>;q=0.5 , ,\r\n"
        "Allow: INVITE,\r\n\tACK , BYE\r\n"
        "x-my-header: 1\r\n"));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->vias(), (std::vector<std::string>{"SIP/2.0/UDP 10.0.0.2:5060;branch=z9hG4bK1",
                                                   "SIP/2.0/UDP a;branch=z9hG4bK2", "SIP/2.0/UDP b"}));
    EXPECT_EQ(m->headers("Subject"), std::vector<std::string>{"a, b c"});
    EXPECT_EQ(m->headers("m"), (std::vector<std::string>{"\"A, B\" <sip:a@h;x=\"p,q\">", "<sip:c@h>;q=0.5"}));
    EXPECT_EQ(m->headers("allow"), (std::vector<std::string>{"INVITE", "ACK", "BYE"}));
    EXPECT_EQ(m->header("X-MY-HEADER"), "1");
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
        {invite("Content-Length: 2\r\n", "abcde"), "ab"},
        {invite("", "no length: all of it"), "no length: all of it"},
        {invite("l: 3\r\n", std::string("a\0b", 3)), std::string("a\0b", 3)},
    };
    for (const auto& c : cases) {
        const auto m = SipMessage::parse(c.text);
        ASSERT_TRUE(m) << c.text;
        EXPECT_EQ(m->body, c.body);
    }
}

TEST(SipMessageTest, SerialisesWithOneComputedContentLengthLast) {
    auto m = SipMessage::parse(invite("l: 99\r\nContent-Type: text/plain\r\n", std::string(99, 'x')));
    ASSERT_TRUE(m);
    m->body = "hello";
    EXPECT_EQ(m->toString(), "INVITE sip:bob@h SIP/2.0\r\n" + kInviteHeaders +
                                 "Content-Type: text/plain\r\nContent-Length: 5\r\n\r\nhello");
}

TEST(SipMessageTest, HeaderIntegersFollowOneRule) {
    const struct {
        const char* text;
        std::optional<int64_t> value;
    } cases[] = {
        {" \t70\r\n", 70},
        {"-3", -3},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", std::nullopt},
        {"+5", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(parseHeaderInteger(c.text), c.value) << c.text;
}

TEST(SipMessageTest, CanonicalNamesFollowTheCompactAndIrregularTables) {
    const std::pair<const char*, const char*> cases[] = {
        {"i", "Call-ID"},
        {"x", "Session-Expires"},
        {"CSEQ", "CSeq"},
        {"www-authenticate", "WWW-Authenticate"},
        {"X-MY-HEADER", "X-My-Header"},
        {" proxy-authorization ", "Proxy-Authorization"},
        {"min-se", "Min-SE"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(canonicalHeaderName(in), out) << in;
}

TEST(MakeResponseTest, CopiesTheDialogHeadersAndTagsAndRoutesByTheCode) {
    SipMessage request = *SipMessage::parse(invite(
        "Record-Route: <sip:p1;lr>, <sip:p2;lr>\r\nTimestamp: 54\r\nSubject: not copied\r\n", "v=0\r\n"));
    const SipMessage r = makeResponse(request, 180, "", "tt");
    std::vector<std::string> names;
    for (const HeaderField& h : r.headers()) names.push_back(h.name);
    EXPECT_EQ(names, (std::vector<std::string>{"Via", "From", "To", "Call-ID", "CSeq", "Record-Route",
                                               "Record-Route", "Timestamp"}));
    EXPECT_EQ(r.reason, "Ringing");
    EXPECT_EQ(r.header("To"), "<sip:bob@h>;tag=tt");
    EXPECT_EQ(makeResponse(request, 100, "", "tt").toTag(), "");  // 100 is hop by hop
    EXPECT_TRUE(makeResponse(request, 100, "", "tt").recordRoutes().empty());
    EXPECT_EQ(makeResponse(request, 299, "", "tt").recordRoutes().size(), 2U);
    EXPECT_TRUE(makeResponse(request, 300, "", "tt").recordRoutes().empty());
    // An existing To tag is never replaced; a tag without a value is.
    request.setHeader("To", "sip:bob@h;tag=old");
    EXPECT_EQ(makeResponse(request, 200, "", "new").header("To"), "sip:bob@h;tag=old");
    request.setHeader("To", "<sip:bob@h>;tag;x=1");
    EXPECT_EQ(makeResponse(request, 200, "", "new").header("To"), "<sip:bob@h>;tag=new;x=1");
}

TEST(MalformedAnswerTest, CopiesTheHeadersAsWrittenAndAddsAStableToTag) {
    const std::string request =
        "OPTIONS sip:h SIP/2.0\r\nv:  SIP/2.0/UDP a;branch=z9hG4bK1, SIP/2.0/UDP b\r\nTo: <sip:b@h>\r\n"
        "To: <sip:c@h>\r\nVia: SIP/2.0/TCP c\r\nFrom: <sip:a@h>;tag=1\r\nCall-ID: x\r\nCSeq: 1 OPTIONS\r\n\r\n";
    std::string error;
    ASSERT_FALSE(SipMessage::parse(request, &error));
    const auto answer = answerMalformedRequest(request, error);
    ASSERT_TRUE(answer);
    const auto response = SipMessage::parse(answer->response);
    ASSERT_TRUE(response);
    EXPECT_EQ(answer->response, "SIP/2.0 400 Repeated To Header\r\nv:  SIP/2.0/UDP a;branch=z9hG4bK1, SIP/2.0/UDP b\r\n"
                                "Via: SIP/2.0/TCP c\r\nFrom: <sip:a@h>;tag=1\r\nTo: <sip:b@h>;tag=" +
                                    response->toTag() + "\r\nCall-ID: x\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(answerMalformedRequest(request, error), answer);  // a retransmission gets the same tag
    std::string other = request;
    other.replace(other.find("bK1"), 3, "bK2");
    EXPECT_NE(SipMessage::parse(answerMalformedRequest(other, error)->response)->toTag(), response->toTag());
    other.replace(other.find("<sip:b@h>"), 9, "<sip:b@h>;tag=9");
    EXPECT_NE(answerMalformedRequest(other, error)->response.find("To: <sip:b@h>;tag=9\r\n"), std::string::npos);
    // Nothing for an ACK, a response, a request without a Via or without a request line.
    for (const char* bytes : {"ACK sip:h SIP/2.0\r\nVia: SIP/2.0/UDP a\r\n", "SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP a\r\n",
                              "BYE sip:h SIP/2.0\r\nVia: SIP/2.0/UDP\r\n", "BYE sip:h\r\nVia: SIP/2.0/UDP a\r\n"}) {
        EXPECT_FALSE(answerMalformedRequest(bytes, "bad Request-URI")) << bytes;
    }
}

}  // namespace
}  // namespace kelsip
