// The published SIP torture messages (RFC 4475, RFC 5118): which ones our
// parser refuses, with what error and what answer; every other one parses and
// survives a round trip through the serialiser.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "sip/syntax/message.h"

namespace kelsip {
namespace {

namespace fs = std::filesystem;

struct Refusal {
    const char* error;
    int answer;  // the status answerMalformedRequest gives; 0: none
};

// Lenient where a higher layer answers with the request in hand (odd Date, unknown Require or Content-Type,
// URI headers in a Contact); strict on framing, the start line and the transaction's headers, each of which
// must appear once. A refused request is answered when it has a request line and a Via to answer through.
const std::map<std::string, Refusal> kRefused = {
    {"rfc4475/clerr.dat", {"truncated body", 400}},
    {"rfc4475/ncl.dat", {"bad Content-Length", 400}},  // negative
    {"rfc4475/scalar02.dat", {"missing/invalid CSeq", 400}},  // not below 2^31
    {"rfc4475/scalarlg.dat", {"missing/invalid CSeq", 0}},  // overflows, in a response
    {"rfc4475/quotbal.dat", {"missing/invalid To", 400}},  // an unbalanced quote hides the '<'
    {"rfc4475/ltgtruri.dat", {"bad Request-URI", 400}},  // in angle brackets
    {"rfc4475/lwsruri.dat", {"bad Request-URI", 400}},  // white space inside
    {"rfc4475/lwsstart.dat", {"extra spaces in request line", 400}},
    {"rfc4475/trws.dat", {"extra spaces in request line", 400}},  // after SIP/2.0
    {"rfc4475/badaspec.dat", {"missing/invalid To", 400}},  // white space inside the brackets
    {"rfc4475/badvers.dat", {"unsupported SIP version", 505}},
    {"rfc4475/mismatch01.dat", {"CSeq method does not match request method", 400}},
    {"rfc4475/mismatch02.dat", {"CSeq method does not match request method", 400}},
    {"rfc4475/bigcode.dat", {"bad status code", 0}},  // a response
    {"rfc4475/insuf.dat", {"missing/invalid From", 400}},  // From is checked first
    {"rfc4475/unkscm.dat", {"unsupported Request-URI scheme", 416}},  // only sip, sips and tel are understood
    {"rfc4475/novelsc.dat", {"unsupported Request-URI scheme", 416}},
    // Valid, but the user agent keeps a dialog's addresses as sip, sips or tel name-addrs: with another
    // scheme it would keep the From tag inside the remote URI and have no target for in-dialog requests.
    {"rfc4475/unksm2.dat", {"missing/invalid From", 400}},
    {"rfc4475/multi01.dat", {"repeated CSeq header", 400}},  // the first repeated of several
    {"rfc4475/mcl01.dat", {"repeated Content-Length header", 400}},
    {"rfc4475/test.dat", {"bad request line", 0}},  // not a message
    {"rfc5118/ipv6-in-sdp.dat", {"truncated body", 400}},  // Content-Length 268, 242 bytes of body
    {"rfc5118/mult-ip-in-sdp.dat", {"truncated body", 400}},  // Content-Length 181, 180 bytes
    {"rfc5118/ipv6-bad.dat", {"bad Request-URI", 400}},  // no brackets: a non-numeric port
};

TEST(TortureTest, EveryMessageHasItsRecordedOutcome) {
    size_t files = 0;
    size_t refused = 0;
    for (const char* dir : {"rfc4475", "rfc5118"}) {
        for (const auto& entry : fs::directory_iterator(fs::path(VELMORA_TORTURE_DIR) / dir)) {
            const std::string name = std::string(dir) + "/" + entry.path().filename().string();
            SCOPED_TRACE(name);
            std::ifstream in(entry.path(), std::ios::binary);
            std::ostringstream bytes;
            bytes << in.rdbuf();
            ++files;
            std::string error;
            const auto m = SipMessage::parse(bytes.str(), &error);
            const auto it = kRefused.find(name);
            refused += it != kRefused.end();
            const Refusal expected = it == kRefused.end() ? Refusal{"", 0} : it->second;
            EXPECT_EQ(m ? "" : error, expected.error);
            if (!m) {
                const auto answer = answerMalformedRequest(bytes.str(), error);
                EXPECT_EQ(answer ? answer->status : 0, expected.answer);
                continue;
            }
            const auto again = SipMessage::parse(m->toString(), &error);
            ASSERT_TRUE(again) << error;
            EXPECT_EQ(again->toString(), m->toString());
            EXPECT_TRUE(again->requestUri == m->requestUri);
            EXPECT_EQ(again->body, m->body);
        }
    }
    EXPECT_EQ(refused, kRefused.size());
    EXPECT_EQ(files, 62U);
}

}  // namespace
}  // namespace kelsip
