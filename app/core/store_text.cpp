// The text rules shared by the stores: field escaping and the account checks.
#include <algorithm>
#include <array>
#include <cctype>

#include "app/core/stores.h"

namespace velphone {

std::string escapeField(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '\t': out += "\\t"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\\': out += "\\\\"; break;
            default: out += c;
        }
    }
    return out;
}

std::string unescapeField(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char next = text[i + 1];
        switch (next) {
            case 't': out += '\t'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case '\\': out += '\\'; break;
            default:
                // Not ours: a hand-edited file keeps what it says.
                out += '\\';
                out += next;
        }
        ++i;
    }
    return out;
}

namespace {

bool hasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

std::string lowered(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

}  // namespace

std::optional<std::string> validateAccount(const Account& account) {
    if (account.user.empty()) return "Enter a user name";
    // These go into SIP header lines, where a line break would start a new header.
    const std::array<std::pair<std::string_view, const std::string*>, 6> fields{{
        {"user name", &account.user},
        {"domain", &account.domain},
        {"authentication user", &account.authUser},
        {"proxy", &account.proxy},
        {"STUN server", &account.stun},
        {"voicemail number", &account.voicemail},
    }};
    for (const auto& [name, value] : fields) {
        if (hasControlCharacter(*value)) {
            return "The " + std::string(name) + " must not contain line breaks or control characters";
        }
    }
    const std::string transport = lowered(account.transport);
    if (!transport.empty() && transport != "udp" && transport != "tcp" && transport != "tls") {
        return "The transport must be UDP, TCP or TLS";
    }
    return std::nullopt;
}

}  // namespace velphone
