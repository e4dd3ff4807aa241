// The stack's log facility: fixed-format lines to a stream and/or a sink.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace kelsip {

enum class LogLevel { Trace = 0, Debug = 1, Info = 2, Warn = 3, Error = 4, None = 5 };

// The five-character name written in a line: "TRACE", "DEBUG", "INFO ",
// "WARN ", "ERROR", "NONE ".
[[nodiscard]] std::string_view logLevelName(LogLevel level);

using LogSink = std::function<void(LogLevel level, std::string_view tag, std::string_view text)>;

namespace log {

// Lines below the threshold are not written anywhere. The default is Info.
void setLevel(LogLevel threshold);
[[nodiscard]] LogLevel level();
[[nodiscard]] bool enabled(LogLevel level);
// A stream that receives every line, flushed per line; null for none. The
// stream must outlive its use.
void setStream(std::ostream* out);
// A callback that receives the level, tag and text of every line; empty for none.
void setSink(LogSink sink);

// "2026-11-21 09:15:02.047 [INFO ] [4711] [transport] text"
[[nodiscard]] std::string formatLine(LogLevel level, std::string_view tag, std::string_view text,
                                     std::chrono::system_clock::time_point when, uint64_t threadNumber);

void write(LogLevel level, std::string_view tag, std::string_view text);

inline void trace(std::string_view tag, std::string_view text) { write(LogLevel::Trace, tag, text); }
inline void debug(std::string_view tag, std::string_view text) { write(LogLevel::Debug, tag, text); }
inline void info(std::string_view tag, std::string_view text) { write(LogLevel::Info, tag, text); }
inline void warn(std::string_view tag, std::string_view text) { write(LogLevel::Warn, tag, text); }
inline void error(std::string_view tag, std::string_view text) { write(LogLevel::Error, tag, text); }

}  // namespace log
}  // namespace kelsip
