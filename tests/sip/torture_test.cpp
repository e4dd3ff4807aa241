// The published SIP torture messages (RFC 4475, RFC 5118): what our parser
// does with each one, and why.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "sip/syntax/message.h"

namespace kelsip {
namespace {

namespace fs = std::filesystem;

struct Outcome {
    const char* file;   // relative to the torture folder
    const char* error;  // "" when the message is accepted
    const char* why;
};

// The parser is lenient where a higher layer is the better judge (it answers
// 400, 415, 416 or 420 with the request in hand) and strict where the bytes
// cannot be trusted: framing, the start line, and the headers every
// transaction needs.
const Outcome kOutcomes[] = {
    // RFC 4475 3.1.1: valid messages.
    {"rfc4475/wsinv.dat", "", "odd white space and line folding are legal"},
    {"rfc4475/intmeth.dat", "", "an unknown method is a token; CSeq repeats it exactly"},
    {"rfc4475/esc01.dat", "", "escapes are kept, never decoded by the parser"},
    {"rfc4475/escnull.dat", "", "an escaped NUL is three bytes of text"},
    {"rfc4475/esc02.dat", "", "'%' is a token character: escapes in method and header names are not decoded"},
    {"rfc4475/lwsdisp.dat", "", "a display name without white space before '<' is fine"},
    {"rfc4475/longreq.dat", "", "21 Vias and lines of hundreds of bytes: no limit here"},
    {"rfc4475/dblreq.dat", "", "Content-Length ends the first message; the second is ignored"},
    {"rfc4475/semiuri.dat", "", "';' inside the user part of the last '@' is user text"},
    {"rfc4475/transports.dat", "", "unknown Via transports are tokens"},
    {"rfc4475/mpart01.dat", "", "a multipart body is opaque bytes"},
    {"rfc4475/unreason.dat", "", "any bytes are allowed in a reason phrase"},
    {"rfc4475/noreason.dat", "", "an empty reason phrase is allowed"},
    // RFC 4475 3.1.2: invalid messages.
    {"rfc4475/badinv01.dat", "", "lenient: empty Via and Contact elements are dropped; the top Via still parses"},
    {"rfc4475/clerr.dat", "truncated body", "Content-Length exceeds the bytes that arrived"},
    {"rfc4475/ncl.dat", "bad Content-Length", "a negative Content-Length"},
    {"rfc4475/scalar02.dat", "missing/invalid CSeq", "CSeq number not below 2^31"},
    {"rfc4475/scalarlg.dat", "missing/invalid CSeq", "CSeq number overflows"},
    {"rfc4475/quotbal.dat", "missing/invalid To", "an unbalanced quote hides the '<' of To"},
    {"rfc4475/ltgtruri.dat", "bad Request-URI", "the Request-URI is in angle brackets"},
    {"rfc4475/lwsruri.dat", "", "lenient: white space before a URI parameter is trimmed"},
    {"rfc4475/lwsstart.dat", "bad Request-URI", "two spaces after the method leave a space in the Request-URI"},
    {"rfc4475/trws.dat", "unsupported SIP version", "trailing white space after SIP/2.0"},
    {"rfc4475/escruri.dat", "", "lenient: URI headers are kept as raw text for the dialog layer to refuse"},
    {"rfc4475/baddate.dat", "", "lenient: the Date header is not interpreted"},
    {"rfc4475/regbadct.dat", "", "lenient: the registrar, not the parser, judges a Contact with URI headers"},
    {"rfc4475/badaspec.dat", "missing/invalid To", "white space inside the angle brackets of To"},
    {"rfc4475/baddn.dat", "", "lenient: an unquoted display name with a comma is still readable"},
    {"rfc4475/badvers.dat", "unsupported SIP version", "SIP/7.0"},
    {"rfc4475/mismatch01.dat", "CSeq method does not match request method", "CSeq says another method"},
    {"rfc4475/mismatch02.dat", "CSeq method does not match request method", "unknown method, CSeq mismatched"},
    {"rfc4475/bigcode.dat", "bad status code", "a four-digit status code"},
    // RFC 4475 3.2 and 3.3: for the transaction and application layers.
    {"rfc4475/badbranch.dat", "", "a branch of the magic cookie alone; matching it is the transaction layer's work"},
    {"rfc4475/insuf.dat", "missing/invalid From", "mandatory headers are missing; From is checked first"},
    {"rfc4475/unkscm.dat", "bad Request-URI", "only sip, sips and tel are understood"},
    {"rfc4475/novelsc.dat", "bad Request-URI", "the soap.beep scheme is not one we can route"},
    {"rfc4475/unksm2.dat", "missing/invalid From", "From and To in non-SIP schemes cannot be addressed; From is checked first"},
    {"rfc4475/bext01.dat", "", "unknown Require options are answered with 420 above the parser"},
    {"rfc4475/invut.dat", "", "an unknown Content-Type is answered with 415 above the parser"},
    {"rfc4475/regaut01.dat", "", "an unknown Authorization scheme is the registrar's concern"},
    {"rfc4475/multi01.dat", "", "lenient: From, To, Call-ID and CSeq appear twice; the first of each is read"},
    {"rfc4475/mcl01.dat", "", "several Content-Length values: the first one frames the body"},
    {"rfc4475/bcast.dat", "", "a broadcast address in Via is still a valid sent-by"},
    {"rfc4475/zeromf.dat", "", "Max-Forwards 0 is a number; acting on it is the proxy's job"},
    {"rfc4475/cparam01.dat", "", "Contact parameters without a value"},
    {"rfc4475/cparam02.dat", "", "Contact parameters with quoted values"},
    {"rfc4475/regescrt.dat", "", "escaped headers in a Contact URI are kept as text"},
    {"rfc4475/sdp01.dat", "", "an Accept without SDP is answered with 406 above the parser"},
    // RFC 4475 3.4: backward compatibility.
    {"rfc4475/inv2543.dat", "", "RFC 2543 syntax is accepted"},
    {"rfc4475/test.dat", "bad request line", "not a message: no section refers to this file"},
    // RFC 5118.
    {"rfc5118/ipv6-good.dat", "", "IPv6 references in brackets"},
    {"rfc5118/port-ambiguous.dat", "", "the whole bracketed text is the host; no port"},
    {"rfc5118/port-unambiguous.dat", "", "the port follows the ']'"},
    {"rfc5118/via-received-param-with-delim.dat", "", "received carries an IPv6 reference in brackets"},
    {"rfc5118/via-received-param-no-delim.dat", "", "received carries a bare IPv6 address"},
    {"rfc5118/ipv6-in-sdp.dat", "truncated body",
     "the published Content-Length (268) exceeds the body (242 bytes, 251 even with CRLF line ends)"},
    {"rfc5118/mult-ip-in-header.dat", "", "IPv4 and IPv6 Vias in one message"},
    {"rfc5118/mult-ip-in-sdp.dat", "truncated body", "the published Content-Length (181) exceeds the body (180 bytes)"},
    {"rfc5118/ipv4-mapped-ipv6.dat", "", "an IPv4-mapped IPv6 reference"},
    {"rfc5118/ipv6-correct-abnf-2-colons.dat", "", "the corrected IPv6 grammar"},
    {"rfc5118/ipv6-bug-abnf-3-colons.dat", "",
     "brackets are checked, the literal is not: RFC 5118 asks for robustness, and resolving the host rejects it"},
    {"rfc5118/ipv6-bad.dat", "bad Request-URI", "an IPv6 address without brackets leaves a non-numeric port"},
};

std::string tortureDir() { return VELMORA_TORTURE_DIR; }

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void expectSameModel(const SipMessage& a, const SipMessage& b) {
    EXPECT_EQ(a.isRequest, b.isRequest);
    EXPECT_EQ(a.method, b.method);
    EXPECT_EQ(a.requestUri.toString(), b.requestUri.toString());
    EXPECT_TRUE(a.requestUri == b.requestUri);
    EXPECT_EQ(a.statusCode, b.statusCode);
    EXPECT_EQ(a.reason, b.reason);
    EXPECT_EQ(a.body, b.body);
    // The serialiser rewrites Content-Length; every other pair must survive.
    std::vector<HeaderField> ha;
    std::vector<HeaderField> hb;
    for (const HeaderField& h : a.headers()) {
        if (h.name != "Content-Length") ha.push_back(h);
    }
    for (const HeaderField& h : b.headers()) {
        if (h.name != "Content-Length") hb.push_back(h);
    }
    EXPECT_EQ(ha, hb);
}

TEST(TortureTest, EveryMessageHasItsRecordedOutcome) {
    for (const Outcome& o : kOutcomes) {
        SCOPED_TRACE(std::string(o.file) + ": " + o.why);
        const std::string bytes = readFile(tortureDir() + "/" + o.file);
        ASSERT_FALSE(bytes.empty()) << "cannot read " << o.file;
        std::string error;
        const auto m = SipMessage::parse(bytes, &error);
        EXPECT_EQ(m ? std::string() : error, o.error);
        if (!m) continue;
        const auto again = SipMessage::parse(m->toString(), &error);
        ASSERT_TRUE(again) << error;
        expectSameModel(*m, *again);
        EXPECT_EQ(again->toString(), m->toString());
    }
}

TEST(TortureTest, TheTableCoversEveryFile) {
    std::set<std::string> listed;
    for (const Outcome& o : kOutcomes) listed.insert(o.file);
    size_t files = 0;
    for (const char* dir : {"rfc4475", "rfc5118"}) {
        for (const auto& entry : fs::directory_iterator(fs::path(tortureDir()) / dir)) {
            const std::string name = std::string(dir) + "/" + entry.path().filename().string();
            EXPECT_TRUE(listed.count(name)) << name << " has no recorded outcome";
            ++files;
        }
    }
    EXPECT_EQ(files, listed.size());
}

}  // namespace
}  // namespace kelsip
