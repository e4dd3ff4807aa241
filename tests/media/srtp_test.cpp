// SRTP and SDES: RFC 3711 B.3 key derivation, protection both ways for both
// suites, refusal of forged and replayed packets, the rollover counter
// across the sequence wrap, and the crypto attribute's forms.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "media/srtp/sdes.h"
#include "media/srtp/srtp_context.h"

namespace kelsip::srtp {
namespace {

std::vector<uint8_t> fromHex(std::string_view hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return out;
}

MasterKey testKey() {
    MasterKey k;
    for (size_t i = 0; i < k.key.size(); ++i) k.key[i] = static_cast<uint8_t>(i * 7 + 1);
    for (size_t i = 0; i < k.salt.size(); ++i) k.salt[i] = static_cast<uint8_t>(i * 13 + 5);
    return k;
}

std::vector<uint8_t> rtp(uint16_t sequence, uint32_t ssrc = 0x11223344, size_t payload = 160) {
    std::vector<uint8_t> p = {0x80, 0x00, static_cast<uint8_t>(sequence >> 8), static_cast<uint8_t>(sequence),
                              0, 0, 0x12, 0x34,
                              static_cast<uint8_t>(ssrc >> 24), static_cast<uint8_t>(ssrc >> 16),
                              static_cast<uint8_t>(ssrc >> 8), static_cast<uint8_t>(ssrc)};
    for (size_t i = 0; i < payload; ++i) p.push_back(static_cast<uint8_t>(0xd5 ^ i ^ sequence));
    return p;
}

// A receiver report with one block, as our sessions send them.
std::vector<uint8_t> rtcp() {
    std::vector<uint8_t> p = {0x81, 201, 0, 7, 0x11, 0x22, 0x33, 0x44};
    for (int i = 0; i < 24; ++i) p.push_back(static_cast<uint8_t>(i));
    return p;
}

TEST(SrtpTest, DerivesTheSessionKeysOfRfc3711AppendixB3) {
    MasterKey master;
    const auto key = fromHex("E1F97A0D3E018BE0D64FA32C06DE4139");
    const auto salt = fromHex("0EC675AD498AFEEBB6960B3AABE6");
    std::copy(key.begin(), key.end(), master.key.begin());
    std::copy(salt.begin(), salt.end(), master.salt.begin());
    SessionKeys keys;
    ASSERT_TRUE(deriveSessionKeys(master, false, keys));
    EXPECT_EQ(std::vector<uint8_t>(keys.cipher.begin(), keys.cipher.end()), fromHex("C61E7A93744F39EE10734AFE3FF7A087"));
    EXPECT_EQ(std::vector<uint8_t>(keys.salt.begin(), keys.salt.end()), fromHex("30CBBC08863D8C85D49DB34A9AE1"));
    EXPECT_EQ(std::vector<uint8_t>(keys.auth.begin(), keys.auth.end()),
              fromHex("CEBE321F6FF7716B6FD4AB49AF256A156D38BAA4"));
    SessionKeys control;
    ASSERT_TRUE(deriveSessionKeys(master, true, control));
    EXPECT_NE(control.cipher, keys.cipher);  // SRTCP has keys of its own (labels 3 to 5)
}

TEST(SrtpTest, ProtectsAndRestoresRtpAndRtcpForBothSuitesWithAndWithoutMki) {
    const struct {
        Suite suite;
        std::vector<uint8_t> mki;
        size_t rtpOverhead;
        size_t rtcpOverhead;
    } cases[] = {
        {Suite::AesCm128HmacSha1_80, {}, 10, 14},
        {Suite::AesCm128HmacSha1_32, {}, 4, 14},  // SRTCP keeps 80 bits (RFC 4568 6.2.2)
        {Suite::AesCm128HmacSha1_80, {0, 7}, 12, 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(toString(c.suite)) + " mki " + std::to_string(c.mki.size()));
        MasterKey key = testKey();
        key.mki = c.mki;
        auto sender = Context::create(c.suite, key);
        auto receiver = Context::create(c.suite, key);
        ASSERT_TRUE(sender && receiver);
        for (uint16_t seq : {uint16_t{1000}, uint16_t{1001}}) {
            const auto clear = rtp(seq);
            auto packet = clear;
            ASSERT_EQ(sender->protectRtp(packet), Status::Ok);
            ASSERT_EQ(packet.size(), clear.size() + c.rtpOverhead);
            EXPECT_TRUE(std::equal(clear.begin(), clear.begin() + 12, packet.begin()));  // header in clear
            EXPECT_FALSE(std::equal(clear.begin() + 12, clear.end(), packet.begin() + 12));
            ASSERT_EQ(receiver->unprotectRtp(packet), Status::Ok);
            EXPECT_EQ(packet, clear);
        }
        const auto clear = rtcp();
        auto packet = clear;
        ASSERT_EQ(sender->protectRtcp(packet), Status::Ok);
        ASSERT_EQ(packet.size(), clear.size() + c.rtcpOverhead);
        EXPECT_EQ(packet[clear.size()] & 0x80, 0x80);  // the E bit
        ASSERT_EQ(receiver->unprotectRtcp(packet), Status::Ok);
        EXPECT_EQ(packet, clear);
    }
}

TEST(SrtpTest, RefusesForgedReplayedAndMalformedPacketsWithoutLosingTheStream) {
    auto sender = Context::create(Suite::AesCm128HmacSha1_80, testKey());
    auto receiver = Context::create(Suite::AesCm128HmacSha1_80, testKey());
    MasterKey otherKey = testKey();
    otherKey.key[0] ^= 1;
    auto stranger = Context::create(Suite::AesCm128HmacSha1_80, otherKey);
    std::vector<std::vector<uint8_t>> sent;
    for (uint16_t seq = 10; seq < 14; ++seq) {
        sent.push_back(rtp(seq));
        ASSERT_EQ(sender->protectRtp(sent.back()), Status::Ok);
    }
    auto foreign = rtp(12);
    ASSERT_EQ(stranger->protectRtp(foreign), Status::Ok);
    const auto flip = [](std::vector<uint8_t> p, size_t at) { p[at] ^= 0x01; return p; };

    const struct {
        const char* what;
        std::vector<uint8_t> packet;
        Status want;
    } steps[] = {
        {"first", sent[1], Status::Ok},
        {"payload bit flipped", flip(sent[2], 40), Status::Unauthentic},
        {"header bit flipped", flip(sent[2], 3), Status::Unauthentic},
        {"tag bit flipped", flip(sent[2], sent[2].size() - 1), Status::Unauthentic},
        {"another key", foreign, Status::Unauthentic},
        {"shorter than a header and tag", {0x80, 0, 0, 1}, Status::Malformed},
        {"the genuine packet after the forgeries", sent[2], Status::Ok},
        {"the same again", sent[2], Status::Replayed},
        {"an older one not seen before", sent[0], Status::Ok},
        {"that one again", sent[0], Status::Replayed},
        {"next", sent[3], Status::Ok},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.what);
        auto packet = s.packet;
        EXPECT_EQ(receiver->unprotectRtp(packet), s.want);
    }

    auto report = rtcp();
    ASSERT_EQ(sender->protectRtcp(report), Status::Ok);
    auto copy = flip(report, 12);
    EXPECT_EQ(receiver->unprotectRtcp(copy), Status::Unauthentic);
    copy = report;
    EXPECT_EQ(receiver->unprotectRtcp(copy), Status::Ok);
    copy = report;
    EXPECT_EQ(receiver->unprotectRtcp(copy), Status::Replayed);
}

TEST(SrtpTest, RolloverCounterFollowsTheSequenceWrapWithReordering) {
    auto sender = Context::create(Suite::AesCm128HmacSha1_32, testKey());
    auto receiver = Context::create(Suite::AesCm128HmacSha1_32, testKey());
    std::map<uint32_t, std::vector<uint8_t>> byIndex;  // 48-bit index -> protected packet
    const auto send = [&](uint32_t index) {
        auto p = rtp(static_cast<uint16_t>(index));
        ASSERT_EQ(sender->protectRtp(p), Status::Ok);
        byIndex[index] = p;
    };
    for (uint32_t i = 65530; i <= 65540; ++i) send(i);
    EXPECT_EQ(sender->rolloverCounter(0x11223344), 1u);
    // Arrival order around the wrap: late packets from before it after
    // packets from after it, and one that is far too old at the end.
    const struct {
        uint32_t index;
        Status want;
        uint32_t rocAfter;
    } arrivals[] = {
        {65530, Status::Ok, 0}, {65531, Status::Ok, 0}, {65533, Status::Ok, 0}, {65536, Status::Ok, 1},
        {65535, Status::Ok, 1}, {65532, Status::Ok, 1}, {65537, Status::Ok, 1}, {65534, Status::Ok, 1},
        {65536, Status::Replayed, 1}, {65540, Status::Ok, 1}, {65538, Status::Ok, 1},
    };
    for (const auto& a : arrivals) {
        SCOPED_TRACE(a.index);
        auto p = byIndex.at(a.index);
        EXPECT_EQ(receiver->unprotectRtp(p), a.want);
        EXPECT_EQ(receiver->rolloverCounter(0x11223344), a.rocAfter);
        if (a.want == Status::Ok) {
            EXPECT_EQ(p, rtp(static_cast<uint16_t>(a.index)));
        }
    }
    // A packet from before the window (ROC 0, sequence 65530 + 3) is refused
    // once the receiver is far past it.
    for (uint32_t i = 65541; i < 65541 + ReplayWindow::kSize; ++i) send(i);
    auto latest = byIndex.at(65540 + ReplayWindow::kSize);
    EXPECT_EQ(receiver->unprotectRtp(latest), Status::Ok);
    auto stale = byIndex.at(65539);
    EXPECT_EQ(receiver->unprotectRtp(stale), Status::Replayed);
}

TEST(SdesTest, ParsesAndRefusesCryptoAttributes) {
    const std::string key = "WVNfX19zZW1jdGwgKCkgewkyMjA7fQp9CnVubGVz";  // 30 bytes
    const struct {
        std::string value;
        const char* error;  // null: accepted
        Suite suite;
        std::vector<uint8_t> mki;
    } cases[] = {
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key, nullptr, Suite::AesCm128HmacSha1_80, {}},
        {"2 AES_CM_128_HMAC_SHA1_32 inline:" + key + "|2^20|1:4", nullptr, Suite::AesCm128HmacSha1_32, {0, 0, 0, 1}},
        {"3 AES_CM_128_HMAC_SHA1_80 inline:" + key + "|1066:2", nullptr, Suite::AesCm128HmacSha1_80, {4, 42}},
        {"4 AES_CM_128_HMAC_SHA1_80 inline:" + key + "|1048576", nullptr, Suite::AesCm128HmacSha1_80, {}},
        {"1 F8_128_HMAC_SHA1_80 inline:" + key, "unknown crypto suite", {}, {}},
        {"1 AES_256_CM_HMAC_SHA1_80 inline:" + key, "unknown crypto suite", {}, {}},
        {"x AES_CM_128_HMAC_SHA1_80 inline:" + key, "bad crypto tag", {}, {}},
        {"1234567890 AES_CM_128_HMAC_SHA1_80 inline:" + key, "bad crypto tag", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80", "no key parameters", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key + " KDR=1", "unsupported session parameter", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key + " UNENCRYPTED_SRTP", "unsupported session parameter", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key + ";inline:" + key, "more than one key", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 uri:" + key, "bad key parameters", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:AAAA", "bad key length", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key.substr(1) + "=", "bad key length", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key + "|2^x", "bad key lifetime", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key + "|1:8", "unsupported mki", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key + "|256:1", "unsupported mki", {}, {}},
        {"1 AES_CM_128_HMAC_SHA1_80 inline:" + key + "|1:0", "bad mki", {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        std::string error;
        const auto parsed = parseCryptoAttribute(c.value, &error);
        if (c.error != nullptr) {
            EXPECT_FALSE(parsed);
            EXPECT_EQ(error, c.error);
            continue;
        }
        ASSERT_TRUE(parsed) << error;
        EXPECT_EQ(parsed->suite, c.suite);
        EXPECT_EQ(parsed->key.mki, c.mki);
        // Written back without the lifetime, it reads as the same key.
        EXPECT_EQ(parseCryptoAttribute(formatCryptoAttribute(*parsed)), parsed);
    }
}

TEST(SdesTest, AnswersTheFirstUsableOfferWithItsTagAndAFreshKey) {
    const auto a = newCryptoAttribute(7, Suite::AesCm128HmacSha1_32);
    const auto b = newCryptoAttribute(7, Suite::AesCm128HmacSha1_32);
    ASSERT_TRUE(a && b);
    EXPECT_NE(a->key, b->key);
    const std::vector<std::string> offered = {"1 F8_128_HMAC_SHA1_80 inline:" + base64Encode(a->key.key),
                                              formatCryptoAttribute(*a),
                                              "8 AES_CM_128_HMAC_SHA1_80 inline:" + formatCryptoAttribute(*b).substr(34)};
    const auto answer = answerCrypto(offered);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->remote, *a);
    EXPECT_EQ(answer->local.tag, 7u);
    EXPECT_EQ(answer->local.suite, Suite::AesCm128HmacSha1_32);
    EXPECT_NE(answer->local.key, a->key);
    EXPECT_FALSE(answerCrypto({"1 F8_128_HMAC_SHA1_80 inline:x"}));
}

}  // namespace
}  // namespace kelsip::srtp
