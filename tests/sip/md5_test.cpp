// MD5: the RFC 1321 test suite and the padding boundaries, whole and in pieces.
#include "sip/auth/md5.h"

#include <gtest/gtest.h>

#include <string>

namespace kelsip {
namespace {

TEST(Md5Test, MatchesRfc1321TestSuite) {
    const struct {
        const char* input;
        const char* hex;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"}, {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"}, {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        EXPECT_EQ(md5Hex(c.input), c.hex);
    }
}

// 55 bytes still fit the length in the last block, 56 to 63 need another
// block of padding, 64 and 128 end exactly on a block.
TEST(Md5Test, PadsAcrossBlockBoundariesTheSameInPiecesAsWhole) {
    const struct {
        size_t length;
        const char* hex;  // of `length` letters "a"
    } cases[] = {
        {55, "ef1772b6dff9a122358552954ad0df65"},  {56, "3b0c8ac703f828b04c6c197006d17218"},
        {57, "652b906d60af96844ebd21b674f35e93"},  {63, "b06521f39153d618550606be297466d5"},
        {64, "014842d480b571495a4a0363793f7367"},  {65, "c743a45e0d2e6a95cb859adae0248435"},
        {119, "8a7bd0732ed6a28ce75f6dabc90e1613"}, {120, "5f61c0ccad4cac44c75ff505e1f1e537"},
        {128, "e510683b3f5ffe4093d021808bc6ff70"},
    };
    for (const auto& c : cases) {
        const std::string input(c.length, 'a');
        EXPECT_EQ(md5Hex(input), c.hex) << c.length;
        // Every split point, and byte by byte: pieces that straddle the
        // buffered partial block must not change the digest.
        Md5 md5;
        for (size_t split = 0; split <= input.size(); ++split) {
            md5.update(std::string_view(input).substr(0, split));
            md5.update(std::string_view());
            md5.update(std::string_view(input).substr(split));
            ASSERT_EQ(md5.finishHex(), c.hex) << c.length << " split at " << split;
        }
        for (const char ch : input) md5.update(&ch, 1);
        EXPECT_EQ(md5.finishHex(), c.hex) << c.length << " byte by byte";
    }
}

}  // namespace
}  // namespace kelsip
