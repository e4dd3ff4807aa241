// The message-summary body: the form we write, and the forms servers send.
#include "sip/ua/body/message_summary.h"

#include <gtest/gtest.h>

#include <string>

namespace kelsip {
namespace {

const struct {
    MessageSummary summary;
    const char* body;
} kWritten[] = {
    {{true, "", 2, 1, 0, 0}, "Messages-Waiting: yes\r\nVoice-Message: 2/1 (0/0)\r\n"},
    {{true, "sip:alice@example.com;user=phone", 4294967295u, 0, 4294967295u, 7},
     "Messages-Waiting: yes\r\nMessage-Account: sip:alice@example.com;user=phone\r\n"
     "Voice-Message: 4294967295/0 (4294967295/7)\r\n"},
};

TEST(MessageSummaryTest, WritesTheBodyByteForByte) {
    for (const auto& c : kWritten) EXPECT_EQ(buildMessageSummary(c.summary), c.body);
}

TEST(MessageSummaryTest, ReadsTheFormsServersSend) {
    const struct {
        const char* what;
        const char* body;
        MessageSummary expect;
    } cases[] = {
        {"RFC 3842 example, CRLF", "Messages-Waiting: yes\r\nMessage-Account: sip:alice@vmail.example.com\r\n"
         "Voice-Message: 2/8 (0/2)\r\n", {true, "sip:alice@vmail.example.com", 2, 8, 0, 2}},
        {"LF only, no final line end, lower case", "messages-waiting: YES\nvoice-message: 3/4", {true, "", 3, 4}},
        {"blanks around names, colon, values, slash and inside parentheses",
         " \tMessages-Waiting \t: \tNo \t\r\nMessage-Account :  sip:vm@h  \r\nVoice-Message : 1 / 2 ( 3 / 4 ) \r\n",
         {false, "sip:vm@h", 1, 2, 3, 4}},
        {"other classes, unknown and colonless lines skipped",
         "Messages-Waiting: yes\r\nFax-Message: 9/9 (9/9)\r\nPager-Message: x\r\nMultimedia-Message: 1/1\r\n"
         "Text-Message: 1/1\r\nNone: 0/0\r\nX-Vendor: 1\r\njunk line\r\nVoice-Message: 1/0 (1/0)\r\n",
         {true, "", 1, 0, 1}},
        {"message headers after the blank line ignored",
         "\r\nMessages-Waiting: yes\r\nVoice-Message: 4/0\r\n\r\nTo: <sip:alice@example.com>\r\n"
         "Voice-Message: bad\r\nMessages-Waiting: maybe\r\nSubject: call me\r\n",
         {true, "", 4}},
    };
    for (const auto& c : cases) {
        std::string error;
        const auto parsed = parseMessageSummary(c.body, &error);
        ASSERT_TRUE(parsed) << c.what << ": " << error;
        EXPECT_EQ(buildMessageSummary(*parsed), buildMessageSummary(c.expect)) << c.what;
    }
}

TEST(MessageSummaryTest, RefusesWhatIsNotASummaryWithAFixedText) {
    const struct {
        const char* body;
        const char* error;
    } cases[] = {
        {" \r\n\t\n", "empty message-summary"},
        {"Voice-Message: 1/0\r\n", "missing Messages-Waiting"},
        {"Messages-Waiting: true\r\n", "bad Messages-Waiting value"},
        {"Messages-Waiting: yes\r\nVoice-Message: 4294967296/0\r\n", "bad Voice-Message counts"},
        {"Messages-Waiting: yes\r\nVoice-Message: 2/1 (0/0) new\r\n", "bad Voice-Message counts"},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(parseMessageSummary(c.body, &error)) << c.body;
        EXPECT_EQ(error, c.error) << c.body;
    }
}

}  // namespace
}  // namespace kelsip
