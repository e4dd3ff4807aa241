// The published SIP torture messages (RFC 4475, RFC 5118): which ones our
// parser refuses and with what error; every other one parses and survives a
// round trip through the serialiser.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "sip/syntax/message.h"

namespace kelsip {
namespace {

namespace fs = std::filesystem;

// Lenient where a higher layer answers with the request in hand (odd Date, unknown Require or Content-Type,
// doubled From, URI headers in a Contact); strict on framing, the start line and the transaction's headers.
const std::map<std::string, std::string> kRefused = {
    {"rfc4475/clerr.dat", "truncated body"},
    {"rfc4475/ncl.dat", "bad Content-Length"},  // negative
    {"rfc4475/scalar02.dat", "missing/invalid CSeq"},  // not below 2^31
    {"rfc4475/scalarlg.dat", "missing/invalid CSeq"},  // overflows
    {"rfc4475/quotbal.dat", "missing/invalid To"},  // an unbalanced quote hides the '<'
    {"rfc4475/ltgtruri.dat", "bad Request-URI"},  // in angle brackets
    {"rfc4475/lwsstart.dat", "bad Request-URI"},  // two spaces after the method
    {"rfc4475/trws.dat", "unsupported SIP version"},  // trailing white space after SIP/2.0
    {"rfc4475/badaspec.dat", "missing/invalid To"},  // white space inside the brackets
    {"rfc4475/badvers.dat", "unsupported SIP version"},
    {"rfc4475/mismatch01.dat", "CSeq method does not match request method"},
    {"rfc4475/mismatch02.dat", "CSeq method does not match request method"},
    {"rfc4475/bigcode.dat", "bad status code"},
    {"rfc4475/insuf.dat", "missing/invalid From"},  // From is checked first
    {"rfc4475/unkscm.dat", "bad Request-URI"},  // only sip, sips and tel are understood
    {"rfc4475/novelsc.dat", "bad Request-URI"},
    {"rfc4475/unksm2.dat", "missing/invalid From"},  // non-SIP From and To cannot be addressed
    {"rfc4475/test.dat", "bad request line"},  // not a message
    {"rfc5118/ipv6-in-sdp.dat", "truncated body"},  // Content-Length 268, 242 bytes of body
    {"rfc5118/mult-ip-in-sdp.dat", "truncated body"},  // Content-Length 181, 180 bytes
    {"rfc5118/ipv6-bad.dat", "bad Request-URI"},  // no brackets: a non-numeric port
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
            EXPECT_EQ(m ? "" : error, it == kRefused.end() ? "" : it->second);
            if (!m) continue;
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
