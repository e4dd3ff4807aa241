// Offer/answer for the audio line: which codec, payload types,
// telephone-event type and packet time a call uses.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "media/sdp/sdp.h"

namespace kelsip {

// The Warning value that goes with a 488 for an offer we share no codec with.
inline constexpr std::string_view kNoCommonCodecWarning = "304 KELSIP \"Media type not available\"";

// One format of a remote m= line as its rtpmap, or failing that the static
// payload type table, describes it.
struct RemoteFormat {
    int payloadType = -1;
    std::string name;
    uint32_t clockRate = 0;
    uint32_t channels = 1;

    friend bool operator==(const RemoteFormat&, const RemoteFormat&) = default;
};

// The formats in m= order; those neither described nor static are skipped.
[[nodiscard]] std::vector<RemoteFormat> remoteFormats(const MediaDescription& media);

struct NegotiatedCodec {
    std::string name;
    int payloadType = -1;  // on the wire for this call
    uint32_t clockRate = 0;
    uint32_t ptime = 20;
    int telephoneEventPayloadType = -1;  // negative: no RFC 4733 events
    std::string fmtp;

    friend bool operator==(const NegotiatedCodec&, const NegotiatedCodec&) = default;
};

struct OfferOptions {
    uint16_t port = 0;
    std::string proto = "RTP/AVP";
    uint32_t ptimeMs = 20;
    // Offered only when allowed and in 96..127. The call side clears
    // `telephoneEvent` when its DTMF method sends no RFC 4733 events.
    int telephoneEventPayloadType = 101;
    bool telephoneEvent = true;
    // A re-offer on an established call: this codec goes first and keeps its
    // payload type, and so does telephone-event when one was agreed.
    std::optional<NegotiatedCodec> current;
};

// The audio m= line with our codecs, telephone-event and ptime; transport
// attributes and direction come after (addTransportAttributes).
[[nodiscard]] MediaDescription buildOfferMedia(const OfferOptions& options);

struct AnswerOptions {
    uint32_t ptimeMs = 20;      // when the offer names none
    bool telephoneEvent = true;  // false: ignore offered telephone-event
};

// The codec for answering `offer`: the offerer's first format that we run at
// the same clock rate. Empty when the offer has no usable audio line or no
// common codec; the call side answers 488 with kNoCommonCodecWarning.
[[nodiscard]] std::optional<NegotiatedCodec> chooseFromOffer(const SessionDescription& offer,
                                                             const AnswerOptions& options,
                                                             std::string* error = nullptr);

struct AnswerMediaOptions {
    uint16_t port = 0;
    std::string proto = "RTP/AVP";
};

// The answer's audio m= line: exactly the chosen codec, telephone-event when
// agreed, and ptime; transport attributes and direction come after.
[[nodiscard]] MediaDescription buildAnswerMedia(const NegotiatedCodec& codec, const AnswerMediaOptions& options);

struct MatchOptions {
    int call = 0;  // for the log lines
    uint32_t ptimeMs = 20;
    bool telephoneEvent = true;
    bool srtpRequired = false;
    // Whether the SRTP layer can use a crypto attribute value.
    std::function<bool(std::string_view)> acceptsCrypto;
    bool localHold = false;
};

struct AnswerMatch {
    NegotiatedCodec codec;
    bool remoteHold = false;  // inactive answer while we did not hold
};

// Reads the answer to our offer. Empty when it has no usable audio line, no
// codec we offered, or no usable crypto when SRTP is required; the call side
// then ends the call.
[[nodiscard]] std::optional<AnswerMatch> matchAnswer(const SessionDescription& answer, const MatchOptions& options,
                                                     std::string* error = nullptr);

}  // namespace kelsip
