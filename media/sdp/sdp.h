// The SDP model of a session description: parsing, writing, attribute queries.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelsip {

// One a= line. An empty value is a flag attribute (a=sendrecv); "a=x:" reads
// the same as "a=x".
struct SdpAttribute {
    std::string name;
    std::string value;

    friend bool operator==(const SdpAttribute&, const SdpAttribute&) = default;
};

// The ordered a= lines of a session or a media description. Calling the list
// with a name gives the values of every attribute of exactly that name, in order.
struct SdpAttributeList : std::vector<SdpAttribute> {
    [[nodiscard]] std::vector<std::string> operator()(std::string_view name) const;
    // The value of the first attribute of that name (case-sensitive).
    [[nodiscard]] std::optional<std::string> first(std::string_view name) const;

    friend bool operator==(const SdpAttributeList&, const SdpAttributeList&) = default;
};

enum class MediaDirection { SendRecv = 0, SendOnly = 1, RecvOnly = 2, Inactive = 3 };

// "sendrecv", "sendonly", "recvonly" or "inactive".
[[nodiscard]] std::string_view toString(MediaDirection direction);

// The encoding of one payload type as an rtpmap attribute names it.
struct RtpMap {
    std::string encodingName;
    uint32_t clockRate = 0;            // 0 when the text is not a number
    std::optional<uint32_t> channels;  // only when written

    friend bool operator==(const RtpMap&, const RtpMap&) = default;
};

// One "name" or "name=value" piece of an fmtp parameter list, trimmed.
struct FmtpParam {
    std::string name;
    std::optional<std::string> value;

    friend bool operator==(const FmtpParam&, const FmtpParam&) = default;
};

struct MediaDescription {
    std::string media = "audio";
    uint16_t port = 0;
    std::string proto = "RTP/AVP";
    std::vector<std::string> formats;  // payload types as written, never empty
    std::string connectionAddress;     // empty: no media-level c= line
    std::string connectionAddressType = "IP4";
    SdpAttributeList attributes;

    [[nodiscard]] std::optional<std::string> attribute(std::string_view name) const { return attributes.first(name); }
    // The first of the four direction attributes in list order; SendRecv when there is none.
    [[nodiscard]] MediaDirection direction() const;
    // Leaves exactly one direction attribute, appended last.
    void setDirection(MediaDirection direction);
    // The first "ptime" value as an unsigned decimal; empty when absent or not a number.
    [[nodiscard]] std::optional<uint32_t> ptime() const;
    // The first rtpmap (or fmtp) whose value starts with the payload type and one blank.
    [[nodiscard]] std::optional<RtpMap> rtpmap(int payloadType) const;
    [[nodiscard]] std::optional<std::string> fmtp(int payloadType) const;
    // The fmtp remainder split at ';'; blanks around pieces are dropped, and empty pieces with them.
    [[nodiscard]] std::vector<FmtpParam> fmtpParams(int payloadType) const;
    void addAttribute(std::string_view name, std::string_view value = {});

    friend bool operator==(const MediaDescription&, const MediaDescription&) = default;
};

class SessionDescription {
public:
    uint32_t version = 0;
    std::string username = "-";
    uint64_t sessionId = 0;
    uint64_t sessionVersion = 0;
    std::string originAddressType = "IP4";
    std::string originAddress;
    std::string sessionName = "-";
    std::string connectionAddressType = "IP4";
    std::string connectionAddress;  // empty: no session-level c= line
    std::string timing = "0 0";
    SdpAttributeList attributes;
    std::vector<MediaDescription> media;

    // Reads a received body. Tolerant: unknown line types are dropped and
    // unreadable numbers read as 0. On failure the result is empty and
    // `error` (when given) holds one fixed text.
    [[nodiscard]] static std::optional<SessionDescription> parse(std::string_view text, std::string* error = nullptr);
    // The body as we send it: v, o, s, c, t, a, then each m= with its c= and a= lines; CRLF line ends.
    [[nodiscard]] std::string toString() const;

    friend bool operator==(const SessionDescription&, const SessionDescription&) = default;
};

}  // namespace kelsip
