// Digest authentication for the client side: reading a 401/407 challenge and
// answering it with an Authorization or Proxy-Authorization value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelsip {

class SipMessage;

// What a WWW-Authenticate or Proxy-Authenticate value asked for. Every
// member has an initializer, so that callers name only the fields they set.
struct DigestChallenge {
    std::string realm{};
    std::string nonce{};
    std::string opaque{};
    std::string algorithm = "MD5";  // "MD5" or "MD5-sess", spelled as the server did
    std::string qop{};              // "auth" when the server offered it, else empty
    bool stale = false;             // the password was right, only the nonce had expired
    bool proxy = false;             // came from Proxy-Authenticate in a 407
};

// The credentials and the request they are computed over.
struct DigestRequest {
    std::string username{};
    std::string password{};
    std::string method{};
    std::string uri{};          // the Request-URI as sent
    uint32_t nonceCount = 1;    // requests sent with this nonce, this one included
    std::string cnonce{};       // made by buildAuthorization when first needed, then kept
};

// One "name=value" item of a Digest parameter list.
struct AuthParam {
    std::string name;   // lower-cased
    std::string value;  // unquoted, escapes undone

    friend bool operator==(const AuthParam&, const AuthParam&) = default;
};

// The parameters of a "Digest ..." value (challenge or credentials), in the
// order given; items without "=" are left out. Absent when the scheme is not
// Digest.
[[nodiscard]] std::optional<std::vector<AuthParam>> parseDigestParams(std::string_view headerValue);

// Absent when the value is not a Digest challenge the stack can answer: no
// nonce, or an algorithm other than MD5 and MD5-sess. `fromProxy` says it
// came from Proxy-Authenticate.
[[nodiscard]] std::optional<DigestChallenge> parseChallenge(std::string_view headerValue, bool fromProxy);

// The 32 hex digits of the "response" parameter. With MD5-sess or a qop the
// request's cnonce must already be set.
[[nodiscard]] std::string computeResponse(const DigestChallenge& challenge, const DigestRequest& request);

// The value of the Authorization (or Proxy-Authorization) header answering
// `challenge`. Makes `request.cnonce` when the answer needs one and it is
// still empty, so that later requests under the same nonce reuse it.
[[nodiscard]] std::string buildAuthorization(const DigestChallenge& challenge, DigestRequest& request);

// The first challenge of a 401 (WWW-Authenticate) or a 407
// (Proxy-Authenticate) that the stack can answer; absent for any other
// answer, or when none of its challenges will do.
[[nodiscard]] std::optional<DigestChallenge> challengeOf(const SipMessage& response);

// "Proxy-Authorization" for a proxy's challenge, else "Authorization".
[[nodiscard]] std::string_view authorizationHeaderName(const DigestChallenge& challenge);

}  // namespace kelsip
