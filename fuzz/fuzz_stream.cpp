// Fuzz target for extractStreamMessage, the framer of TCP and TLS
// connections. The input is the byte stream a peer sends; it arrives once in
// one piece and once in reads whose sizes the stream's own bytes choose.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "sip/syntax/message.h"

using velmora::fuzz::require;

namespace {

struct Framing {
    std::vector<std::string> messages;
    std::string error;  // the first framing fault; the transport closes the connection on it
    std::string rest;   // what is left waiting for more bytes
};

bool onlyLineBreaks(std::string_view s) { return s.find_first_not_of("\r\n") == std::string_view::npos; }

// Calls the framer until it has nothing more to give, checking that the
// buffer always holds exactly the stream's unconsumed tail and that only
// keep-alive line breaks and whole messages are taken off its front.
void drain(std::string_view stream, size_t received, std::string& buffer, Framing& out) {
    while (out.error.empty()) {
        const size_t before = received - buffer.size();
        std::string error;
        const std::optional<std::string> message = kelsip::extractStreamMessage(buffer, &error);
        require(buffer.size() <= received - before, "the framer never grows the buffer", stream);
        const size_t after = received - buffer.size();
        require(std::string_view(buffer) == stream.substr(after, received - after),
                "the buffer is always the unconsumed tail of the stream", stream);
        const std::string_view consumed = stream.substr(before, after - before);
        if (!message) {
            require(onlyLineBreaks(consumed), "without a message only keep-alive line breaks are consumed", stream);
            out.error = error;
            return;
        }
        require(!message->empty() && message->front() != '\r' && message->front() != '\n',
                "a framed message starts with its start line", stream, *message);
        require(consumed.size() >= message->size() &&
                    consumed.substr(consumed.size() - message->size()) == *message &&
                    onlyLineBreaks(consumed.substr(0, consumed.size() - message->size())),
                "a framed message is the bytes taken off the buffer, after keep-alives", stream, *message);
        require(message->find("\r\n\r\n") != std::string::npos, "a framed message holds its blank line", stream,
                *message);
        out.messages.push_back(*message);
    }
}

Framing frameInOnePiece(std::string_view stream) {
    Framing out;
    std::string buffer(stream);
    drain(stream, stream.size(), buffer, out);
    out.rest = buffer;
    return out;
}

Framing frameInReads(std::string_view stream) {
    Framing out;
    std::string buffer;
    size_t received = 0;
    while (received < stream.size() && out.error.empty()) {
        // Reads of 1 to 61 bytes, chosen by the first byte of each read.
        const auto lead = static_cast<unsigned char>(stream[received]);
        const size_t n = std::min<size_t>(1 + lead % 61, stream.size() - received);
        buffer.append(stream.substr(received, n));
        received += n;
        drain(stream.substr(0, received), received, buffer, out);
    }
    out.rest = buffer;
    return out;
}

// The framer cuts by the first Content-Length line; the parser reads the
// first Content-Length header. When both see one, they must agree, or the
// bytes after the body are taken from (or left to) the next message.
void checkFramerAgreesWithParser(const kelsip::SipMessage& parsed, const std::string& framed,
                                 std::string_view stream) {
    const auto declared = parsed.header("Content-Length");
    if (!declared) return;
    const auto length = kelsip::parseHeaderInteger(*declared);
    const size_t bodyStart = framed.find("\r\n\r\n") + 4;
    require(length.has_value() && static_cast<uint64_t>(*length) == framed.size() - bodyStart,
            "the framer and the parser agree on the message's Content-Length", stream, framed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view stream = velmora::fuzz::asText(data, size);
    const Framing whole = frameInOnePiece(stream);
    const Framing pieces = frameInReads(stream);
    // Framing depends on the bytes only, never on how they were split into reads.
    require(pieces.messages == whole.messages, "the same messages come out however the stream is read", stream);
    require(pieces.error == whole.error, "the same framing fault is found however the stream is read", stream,
            pieces.error + " / " + whole.error);
    // After a fault the two runs stop at different reads, so only a clean run leaves comparable bytes.
    if (whole.error.empty()) {
        require(pieces.rest == whole.rest, "the same bytes wait however the stream is read", stream);
    }

    for (const std::string& framed : whole.messages) {
        const auto parsed = kelsip::SipMessage::parse(framed);
        if (!parsed) continue;
        checkFramerAgreesWithParser(*parsed, framed, stream);
        velmora::fuzz::checkMessageRoundTrip(*parsed, stream);
    }
    return 0;
}
