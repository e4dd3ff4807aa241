// SDP bodies: the tolerant line parser, the writer and the attribute queries.
#include "media/sdp/sdp.h"

#include <algorithm>
#include <array>
#include <limits>

#include "sip/syntax/text.h"

namespace kelsip {

namespace {

constexpr std::array<std::string_view, 4> kDirectionNames = {"sendrecv", "sendonly", "recvonly", "inactive"};

// Digits only, no sign, no blanks; empty when not such a number or too large for T.
template <typename T>
std::optional<T> readUnsigned(std::string_view s) {
    if (s.empty()) return std::nullopt;
    T value = 0;
    for (const char c : s) {
        if (!text::isDigit(c)) return std::nullopt;
        const auto digit = static_cast<T>(c - '0');
        if (value > (std::numeric_limits<T>::max() - digit) / 10) return std::nullopt;
        value = static_cast<T>(value * 10 + digit);
    }
    return value;
}

// Splits at every single blank; two blanks in a row make an empty token.
std::vector<std::string_view> splitBlanks(std::string_view s) {
    std::vector<std::string_view> tokens;
    size_t start = 0;
    for (;;) {
        const size_t blank = s.find(' ', start);
        tokens.push_back(s.substr(start, blank == std::string_view::npos ? std::string_view::npos : blank - start));
        if (blank == std::string_view::npos) return tokens;
        start = blank + 1;
    }
}

std::string_view beforeSlash(std::string_view s) { return s.substr(0, s.find('/')); }

bool fail(std::string* error, std::string_view text) {
    if (error) error->assign(text);
    return false;
}

// The remainder of an rtpmap or fmtp value that belongs to `payloadType`:
// the decimal number must be followed by exactly one blank, so 101 does not
// match "1010 ...".
std::optional<std::string_view> forPayloadType(std::string_view value, int payloadType) {
    const std::string prefix = std::to_string(payloadType) + ' ';
    if (value.substr(0, prefix.size()) != prefix) return std::nullopt;
    return value.substr(prefix.size());
}

void appendAttributes(std::string& out, const SdpAttributeList& attributes) {
    for (const SdpAttribute& a : attributes) {
        out += "a=";
        out += a.name;
        if (!a.value.empty()) {
            out += ':';
            out += a.value;
        }
        out += "\r\n";
    }
}

struct Parser {
    SessionDescription sdp;
    bool sawVersion = false;
    std::string* error;

    MediaDescription* current() { return sdp.media.empty() ? nullptr : &sdp.media.back(); }

    bool origin(std::string_view value) {
        const auto tokens = splitBlanks(value);
        if (tokens.size() < 6) return fail(error, "bad o= line");
        sdp.username.assign(tokens[0]);
        sdp.sessionId = readUnsigned<uint64_t>(tokens[1]).value_or(0);
        sdp.sessionVersion = readUnsigned<uint64_t>(tokens[2]).value_or(0);
        sdp.originAddressType.assign(tokens[4]);
        sdp.originAddress.assign(tokens[5]);
        return true;
    }

    bool connection(std::string_view value) {
        const auto tokens = splitBlanks(value);
        if (tokens.size() < 3) return fail(error, "bad c= line");
        if (MediaDescription* m = current()) {
            m->connectionAddressType.assign(tokens[1]);
            m->connectionAddress.assign(beforeSlash(tokens[2]));
        } else {
            sdp.connectionAddressType.assign(tokens[1]);
            sdp.connectionAddress.assign(beforeSlash(tokens[2]));
        }
        return true;
    }

    bool mediaLine(std::string_view value) {
        const auto tokens = splitBlanks(value);
        if (tokens.size() < 3) return fail(error, "bad m= line");
        MediaDescription m;
        m.media.assign(tokens[0]);
        const auto port = readUnsigned<uint32_t>(beforeSlash(tokens[1]));
        if (!port || *port > 65535) return fail(error, "bad media port");
        m.port = static_cast<uint16_t>(*port);
        m.proto.assign(tokens[2]);
        for (size_t i = 3; i < tokens.size(); ++i) {
            if (!tokens[i].empty()) m.formats.emplace_back(tokens[i]);
        }
        sdp.media.push_back(std::move(m));
        return true;
    }

    void attribute(std::string_view value) {
        const size_t colon = value.find(':');
        SdpAttribute a;
        if (colon == std::string_view::npos) {
            a.name.assign(value);
        } else {
            a.name.assign(value.substr(0, colon));
            a.value.assign(value.substr(colon + 1));
        }
        if (MediaDescription* m = current()) m->attributes.push_back(std::move(a));
        else sdp.attributes.push_back(std::move(a));
    }

    bool line(std::string_view line) {
        if (line.size() < 2 || line[1] != '=') {
            if (error) *error = "malformed line: " + std::string(line);
            return false;
        }
        const std::string_view value = line.substr(2);
        switch (line[0]) {
            case 'v':
                sdp.version = readUnsigned<uint32_t>(value).value_or(0);
                sawVersion = true;
                return true;
            case 'o': return origin(value);
            case 's': sdp.sessionName.assign(value); return true;
            case 't': sdp.timing.assign(value); return true;
            case 'c': return connection(value);
            case 'm': return mediaLine(value);
            case 'a': attribute(value); return true;
            default: return true;  // b=, i=, k=, z= and the rest carry nothing we use
        }
    }
};

}  // namespace

std::vector<std::string> SdpAttributeList::operator()(std::string_view name) const {
    std::vector<std::string> values;
    for (const SdpAttribute& a : *this) {
        if (a.name == name) values.push_back(a.value);
    }
    return values;
}

std::optional<std::string> SdpAttributeList::first(std::string_view name) const {
    for (const SdpAttribute& a : *this) {
        if (a.name == name) return a.value;
    }
    return std::nullopt;
}

std::string_view toString(MediaDirection direction) {
    switch (direction) {
        case MediaDirection::SendOnly: return kDirectionNames[1];
        case MediaDirection::RecvOnly: return kDirectionNames[2];
        case MediaDirection::Inactive: return kDirectionNames[3];
        case MediaDirection::SendRecv: break;
    }
    return kDirectionNames[0];
}

MediaDirection MediaDescription::direction() const {
    for (const SdpAttribute& a : attributes) {
        const auto it = std::find(kDirectionNames.begin(), kDirectionNames.end(), a.name);
        if (it != kDirectionNames.end()) return static_cast<MediaDirection>(it - kDirectionNames.begin());
    }
    return MediaDirection::SendRecv;
}

void MediaDescription::setDirection(MediaDirection dir) {
    std::erase_if(attributes, [](const SdpAttribute& a) {
        return std::find(kDirectionNames.begin(), kDirectionNames.end(), a.name) != kDirectionNames.end();
    });
    addAttribute(toString(dir));
}

std::optional<uint32_t> MediaDescription::ptime() const {
    const auto value = attribute("ptime");
    if (!value) return std::nullopt;
    return readUnsigned<uint32_t>(*value);
}

std::optional<RtpMap> MediaDescription::rtpmap(int payloadType) const {
    for (const SdpAttribute& a : attributes) {
        if (a.name != "rtpmap") continue;
        const auto rest = forPayloadType(a.value, payloadType);
        if (!rest) continue;
        RtpMap map;
        const size_t slash = rest->find('/');
        map.encodingName.assign(rest->substr(0, slash));
        if (slash != std::string_view::npos) {
            const std::string_view after = rest->substr(slash + 1);
            const size_t second = after.find('/');
            map.clockRate = readUnsigned<uint32_t>(after.substr(0, second)).value_or(0);
            if (second != std::string_view::npos) map.channels = readUnsigned<uint32_t>(after.substr(second + 1));
        }
        return map;
    }
    return std::nullopt;
}

std::optional<std::string> MediaDescription::fmtp(int payloadType) const {
    for (const SdpAttribute& a : attributes) {
        if (a.name != "fmtp") continue;
        if (const auto rest = forPayloadType(a.value, payloadType)) return std::string(*rest);
    }
    return std::nullopt;
}

std::vector<FmtpParam> MediaDescription::fmtpParams(int payloadType) const {
    std::vector<FmtpParam> params;
    const auto list = fmtp(payloadType);
    if (!list) return params;
    std::string_view rest = *list;
    while (!rest.empty()) {
        const size_t semicolon = rest.find(';');
        const std::string_view piece = text::trim(rest.substr(0, semicolon));
        rest = semicolon == std::string_view::npos ? std::string_view() : rest.substr(semicolon + 1);
        if (piece.empty()) continue;
        const size_t eq = piece.find('=');
        FmtpParam p;
        p.name.assign(text::trim(piece.substr(0, eq)));
        if (eq != std::string_view::npos) p.value = std::string(text::trim(piece.substr(eq + 1)));
        params.push_back(std::move(p));
    }
    return params;
}

void MediaDescription::addAttribute(std::string_view name, std::string_view value) {
    attributes.push_back(SdpAttribute{std::string(name), std::string(value)});
}

std::optional<SessionDescription> SessionDescription::parse(std::string_view body, std::string* error) {
    Parser parser{{}, false, error};
    size_t start = 0;
    while (start < body.size()) {
        size_t end = body.find('\n', start);
        if (end == std::string_view::npos) end = body.size();
        std::string_view line = body.substr(start, end - start);
        start = end + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;
        if (!parser.line(line)) return std::nullopt;
    }
    if (!parser.sawVersion) {
        fail(error, "missing v= line");
        return std::nullopt;
    }
    return std::move(parser.sdp);
}

std::string SessionDescription::toString() const {
    std::string out;
    out.reserve(256);
    out += "v=" + std::to_string(version) + "\r\n";
    out += "o=" + username + ' ' + std::to_string(sessionId) + ' ' + std::to_string(sessionVersion) + " IN " +
           originAddressType + ' ' + originAddress + "\r\n";
    out += "s=" + (sessionName.empty() ? std::string("-") : sessionName) + "\r\n";
    if (!connectionAddress.empty()) out += "c=IN " + connectionAddressType + ' ' + connectionAddress + "\r\n";
    out += "t=" + timing + "\r\n";
    appendAttributes(out, attributes);
    for (const MediaDescription& m : media) {
        out += "m=" + m.media + ' ' + std::to_string(m.port) + ' ' + m.proto;
        for (const std::string& f : m.formats) out += ' ' + f;
        out += "\r\n";
        if (!m.connectionAddress.empty()) {
            out += "c=IN " + m.connectionAddressType + ' ' + m.connectionAddress + "\r\n";
        }
        appendAttributes(out, m.attributes);
    }
    return out;
}

}  // namespace kelsip
