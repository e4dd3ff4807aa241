// Cutting whole SIP messages off a stream connection's receive buffer.
#include "sip/syntax/message.h"
#include "sip/syntax/text.h"

namespace kelsip {

std::optional<std::string_view> frameStreamMessage(std::string_view buffer, size_t& consumed, std::string* error) {
    // Line breaks between messages are keep-alives (RFC 5626): eat them.
    size_t skip = 0;
    while (skip < buffer.size() && (buffer[skip] == '\r' || buffer[skip] == '\n')) ++skip;
    consumed = skip;
    buffer.remove_prefix(skip);
    if (buffer.size() < 4) return std::nullopt;
    const size_t end = buffer.find("\r\n\r\n");
    if (end == std::string_view::npos) return std::nullopt;

    const std::string_view head = buffer.substr(0, end);
    std::optional<int64_t> length;
    size_t pos = 0;
    while (pos <= head.size()) {
        size_t lf = head.find('\n', pos);
        if (lf == std::string_view::npos) lf = head.size();
        const std::string_view line = head.substr(pos, lf - pos);
        pos = lf + 1;
        // A line led by white space continues the previous header, as the
        // parser reads it; it never names a header of its own.
        if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) continue;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view name = text::trim(line.substr(0, colon));
        // Cheap pre-check before canonicalising: only "l" and "content-length" can match.
        if (name.size() != 1 && name.size() != 14) continue;
        if (canonicalHeaderName(name) != "Content-Length") continue;
        // The value may continue on folded lines, as the parser reads it.
        std::string value(line.substr(colon + 1));
        while (pos < head.size() && (head[pos] == ' ' || head[pos] == '\t')) {
            size_t next = head.find('\n', pos);
            if (next == std::string_view::npos) next = head.size();
            value += ' ';
            value += head.substr(pos, next - pos);
            pos = next + 1;
        }
        length = parseHeaderInteger(value);
        if (!length || *length < 0) {
            if (error != nullptr) *error = "bad Content-Length";
            return std::nullopt;
        }
        break;
    }
    if (!length) {
        if (error != nullptr) *error = "missing Content-Length on stream transport";
        return std::nullopt;
    }
    const size_t headerBytes = end + 4;
    if (static_cast<uint64_t>(*length) > buffer.size() - headerBytes) return std::nullopt;
    const size_t total = headerBytes + static_cast<size_t>(*length);
    consumed += total;
    return buffer.substr(0, total);
}

std::optional<std::string> extractStreamMessage(std::string& buffer, std::string* error) {
    size_t consumed = 0;
    const auto message = frameStreamMessage(buffer, consumed, error);
    std::optional<std::string> out;
    if (message) out.emplace(*message);
    buffer.erase(0, consumed);
    return out;
}

}  // namespace kelsip
