// RTP packets from hand-built datagrams: every header field, lying lengths and what the writer refuses.
#include "media/rtp/rtp_packet.h"

#include <gtest/gtest.h>

namespace kelsip {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(RtpPacketTest, ReadsEveryHeaderFieldAndWritesTheSameBytes) {
    // V=2 P X CC=2, M, PT 96, two CSRCs, a one-word extension, 3 bytes of payload and 3 of padding.
    const Bytes full = {0xb2, 0xe0, 0x12, 0x34, 0xde, 0xad, 0xbe, 0xef, 0x01, 0x02, 0x03, 0x04,  // header
                        0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10, 0x11,                          // CSRCs
                        0xbe, 0xde, 0x00, 0x01, 0x10, 0xaa, 0x00, 0x00,                          // extension
                        0x55, 0x66, 0x77, 0x00, 0x00, 0x03};                                     // payload, padding
    const auto p = RtpPacket::parse(full);
    ASSERT_TRUE(p);
    EXPECT_TRUE(p->marker);
    EXPECT_EQ(p->payloadType, 96);
    EXPECT_EQ(p->sequence, 0x1234);
    EXPECT_EQ(p->timestamp, 0xdeadbeefu);
    EXPECT_EQ(p->ssrc, 0x01020304u);
    EXPECT_EQ(p->csrcs, (std::vector<uint32_t>{0x0a0b0c0d, 0x0e0f1011}));
    EXPECT_EQ(p->extension, (RtpHeaderExtension{0xbede, {0x10, 0xaa, 0x00, 0x00}}));
    EXPECT_EQ(Bytes(p->payload.begin(), p->payload.end()), (Bytes{0x55, 0x66, 0x77}));
    EXPECT_EQ(p->paddingLength, 3);
    Bytes out;
    ASSERT_TRUE(p->writeTo(out));
    EXPECT_EQ(out, full);
}

TEST(RtpPacketTest, ChecksEveryLengthAgainstTheDatagramAndRefusesToWriteWhatTheHeaderCannotCarry) {
    const Bytes header = {0x80, 0x00, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3};
    const auto with = [&header](uint8_t first, Bytes tail) {
        Bytes b = header;
        b[0] = first;
        b.insert(b.end(), tail.begin(), tail.end());
        return b;
    };
    const struct {
        const char* name;
        Bytes bytes;
        const char* error;  // nullptr: parses
        size_t payloadSize = 0;
    } cases[] = {
        {"bare fixed header", header, nullptr, 0},
        {"eleven bytes", Bytes(header.begin(), header.end() - 1), "rtp packet too short"},
        {"version 1", with(0x40, {}), "unsupported rtp version"},
        {"two CSRCs counted, one present", with(0x82, {1, 2, 3, 4}), "truncated csrc list"},
        {"extension claims 0xffff words", with(0x90, {0xbe, 0xde, 0xff, 0xff, 1, 2, 3, 4}),
         "truncated header extension"},
        {"empty extension", with(0x90, {0xbe, 0xde, 0x00, 0x00, 9}), nullptr, 1},
        {"padding count of zero", with(0xa0, {7, 0}), "bad rtp padding length"},
        {"padding reaching into the extension", with(0xb0, {0, 0, 0, 1, 0, 0, 0, 6}), "bad rtp padding length"},
        {"padding that is the whole payload", with(0xa0, {7, 2}), nullptr, 0},
        {"padding flag with no byte after the header", with(0xa0, {}), "bad rtp padding length"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        const auto p = RtpPacket::parse(c.bytes, &error);
        ASSERT_EQ(p.has_value(), c.error == nullptr) << error;
        EXPECT_EQ(p ? p->payload.size() : 0u, c.payloadSize);
        if (c.error) { EXPECT_EQ(error, c.error); }
    }

    RtpPacket pt, csrcs, ext;
    pt.payloadType = 128;
    csrcs.csrcs.assign(16, 7);
    ext.extension = RtpHeaderExtension{1, {1, 2, 3}};
    for (const auto& [packet, error] : {std::pair{pt, "rtp payload type above 127"}, std::pair{csrcs, "too many csrcs"},
                                        std::pair{ext, "bad header extension length"}}) {
        Bytes out = {1, 2};
        std::string text;
        EXPECT_FALSE(packet.writeTo(out, &text));
        EXPECT_EQ(text, error);
    }
}

}  // namespace
}  // namespace kelsip
