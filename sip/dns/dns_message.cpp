// DNS message encoding and decoding: names with compression, the record
// types server location reads, and strict limits on hostile input.
#include "sip/dns/dns_message.h"

#include <algorithm>
#include <array>

namespace kelsip::dns {

namespace {

constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxLabel = 63;
// Wire form of a name, length bytes and the final root byte included.
constexpr size_t kMaxNameWire = 255;

// An escaped dot ("a\.") belongs to its label and stays.
std::string_view withoutFinalDot(std::string_view name) {
    if (name.size() < 2 || name.back() != '.') return name;
    size_t backslashes = 0;
    for (size_t i = name.size() - 1; i > 0 && name[i - 1] == '\\'; --i) ++backslashes;
    if (backslashes % 2 == 0) name.remove_suffix(1);
    return name;
}

char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

void put16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v & 0xFF));
}

bool fail(std::string* error, const char* text) {
    if (error) *error = text;
    return false;
}

// A bounded reader over the whole message; every read checks its length.
class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    [[nodiscard]] size_t pos() const { return pos_; }
    [[nodiscard]] size_t size() const { return bytes_.size(); }
    [[nodiscard]] std::span<const uint8_t> bytes() const { return bytes_; }
    void seek(size_t pos) { pos_ = pos; }

    [[nodiscard]] bool u8(uint8_t& v, size_t limit) {
        if (pos_ + 1 > limit) return false;
        v = bytes_[pos_++];
        return true;
    }
    [[nodiscard]] bool u16(uint16_t& v, size_t limit) {
        if (pos_ + 2 > limit) return false;
        v = static_cast<uint16_t>((bytes_[pos_] << 8) | bytes_[pos_ + 1]);
        pos_ += 2;
        return true;
    }
    [[nodiscard]] bool u32(uint32_t& v, size_t limit) {
        if (pos_ + 4 > limit) return false;
        v = (uint32_t{bytes_[pos_]} << 24) | (uint32_t{bytes_[pos_ + 1]} << 16) |
            (uint32_t{bytes_[pos_ + 2]} << 8) | uint32_t{bytes_[pos_ + 3]};
        pos_ += 4;
        return true;
    }
    // One <character-string>: a length byte and that many bytes.
    [[nodiscard]] bool characterString(std::string& out, size_t limit) {
        uint8_t length = 0;
        if (!u8(length, limit) || pos_ + length > limit) return false;
        out.assign(reinterpret_cast<const char*>(bytes_.data() + pos_), length);
        pos_ += length;
        return true;
    }

private:
    std::span<const uint8_t> bytes_;
    size_t pos_ = 0;
};

void appendLabelText(std::string& out, const uint8_t* label, size_t length) {
    static constexpr char digits[] = "0123456789";
    for (size_t i = 0; i < length; ++i) {
        const uint8_t b = label[i];
        if (b == '.' || b == '\\') {
            out += '\\';
            out += static_cast<char>(b);
        } else if (b <= 0x20 || b >= 0x7F) {
            out += '\\';
            out += digits[b / 100];
            out += digits[(b / 10) % 10];
            out += digits[b % 10];
        } else {
            out += static_cast<char>(b);
        }
    }
}

// Reads a possibly compressed name starting at the reader's position; the
// reader ends just past the name as it stands there (after the first
// pointer, if any). Labels met before any pointer must end by `limit`.
//
// Every pointer must lead strictly before the run of labels it was reached
// from, so each jump goes to a lower offset and the walk always ends; a
// target inside a run already read is a loop, one past it a forward pointer.
bool readName(Reader& r, size_t limit, std::string& out, std::string* error) {
    out.clear();
    const std::span<const uint8_t> bytes = r.bytes();
    size_t pos = r.pos();
    size_t end = limit;         // where inline labels must stop
    size_t resume = 0;          // reader position after the first pointer
    bool jumped = false;
    size_t runStart = pos;      // first byte of the run being read
    size_t highestRead = pos;   // last byte any run has read
    size_t wire = 0;
    for (;;) {
        if (pos >= end) return fail(error, "truncated name");
        const uint8_t length = bytes[pos];
        if (length == 0) {
            ++pos;
            wire += 1;
            break;
        }
        const uint8_t kind = length & 0xC0;
        if (kind == 0xC0) {
            if (pos + 2 > end) return fail(error, "truncated name");
            const size_t target = (size_t{length & 0x3Fu} << 8) | bytes[pos + 1];
            highestRead = std::max(highestRead, pos + 1);
            if (target >= bytes.size()) return fail(error, "compression pointer out of range");
            if (target >= runStart) {
                return fail(error, target <= highestRead ? "compression pointer loop" : "forward compression pointer");
            }
            if (!jumped) {
                resume = pos + 2;
                jumped = true;
            }
            pos = target;
            runStart = target;
            end = bytes.size();
            continue;
        }
        if (kind != 0) return fail(error, "bad label type");
        if (pos + 1 + length > end) return fail(error, "truncated name");
        wire += size_t{1} + length;
        if (wire + 1 > kMaxNameWire) return fail(error, "name too long");
        if (!out.empty()) out += '.';
        appendLabelText(out, bytes.data() + pos + 1, length);
        pos += size_t{1} + length;
        highestRead = std::max(highestRead, pos - 1);
    }
    if (out.empty()) out = ".";
    r.seek(jumped ? resume : pos);
    return true;
}

// Splits a text name into wire labels, undoing the escapes readName writes.
bool appendNameWire(std::vector<uint8_t>& out, std::string_view name, std::string* error) {
    if (name == "." || name.empty()) {
        out.push_back(0);
        return true;
    }
    std::vector<uint8_t> wire;
    std::string label;
    size_t i = 0;
    auto closeLabel = [&]() -> bool {
        if (label.empty()) return fail(error, "empty label");
        if (label.size() > kMaxLabel) return fail(error, "label too long");
        wire.push_back(static_cast<uint8_t>(label.size()));
        wire.insert(wire.end(), label.begin(), label.end());
        label.clear();
        return true;
    };
    while (i < name.size()) {
        const char c = name[i];
        if (c == '.') {
            if (!closeLabel()) return false;
            ++i;
            if (i == name.size()) break;  // the one final dot
            continue;
        }
        if (c == '\\') {
            if (i + 1 >= name.size()) return fail(error, "bad escape");
            const char n = name[i + 1];
            if (n >= '0' && n <= '9') {
                if (i + 3 >= name.size()) return fail(error, "bad escape");
                int value = 0;
                for (size_t k = 1; k <= 3; ++k) {
                    const char d = name[i + k];
                    if (d < '0' || d > '9') return fail(error, "bad escape");
                    value = value * 10 + (d - '0');
                }
                if (value > 255) return fail(error, "bad escape");
                label += static_cast<char>(static_cast<uint8_t>(value));
                i += 4;
            } else {
                label += n;
                i += 2;
            }
            continue;
        }
        label += c;
        ++i;
    }
    if (!label.empty() && !closeLabel()) return false;
    wire.push_back(0);
    if (wire.size() > kMaxNameWire) return fail(error, "name too long");
    out.insert(out.end(), wire.begin(), wire.end());
    return true;
}

bool readHeader(Reader& r, Header& h, std::string* error) {
    uint16_t flags = 0;
    const size_t n = r.size();
    if (!r.u16(h.id, n) || !r.u16(flags, n) || !r.u16(h.questionCount, n) || !r.u16(h.answerCount, n) ||
        !r.u16(h.authorityCount, n) || !r.u16(h.additionalCount, n)) {
        return fail(error, "truncated header");
    }
    h.isResponse = (flags & 0x8000) != 0;
    h.opcode = static_cast<uint8_t>((flags >> 11) & 0x0F);
    h.authoritative = (flags & 0x0400) != 0;
    h.truncated = (flags & 0x0200) != 0;
    h.recursionDesired = (flags & 0x0100) != 0;
    h.recursionAvailable = (flags & 0x0080) != 0;
    h.rcode = static_cast<Rcode>(flags & 0x0F);
    return true;
}

bool readRecordData(Reader& r, ResourceRecord& rr, size_t rdEnd, std::string* error) {
    switch (rr.type) {
        case RecordType::A:
        case RecordType::AAAA: {
            const size_t want = rr.type == RecordType::A ? 4 : 16;
            if (rdEnd - r.pos() != want) return fail(error, "bad address length");
            const uint8_t* p = r.bytes().data() + r.pos();
            if (want == 4) {
                std::array<uint8_t, 4> b{};
                std::copy(p, p + 4, b.begin());
                rr.data = net::SocketAddress::v4(b, 0);
            } else {
                std::array<uint8_t, 16> b{};
                std::copy(p, p + 16, b.begin());
                rr.data = net::SocketAddress::v6(b, 0);
            }
            r.seek(rdEnd);
            return true;
        }
        case RecordType::CNAME:
        case RecordType::NS:
        case RecordType::PTR: {
            std::string name;
            if (!readName(r, rdEnd, name, error)) return false;
            rr.data = std::move(name);
            break;
        }
        case RecordType::SRV: {
            SrvData srv;
            if (!r.u16(srv.priority, rdEnd) || !r.u16(srv.weight, rdEnd) || !r.u16(srv.port, rdEnd)) {
                return fail(error, "bad record data");
            }
            if (!readName(r, rdEnd, srv.target, error)) return false;
            rr.data = std::move(srv);
            break;
        }
        case RecordType::NAPTR: {
            NaptrData n;
            if (!r.u16(n.order, rdEnd) || !r.u16(n.preference, rdEnd) || !r.characterString(n.flags, rdEnd) ||
                !r.characterString(n.services, rdEnd) || !r.characterString(n.regexp, rdEnd)) {
                return fail(error, "bad record data");
            }
            if (!readName(r, rdEnd, n.replacement, error)) return false;
            rr.data = std::move(n);
            break;
        }
        case RecordType::SOA: {
            SoaData soa;
            if (!readName(r, rdEnd, soa.primary, error) || !readName(r, rdEnd, soa.mailbox, error)) return false;
            if (!r.u32(soa.serial, rdEnd) || !r.u32(soa.refresh, rdEnd) || !r.u32(soa.retry, rdEnd) ||
                !r.u32(soa.expire, rdEnd) || !r.u32(soa.minimum, rdEnd)) {
                return fail(error, "bad record data");
            }
            rr.data = std::move(soa);
            break;
        }
        default:
            r.seek(rdEnd);
            return true;
    }
    // The fields must fill the data exactly: anything else means the two
    // disagree on where the record ends.
    if (r.pos() != rdEnd) return fail(error, "bad record data");
    return true;
}

bool readRecord(Reader& r, ResourceRecord& rr, std::string* error) {
    if (!readName(r, r.size(), rr.name, error)) return false;
    uint16_t type = 0;
    uint16_t rdLength = 0;
    const size_t n = r.size();
    if (!r.u16(type, n) || !r.u16(rr.recordClass, n) || !r.u32(rr.ttl, n) || !r.u16(rdLength, n)) {
        return fail(error, "truncated record");
    }
    rr.type = static_cast<RecordType>(type);
    // RFC 2181: a TTL with the top bit set counts as zero.
    if (rr.ttl > 0x7FFFFFFFu) rr.ttl = 0;
    const size_t rdEnd = r.pos() + rdLength;
    if (rdEnd > n) return fail(error, "truncated record");
    // Names inside the data are read up to the data's end, not the message's.
    if (!readRecordData(r, rr, rdEnd, error)) {
        // A name cut by the data's end is bad data, not a short message.
        if (error && *error == "truncated name") *error = "bad record data";
        return false;
    }
    return true;
}

bool readSection(Reader& r, uint16_t count, std::vector<ResourceRecord>& out, std::string* error) {
    for (uint16_t i = 0; i < count; ++i) {
        ResourceRecord rr;
        if (!readRecord(r, rr, error)) return false;
        out.push_back(std::move(rr));
    }
    return true;
}

}  // namespace

std::string recordTypeName(RecordType type) {
    switch (type) {
        case RecordType::A: return "A";
        case RecordType::NS: return "NS";
        case RecordType::CNAME: return "CNAME";
        case RecordType::SOA: return "SOA";
        case RecordType::PTR: return "PTR";
        case RecordType::AAAA: return "AAAA";
        case RecordType::SRV: return "SRV";
        case RecordType::NAPTR: return "NAPTR";
        case RecordType::OPT: return "OPT";
    }
    return "TYPE" + std::to_string(static_cast<uint16_t>(type));
}

std::optional<std::vector<uint8_t>> encodeQuery(uint16_t id, std::string_view name, RecordType type,
                                                bool recursionDesired, std::string* error) {
    std::vector<uint8_t> out;
    out.reserve(kHeaderSize + name.size() + 6);
    put16(out, id);
    put16(out, recursionDesired ? 0x0100 : 0x0000);
    put16(out, 1);  // one question
    put16(out, 0);
    put16(out, 0);
    put16(out, 0);
    if (!appendNameWire(out, name, error)) return std::nullopt;
    put16(out, static_cast<uint16_t>(type));
    put16(out, kClassIn);
    return out;
}

std::optional<Header> decodeHeader(std::span<const uint8_t> bytes, std::string* error) {
    Reader r(bytes);
    Header h;
    if (!readHeader(r, h, error)) return std::nullopt;
    return h;
}

std::optional<Message> decodeMessage(std::span<const uint8_t> bytes, std::string* error) {
    Reader r(bytes);
    Message m;
    if (!readHeader(r, m.header, error)) return std::nullopt;
    for (uint16_t i = 0; i < m.header.questionCount; ++i) {
        Question q;
        if (!readName(r, r.size(), q.name, error)) return std::nullopt;
        uint16_t type = 0;
        if (!r.u16(type, r.size()) || !r.u16(q.recordClass, r.size())) {
            fail(error, "truncated question");
            return std::nullopt;
        }
        q.type = static_cast<RecordType>(type);
        m.questions.push_back(std::move(q));
    }
    if (!readSection(r, m.header.answerCount, m.answers, error) ||
        !readSection(r, m.header.authorityCount, m.authority, error) ||
        !readSection(r, m.header.additionalCount, m.additional, error)) {
        return std::nullopt;
    }
    return m;
}

bool sameName(std::string_view a, std::string_view b) {
    a = withoutFinalDot(a);
    b = withoutFinalDot(b);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (lowerAscii(a[i]) != lowerAscii(b[i])) return false;
    }
    return true;
}

std::string canonicalName(std::string_view name) {
    std::string out(withoutFinalDot(name));
    for (char& c : out) c = lowerAscii(c);
    return out;
}

}  // namespace kelsip::dns
