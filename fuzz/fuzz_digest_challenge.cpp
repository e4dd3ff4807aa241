// Fuzz target for parseChallenge and the credentials that answer it.
#include <vector>

#include "fuzz/fuzz_support.h"
#include "sip/auth/digest.h"
#include "sip/syntax/text.h"

using velmora::fuzz::require;

VELMORA_FUZZ_TARGET {
    const auto challenge = kelsip::parseChallenge(input, false);
    const auto fromProxy = kelsip::parseChallenge(input, true);
    require(challenge.has_value() == fromProxy.has_value(), "where it came from does not decide whether it parses",
            input);
    if (!challenge) return;
    require(fromProxy->proxy && !challenge->proxy, "the proxy flag follows the header it came from", input);

    // Credentials built from the challenge's own bytes, with a quote and a
    // backslash that must be escaped on the way out.
    kelsip::DigestRequest request{challenge->opaque + "\"\\" + challenge->realm, challenge->nonce, "REGISTER",
                                  "sip:" + challenge->realm, 1, ""};
    const std::string value = kelsip::buildAuthorization(*challenge, request);
    const bool needsCnonce = !challenge->qop.empty() || kelsip::text::iequals(challenge->algorithm, "MD5-sess");
    require(request.cnonce.size() == (needsCnonce ? 16u : 0u), "a cnonce is made exactly when needed", input, value);

    // The server splits our value the same way: every parameter must come
    // back whole, in order, with the value we meant.
    const auto params = kelsip::parseDigestParams(value);
    require(params.has_value(), "our credentials are a Digest value", input, value);
    std::vector<kelsip::AuthParam> expected = {
        {"username", request.username},
        {"realm", challenge->realm},
        {"nonce", challenge->nonce},
        {"uri", request.uri},
        {"response", kelsip::computeResponse(*challenge, request)},
        {"algorithm", challenge->algorithm},
    };
    if (!challenge->opaque.empty()) expected.push_back({"opaque", challenge->opaque});
    if (!challenge->qop.empty()) {
        expected.push_back({"qop", "auth"});
        expected.push_back({"nc", "00000001"});
        expected.push_back({"cnonce", request.cnonce});
    }
    require(*params == expected, "every parameter of our credentials reads back as written", input, value);
}
