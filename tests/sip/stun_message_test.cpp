// STUN messages: the published test vectors, our own messages read back,
// and the malformed datagrams a demultiplexer must survive.
#include "sip/net/stun_message.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelsip::stun {
namespace {

std::vector<uint8_t> fromHex(std::string_view hex) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : hex) {
        if (c != ' ' && c != '\n') digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::vector<uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

const std::string kPassword = "VOkJxbRl1RmTxUk/WvJxBt";

// RFC 5769 2.1: a request with short-term integrity and fingerprint.
const std::vector<uint8_t> kSampleRequest = fromHex(
    "000100582112a442b7e7a701bc34d686fa87dfae"
    "802200105354554e207465737420636c69656e74"
    "002400046e0001ff"
    "80290008932ff9b151263b36"
    "000600096576746a3a68367659202020"
    "000800149aeaa70cbfd8cb56781ef2b5b2d3f249c1b571a2"
    "80280004e57a3bcf");

// RFC 5769 2.2: the IPv4 response, XOR-MAPPED-ADDRESS 192.0.2.1:32853.
const std::vector<uint8_t> kSampleResponse = fromHex(
    "0101003c2112a442b7e7a701bc34d686fa87dfae"
    "8022000b7465737420766563746f7220"
    "002000080001a147e112a643"
    "000800142b91f599fd9e90c38c7489f92af9ba53f06be7d7"
    "80280004c07d4c96");

TEST(StunMessageTest, ReadsAndChecksThePublishedVectors) {
    const auto request = parse(kSampleRequest);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->method, Method::Binding);
    EXPECT_EQ(request->messageClass, Class::Request);
    EXPECT_EQ(request->text(attr::kUsername), "evtj:h6vY");
    EXPECT_EQ(request->text(attr::kSoftware), "STUN test client");
    EXPECT_EQ(request->uint32(attr::kPriority), 0x6e0001ffU);
    EXPECT_EQ(request->uint64(attr::kIceControlled), 0x932ff9b151263b36ULL);
    EXPECT_TRUE(checkIntegrity(kSampleRequest, bytes(kPassword)));
    EXPECT_TRUE(checkFingerprint(kSampleRequest));
    EXPECT_FALSE(checkIntegrity(kSampleRequest, bytes("wrong")));

    const auto response = parse(kSampleResponse);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->messageClass, Class::Success);
    EXPECT_EQ(response->address(attr::kXorMappedAddress), net::SocketAddress::parse("192.0.2.1", 32853));
    EXPECT_TRUE(checkIntegrity(kSampleResponse, bytes(kPassword)));
    EXPECT_TRUE(checkFingerprint(kSampleResponse));

    // One flipped bit anywhere breaks the fingerprint, and before it the integrity.
    for (size_t at : {size_t{0x17}, size_t{40}, kSampleRequest.size() - 30}) {
        auto damaged = kSampleRequest;
        damaged[at] ^= 0x01;
        EXPECT_FALSE(checkFingerprint(damaged)) << at;
        EXPECT_FALSE(checkIntegrity(damaged, bytes(kPassword))) << at;
    }
}

TEST(StunMessageTest, WhatWeBuildReadsBackWithItsChecks) {
    Message request = Message::request(Method::Allocate);
    request.addUint32(attr::kRequestedTransport, 17u << 24);
    request.addText(attr::kUsername, "alice");  // 5 bytes: padded
    request.addFlag(attr::kUseCandidate);
    const auto peer6 = *net::SocketAddress::parse("2001:db8::7", 49152);
    const auto peer4 = *net::SocketAddress::parse("203.0.113.9", 3478);
    request.addXorAddress(attr::kXorPeerAddress, peer6);
    request.addXorAddress(attr::kXorRelayedAddress, peer4);
    request.addErrorCode(438, "Stale Nonce");
    const std::vector<uint8_t> key = bytes("secret");
    const auto wire = encode(request, {key, true});
    ASSERT_EQ(wire.size() % 4, 0U);
    EXPECT_TRUE(looksLikeStun(wire));
    EXPECT_TRUE(checkIntegrity(wire, key));
    EXPECT_TRUE(checkFingerprint(wire));

    const auto back = parse(wire);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->method, Method::Allocate);
    EXPECT_EQ(back->transaction, request.transaction);
    EXPECT_EQ(back->text(attr::kUsername), "alice");
    EXPECT_TRUE(back->has(attr::kUseCandidate));
    EXPECT_EQ(back->address(attr::kXorPeerAddress), peer6);
    EXPECT_EQ(back->address(attr::kXorRelayedAddress), peer4);
    ASSERT_TRUE(back->errorCode());
    EXPECT_EQ(back->errorCode()->code, 438);
    EXPECT_EQ(back->errorCode()->reason, "Stale Nonce");
    EXPECT_FALSE(back->has(attr::kMessageIntegrity));  // checked on the bytes, not kept

    // Every method and class survives the type field's interleaving.
    for (Method m : {Method::Binding, Method::Refresh, Method::Send, Method::Data, Method::CreatePermission,
                     Method::ChannelBind}) {
        for (Class c : {Class::Request, Class::Indication, Class::Success, Class::Error}) {
            Message msg = Message::request(m);
            msg.messageClass = c;
            const auto read = parse(encode(msg));
            ASSERT_TRUE(read);
            EXPECT_EQ(read->method, m);
            EXPECT_EQ(read->messageClass, c);
        }
    }
    EXPECT_EQ(describe(Message::responseTo(request, Class::Error)), "Allocate Error Response");
}

TEST(StunMessageTest, RefusesMalformedDatagramsWithFixedTexts) {
    // The header of the sample request with another length field.
    auto withLength = [](const std::vector<uint8_t>& m, uint16_t length) {
        std::vector<uint8_t> out{m[0], m[1], static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
        out.insert(out.end(), m.begin() + 4, m.end());
        return out;
    };
    const auto header = std::vector<uint8_t>(kSampleRequest.begin(), kSampleRequest.begin() + 20);
    auto rtp = kSampleRequest;
    rtp[0] = 0x80;  // an RTP version-2 first byte
    auto badCookie = kSampleRequest;
    badCookie[5] ^= 0xFF;
    auto overrun = withLength(header, 8);
    overrun.insert(overrun.end(), {0x00, 0x06, 0x00, 0x20, 'a', 'b', 'c', 'd'});
    const struct {
        std::vector<uint8_t> datagram;
        const char* error;
    } cases[] = {
        {{0x00, 0x01, 0x00}, "stun message too short"},
        {rtp, "not a stun message"},
        {badCookie, "not a stun message"},
        {withLength(kSampleRequest, 0x50), "bad stun length"},
        {std::vector<uint8_t>(kSampleRequest.begin(), kSampleRequest.end() - 4), "bad stun length"},
        {withLength(std::vector<uint8_t>(header.begin(), header.end()), 0), ""},
        {overrun, "truncated stun attribute"},
    };
    for (const auto& c : cases) {
        std::string error;
        const auto m = parse(c.datagram, &error);
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(m.has_value(), std::string(c.error).empty());
    }
    // Attributes of the wrong size read as absent, not as garbage.
    Message m;
    m.add(attr::kPriority, std::vector<uint8_t>{1, 2});
    m.add(attr::kXorMappedAddress, std::vector<uint8_t>{0, 1, 0, 0});
    EXPECT_FALSE(m.uint32(attr::kPriority));
    EXPECT_FALSE(m.address(attr::kXorMappedAddress));
}

}  // namespace
}  // namespace kelsip::stun
