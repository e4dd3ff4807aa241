// Stream framing: whole messages cut off a connection's receive buffer.
#include <gtest/gtest.h>

#include "sip/syntax/message.h"

namespace kelsip {
namespace {

std::string withBody(const std::string& lengthLine, const std::string& body) {
    return "OPTIONS sip:h SIP/2.0\r\nVia: SIP/2.0/TCP h;branch=z9hG4bK1\r\nFrom: <sip:a@h>;tag=1\r\n"
           "To: <sip:b@h>\r\nCall-ID: x\r\nCSeq: 1 OPTIONS\r\n" +
           lengthLine + "\r\n" + body;
}

TEST(StreamFramingTest, CutsWholeMessagesOnlyAndKeepsTheRest) {
    const std::string first = withBody("Content-Length: 4\r\n", "abcd");
    const std::string second = withBody("l: 0\r\n", "");
    std::string buffer;
    std::string error;
    for (size_t i = 0; i + 1 < first.size(); ++i) {
        buffer += first[i];
        ASSERT_FALSE(extractStreamMessage(buffer, &error)) << i;
    }
    buffer = "\r\n" + first + "\r\n\r\n" + second + "INV";
    EXPECT_EQ(extractStreamMessage(buffer, &error), first);
    EXPECT_EQ(extractStreamMessage(buffer, &error), second);
    EXPECT_EQ(buffer, "INV");
    EXPECT_FALSE(extractStreamMessage(buffer, &error));
    EXPECT_EQ(error, "");
}

TEST(StreamFramingTest, ReportsFramingFaults) {
    const struct {
        std::string buffer;
        const char* error;
    } cases[] = {
        {withBody("", ""), "missing Content-Length on stream transport"},
        {withBody("Content-Length: -1\r\n", ""), "bad Content-Length"},
        {withBody("Content-Length: 1x\r\n", "x"), "bad Content-Length"},
        // The first Content-Length line decides.
        {withBody("Content-Length: x\r\nContent-Length: 0\r\n", ""), "bad Content-Length"},
        // A continuation line belongs to the header before it, as the parser reads it.
        {withBody("Subject: x\r\n l: 0\r\n", ""), "missing Content-Length on stream transport"},
    };
    for (const auto& c : cases) {
        std::string buffer = c.buffer;
        std::string error;
        EXPECT_FALSE(extractStreamMessage(buffer, &error));
        EXPECT_EQ(error, c.error) << c.buffer;
    }
}

}  // namespace
}  // namespace kelsip
