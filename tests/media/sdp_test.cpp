// SDP bodies: parsing, writing, the attribute queries and our own descriptions.
#include "media/sdp/sdp.h"

#include <gtest/gtest.h>

#include "media/sdp/sdp_local.h"

namespace kelsip {
namespace {

constexpr const char* kOffer =
    "v=0\r\n"
    "o=alice 2890844526 2890844527 IN IP4 192.0.2.10\r\n"
    "s=call\r\n"
    "i=ignored\r\n"
    "c=IN IP4 192.0.2.10\r\n"
    "b=AS:64\r\n"
    "t=0 0\r\n"
    "a=tool:x\r\n"
    "m=audio 49170 RTP/AVP 0 8 101\r\n"
    "c=IN IP6 2001:db8::1\r\n"
    "a=rtpmap:0 PCMU/8000\r\n"
    "a=rtpmap:101 telephone-event/8000\r\n"
    "a=fmtp:101 0-16\r\n"
    "a=ptime:30\r\n"
    "a=sendonly\r\n"
    "m=video 0 RTP/AVP 31\r\n";

TEST(SdpTest, ReadsAnOfferAndWritesItBackWithoutTheDroppedLinesWhateverItsLineEnds) {
    const auto sdp = SessionDescription::parse(kOffer);
    ASSERT_TRUE(sdp);
    ASSERT_EQ(sdp->media.size(), 2u);
    EXPECT_EQ(sdp->media[0].ptime(), 30u);
    EXPECT_EQ(sdp->media[0].direction(), MediaDirection::SendOnly);
    // Everything else read shows in the text written back.
    std::string expected = kOffer;
    for (const std::string dropped : {"i=ignored\r\n", "b=AS:64\r\n"}) {
        expected.erase(expected.find(dropped), dropped.size());
    }
    EXPECT_EQ(sdp->toString(), expected);

    std::string lf;
    for (const char c : expected) {
        if (c != '\r') lf += c;
    }
    for (const std::string& other : {lf, expected.substr(0, expected.size() - 2), "\r\n\n" + expected + "\n\n"}) {
        EXPECT_EQ(SessionDescription::parse(other), sdp) << other;
    }
}

TEST(SdpTest, RefusesWithTheFixedTextsAndReadsOddFieldsTolerantly) {
    const struct {
        const char* name;
        std::string body;
        const char* error;  // nullptr: parses
    } cases[] = {
        {"only o, s, t", "o=- 1 1 IN IP4 h\r\ns=-\r\nt=0 0\r\n", "missing v= line"},
        {"no equals sign", "v=0\r\nhello\r\n", "malformed line: hello"},
        {"five origin tokens", "v=0\r\no=- 1 1 IN IP4\r\n", "bad o= line"},
        {"two connection tokens", "v=0\r\nc=IN IP4\r\n", "bad c= line"},
        {"no port", "v=0\r\nm=audio RTP/AVP\r\n", "bad m= line"},
        {"port above 65535", "v=0\r\nm=audio 70000 RTP/AVP 0\r\n", "bad media port"},
        {"port 65535 is fine", "v=0\r\nm=audio 65535 RTP/AVP 0\r\n", nullptr},
        {"unknown letters are dropped", "v=0\r\nz=x\r\nk=y\r\nb=AS:1\r\nQ=z\r\n", nullptr},
        {"empty origin token is kept", "v=0\r\no=- 1 1 IN IP4 \r\n", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto sdp = SessionDescription::parse(c.body, &error);
        EXPECT_EQ(sdp.has_value(), c.error == nullptr) << error;
        if (c.error) { EXPECT_EQ(error, c.error); }
    }

    const auto sdp = SessionDescription::parse(
        "v=x\r\no=bob  id 99999999999999999999 IN IP4 h\r\nc=IN IP4 224.2.1.1/127/3\r\n"
        "m=audio 49170/2 RTP/AVP 0  8 \r\na=fmtp:\r\na=:v\r\n");
    ASSERT_TRUE(sdp);
    // An empty token and "id" both read as 0, and the extra blank shifts the rest.
    EXPECT_EQ(sdp->toString(), "v=0\r\no=bob 0 0 IN IN IP4\r\ns=-\r\nc=IN IP4 224.2.1.1\r\nt=0 0\r\n"
                               "m=audio 49170 RTP/AVP 0 8\r\na=fmtp\r\na=:v\r\n");
}

TEST(SdpTest, AttributeQueries) {
    MediaDescription m;
    EXPECT_EQ(m.direction(), MediaDirection::SendRecv);
    m.addAttribute("fmtp", "1010 x=1");
    m.addAttribute("rtpmap", "1010 other/8000");
    m.addAttribute("rtpmap", "101 telephone-event/8000");
    m.addAttribute("rtpmap", "97 opus/48000/2");
    m.addAttribute("fmtp", "101 0-16");
    m.addAttribute("fmtp", "97  useinbandfec = 1 ; ;stereo;maxplaybackrate=48000");
    EXPECT_EQ(m.fmtp(101), "0-16");
    EXPECT_EQ(m.rtpmap(101), (RtpMap{"telephone-event", 8000, std::nullopt}));
    EXPECT_EQ(m.rtpmap(97), (RtpMap{"opus", 48000, 2u}));
    EXPECT_FALSE(m.rtpmap(10));
    EXPECT_FALSE(m.fmtp(0));
    EXPECT_EQ(m.fmtpParams(97), (std::vector<FmtpParam>{{"useinbandfec", "1"}, {"stereo", std::nullopt},
                                                         {"maxplaybackrate", "48000"}}));

    // The first direction attribute counts; setting one leaves exactly one.
    MediaDescription d;
    d.addAttribute("rtpmap", "0 PCMU/8000");
    d.addAttribute("inactive");
    d.addAttribute("sendonly");
    EXPECT_EQ(d.direction(), MediaDirection::Inactive);
    const std::pair<MediaDirection, const char*> cases[] = {
        {MediaDirection::SendOnly, "sendonly"},
        {MediaDirection::RecvOnly, "recvonly"},
        {MediaDirection::Inactive, "inactive"},
        {MediaDirection::SendRecv, "sendrecv"},
        {static_cast<MediaDirection>(7), "sendrecv"},
    };
    for (const auto& [dir, name] : cases) {
        d.setDirection(dir);
        EXPECT_EQ(d.attributes, (SdpAttributeList{{{"rtpmap", "0 PCMU/8000"}, {name, ""}}})) << name;
    }
}

TEST(SdpTest, LocalSessionCountsVersionsAndTransportAttributesEndWithTheDirection) {
    SdpOrigin origin;
    origin.sessionId = 77;
    EXPECT_EQ(buildLocalSession(origin, "2001:db8::5").toString(),
              "v=0\r\no=kelsip 77 1 IN IP6 2001:db8::5\r\ns=KELSIP\r\nc=IN IP6 2001:db8::5\r\nt=0 0\r\n");
    // The writer's fixed order, an empty session name and an empty attribute value.
    SessionDescription sdp = buildLocalSession(origin, "192.0.2.5");
    sdp.sessionName.clear();
    sdp.attributes.push_back({"group", "BUNDLE a"});
    MediaDescription audio;
    audio.port = 4000;
    audio.formats = {"0", "101"};
    audio.connectionAddress = "10.0.0.2";
    audio.addAttribute("sendrecv");
    audio.addAttribute("fmtp", "");
    sdp.media.push_back(audio);
    EXPECT_EQ(sdp.toString(),
              "v=0\r\no=kelsip 77 2 IN IP4 192.0.2.5\r\ns=-\r\nc=IN IP4 192.0.2.5\r\nt=0 0\r\n"
              "a=group:BUNDLE a\r\nm=audio 4000 RTP/AVP 0 101\r\nc=IN IP4 10.0.0.2\r\na=sendrecv\r\na=fmtp\r\n");

    TransportAttributes transport;
    transport.srtp = true;
    transport.configuredCrypto = {{"AES_CM_128_HMAC_SHA1_80", "inline:a"}, {"AES_CM_128_HMAC_SHA1_32", "inline:b"}};
    transport.ice = IceAttributes{"uf", "pw", {"1 1 UDP 1 10.0.0.1 4000 typ host"}};
    transport.rtcp = RtcpAddress{4001, "fe80::1"};
    transport.direction = MediaDirection::RecvOnly;
    MediaDescription m;
    m.addAttribute("sendrecv");
    addTransportAttributes(m, transport);
    EXPECT_EQ(m.attributes, (SdpAttributeList{{{"crypto", "1 AES_CM_128_HMAC_SHA1_80 inline:a"},
                                               {"crypto", "2 AES_CM_128_HMAC_SHA1_32 inline:b"},
                                               {"ice-ufrag", "uf"},
                                               {"ice-pwd", "pw"},
                                               {"candidate", "1 1 UDP 1 10.0.0.1 4000 typ host"},
                                               {"rtcp", "4001 IN IP6 fe80::1"},
                                               {"recvonly", ""}}}));
    // Once agreed, only the agreed crypto line; without SRTP none.
    transport.agreedCrypto = {"3 AES_CM_128_HMAC_SHA1_80 inline:c"};
    transport.ice.reset();
    transport.rtcp.reset();
    for (const bool srtp : {true, false}) {
        transport.srtp = srtp;
        MediaDescription agreed;
        addTransportAttributes(agreed, transport);
        EXPECT_EQ(agreed.attributes("crypto").size(), srtp ? 1u : 0u);
        EXPECT_EQ(agreed.attributes.back(), (SdpAttribute{"recvonly", ""}));
    }
}

}  // namespace
}  // namespace kelsip
