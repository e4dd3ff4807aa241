// Log lines: local time with milliseconds, level, thread number, tag, text.
#include "sip/core/log.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <ostream>

#include "sip/core/system.h"

namespace kelsip {

std::string_view logLevelName(LogLevel level) {
    switch (level) {
        case LogLevel::Trace: return "TRACE";
        case LogLevel::Debug: return "DEBUG";
        case LogLevel::Info: return "INFO ";
        case LogLevel::Warn: return "WARN ";
        case LogLevel::Error: return "ERROR";
        case LogLevel::None: return "NONE ";
    }
    return "NONE ";
}

namespace log {
namespace {

struct State {
    std::mutex mutex;
    std::ostream* stream = nullptr;
    LogSink sink;
};

State& state() {
    static State s;
    return s;
}

std::atomic<int> threshold{static_cast<int>(LogLevel::Info)};

}  // namespace

void setLevel(LogLevel t) { threshold.store(static_cast<int>(t)); }
LogLevel level() { return static_cast<LogLevel>(threshold.load()); }
bool enabled(LogLevel l) { return l != LogLevel::None && static_cast<int>(l) >= threshold.load(); }

void setStream(std::ostream* out) {
    std::lock_guard lock(state().mutex);
    state().stream = out;
}

void setSink(LogSink sink) {
    std::lock_guard lock(state().mutex);
    state().sink = std::move(sink);
}

std::string formatLine(LogLevel l, std::string_view tag, std::string_view text,
                       std::chrono::system_clock::time_point when, uint64_t threadNumber) {
    const auto sinceEpoch = when.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - seconds).count();
    std::time_t t = static_cast<std::time_t>(seconds.count());
    if (millis < 0) {  // before 1970: floor, not truncate
        millis += 1000;
        --t;
    }
    std::tm local{};
    char stamp[32] = "0000-00-00 00:00:00";
    if (platform::toLocalTime(t, local)) std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char millisText[8];
    std::snprintf(millisText, sizeof millisText, ".%03d", static_cast<int>(millis));

    std::string line;
    line.reserve(64 + tag.size() + text.size());
    line += stamp;
    line += millisText;
    line += " [";
    line += logLevelName(l);
    line += "] [";
    line += std::to_string(threadNumber);
    line += "] [";
    line += tag;
    line += "] ";
    line += text;
    return line;
}

void write(LogLevel l, std::string_view tag, std::string_view text) {
    if (!enabled(l)) return;
    State& s = state();
    // Formatting happens before the lock; only the writing is serialised.
    std::string line;
    {
        std::lock_guard lock(s.mutex);
        if (s.stream == nullptr && !s.sink) return;
    }
    line = formatLine(l, tag, text, std::chrono::system_clock::now(), platform::currentThreadNumber());
    std::lock_guard lock(s.mutex);
    if (s.stream != nullptr) {
        *s.stream << line << '\n';
        s.stream->flush();
    }
    if (s.sink) s.sink(l, tag, text);
}

}  // namespace log
}  // namespace kelsip
