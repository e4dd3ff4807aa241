// The log facility: the exact line format, the threshold, stream and sink.
#include "sip/core/log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <sstream>
#include <vector>

namespace kelsip {
namespace {

TEST(LogTest, WritesFormattedLinesToStreamAndSinkAboveTheThreshold) {
    // 2026-03-04 05:06:07.089 local time, whatever the zone.
    std::tm local{};
    local.tm_year = 2026 - 1900;
    local.tm_mon = 2;
    local.tm_mday = 4;
    local.tm_hour = 5;
    local.tm_min = 6;
    local.tm_sec = 7;
    local.tm_isdst = -1;
    const auto when = std::chrono::system_clock::from_time_t(std::mktime(&local)) + std::chrono::milliseconds(89);
    EXPECT_EQ(log::formatLine(LogLevel::Info, "transport", "UDP transport listening on 127.0.0.1:5060", when, 4711),
              "2026-03-04 05:06:07.089 [INFO ] [4711] [transport] UDP transport listening on 127.0.0.1:5060");
    std::ostringstream out;
    std::vector<std::string> sunk;
    log::setStream(&out);
    log::setSink([&](LogLevel level, std::string_view tag, std::string_view text) {
        sunk.push_back(std::string(logLevelName(level)) + "|" + std::string(tag) + "|" + std::string(text));
    });
    log::setLevel(LogLevel::Warn);
    log::info("ua", "not written");
    log::warn("ua", "REGISTER failed");
    log::error("ua", "boom");
    log::write(LogLevel::None, "ua", "never");
    log::setStream(nullptr);
    log::setSink(nullptr);
    log::setLevel(LogLevel::Info);
    EXPECT_EQ(sunk, (std::vector<std::string>{"WARN |ua|REGISTER failed", "ERROR|ua|boom"}));
    const std::string text = out.str();
    EXPECT_NE(text.find("] [ua] REGISTER failed\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
}

}  // namespace
}  // namespace kelsip
