// RTCP compounds from hand-built datagrams, hostile counts and lengths among them.
#include "media/rtp/rtcp_packet.h"

#include <gtest/gtest.h>

#include <vector>

namespace kelsip {
namespace {

using Bytes = std::vector<uint8_t>;

// SR with one report block, SDES with a CNAME, BYE with a reason.
const Bytes kCompound = {
    0x81, 200, 0x00, 0x0c, 0x11, 0x22, 0x33, 0x44,              // SR, SSRC
    0xe1, 0xa2, 0xb3, 0xc4, 0x80, 0x00, 0x00, 0x00,              // NTP time
    0x00, 0x00, 0x06, 0x40, 0x00, 0x00, 0x00, 0x0a,              // RTP time, packets
    0x00, 0x00, 0x06, 0x40,                                      // octets
    0xaa, 0xbb, 0xcc, 0xdd, 0x40, 0xff, 0xff, 0xfe,              // block: SSRC, 1/4 lost, -2
    0x00, 0x01, 0x00, 0x10, 0x00, 0x00, 0x00, 0x20,              // ext. highest seq, jitter
    0xb3, 0xc4, 0x80, 0x00, 0x00, 0x01, 0x00, 0x00,              // LSR, DLSR
    0x81, 202, 0x00, 0x03, 0x11, 0x22, 0x33, 0x44,              // SDES chunk
    0x01, 0x05, 'a', 'l', 'i', 'c', 'e', 0x00,                   // CNAME, null item
    0x81, 203, 0x00, 0x02, 0x11, 0x22, 0x33, 0x44, 3, 'b', 'y', 'e'};  // BYE

TEST(RtcpPacketTest, ReadsSenderReportSdesAndByeAndWritesTheSameBytes) {
    std::string error;
    const auto c = RtcpCompound::parse(kCompound, &error);
    ASSERT_TRUE(c) << error;
    ASSERT_EQ(c->packets.size(), 3u);
    const auto& sr = std::get<RtcpSenderReport>(c->packets[0]);
    EXPECT_EQ(sr.ssrc, 0x11223344u);
    EXPECT_EQ(sr.ntpTimestamp, 0xe1a2b3c480000000u);
    EXPECT_EQ(sr.rtpTimestamp, 1600u);
    EXPECT_EQ(sr.packetCount, 10u);
    EXPECT_EQ(sr.octetCount, 1600u);
    const RtcpReportBlock block{0xaabbccdd, 0x40, -2, 0x00010010, 0x20, 0xb3c48000, 0x10000};
    EXPECT_EQ(sr.reports, (std::vector<RtcpReportBlock>{block}));
    EXPECT_EQ(std::get<RtcpSdes>(c->packets[1]).chunks, (std::vector<RtcpSdesChunk>{{0x11223344, "alice"}}));
    EXPECT_EQ(std::get<RtcpBye>(c->packets[2]), (RtcpBye{{0x11223344}, "bye"}));

    Bytes out;
    ASSERT_TRUE(c->writeTo(out));
    EXPECT_EQ(out, kCompound);
}

TEST(RtcpPacketTest, SkipsUnknownTypesProfileExtensionsPaddingAndOtherSdesItems) {
    const Bytes bytes = {
        0x80, 201, 0x00, 0x02, 0, 0, 0, 9, 0xde, 0xad, 0xbe, 0xef,       // RR with a profile extension
        0x80, 204, 0x00, 0x02, 0, 0, 0, 9, 'A', 'B', 'C', 'D',           // APP
        0x81, 202, 0x00, 0x04, 0, 0, 0, 9, 0x02, 0x01, 'n',              // SDES: NAME, then
        0x01, 0x01, 'x', 0x01, 0x01, 'y', 0x00, 0x00, 0x00,              // the first CNAME counts
        0xa1, 203, 0x00, 0x02, 0, 0, 0, 9, 0x00, 0x00, 0x00, 0x04};      // padded BYE
    std::string error;
    const auto c = RtcpCompound::parse(bytes, &error);
    ASSERT_TRUE(c) << error;
    const std::vector<RtcpPacket> expected = {RtcpReceiverReport{9, {}}, RtcpSdes{{{9, "x"}}}, RtcpBye{{9}, ""}};
    EXPECT_EQ(c->packets, expected);
}

TEST(RtcpPacketTest, RejectsCountsAndLengthsBeyondTheDatagram) {
    const struct {
        const char* name;
        Bytes bytes;
        const char* error;
    } cases[] = {
        {"nothing", {}, "empty rtcp packet"},
        {"three bytes", {0x80, 201, 0}, "truncated rtcp header"},
        {"a valid RR then two stray bytes", {0x80, 201, 0, 1, 0, 0, 0, 1, 0x80, 201}, "truncated rtcp header"},
        {"version 1", {0x40, 201, 0, 1, 0, 0, 0, 1}, "unsupported rtcp version"},
        {"length of 0xffff words", {0x80, 201, 0xff, 0xff, 0, 0, 0, 1}, "rtcp length exceeds packet"},
        {"length one word too long", {0x80, 201, 0, 2, 0, 0, 0, 1}, "rtcp length exceeds packet"},
        {"SR without sender info", {0x80, 200, 0, 1, 0, 0, 0, 1}, "truncated sender report"},
        {"RR without SSRC", {0x80, 201, 0, 0}, "truncated receiver report"},
        {"RR counting a block it lacks", {0x81, 201, 0, 1, 0, 0, 0, 1}, "truncated report block"},
        {"RR counting 31 blocks", {0x9f, 201, 0, 1, 0, 0, 0, 1}, "truncated report block"},
        {"SDES chunk without items or end", {0x81, 202, 0, 1, 0, 0, 0, 1}, "truncated sdes chunk"},
        {"SDES counting two chunks", {0x82, 202, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0}, "truncated sdes chunk"},
        {"SDES item longer than the packet", {0x81, 202, 0, 2, 0, 0, 0, 1, 1, 200, 'a', 'b'},
         "truncated sdes item"},
        {"SDES item type as the last byte", {0x81, 202, 0, 2, 0, 0, 0, 1, 2, 1, 'a', 1}, "truncated sdes item"},
        {"BYE counting two sources", {0x82, 203, 0, 1, 0, 0, 0, 1}, "truncated bye"},
        {"BYE reason longer than the packet", {0x81, 203, 0, 2, 0, 0, 0, 1, 9, 'a', 'b', 'c'},
         "truncated bye reason"},
        {"padding count of zero", {0xa0, 201, 0, 1, 0, 0, 0, 0}, "bad rtcp padding length"},
        {"padding beyond the body", {0xa0, 201, 0, 1, 0, 0, 0, 5}, "bad rtcp padding length"},
        {"padding on a header alone", {0xa0, 201, 0, 0}, "bad rtcp padding length"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string error;
        EXPECT_FALSE(RtcpCompound::parse(c.bytes, &error));
        EXPECT_EQ(error, c.error);
    }
}

TEST(RtcpPacketTest, WriterClampsLossAndRefusesOversizedFields) {
    const RtcpReportBlock high{.cumulativeLost = 9'000'000}, low{.cumulativeLost = -9'000'000};
    const RtcpCompound clamped{{RtcpReceiverReport{1, {high, low}}}};
    Bytes out;
    ASSERT_TRUE(clamped.writeTo(out));
    const auto back = RtcpCompound::parse(out);
    ASSERT_TRUE(back);
    const auto& reports = std::get<RtcpReceiverReport>(back->packets.at(0)).reports;
    EXPECT_EQ(reports.at(0).cumulativeLost, 0x7fffff);
    EXPECT_EQ(reports.at(1).cumulativeLost, -0x800000);

    const struct {
        const char* name;
        RtcpPacket packet;
        const char* error;
    } cases[] = {
        {"32 report blocks", RtcpSenderReport{1, 0, 0, 0, 0, std::vector<RtcpReportBlock>(32)},
         "too many report blocks"},
        {"CNAME of 256 bytes", RtcpSdes{{{1, std::string(256, 'c')}}}, "cname too long"},
        {"BYE reason of 256 bytes", RtcpBye{{1}, std::string(256, 'r')}, "bye reason too long"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // The refused packet comes second: nothing of the first may be left in `out`.
        const RtcpCompound compound{{RtcpReceiverReport{1, {}}, c.packet}};
        std::string error;
        out = {7};
        EXPECT_FALSE(compound.writeTo(out, &error));
        EXPECT_EQ(error, c.error);
    }
}

}  // namespace
}  // namespace kelsip
