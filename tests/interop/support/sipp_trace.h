// SIPp's message trace (-trace_msg) read back: each message with its time,
// its direction and its text, and the few fields the interop tests compare.
#pragma once

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace kelsip::test {

// One message of SIPp's trace: when, which way, and its text.
struct Traced {
    std::chrono::microseconds at{};
    bool received = false;
    std::string text;

    [[nodiscard]] std::string startLine() const { return text.substr(0, text.find('\n')); }
    // The first value of the header, trimmed; empty when it is absent.
    [[nodiscard]] std::string header(std::string_view name) const {
        std::istringstream lines(text);
        std::string line;
        std::getline(lines, line);
        while (std::getline(lines, line) && !line.empty()) {
            const auto colon = line.find(':');
            if (colon == std::string::npos || colon != name.size()) continue;
            bool same = true;
            for (size_t i = 0; i < colon; ++i) {
                same = same && std::tolower(static_cast<unsigned char>(line[i])) ==
                                   std::tolower(static_cast<unsigned char>(name[i]));
            }
            if (!same) continue;
            const auto begin = line.find_first_not_of(' ', colon + 1);
            return begin == std::string::npos ? "" : line.substr(begin);
        }
        return "";
    }
    [[nodiscard]] std::string body() const {
        const auto end = text.find("\n\n");
        return end == std::string::npos ? "" : text.substr(end + 2);
    }
    [[nodiscard]] bool isRequest(std::string_view method) const {
        return text.compare(0, method.size() + 1, std::string(method) + " ") == 0;
    }
    // A response with this status to a request with this CSeq ("1 INVITE").
    [[nodiscard]] bool isResponse(int code, std::string_view cseq) const {
        return text.rfind("SIP/2.0 " + std::to_string(code) + " ", 0) == 0 && header("CSeq") == cseq;
    }
    [[nodiscard]] int status() const {
        return text.rfind("SIP/2.0 ", 0) == 0 ? std::atoi(text.c_str() + 8) : 0;
    }
    [[nodiscard]] std::string toTag() const {
        const std::string to = header("To");
        const auto from = to.find(";tag=");
        return from == std::string::npos ? "" : to.substr(from + 5, to.find(';', from + 5) - (from + 5));
    }
    // The branch parameter of the top Via.
    [[nodiscard]] std::string branch() const {
        const std::string via = header("Via");
        const auto from = via.find(";branch=");
        if (from == std::string::npos) return "";
        return via.substr(from + 8, via.find_first_of(";, ", from + 8) - (from + 8));
    }
};

// SIPp's -trace_msg file: each message follows a line of dashes with the
// time, and a line saying whether it was sent or received.
inline std::vector<Traced> readTrace(const std::string& log) {
    std::vector<Traced> out;
    std::istringstream lines(log);
    std::string line;
    enum class Part { Outside, Heading, Text } part = Part::Outside;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, us = 0;
        if (line.rfind("-----", 0) == 0) {
            const auto stamp = line.find_first_not_of("- ");
            if (stamp != std::string::npos &&
                std::sscanf(line.c_str() + stamp, "%d-%d-%d %d:%d:%d.%d", &y, &mo, &d, &h, &mi, &s, &us) == 7) {
                const std::chrono::sys_days day{std::chrono::year(y) / mo / d};
                Traced m;
                m.at = day.time_since_epoch() + std::chrono::hours(h) + std::chrono::minutes(mi) +
                       std::chrono::seconds(s) + std::chrono::microseconds(us);
                out.push_back(std::move(m));
                part = Part::Heading;
                continue;
            }
        }
        if (part == Part::Heading) {
            if (line.find("message received") != std::string::npos) out.back().received = true;
            if (line.empty()) part = Part::Text;
            continue;
        }
        if (part == Part::Text) out.back().text += line + "\n";
    }
    // The trace leaves blank lines after each message; a body keeps its own end.
    for (Traced& m : out) {
        while (m.text.size() >= 2 && m.text.compare(m.text.size() - 2, 2, "\n\n") == 0 &&
               m.text.find("\n\n") != m.text.size() - 2) {
            m.text.pop_back();
        }
    }
    return out;
}

inline std::vector<Traced> select(const std::vector<Traced>& trace, const std::function<bool(const Traced&)>& wanted) {
    std::vector<Traced> out;
    for (const Traced& m : trace) {
        if (wanted(m)) out.push_back(m);
    }
    return out;
}

}  // namespace kelsip::test
