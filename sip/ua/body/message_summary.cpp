// The message-summary body: written in its one exact form, read in the many
// forms voicemail servers send.
#include "sip/ua/body/message_summary.h"

#include "sip/syntax/text.h"

namespace kelsip {

namespace {

constexpr uint64_t kMaxCount = 0xFFFFFFFFu;

std::nullopt_t fail(std::string* error, const char* text) {
    if (error != nullptr) *error = text;
    return std::nullopt;
}

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

void skipBlanks(std::string_view& s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
}

// Cuts the next line off `rest` at LF; a CR before it goes with the trimming.
std::string_view nextLine(std::string_view& rest) {
    const size_t lf = rest.find('\n');
    const std::string_view line = rest.substr(0, lf);
    rest = lf == std::string_view::npos ? std::string_view() : rest.substr(lf + 1);
    return line;
}

bool takeChar(std::string_view& s, char c) {
    skipBlanks(s);
    if (s.empty() || s.front() != c) return false;
    s.remove_prefix(1);
    return true;
}

// One decimal count; leading zeros are harmless, more than 32 bits is not.
bool takeCount(std::string_view& s, uint32_t& count) {
    skipBlanks(s);
    uint64_t value = 0;
    size_t i = 0;
    for (; i < s.size() && text::isDigit(s[i]); ++i) {
        value = value * 10 + static_cast<uint64_t>(s[i] - '0');
        if (value > kMaxCount) return false;
    }
    if (i == 0) return false;
    s.remove_prefix(i);
    count = static_cast<uint32_t>(value);
    return true;
}

// "new/old", optionally followed by "(urgent-new/urgent-old)"; servers
// without urgent messages often leave that part out.
bool parseCounts(std::string_view value, MessageSummary& summary) {
    uint32_t newMessages = 0;
    uint32_t oldMessages = 0;
    uint32_t urgentNew = 0;
    uint32_t urgentOld = 0;
    if (!takeCount(value, newMessages) || !takeChar(value, '/') || !takeCount(value, oldMessages)) return false;
    if (takeChar(value, '(')) {
        if (!takeCount(value, urgentNew) || !takeChar(value, '/') || !takeCount(value, urgentOld) ||
            !takeChar(value, ')')) {
            return false;
        }
    }
    skipBlanks(value);
    if (!value.empty()) return false;
    summary.newMessages = newMessages;
    summary.oldMessages = oldMessages;
    summary.urgentNew = urgentNew;
    summary.urgentOld = urgentOld;
    return true;
}

}  // namespace

std::string buildMessageSummary(const MessageSummary& summary) {
    std::string out;
    out.reserve(80 + summary.messageAccount.size());
    out += "Messages-Waiting: ";
    out += summary.messagesWaiting ? "yes" : "no";
    out += "\r\n";
    if (!summary.messageAccount.empty()) {
        out += "Message-Account: ";
        out += summary.messageAccount;
        out += "\r\n";
    }
    out += "Voice-Message: ";
    out += std::to_string(summary.newMessages);
    out += '/';
    out += std::to_string(summary.oldMessages);
    out += " (";
    out += std::to_string(summary.urgentNew);
    out += '/';
    out += std::to_string(summary.urgentOld);
    out += ")\r\n";
    return out;
}

std::optional<MessageSummary> parseMessageSummary(std::string_view body, std::string* error) {
    if (text::trim(body).empty()) return fail(error, "empty message-summary");
    MessageSummary summary;
    bool sawWaiting = false;
    bool started = false;
    std::string_view rest = body;
    while (!rest.empty()) {
        const std::string_view line = text::trim(nextLine(rest));
        if (line.empty()) {
            // Blank lines before the summary are stray; the one after it
            // opens the optional message headers, which we do not use.
            if (started) break;
            continue;
        }
        started = true;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string_view name = text::trim(line.substr(0, colon));
        const std::string_view value = text::trim(line.substr(colon + 1));
        // A repeated field replaces the earlier one. Other message-context
        // classes (fax, pager, text...) are not shown by a phone and are skipped.
        if (text::iequals(name, "Messages-Waiting")) {
            if (text::iequals(value, "yes")) summary.messagesWaiting = true;
            else if (text::iequals(value, "no")) summary.messagesWaiting = false;
            else return fail(error, "bad Messages-Waiting value");
            sawWaiting = true;
        } else if (text::iequals(name, "Message-Account")) {
            summary.messageAccount.assign(value);
        } else if (text::iequals(name, "Voice-Message")) {
            if (!parseCounts(value, summary)) return fail(error, "bad Voice-Message counts");
        }
    }
    if (!sawWaiting) return fail(error, "missing Messages-Waiting");
    return summary;
}

}  // namespace kelsip
