// The platform's cipher primitives: published vectors, message parts and
// the counter that wraps within its low 16 bits.
#include "sip/core/crypto.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kelsip::crypto {
namespace {

std::vector<uint8_t> fromHex(std::string_view hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    return out;
}

std::vector<uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(CryptoTest, HmacSha1MatchesPublishedDigestsWholeAndInParts) {
    ASSERT_TRUE(available());
    const struct {
        std::vector<uint8_t> key;
        std::vector<uint8_t> data;
        const char* digest;
    } cases[] = {
        {std::vector<uint8_t>(20, 0x0b), bytes("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
        {bytes("Jefe"), bytes("what do ya want for nothing?"), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        // A key longer than the hash's block is hashed first.
        {std::vector<uint8_t>(80, 0xaa), bytes("Test Using Larger Than Block-Size Key - Hash Key First"),
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {{}, {}, "fbdb1d1b18aa6c08324b7d64b71fb76370690e1d"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.digest);
        auto hmac = HmacSha1::create(c.key);
        ASSERT_NE(hmac, nullptr);
        const std::vector<uint8_t> want = fromHex(c.digest);
        Sha1Digest out{};
        // Twice: the object starts afresh for each message.
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(hmac->compute(c.data, out));
            EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.end()), want);
        }
        const std::span<const uint8_t> all(c.data);
        const std::span<const uint8_t> parts[] = {all.first(all.size() / 3), {}, all.subspan(all.size() / 3)};
        ASSERT_TRUE(hmac->compute(parts, out));
        EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.end()), want);
    }
}

TEST(CryptoTest, AesCounterGivesTheSrtpKeystreamAndWrapsInItsLowBits) {
    // RFC 3711 B.2: the keystream for counter F0F1...FD0000 under this key.
    auto aes = AesCounter::create(fromHex("2B7E151628AED2A6ABF7158809CF4F3C"));
    ASSERT_NE(aes, nullptr);
    Block counter{};
    const auto start = fromHex("F0F1F2F3F4F5F6F7F8F9FAFBFCFD0000");
    std::copy(start.begin(), start.end(), counter.begin());
    std::vector<uint8_t> stream(48, 0);
    ASSERT_TRUE(aes->apply(counter, stream));
    EXPECT_EQ(stream, fromHex("E03EAD0935C95E80E166B16DD92B4EB4"
                              "D23513162B02D0F72A43A2FE4A5F97AB"
                              "41E95B3BB0A2E8DD477901E4FCA894C0"));

    // Block FFFF is followed by 0000 of the same upper bytes, not by a carry.
    Block last = counter;
    last[14] = 0xFF;
    last[15] = 0xFF;
    std::vector<uint8_t> across(32, 0);
    ASSERT_TRUE(aes->apply(last, across));
    std::vector<uint8_t> first(16, 0);
    ASSERT_TRUE(aes->apply(counter, first));
    EXPECT_TRUE(std::equal(first.begin(), first.end(), across.begin() + 16));

    // A length that is not whole blocks, applied twice, gives the data back.
    std::vector<uint8_t> data = bytes("twenty-one bytes long");
    const auto original = data;
    ASSERT_TRUE(aes->apply(counter, data));
    EXPECT_NE(data, original);
    ASSERT_TRUE(aes->apply(counter, data));
    EXPECT_EQ(data, original);

    EXPECT_EQ(AesCounter::create(fromHex("00112233")), nullptr);
}

TEST(CryptoTest, Crc32IsTheIeeeCheckValue) {
    EXPECT_EQ(crc32(bytes("123456789")), 0xCBF43926U);
    EXPECT_EQ(crc32({}), 0U);
}

}  // namespace
}  // namespace kelsip::crypto
