// ICE candidates: priorities, foundations and the SDP attribute value.
#include "media/ice/candidate.h"

#include <charconv>
#include <vector>

namespace kelsip::ice {

namespace {

std::vector<std::string_view> splitSpaces(std::string_view text) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && text[i] == ' ') ++i;
        const size_t start = i;
        while (i < text.size() && text[i] != ' ') ++i;
        if (i > start) out.push_back(text.substr(start, i - start));
    }
    return out;
}

bool isIceChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

template <typename T>
bool readNumber(std::string_view text, size_t maxDigits, T& out) {
    if (text.empty() || text.size() > maxDigits) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    const auto result = std::from_chars(text.data(), text.data() + text.size(), out);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool equalsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

std::optional<net::SocketAddress> readAddress(std::string_view ip, std::string_view port) {
    uint32_t number = 0;
    if (!readNumber(port, 5, number) || number > 65535) return std::nullopt;
    if (ip.find_first_of("[]") != std::string_view::npos) return std::nullopt;
    return net::SocketAddress::parse(ip, static_cast<uint16_t>(number));
}

std::optional<Candidate> fail(std::string* error, const char* text) {
    if (error) *error = text;
    return std::nullopt;
}

}  // namespace

std::string_view toString(CandidateType type) {
    switch (type) {
        case CandidateType::Host: return "host";
        case CandidateType::ServerReflexive: return "srflx";
        case CandidateType::PeerReflexive: return "prflx";
        case CandidateType::Relayed: return "relay";
    }
    return "host";
}

uint32_t typePreference(CandidateType type) {
    switch (type) {
        case CandidateType::Host: return 126;
        case CandidateType::PeerReflexive: return 110;
        case CandidateType::ServerReflexive: return 100;
        case CandidateType::Relayed: return 0;
    }
    return 0;
}

uint32_t candidatePriority(CandidateType type, uint16_t localPreference, int component) {
    return (typePreference(type) << 24) + (uint32_t{localPreference} << 8) + static_cast<uint32_t>(256 - component);
}

std::optional<Candidate> parseCandidate(std::string_view value, std::string* error) {
    constexpr std::string_view kPrefix = "candidate:";
    if (value.size() >= kPrefix.size() && equalsNoCase(value.substr(0, kPrefix.size()), kPrefix)) {
        value.remove_prefix(kPrefix.size());
    }
    const auto fields = splitSpaces(value);
    Candidate c;
    if (fields.empty() || fields[0].size() > 32) return fail(error, "bad candidate foundation");
    for (char ch : fields[0]) {
        if (!isIceChar(ch)) return fail(error, "bad candidate foundation");
    }
    c.foundation = std::string(fields[0]);
    if (fields.size() < 2 || !readNumber(fields[1], 3, c.component) || c.component < 1 || c.component > 256) {
        return fail(error, "bad candidate component");
    }
    if (fields.size() < 3 || !equalsNoCase(fields[2], "udp")) return fail(error, "unsupported candidate transport");
    if (fields.size() < 4 || !readNumber(fields[3], 10, c.priority) || c.priority == 0 || c.priority > 0x7FFFFFFFu) {
        return fail(error, "bad candidate priority");
    }
    if (fields.size() < 6) return fail(error, "bad candidate address");
    uint32_t port = 0;
    if (!readNumber(fields[5], 5, port) || port > 65535) return fail(error, "bad candidate port");
    const auto address = readAddress(fields[4], fields[5]);
    if (!address) return fail(error, "bad candidate address");
    c.address = *address;
    if (fields.size() < 8 || fields[6] != "typ") return fail(error, "bad candidate type");
    if (fields[7] == "host") {
        c.type = CandidateType::Host;
    } else if (fields[7] == "srflx") {
        c.type = CandidateType::ServerReflexive;
    } else if (fields[7] == "prflx") {
        c.type = CandidateType::PeerReflexive;
    } else if (fields[7] == "relay") {
        c.type = CandidateType::Relayed;
    } else {
        return fail(error, "bad candidate type");
    }
    size_t i = 8;
    if (i < fields.size() && fields[i] == "raddr") {
        if (i + 3 >= fields.size() || fields[i + 2] != "rport") return fail(error, "bad candidate related address");
        const auto related = readAddress(fields[i + 1], fields[i + 3]);
        if (!related || related->family() != c.address.family()) {
            return fail(error, "bad candidate related address");
        }
        c.related = *related;
        i += 4;
    }
    // Extensions come in name/value pairs; an odd one out is malformed.
    if ((fields.size() - i) % 2 != 0) return fail(error, "bad candidate extension");
    for (; i < fields.size(); i += 2) {
        if (fields[i] == "raddr" || fields[i] == "rport") return fail(error, "bad candidate extension");
    }
    return c;
}

std::string formatCandidate(const Candidate& c) {
    std::string out = c.foundation + ' ' + std::to_string(c.component) + " UDP " + std::to_string(c.priority) + ' ' +
                      c.address.ip() + ' ' + std::to_string(c.address.port()) + " typ " + std::string(toString(c.type));
    if (c.type != CandidateType::Host) {
        // RFC 8839 asks for the related address on every non-host
        // candidate; one that would reveal nothing goes out as zeros.
        const net::SocketAddress related = c.related.value_or(net::SocketAddress::any(c.address.family()));
        out += " raddr " + related.ip() + " rport " + std::to_string(related.port());
    }
    return out;
}

std::string candidateFoundation(CandidateType type, const net::SocketAddress& base,
                                const std::optional<net::SocketAddress>& server) {
    // FNV-1a over what makes two candidates the same kind; the text only
    // has to be equal for equal inputs and short.
    uint32_t hash = 2166136261u;
    const auto mix = [&hash](const uint8_t* bytes, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            hash ^= bytes[i];
            hash *= 16777619u;
        }
    };
    const auto kind = static_cast<uint8_t>(type);
    mix(&kind, 1);
    mix(base.bytes(), base.byteCount());
    if (server) mix(server->bytes(), server->byteCount());
    return std::to_string(hash % 100000000u);
}

const Candidate* defaultCandidate(std::span<const Candidate> candidates, int component) {
    const Candidate* best = nullptr;
    const auto rank = [](CandidateType t) {
        switch (t) {
            case CandidateType::Relayed: return 3;
            case CandidateType::ServerReflexive: return 2;
            case CandidateType::Host: return 1;
            case CandidateType::PeerReflexive: return 0;
        }
        return 0;
    };
    for (const Candidate& c : candidates) {
        if (c.component != component || rank(c.type) == 0) continue;
        if (!best || rank(c.type) > rank(best->type) ||
            (rank(c.type) == rank(best->type) && c.priority > best->priority)) {
            best = &c;
        }
    }
    return best;
}

}  // namespace kelsip::ice
