// The log facility: the exact line format, the threshold, stream and sink.
#include "sip/core/log.h"

#include <gtest/gtest.h>

#include <ctime>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

namespace kelsip {
namespace {

class LogTest : public ::testing::Test {
protected:
    void TearDown() override {
        log::setStream(nullptr);
        log::setSink(nullptr);
        log::setLevel(LogLevel::Info);
    }
};

TEST_F(LogTest, FormatsLocalTimeMillisecondsLevelThreadAndTag) {
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
    const std::pair<LogLevel, const char*> names[] = {
        {LogLevel::Trace, "[TRACE]"}, {LogLevel::Debug, "[DEBUG]"}, {LogLevel::Info, "[INFO ]"},
        {LogLevel::Warn, "[WARN ]"},  {LogLevel::Error, "[ERROR]"}, {LogLevel::None, "[NONE ]"},
    };
    for (const auto& [level, name] : names) {
        EXPECT_NE(log::formatLine(level, "t", "x", when, 1).find(name), std::string::npos) << name;
    }
}

TEST_F(LogTest, WritesToStreamAndSinkAboveTheThreshold) {
    std::ostringstream out;
    std::vector<std::string> sunk;
    log::setStream(&out);
    log::setSink([&](LogLevel level, std::string_view tag, std::string_view text) {
        sunk.push_back(std::string(logLevelName(level)) + "|" + std::string(tag) + "|" + std::string(text));
    });
    log::setLevel(LogLevel::Warn);
    log::info("ua", "not written");
    log::warn("ua", "line 1: REGISTER failed");
    log::error("ua", "boom");
    log::write(LogLevel::None, "ua", "never");
    EXPECT_EQ(sunk, (std::vector<std::string>{"WARN |ua|line 1: REGISTER failed", "ERROR|ua|boom"}));
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[WARN \] \[\d+\] \[ua\] line 1: REGISTER failed)");
    std::istringstream lines(out.str());
    std::string first;
    std::getline(lines, first);
    EXPECT_TRUE(std::regex_match(first, line)) << first;
}

}  // namespace
}  // namespace kelsip
