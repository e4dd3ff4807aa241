// The SIP message model: parsing, validation, serialisation, header access and
// stream framing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sip/syntax/uri.h"

namespace kelsip {

struct HeaderField {
    std::string name;   // canonical spelling
    std::string value;  // trimmed

    friend bool operator==(const HeaderField&, const HeaderField&) = default;
};

struct CSeq {
    uint32_t number = 0;  // below 2^31
    std::string method;

    friend bool operator==(const CSeq&, const CSeq&) = default;
};

class SipMessage {
public:
    bool isRequest = false;
    std::string method;     // as received, no case folding; empty in a response
    SipUri requestUri;      // requests only
    int32_t statusCode = 0; // responses only: 100 to 699
    std::string reason;     // may be empty
    std::string body;       // any bytes, NUL included

    // Parses one whole message and validates it. On failure the result is
    // empty and `error` (when given) holds one fixed text.
    [[nodiscard]] static std::optional<SipMessage> parse(std::string_view text, std::string* error = nullptr);
    // The mandatory-header check every received message must pass.
    [[nodiscard]] bool validate(std::string* error = nullptr) const;
    // The wire form, with exactly one Content-Length, last, computed from the body.
    [[nodiscard]] std::string toString() const;

    // Every header pair in order, as copies.
    [[nodiscard]] std::vector<HeaderField> headers() const;
    // Every value of one header name in order. Names compare after canonical
    // naming and without regard to case ("i", "call-id" and "Call-ID" agree).
    [[nodiscard]] std::vector<std::string> headers(std::string_view name) const;
    [[nodiscard]] std::optional<std::string> header(std::string_view name) const;
    [[nodiscard]] bool hasHeader(std::string_view name) const;
    void addHeader(std::string_view name, std::string_view value);
    void removeHeader(std::string_view name);
    void setHeader(std::string_view name, std::string_view value);
    // Replaces the value of the `index`-th pair of that name where it stands;
    // false when there is no such pair.
    bool replaceHeader(std::string_view name, size_t index, std::string_view value);

    // Typed accessors.
    [[nodiscard]] std::string callId() const;
    [[nodiscard]] std::optional<CSeq> cseq() const;
    [[nodiscard]] std::string fromTag() const;
    [[nodiscard]] std::string toTag() const;
    [[nodiscard]] std::optional<int64_t> maxForwards() const;
    [[nodiscard]] std::optional<int64_t> expires() const;
    [[nodiscard]] std::optional<std::string> contact() const;
    [[nodiscard]] std::optional<std::string> contentType() const;
    [[nodiscard]] std::vector<std::string> recordRoutes() const { return headers("Record-Route"); }
    [[nodiscard]] std::vector<std::string> routes() const { return headers("Route"); }
    [[nodiscard]] std::vector<std::string> vias() const { return headers("Via"); }

private:
    friend SipMessage makeResponse(const SipMessage&, int, std::string_view, std::string_view);
    friend class MessageParser;

    // One header pair. Its name is a known header's canonical spelling or a
    // stretch of text_, its value always a stretch of text_: offsets rather
    // than views, so that a copied message reads its own text.
    struct Entry {
        uint32_t valueAt = 0;
        uint32_t valueSize = 0;
        uint32_t nameAt = 0;
        uint32_t nameSize = 0;
        uint8_t known = 0;  // position in the known-header table, or kOtherHeader
        // A received list line with more than one element, kept whole until
        // someone reads it: most are never read.
        bool several = false;
    };
    // A name as entries store it: its table position, or its canonical spelling.
    struct NameKey {
        uint8_t known = 0;
        std::string other;
    };
    [[nodiscard]] static NameKey keyOf(std::string_view name);
    [[nodiscard]] bool matches(const Entry& e, const NameKey& key) const;
    [[nodiscard]] std::string_view nameOf(const Entry& e) const;
    [[nodiscard]] std::string_view valueOf(const Entry& e) const { return {text_.data() + e.valueAt, e.valueSize}; }
    // Calls `f` with each value of an entry: its one value, or each element.
    template <typename F>
    void forEachValue(const Entry& e, F&& f) const;
    [[nodiscard]] std::optional<std::string_view> firstValue(const NameKey& key) const;
    // Replaces each list line of that name by one entry per element.
    void splitLists(const NameKey& key);
    [[nodiscard]] const Entry* find(const NameKey& key) const;
    [[nodiscard]] const Entry* find(std::string_view canonical) const { return find(keyOf(canonical)); }
    // Copies `bytes` to the end of text_ and gives their offset.
    uint32_t store(std::string_view bytes);
    void append(const NameKey& key, std::string_view trimmedValue);
    void append(const SipMessage& from, const Entry& e);
    // Rewrites text_ without the bytes no entry reads any more, once they are many.
    void dropUnusedText();

    // The first From, To, Call-ID, CSeq, Via and Max-Forwards, however they
    // were found: the parser notes them as it reads, validate() searches.
    struct MandatoryHeaders;
    [[nodiscard]] bool checkMandatory(const MandatoryHeaders& found, std::string* error) const;
    // A CSeq value's number and method, as views of `value`.
    [[nodiscard]] static bool splitCSeq(std::string_view value, uint32_t& number, std::string_view& seqMethod);

    std::string text_;           // the names and values the entries read
    size_t unusedText_ = 0;      // bytes of text_ left behind by removed or replaced values
    std::vector<Entry> entries_;
};

// What a request the parser refused can still be answered with.
struct MalformedAnswer {
    int status = 0;          // 400, 416 or 505
    std::string response;    // the whole stateless response, ready to send

    friend bool operator==(const MalformedAnswer&, const MalformedAnswer&) = default;
};
// For bytes that SipMessage::parse refused with `error`: the error response
// built from the request's own Via (all of them, in order), From, To (with a
// To tag added when it has none), Call-ID and CSeq, Content-Length: 0.
// std::nullopt when the bytes are not a request or carry no usable Via.
[[nodiscard]] std::optional<MalformedAnswer> answerMalformedRequest(std::string_view bytes, std::string_view error);

// Takes one complete message off the front of a stream connection's receive
// buffer. Nothing is returned while more bytes are needed, or on a framing
// fault, which is reported through `error` ("bad Content-Length",
// "missing Content-Length on stream transport").
[[nodiscard]] std::optional<std::string> extractStreamMessage(std::string& buffer, std::string* error = nullptr);
// The same framing on a view: `consumed` tells how many bytes of `buffer`
// were used up (leading line breaks, and the message when one is returned),
// so a reader can take many messages and cut its buffer once.
[[nodiscard]] std::optional<std::string_view> frameStreamMessage(std::string_view buffer, size_t& consumed,
                                                                 std::string* error = nullptr);

// The canonical spelling of a header name: compact forms expanded, the
// irregular names ("Call-ID", "CSeq", "WWW-Authenticate", ...) as listed,
// otherwise each word capitalised ("x-my-header" -> "X-My-Header").
[[nodiscard]] std::string canonicalHeaderName(std::string_view name);

// The default reason phrase of a status code, falling back to its class.
[[nodiscard]] std::string_view reasonPhrase(int code);

// A response to `request` with its Via, From, To (tagged), Call-ID, CSeq,
// Record-Route (101 to 299 only) and Timestamp; no body. An empty reason
// takes the default phrase.
[[nodiscard]] SipMessage makeResponse(const SipMessage& request, int code, std::string_view reason = {},
                                      std::string_view toTag = {});

// The one routine for decimal numbers in header values: optional "-", digits,
// surrounding white space allowed; anything else, or a signed 64-bit overflow,
// is not a number.
[[nodiscard]] std::optional<int64_t> parseHeaderInteger(std::string_view text);

}  // namespace kelsip
