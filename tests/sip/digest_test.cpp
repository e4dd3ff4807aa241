// Digest authentication: challenges read, responses computed, credentials written.
#include "sip/auth/digest.h"
#include "sip/syntax/message.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelsip {
namespace {

TEST(DigestTest, ComputesResponses) {
    const struct {
        const char* what;
        DigestChallenge challenge;
        DigestRequest request;
        const char* response;
    } cases[] = {
        {"RFC 2617 section 3.5",
         {"testrealm@host.com", "dcd98b7102dd2f0e8b11d0f600bfb0c093", "5ccc069c403ebaf9f0171e9517f40e41", "MD5",
          "auth"},
         {"Mufasa", "Circle Of Life", "GET", "/dir/index.html", 1, "0a4f113b"},
         "6629fae49393a05397450978507c4ef1"},
        {"MD5-sess with qop, second request under the nonce",
         {"example.com", "5f2e9c1b7a", "", "MD5-sess", "auth"},
         {"alice", "secret", "REGISTER", "sip:example.com", 2, "deadbeefcafe0001"},
         "bde46619bb942893e2c2fd43ca2a0f94"},
        {"MD5 without qop ignores nc and cnonce",
         {"example.com", "5f2e9c1b7a"}, {"alice", "secret", "REGISTER", "sip:example.com", 7, "ignored"},
         "ad453bdc7dc6bf384901b99bddca6a2c"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(computeResponse(c.challenge, c.request), c.response) << c.what;
    }
}

TEST(DigestTest, ParsesChallengesOrRefusesThem) {
    struct Expect {
        const char* realm = "";
        const char* nonce = "";
        const char* opaque = "";
        const char* algorithm = "MD5";
        const char* qop = "";
        bool stale = false;
    };
    const struct {
        const char* value;
        bool ok;
        Expect expect = {};
    } cases[] = {
        {R"(Digest realm="a.com", nonce="n1", opaque="o", algorithm=MD5, qop="auth")", true,
         {"a.com", "n1", "o", "MD5", "auth"}},
        {" \tDIGEST\trealm = \"a\" ,\t nonce=n1 , algorithm=md5-sess, qop = \" auth-int , Auth\" ", true,
         {"a", "n1", "", "md5-sess", "auth"}},
        {R"(Digest nonce="n1", opaque="x, nonce=evil", realm="r")", true, {"r", "n1", "x, nonce=evil"}},
        {R"(Digest realm="say \"hi\" \\o/", nonce="n\,1")", true, {"say \"hi\" \\o/", "n,1"}},
        {R"(Digest nonce="n1", stale=TRUE)", true, {"", "n1", "", "MD5", "", true}},
        {R"(Digest junk, realm="r", , nonce="n1", noequals)", true, {"r", "n1"}},
        {R"(Basic realm="a.com")", false},
        {R"(Digest nonce="n1", algorithm=SHA-256)", false},
        {R"(Digest realm="a.com", qop="auth")", false},
        {R"(Digest realm="nonce=inside")", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const auto parsed = parseChallenge(c.value, false);
        ASSERT_EQ(parsed.has_value(), c.ok);
        if (!parsed) continue;
        EXPECT_EQ(parsed->realm, c.expect.realm);
        EXPECT_EQ(parsed->nonce, c.expect.nonce);
        EXPECT_EQ(parsed->opaque, c.expect.opaque);
        EXPECT_EQ(parsed->algorithm, c.expect.algorithm);
        EXPECT_EQ(parsed->qop, c.expect.qop);
        EXPECT_EQ(parsed->stale, c.expect.stale);
    }
}

TEST(DigestTest, TakesTheFirstUsableChallengeOfTheHeaderTheCodeNames) {
    const struct {
        int code;
        const char* header;
        const char* nonce;  // of the challenge taken; "": none
    } cases[] = {
        {401, "WWW-Authenticate", "n2"},
        {407, "Proxy-Authenticate", "n2"},
        {407, "WWW-Authenticate", ""},
        {403, "WWW-Authenticate", ""},
    };
    for (const auto& c : cases) {
        SipMessage response;
        response.statusCode = c.code;
        response.addHeader(c.header, "Basic realm=\"r\"");
        response.addHeader(c.header, "Digest nonce=\"n2\"");
        const auto challenge = challengeOf(response);
        EXPECT_EQ(challenge ? challenge->nonce : "", c.nonce) << c.code << " " << c.header;
        EXPECT_EQ(challenge.has_value() && challenge->proxy, c.code == 407 && *c.nonce != '\0');
    }
}

TEST(DigestTest, WritesCredentialsExactly) {
    const DigestChallenge plain{"example.com", "5f2e9c1b7a"};
    DigestRequest request{"alice", "secret", "REGISTER", "sip:example.com"};
    EXPECT_EQ(buildAuthorization(plain, request),
              R"(Digest username="alice", realm="example.com", nonce="5f2e9c1b7a", uri="sip:example.com", )"
              R"(response="ad453bdc7dc6bf384901b99bddca6a2c", algorithm=MD5)");
    EXPECT_EQ(request.cnonce, "") << "no qop and plain MD5 need no cnonce";
    const DigestChallenge rfc{"testrealm@host.com", "dcd98b7102dd2f0e8b11d0f600bfb0c093",
                              "5ccc069c403ebaf9f0171e9517f40e41", "MD5", "auth"};
    DigestRequest mufasa{"Mufasa", "Circle Of Life", "GET", "/dir/index.html", 1, "0a4f113b"};
    EXPECT_EQ(buildAuthorization(rfc, mufasa),
              R"(Digest username="Mufasa", realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093", )"
              R"(uri="/dir/index.html", response="6629fae49393a05397450978507c4ef1", algorithm=MD5, )"
              R"(opaque="5ccc069c403ebaf9f0171e9517f40e41", qop=auth, nc=00000001, cnonce="0a4f113b")");
    EXPECT_EQ(mufasa.cnonce, "0a4f113b");
}
}  // namespace
}  // namespace kelsip
