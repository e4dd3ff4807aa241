// Fuzz target for extractStreamMessage, the framer of TCP and TLS connections.
#include <algorithm>
#include <vector>

#include "fuzz/fuzz_support.h"

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
void drain(std::string_view stream, std::string& buffer, Framing& out) {
    while (out.error.empty()) {
        const size_t before = stream.size() - buffer.size();
        std::string error;
        const auto message = kelsip::extractStreamMessage(buffer, &error);
        require(buffer.size() <= stream.size() - before, "the framer never grows the buffer", stream);
        const size_t after = stream.size() - buffer.size();
        require(buffer == stream.substr(after), "the buffer is always the unconsumed tail of the stream", stream);
        const std::string_view consumed = stream.substr(before, after - before);
        if (!message) {
            require(onlyLineBreaks(consumed), "without a message only keep-alive line breaks are consumed", stream);
            out.error = error;
            return;
        }
        const size_t keepAlives = consumed.size() - std::min(consumed.size(), message->size());
        require(!message->empty() && !onlyLineBreaks(message->substr(0, 1)) &&
                    consumed.substr(keepAlives) == *message && onlyLineBreaks(consumed.substr(0, keepAlives)),
                "a framed message is the bytes taken off the buffer after keep-alives, from its start line", stream,
                *message);
        require(message->find("\r\n\r\n") != std::string::npos, "a framed message holds its blank line", stream,
                *message);
        out.messages.push_back(*message);
    }
}

// Reads of `step(lead)` bytes, `lead` being the first byte of each read.
Framing frame(std::string_view stream, size_t (*step)(unsigned char)) {
    Framing out;
    std::string buffer;
    size_t received = 0;
    while (received < stream.size() && out.error.empty()) {
        const size_t n = std::min(step(static_cast<unsigned char>(stream[received])), stream.size() - received);
        buffer.append(stream.substr(received, n));
        received += n;
        drain(stream.substr(0, received), buffer, out);
    }
    out.rest = buffer;
    return out;
}

}  // namespace

VELMORA_FUZZ_TARGET {
    const Framing whole = frame(input, [](unsigned char) { return std::string::npos; });
    const Framing pieces = frame(input, [](unsigned char lead) { return size_t{1} + lead % 61; });
    // Framing depends on the bytes only, never on how they were split into reads.
    require(pieces.messages == whole.messages, "the same messages come out however the stream is read", input);
    require(pieces.error == whole.error, "the same framing fault is found however the stream is read", input,
            pieces.error + " / " + whole.error);
    // After a fault the two runs stop at different reads, so only a clean run leaves comparable bytes.
    require(!whole.error.empty() || pieces.rest == whole.rest, "the same bytes wait however the stream is read", input);

    for (const std::string& framed : whole.messages) {
        const auto parsed = kelsip::SipMessage::parse(framed);
        if (!parsed) continue;
        // The framer cuts by the first Content-Length line, the parser reads
        // the first Content-Length header: when both see one they must agree,
        // or the bytes after the body go to (or come from) the next message.
        if (const auto declared = parsed->header("Content-Length")) {
            const auto length = kelsip::parseHeaderInteger(*declared);
            require(length && static_cast<uint64_t>(*length) == framed.size() - framed.find("\r\n\r\n") - 4,
                    "the framer and the parser agree on the message's Content-Length", input, framed);
        }
        velmora::fuzz::checkMessageRoundTrip(*parsed, input);
    }
}
