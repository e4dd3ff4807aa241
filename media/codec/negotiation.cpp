// Offer/answer for the audio line: the offer and answer builders and the
// matching of an offer or answer against our codecs.
#include "media/codec/negotiation.h"

#include <algorithm>

#include "media/codec/codec_registry.h"
#include "media/codec/format_table.h"
#include "sip/core/log.h"
#include "sip/syntax/text.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "media";
constexpr int kFirstDynamic = 96;
constexpr int kLastDynamic = 127;

std::optional<int> readPayloadType(std::string_view s) {
    if (s.empty() || s.size() > 3) return std::nullopt;
    int value = 0;
    for (const char c : s) {
        if (!text::isDigit(c)) return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

void fail(std::string* error, std::string_view text) {
    if (error) error->assign(text);
}

const MediaDescription* firstAudio(const SessionDescription& sdp) {
    for (const MediaDescription& m : sdp.media) {
        if (m.media == "audio" && m.port != 0) return &m;
    }
    return nullptr;
}

// The offerer's (or answerer's) order decides: the first of its formats that
// one of our codecs runs at the same clock rate.
std::optional<NegotiatedCodec> firstCommon(const std::vector<RemoteFormat>& formats) {
    const auto& codecs = CodecRegistry::instance().codecs();
    for (const RemoteFormat& f : formats) {
        for (const CodecInfo& c : codecs) {
            if (text::iequals(c.name, f.name) && c.clockRate == f.clockRate) {
                NegotiatedCodec chosen;
                chosen.name = c.name;
                chosen.payloadType = f.payloadType;
                chosen.clockRate = c.clockRate;
                chosen.fmtp = c.fmtp;
                return chosen;
            }
        }
    }
    return std::nullopt;
}

// The last telephone-event at 8000 Hz the peer lists; -1 when none or not wanted.
int telephoneEventOf(const std::vector<RemoteFormat>& formats, bool wanted) {
    int payloadType = -1;
    if (!wanted) return payloadType;
    for (const RemoteFormat& f : formats) {
        if (text::iequals(f.name, "telephone-event") && f.clockRate == 8000) payloadType = f.payloadType;
    }
    return payloadType;
}

// Agrees codec, telephone-event and ptime with a peer's audio line.
std::optional<NegotiatedCodec> agree(const MediaDescription& media, uint32_t ptimeMs, bool telephoneEvent) {
    const auto formats = remoteFormats(media);
    auto chosen = firstCommon(formats);
    if (!chosen) return std::nullopt;
    chosen->telephoneEventPayloadType = telephoneEventOf(formats, telephoneEvent);
    chosen->ptime = media.ptime().value_or(ptimeMs);
    return chosen;
}

void addCodecLines(MediaDescription& m, int payloadType, std::string_view name, uint32_t clock, std::string_view fmtp) {
    const std::string pt = std::to_string(payloadType);
    m.formats.push_back(pt);
    m.addAttribute("rtpmap", pt + ' ' + std::string(name) + '/' + std::to_string(clock));
    if (!fmtp.empty()) m.addAttribute("fmtp", pt + ' ' + std::string(fmtp));
}

void addTelephoneEvent(MediaDescription& m, int payloadType) {
    addCodecLines(m, payloadType, "telephone-event", 8000, "0-16");
}

}  // namespace

std::vector<RemoteFormat> remoteFormats(const MediaDescription& media) {
    std::vector<RemoteFormat> formats;
    for (const std::string& token : media.formats) {
        const auto pt = readPayloadType(token);
        if (!pt) continue;
        if (const auto map = media.rtpmap(*pt)) {
            formats.push_back(RemoteFormat{*pt, map->encodingName, map->clockRate, map->channels.value_or(1)});
        } else if (const auto row = lookupByPayloadType(*pt)) {
            formats.push_back(RemoteFormat{*pt, row->name, row->clockRate, row->channels});
        }
    }
    return formats;
}

MediaDescription buildOfferMedia(const OfferOptions& options) {
    std::vector<CodecInfo> codecs = CodecRegistry::instance().codecs();
    const NegotiatedCodec* current = options.current ? &*options.current : nullptr;
    if (current) {
        const auto it = std::find_if(codecs.begin(), codecs.end(),
                                     [&](const CodecInfo& c) { return text::iequals(c.name, current->name); });
        if (it != codecs.end()) std::rotate(codecs.begin(), it, it + 1);
    }

    const bool offerEvents = options.telephoneEvent && options.telephoneEventPayloadType >= kFirstDynamic &&
                             options.telephoneEventPayloadType <= kLastDynamic;
    const int eventPayloadType = current && current->telephoneEventPayloadType >= 0
                                     ? current->telephoneEventPayloadType
                                     : options.telephoneEventPayloadType;
    // Numbers a dynamic codec must not take: telephone-event's and, in a
    // re-offer, the ones the call already uses.
    const auto taken = [&](int pt) {
        return pt == options.telephoneEventPayloadType || (offerEvents && pt == eventPayloadType) ||
               (current && pt == current->payloadType);
    };

    MediaDescription m;
    m.port = options.port;
    m.proto = options.proto;
    int nextDynamic = kFirstDynamic;
    for (const CodecInfo& c : codecs) {
        int pt = c.payloadType;
        if (current && text::iequals(c.name, current->name) && current->payloadType >= 0) {
            pt = current->payloadType;
        } else if (pt < 0 || pt >= kFirstDynamic) {
            while (taken(nextDynamic)) ++nextDynamic;
            pt = nextDynamic++;
        }
        addCodecLines(m, pt, c.name, c.clockRate, c.fmtp);
    }
    if (offerEvents) addTelephoneEvent(m, eventPayloadType);
    m.addAttribute("ptime", std::to_string(options.ptimeMs));
    return m;
}

std::optional<NegotiatedCodec> chooseFromOffer(const SessionDescription& offer, const AnswerOptions& options,
                                               std::string* error) {
    const MediaDescription* audio = firstAudio(offer);
    if (!audio) {
        fail(error, "no audio media in offer");
        return std::nullopt;
    }
    auto chosen = agree(*audio, options.ptimeMs, options.telephoneEvent);
    if (!chosen) fail(error, "no common codec in offer");
    return chosen;
}

MediaDescription buildAnswerMedia(const NegotiatedCodec& codec, const AnswerMediaOptions& options) {
    MediaDescription m;
    m.port = options.port;
    m.proto = options.proto;
    // Answers always write the 8000 Hz clock: every codec we run has it.
    addCodecLines(m, codec.payloadType, codec.name, 8000, codec.fmtp);
    if (codec.telephoneEventPayloadType >= 0) addTelephoneEvent(m, codec.telephoneEventPayloadType);
    m.addAttribute("ptime", std::to_string(codec.ptime));
    return m;
}

std::optional<AnswerMatch> matchAnswer(const SessionDescription& answer, const MatchOptions& options,
                                       std::string* error) {
    const MediaDescription* audio = firstAudio(answer);
    if (!audio) {
        fail(error, "no audio media in answer");
        return std::nullopt;
    }
    const std::string call = "call " + std::to_string(options.call);
    auto chosen = agree(*audio, options.ptimeMs, options.telephoneEvent);
    if (!chosen) {
        log::warn(kTag, call + ": no common codec in answer");
        fail(error, "no common codec in answer");
        return std::nullopt;
    }
    if (options.srtpRequired) {
        const auto crypto = audio->attributes("crypto");
        const bool usable = options.acceptsCrypto &&
                            std::any_of(crypto.begin(), crypto.end(),
                                        [&](const std::string& value) { return options.acceptsCrypto(value); });
        if (!usable) {
            log::warn(kTag, call + ": SRTP required but the answer has no usable crypto");
            fail(error, "no usable crypto in answer");
            return std::nullopt;
        }
    }
    AnswerMatch match;
    match.codec = std::move(*chosen);
    match.remoteHold = audio->direction() == MediaDirection::Inactive && !options.localHold;
    return match;
}

}  // namespace kelsip
