// MD5: known digests and the padding boundaries, whole and in pieces.
#include "sip/auth/md5.h"

#include <gtest/gtest.h>

#include <string>

namespace kelsip {
namespace {

TEST(Md5Test, MatchesKnownDigestsWholeAndInPieces) {
    const struct {
        std::string input;
        const char* hex;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        // Around the padding and block boundaries.
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
        {std::string(65, 'a'), "c743a45e0d2e6a95cb859adae0248435"},
        {std::string(128, 'a'), "e510683b3f5ffe4093d021808bc6ff70"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        EXPECT_EQ(md5Hex(c.input), c.hex);
        Md5 md5;
        for (size_t split = 0; split <= c.input.size(); ++split) {
            md5.update(std::string_view(c.input).substr(0, split));
            md5.update(std::string_view());
            md5.update(std::string_view(c.input).substr(split));
            ASSERT_EQ(md5.finishHex(), c.hex) << "split at " << split;
        }
    }
}

}  // namespace
}  // namespace kelsip
