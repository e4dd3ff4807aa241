// Digest challenges read, responses computed, credentials written.
#include "sip/auth/digest.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <random>

#include "sip/auth/md5.h"
#include "sip/syntax/message.h"
#include "sip/core/system.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

constexpr std::string_view trimBlanks(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

// Calls `item` for each comma-separated piece of `list`. Commas inside double
// quotes belong to the value (an opaque or a realm may hold one), and inside
// quotes a backslash hides the next byte, an escaped quote included.
template <typename F>
void forEachItem(std::string_view list, F&& item) {
    bool quoted = false;
    size_t start = 0;
    for (size_t i = 0; i < list.size(); ++i) {
        const char c = list[i];
        if (quoted) {
            if (c == '\\') ++i;
            else if (c == '"') quoted = false;
        } else if (c == '"') {
            quoted = true;
        } else if (c == ',') {
            item(list.substr(start, i - start));
            start = i + 1;
        }
    }
    item(list.substr(start));
}

// A value in double quotes loses them and its escapes; any other is kept as is.
std::string unquote(std::string_view value) {
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') return std::string(value);
    const std::string_view inner = value.substr(1, value.size() - 2);
    std::string out;
    out.reserve(inner.size());
    for (size_t i = 0; i < inner.size(); ++i) {
        // A backslash with nothing after it escapes nothing and stays.
        if (inner[i] == '\\' && i + 1 < inner.size()) ++i;
        out += inner[i];
    }
    return out;
}

void appendQuoted(std::string& out, std::string_view value) {
    out += '"';
    for (const char c : value) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    out += '"';
}

bool offersAuth(std::string_view qopList) {
    bool found = false;
    forEachItem(qopList, [&](std::string_view option) { found = found || text::iequals(trimBlanks(option), "auth"); });
    return found;
}

bool isSessionAlgorithm(std::string_view algorithm) { return text::iequals(algorithm, "MD5-sess"); }

std::string formatNonceCount(uint32_t count) {
    char buf[9];
    std::snprintf(buf, sizeof buf, "%08x", static_cast<unsigned>(count));
    return buf;
}

std::mt19937 seededGenerator() {
    std::array<uint32_t, std::mt19937::state_size> words{};
    if (!platform::secureRandom(words.data(), sizeof words)) {
        // No secure source: a cnonce only has to differ between clients and
        // requests, which the device and the clock still give.
        std::random_device device;
        for (auto& w : words) w = device();
        words[0] ^= static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    }
    std::seed_seq seed(words.begin(), words.end());
    return std::mt19937(seed);
}

std::string makeCnonce() {
    static constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    // Seeded once per thread: the secure source is a system call, and a
    // generator shared between threads would need a lock.
    thread_local std::mt19937 generator = seededGenerator();
    std::uniform_int_distribution<size_t> pick(0, kAlphabet.size() - 1);
    std::string out(16, ' ');
    for (char& c : out) c = kAlphabet[pick(generator)];
    return out;
}

}  // namespace

std::optional<std::vector<AuthParam>> parseDigestParams(std::string_view headerValue) {
    const std::string_view value = trimBlanks(headerValue);
    size_t schemeEnd = 0;
    while (schemeEnd < value.size() && !isBlank(value[schemeEnd])) ++schemeEnd;
    if (!text::iequals(value.substr(0, schemeEnd), "Digest")) return std::nullopt;

    std::vector<AuthParam> params;
    forEachItem(value.substr(schemeEnd), [&](std::string_view raw) {
        const std::string_view item = trimBlanks(raw);
        const size_t eq = item.find('=');
        if (eq == std::string_view::npos) return;
        params.push_back({text::lower(trimBlanks(item.substr(0, eq))), unquote(trimBlanks(item.substr(eq + 1)))});
    });
    return params;
}

std::optional<DigestChallenge> parseChallenge(std::string_view headerValue, bool fromProxy) {
    const auto params = parseDigestParams(headerValue);
    if (!params) return std::nullopt;
    DigestChallenge challenge;
    challenge.proxy = fromProxy;
    bool hasNonce = false;
    for (const AuthParam& p : *params) {
        if (p.name == "realm") {
            challenge.realm = p.value;
        } else if (p.name == "nonce") {
            challenge.nonce = p.value;
            hasNonce = true;
        } else if (p.name == "opaque") {
            challenge.opaque = p.value;
        } else if (p.name == "algorithm") {
            // Answering an algorithm we cannot compute would only earn another 401.
            if (!text::iequals(p.value, "MD5") && !isSessionAlgorithm(p.value)) return std::nullopt;
            challenge.algorithm = p.value;
        } else if (p.name == "stale") {
            challenge.stale = text::iequals(p.value, "true");
        } else if (p.name == "qop") {
            // auth-int would need the body's hash; without "auth" on offer we
            // answer in the qop-less form.
            challenge.qop = offersAuth(p.value) ? "auth" : "";
        }
    }
    if (!hasNonce) return std::nullopt;
    return challenge;
}

std::string computeResponse(const DigestChallenge& challenge, const DigestRequest& request) {
    std::string a1 = md5Hex(request.username + ":" + challenge.realm + ":" + request.password);
    if (isSessionAlgorithm(challenge.algorithm)) a1 = md5Hex(a1 + ":" + challenge.nonce + ":" + request.cnonce);
    const std::string a2 = md5Hex(request.method + ":" + request.uri);
    if (challenge.qop.empty()) return md5Hex(a1 + ":" + challenge.nonce + ":" + a2);
    return md5Hex(a1 + ":" + challenge.nonce + ":" + formatNonceCount(request.nonceCount) + ":" + request.cnonce +
                  ":" + challenge.qop + ":" + a2);
}

std::string buildAuthorization(const DigestChallenge& challenge, DigestRequest& request) {
    if ((!challenge.qop.empty() || isSessionAlgorithm(challenge.algorithm)) && request.cnonce.empty()) {
        request.cnonce = makeCnonce();
    }
    std::string out = "Digest username=";
    appendQuoted(out, request.username);
    out += ", realm=";
    appendQuoted(out, challenge.realm);
    out += ", nonce=";
    appendQuoted(out, challenge.nonce);
    out += ", uri=";
    appendQuoted(out, request.uri);
    out += ", response=\"";
    out += computeResponse(challenge, request);
    out += "\", algorithm=";
    out += challenge.algorithm;
    if (!challenge.opaque.empty()) {
        out += ", opaque=";
        appendQuoted(out, challenge.opaque);
    }
    if (!challenge.qop.empty()) {
        out += ", qop=";
        out += challenge.qop;
        out += ", nc=";
        out += formatNonceCount(request.nonceCount);
        out += ", cnonce=";
        appendQuoted(out, request.cnonce);
    }
    return out;
}

std::string_view authorizationHeaderName(const DigestChallenge& challenge) {
    return challenge.proxy ? "Proxy-Authorization" : "Authorization";
}

std::optional<DigestChallenge> challengeOf(const SipMessage& response) {
    const bool proxy = response.statusCode == 407;
    if (!proxy && response.statusCode != 401) return std::nullopt;
    for (const std::string& value : response.headers(proxy ? "Proxy-Authenticate" : "WWW-Authenticate")) {
        if (auto challenge = parseChallenge(value, proxy)) return challenge;
    }
    return std::nullopt;
}

}  // namespace kelsip
