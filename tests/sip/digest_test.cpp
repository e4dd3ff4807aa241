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
        // Worked by hand: HA1 = md5("alice:example.com:secret") = b1726872...,
        // session HA1 = md5(HA1 ":5f2e9c1b7a:deadbeefcafe0001") = 64a9af45...,
        // HA2 = md5("REGISTER:sip:example.com") = 0264b00a...
        {"MD5-sess with qop, second request under the nonce",
         {"example.com", "5f2e9c1b7a", "", "MD5-sess", "auth"},
         {"alice", "secret", "REGISTER", "sip:example.com", 2, "deadbeefcafe0001"},
         "bde46619bb942893e2c2fd43ca2a0f94"},
        {"MD5-sess spelled in other case, no qop",
         {"example.com", "5f2e9c1b7a", "", "md5-SESS"},
         {"alice", "secret", "REGISTER", "sip:example.com", 1, "deadbeefcafe0001"},
         "aacc4a6a43f865cbb4f99c2a1d042bd5"},
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
        {R"(digest nonce="n1", algorithm=md5-sess)", true, {"", "n1", "", "md5-sess"}},
        {" \tDIGEST\trealm = \"a\" ,\t nonce=n1 , qop = \" auth-int , Auth\" \t", true, {"a", "n1", "", "MD5", "auth"}},
        {R"(Digest nonce="n1", qop="auth-int")", true, {"", "n1"}},
        {R"(Digest nonce="n1", opaque="x, nonce=evil", realm="r")", true, {"r", "n1", "x, nonce=evil"}},
        {R"(Digest realm="say \"hi\" \\o/", nonce="n\,1")", true, {"say \"hi\" \\o/", "n,1"}},
        {R"(Digest nonce="n1", stale=TRUE)", true, {"", "n1", "", "MD5", "", true}},
        {R"(Digest nonce="n1", stale=false)", true, {"", "n1"}},
        {R"(Digest nonce="n1", stale="yes")", true, {"", "n1"}},
        {R"(Digest junk, realm="r", , nonce="n1", noequals)", true, {"r", "n1"}}, {R"(Digest nonce="")", true, {}},
        {R"(Basic realm="a.com")", false}, {R"(DigestX nonce="n1")", false},
        {R"(Digest nonce="n1", algorithm=SHA-256)", false}, {R"(Digest nonce="n1", algorithm="")", false},
        {R"(Digest realm="a.com", qop="auth")", false}, {R"(Digest realm="nonce=inside")", false}, {"Digest", false},
        {"", false},
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
        EXPECT_FALSE(parsed->proxy);
    }
}

TEST(DigestTest, TakesTheFirstUsableChallengeOfTheAnswersHeader) {
    struct Case {
        int code;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string nonce;  // of the challenge taken; empty: none
        bool proxy;
    };
    const Case cases[] = {
        {401, {{"WWW-Authenticate", "Basic realm=\"r\""}, {"WWW-Authenticate", "Digest nonce=\"n2\""}}, "n2", false},
        {401, {{"WWW-Authenticate", "Digest nonce=\"n1\", algorithm=SHA-256"}}, "", false},
        {407, {{"Proxy-Authenticate", "Digest nonce=\"p1\""}}, "p1", true},
        // The header the code does not name is not read.
        {407, {{"WWW-Authenticate", "Digest nonce=\"w1\""}}, "", false},
        {403, {{"WWW-Authenticate", "Digest nonce=\"x\""}}, "", false},
    };
    for (const Case& c : cases) {
        SipMessage response;
        response.statusCode = c.code;
        for (const auto& [name, value] : c.headers) response.addHeader(name, value);
        const auto challenge = challengeOf(response);
        SCOPED_TRACE(c.code);
        ASSERT_EQ(challenge.has_value(), !c.nonce.empty());
        if (!challenge) continue;
        EXPECT_EQ(challenge->nonce, c.nonce);
        EXPECT_EQ(challenge->proxy, c.proxy);
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

TEST(DigestTest, EscapesQuotesAndBackslashesSoValuesReadBackIntact) {
    const DigestChallenge challenge{R"(r"e\alm)", "n", R"(o\")"};
    DigestRequest request{R"(al"ice\)", "pw", "INVITE", "sip:b@h"};
    const std::string value = buildAuthorization(challenge, request);
    EXPECT_NE(value.find(R"(username="al\"ice\\")"), std::string::npos) << value;
    const auto params = parseDigestParams(value);
    ASSERT_TRUE(params);
    ASSERT_GE(params->size(), 3u);
    EXPECT_EQ((*params)[0], (AuthParam{"username", R"(al"ice\)"}));
    EXPECT_EQ((*params)[1], (AuthParam{"realm", R"(r"e\alm)"}));
    EXPECT_EQ((*params)[2], (AuthParam{"nonce", "n"}));
    EXPECT_EQ(params->back(), (AuthParam{"opaque", R"(o\")"}));
}

}  // namespace
}  // namespace kelsip
