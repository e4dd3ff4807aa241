// RTP packets from hand-built datagrams: every header field, the lengths a
// hostile sender can lie about, and what the writer refuses.
#include "media/rtp/rtp_packet.h"

#include <gtest/gtest.h>

#include <vector>

namespace kelsip {
namespace {

using Bytes = std::vector<uint8_t>;

// V=2 P X CC=2, M with PT 96, two CSRCs, a one-word extension, a 3-byte
// payload and 3 octets of padding.
const Bytes kFull = {0xb2, 0xe0, 0x12, 0x34, 0xde, 0xad, 0xbe, 0xef, 0x01, 0x02, 0x03, 0x04,
                     0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10, 0x11,  // CSRCs
                     0xbe, 0xde, 0x00, 0x01, 0x10, 0xaa, 0x00, 0x00,  // extension
                     0x55, 0x66, 0x77,                                // payload
                     0x00, 0x00, 0x03};                               // padding

TEST(RtpPacketTest, ReadsEveryHeaderFieldAndWritesTheSameBytes) {
    std::string error;
    const auto p = RtpPacket::parse(kFull, &error);
    ASSERT_TRUE(p) << error;
    EXPECT_TRUE(p->marker);
    EXPECT_EQ(p->payloadType, 96);
    EXPECT_EQ(p->sequence, 0x1234);
    EXPECT_EQ(p->timestamp, 0xdeadbeefu);
    EXPECT_EQ(p->ssrc, 0x01020304u);
    EXPECT_EQ(p->csrcs, (std::vector<uint32_t>{0x0a0b0c0d, 0x0e0f1011}));
    ASSERT_TRUE(p->extension);
    EXPECT_EQ(p->extension->profile, 0xbede);
    EXPECT_EQ(p->extension->data, (Bytes{0x10, 0xaa, 0x00, 0x00}));
    EXPECT_EQ(Bytes(p->payload.begin(), p->payload.end()), (Bytes{0x55, 0x66, 0x77}));
    EXPECT_EQ(p->paddingLength, 3);

    Bytes out;
    ASSERT_TRUE(p->writeTo(out));
    EXPECT_EQ(out, kFull);
}

struct ParseCase {
    const char* name;
    Bytes bytes;
    const char* error;  // nullptr: parses
    size_t payloadSize = 0;
};

TEST(RtpPacketTest, ChecksEveryLengthAgainstTheDatagram) {
    const Bytes header = {0x80, 0x00, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3};
    const auto with = [&header](uint8_t first, Bytes tail) {
        Bytes b = header;
        b[0] = first;
        b.insert(b.end(), tail.begin(), tail.end());
        return b;
    };
    const ParseCase cases[] = {
        {"bare fixed header", header, nullptr, 0},
        {"eleven bytes", Bytes(header.begin(), header.end() - 1), "rtp packet too short"},
        {"version 1", with(0x40, {}), "unsupported rtp version"},
        {"version 3 (not STUN, not RTP)", with(0xc0, {}), "unsupported rtp version"},
        {"two CSRCs counted, one present", with(0x82, {1, 2, 3, 4}), "truncated csrc list"},
        {"fifteen CSRCs counted, none present", with(0x8f, {}), "truncated csrc list"},
        {"extension header cut short", with(0x90, {0xbe, 0xde, 0x00}), "truncated header extension"},
        {"extension claims 0xffff words", with(0x90, {0xbe, 0xde, 0xff, 0xff, 1, 2, 3, 4}),
         "truncated header extension"},
        {"empty extension", with(0x90, {0xbe, 0xde, 0x00, 0x00, 9}), nullptr, 1},
        {"padding count of zero", with(0xa0, {7, 0}), "bad rtp padding length"},
        {"padding reaching into the header", with(0xa0, {7, 3}), "bad rtp padding length"},
        {"padding reaching into the extension", with(0xb0, {0, 0, 0, 1, 0, 0, 0, 6}), "bad rtp padding length"},
        {"padding that is the whole payload", with(0xa0, {7, 2}), nullptr, 0},
        {"padding flag with no byte after the header", with(0xa0, {}), "bad rtp padding length"},
    };
    for (const ParseCase& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto p = RtpPacket::parse(c.bytes, &error);
        if (c.error) {
            EXPECT_FALSE(p);
            EXPECT_EQ(error, c.error);
        } else {
            ASSERT_TRUE(p) << error;
            EXPECT_EQ(p->payload.size(), c.payloadSize);
        }
    }
}

TEST(RtpPacketTest, WriterRefusesFieldsTheHeaderCannotCarry) {
    struct Case {
        const char* name;
        RtpPacket packet;
        const char* error;
    };
    RtpPacket pt;
    pt.payloadType = 128;
    RtpPacket csrcs;
    csrcs.csrcs.assign(16, 7);
    RtpPacket ext;
    ext.extension = RtpHeaderExtension{1, {1, 2, 3}};
    const Case cases[] = {
        {"payload type 128", pt, "rtp payload type above 127"},
        {"sixteen CSRCs", csrcs, "too many csrcs"},
        {"extension of three bytes", ext, "bad header extension length"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes out = {1, 2};
        std::string error;
        EXPECT_FALSE(c.packet.writeTo(out, &error));
        EXPECT_EQ(error, c.error);
    }
}

}  // namespace
}  // namespace kelsip
