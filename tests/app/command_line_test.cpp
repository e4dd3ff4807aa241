// What the window phone dials from a link or its command line, and the options it takes.
#include <gtest/gtest.h>

#include "app/win/command_line.h"

namespace velphone {
namespace {

TEST(CommandLineTest, LinksBecomeWhatIsDialed) {
    const struct {
        const char* url;
        const char* dialed;
    } cases[] = {
        {"sip:bob@example.com", "sip:bob@example.com"},
        {"SIP:bob@example.com;transport=tcp", "sip:bob@example.com;transport=tcp"},  // scheme case-blind, params kept
        {"sips:bob@example.com?Subject=hi", "sips:bob@example.com"},                // headers are not ours to send
        {"sip:b%40b@example.com", "sip:b@b@example.com"},                           // escapes as browsers pass them
        {"tel:+1-555-0100;phone-context=example.com", "+15550100"},                 // separators and params go
        {"tel:%2B44%20(20)%207946", "+44207946"},
        {"callto://+15550100/", "+15550100"},
        {"callto:alice@example.com", "alice@example.com"},
        {"sip:", ""},
        {"sip:bob smith@example.com", ""},  // a space cannot be in an address
        {"tel:;phone-context=x", ""},
        {"http://example.com", ""},
        {"bob", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(dialFromUrl(c.url), c.dialed) << c.url;
}

TEST(CommandLineTest, OptionsAndTheNumberToDial) {
    std::string error;
    const auto options = parseWindowArguments({"--data", "Z:\\tmp\\phone", "--port", "5070", "--bind", "127.0.0.1",
                                               "--play", "a.wav", "--record-heard", "b.wav", "--minimized",
                                               "tel:+1 555 0100"},
                                              &error);
    ASSERT_TRUE(options) << error;
    EXPECT_EQ(options->dataFolder, "Z:\\tmp\\phone");
    EXPECT_EQ(options->port, 5070);
    EXPECT_EQ(options->bind, "127.0.0.1");
    EXPECT_EQ(options->play, "a.wav");
    EXPECT_EQ(options->recordHeard, "b.wav");
    EXPECT_TRUE(options->minimized);
    EXPECT_FALSE(options->exitRunning);
    EXPECT_EQ(options->dial, "+15550100");
    EXPECT_EQ(parseWindowArguments({"555-0100"}, &error)->dial, "555-0100");  // typed into Run
    EXPECT_TRUE(parseWindowArguments({"--exit"}, &error)->exitRunning);

    const struct {
        std::vector<std::string> args;
        const char* reason;
    } refused[] = {
        {{"--colour", "red"}, "unknown option --colour"},
        {{"--data"}, "--data needs a value"},
        {{"--port", "70000"}, "--port needs a port number"},
        {{"--port", "50x"}, "--port needs a port number"},
        {{"mailto:bob@example.com"}, "nothing to dial in mailto:bob@example.com"},
    };
    for (const auto& r : refused) {
        EXPECT_FALSE(parseWindowArguments(r.args, &error)) << r.reason;
        EXPECT_EQ(error, r.reason);
    }
}

}  // namespace
}  // namespace velphone
