// Codec choice: the format table, the registry, and offer and answer on the wire.
#include "media/codec/negotiation.h"

#include <gtest/gtest.h>

#include "media/codec/codec_registry.h"
#include "media/codec/format_table.h"
#include "support/log_capture.h"

namespace kelsip {
namespace {

SessionDescription offerWith(std::string_view mediaLines) {
    std::string error;
    auto sdp = SessionDescription::parse("v=0\r\no=- 1 1 IN IP4 192.0.2.1\r\ns=-\r\nc=IN IP4 192.0.2.1\r\nt=0 0\r\n" +
                                             std::string(mediaLines),
                                         &error);
    EXPECT_TRUE(sdp) << error;
    return sdp.value_or(SessionDescription{});
}

TEST(FormatTableTest, LookupsByPayloadTypeAndByNormalisedName) {
    EXPECT_EQ(lookupByPayloadType(9)->clockRate, 8000u);  // G722 keeps the 8000 Hz RTP clock
    EXPECT_EQ(lookupByPayloadType(33)->mediaKind, MediaKind::Both);
    for (const int none : {96, -1, 2}) EXPECT_FALSE(lookupByPayloadType(none)) << none;  // dynamic rows carry -1

    const struct {
        const char* name;
        uint32_t clock, channels;
        const char* row;  // nullptr: none
        int32_t payloadType;
        uint32_t rowClock;
    } cases[] = {
        {"G729A", 8000, 1, "G729", 18, 8000},
        {"G721", 0, 0, "G726-32", -1, 8000},
        {"pcma", 0, 0, "PCMA", 8, 8000},
        {"L16", 0, 1, "L16", 11, 44100},
        {"L16", 16000, 1, "L16", -1, 16000},
        {"opus", 48000, 1, nullptr, 0, 0},
        {"PCMU", 16000, 0, nullptr, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.name << "/" << c.clock << "/" << c.channels);
        const auto row = lookupByName(c.name, c.clock, c.channels);
        ASSERT_EQ(row.has_value(), c.row != nullptr);
        if (!row) continue;
        EXPECT_EQ(row->name, c.row);
        EXPECT_EQ(row->payloadType, c.payloadType);
        EXPECT_EQ(row->clockRate, c.rowClock);
    }

    EXPECT_EQ(CodecRegistry::instance().create("pcma")->info().payloadType, 8);
    EXPECT_FALSE(CodecRegistry::instance().create("G729"));
}

TEST(FormatTableTest, FmtpChangesOnlyTheFramesItNames) {
    const struct {
        const char* name;
        const char* fmtp;
        uint32_t frameUs, ptime, bitrate, frameBytes;
    } cases[] = {
        {"iLBC", "mode=20", 20000, 20, 15200, 38},
        {"iLBC", " MODE = 30 ", 30000, 30, 13330, 50},
        {"iLBC", "mode=25", 30000, 30, 13330, 50},
        {"G723", "bitrate=5.3", 30000, 30, 5300, 20},
        {"G723", "annexa=no;bitrate=6.3", 30000, 30, 6300, 24},
        {"G723", "bitrate=5300", 30000, 30, 6300, 24},
        {"G729", "mode=20", 10000, 20, 8000, 10},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + c.fmtp);
        auto info = lookupByName(c.name, 8000, 1);
        ASSERT_TRUE(info);
        applyFmtp(*info, c.fmtp);
        EXPECT_EQ(info->frameDurationUs, c.frameUs);
        EXPECT_EQ(info->ptimeMs, c.ptime);
        EXPECT_EQ(info->bitrate, c.bitrate);
        EXPECT_EQ(info->frameBytes, c.frameBytes);
    }
}

TEST(NegotiationTest, AnswererFollowsTheOfferersOrder) {
    EXPECT_EQ(remoteFormats(offerWith("m=audio 4000 RTP/AVP 0 97 96 x 18 120\r\na=rtpmap:97 opus/48000/2\r\n"
                                      "a=rtpmap:0 PCMU/16000\r\n")
                                .media.at(0)),
              (std::vector<RemoteFormat>{{0, "PCMU", 16000, 1}, {97, "opus", 48000, 2}, {18, "G729", 8000, 1}}));
    const struct {
        const char* name;
        const char* media;
        const char* codec;  // nullptr: refused
        int payloadType = -1;
        int telephoneEvent = -1;
        uint32_t ptime = 20;
        bool eventsWanted = true;
    } cases[] = {
        {"offerer prefers PCMA", "m=audio 4000 RTP/AVP 8 0\r\n", "PCMA", 8},
        {"rtpmap-less static types", "m=audio 4000 RTP/AVP 3 0 8\r\n", "PCMU", 0},
        {"dynamic type with a lower-case name", "m=audio 4000 RTP/AVP 97\r\na=rtpmap:97 pcmu/8000\r\n", "PCMU", 97},
        {"rtpmap overrides the static meaning", "m=audio 4000 RTP/AVP 0 8\r\na=rtpmap:0 PCMU/16000\r\n", "PCMA", 8},
        {"clock rate must be equal", "m=audio 4000 RTP/AVP 0\r\na=rtpmap:0 PCMU/16000\r\n", nullptr},
        {"nothing we run", "m=audio 4000 RTP/AVP 18 9\r\n", nullptr},
        {"port 0 audio is declined media", "m=audio 0 RTP/AVP 0\r\n", nullptr},
        {"video only", "m=video 4000 RTP/AVP 31\r\n", nullptr},
        {"first usable audio line", "m=audio 0 RTP/AVP 0\r\nm=audio 5000 RTP/AVP 8\r\n", "PCMA", 8},
        {"last telephone-event at 8000 wins",
         "m=audio 4000 RTP/AVP 0 101 96\r\na=rtpmap:101 telephone-event/8000\r\na=rtpmap:96 Telephone-Event/8000\r\n",
         "PCMU", 0, 96},
        {"telephone-event at 16000 only", "m=audio 4000 RTP/AVP 0 101\r\na=rtpmap:101 telephone-event/16000\r\n",
         "PCMU", 0, -1},
        {"DTMF without RFC 4733 ignores telephone-event",
         "m=audio 4000 RTP/AVP 0 101\r\na=rtpmap:101 telephone-event/8000\r\n", "PCMU", 0, -1, 20, false},
        {"offer's ptime", "m=audio 4000 RTP/AVP 0\r\na=ptime:30\r\n", "PCMU", 0, -1, 30},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto chosen = chooseFromOffer(offerWith(c.media), AnswerOptions{20, c.eventsWanted}, &error);
        ASSERT_EQ(chosen.has_value(), c.codec != nullptr) << error;
        if (!chosen) {
            EXPECT_FALSE(error.empty());
            continue;
        }
        EXPECT_EQ(*chosen, (NegotiatedCodec{c.codec, c.payloadType, 8000, c.ptime, c.telephoneEvent, chosen->fmtp}));
    }
}

TEST(NegotiationTest, AnswerCarriesExactlyTheChosenCodecAndOffersListOursWithTheAgreedFirst) {
    const auto chosen = chooseFromOffer(offerWith("m=audio 4000 RTP/AVP 97 101\r\na=rtpmap:97 pcmu/8000\r\n"
                                                  "a=rtpmap:101 telephone-event/8000\r\na=ptime:40\r\n"),
                                        AnswerOptions{});
    ASSERT_TRUE(chosen);
    SessionDescription sdp;
    sdp.media.push_back(buildAnswerMedia(*chosen, AnswerMediaOptions{6000, "RTP/AVP"}));
    const std::string text = sdp.toString();
    EXPECT_EQ(text.substr(text.find("m=")),
              "m=audio 6000 RTP/AVP 97 101\r\na=rtpmap:97 PCMU/8000\r\na=rtpmap:101 telephone-event/8000\r\n"
              "a=fmtp:101 0-16\r\na=ptime:40\r\n");

    OfferOptions options;
    options.port = 4000;
    options.ptimeMs = 30;
    EXPECT_EQ(buildOfferMedia(options).attributes,
              (SdpAttributeList{{{"rtpmap", "0 PCMU/8000"},
                                 {"rtpmap", "8 PCMA/8000"},
                                 {"rtpmap", "101 telephone-event/8000"},
                                 {"fmtp", "101 0-16"},
                                 {"ptime", "30"}}}));
    EXPECT_EQ(buildOfferMedia(options).formats, (std::vector<std::string>{"0", "8", "101"}));
    // No telephone-event with a type outside 96..127, or when we want none.
    for (const int type : {95, 128, -1, 0}) {
        options.telephoneEventPayloadType = type ? type : 101;
        options.telephoneEvent = type != 0;
        EXPECT_EQ(buildOfferMedia(options).formats, (std::vector<std::string>{"0", "8"})) << type;
    }

    // A re-offer puts the agreed codec first, with the agreed types.
    OfferOptions again;
    again.current = NegotiatedCodec{"pcma", 8, 8000, 20, 100, ""};
    const MediaDescription m = buildOfferMedia(again);
    EXPECT_EQ(m.formats, (std::vector<std::string>{"8", "0", "100"}));
    EXPECT_EQ(m.attributes("rtpmap"),
              (std::vector<std::string>{"8 PCMA/8000", "0 PCMU/8000", "100 telephone-event/8000"}));
}

TEST(NegotiationTest, MatchingTheAnswerWarnsOfEveryReasonToEndTheCall) {
    const auto acceptsAesCm = [](std::string_view value) {
        return value.find("AES_CM_128_HMAC_SHA1_80") != value.npos;
    };
    const struct {
        const char* media;
        bool srtpRequired;
        bool localHold;
        int result;  // -1: refused; else whether it is a remote hold
        const char* warning;
    } cases[] = {
        {"m=audio 4000 RTP/AVP 18\r\n", false, false, -1, "call 7: no common codec in answer"},
        {"m=audio 0 RTP/AVP 0\r\n", false, false, -1, nullptr},
        {"m=audio 4000 RTP/SAVP 0\r\na=crypto:1 F8_128_HMAC_SHA1_80 inline:x\r\n", true, false, -1,
         "call 7: SRTP required but the answer has no usable crypto"},
        {"m=audio 4000 RTP/SAVP 0\r\n", true, false, -1, "call 7: SRTP required but the answer has no usable crypto"},
        {"m=audio 4000 RTP/SAVP 0\r\na=crypto:1 F8_128_HMAC_SHA1_80 inline:x\r\n"
         "a=crypto:2 AES_CM_128_HMAC_SHA1_80 inline:y\r\n", true, false, 0, nullptr},
        {"m=audio 4000 RTP/AVP 8\r\na=inactive\r\n", false, false, 1, nullptr},
        {"m=audio 4000 RTP/AVP 8\r\na=inactive\r\n", false, true, 0, nullptr},  // we held
        {"m=audio 4000 RTP/AVP 8\r\na=sendonly\r\n", false, false, 0, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.media);
        const test::LogCapture log(LogLevel::Warn);
        MatchOptions options;
        options.call = 7;
        options.srtpRequired = c.srtpRequired;
        options.localHold = c.localHold;
        options.acceptsCrypto = acceptsAesCm;
        std::string error;
        const auto match = matchAnswer(offerWith(c.media), options, &error);
        ASSERT_EQ(match.has_value(), c.result >= 0) << error;
        if (match) { EXPECT_EQ(match->remoteHold, c.result == 1); }
        EXPECT_EQ(log.lines(), c.warning ? std::vector<std::string>{c.warning} : std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace kelsip
