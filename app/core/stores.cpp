// Reading and writing the four stores: key=value files for the account and
// the settings, tab-separated lines for the contacts and the call log.
#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>
#include <map>
#include <sstream>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kAccountFile = "account.txt";
constexpr std::string_view kSettingsFile = "settings.txt";
constexpr std::string_view kContactsFile = "contacts.txt";
constexpr std::string_view kCallLogFile = "calllog.txt";

// The file's lines, or nothing when it does not exist. A file that exists
// but cannot be read leaves a warning.
std::optional<std::vector<std::string>> readLines(const fs::path& path, std::string* warning) {
    std::error_code ec;
    if (!fs::exists(path, ec)) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    if (!in || in.bad()) {
        if (warning) *warning = "Cannot read " + detail::pathText(path);
        return std::nullopt;
    }
    std::vector<std::string> lines;
    std::string line;
    std::istringstream stream(text.str());
    while (std::getline(stream, line)) {
        // We never write a bare CR, but an editor on Windows may add one.
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
    }
    return lines;
}

void warnSkipped(std::string* warning, size_t skipped, std::string_view file) {
    if (skipped == 0 || warning == nullptr) return;
    *warning = std::to_string(skipped) + (skipped == 1 ? " line" : " lines") + " of " + std::string(file) +
               " could not be read and " + (skipped == 1 ? "was" : "were") + " skipped";
}

std::vector<std::string_view> splitTabs(std::string_view line) {
    std::vector<std::string_view> fields;
    for (;;) {
        const size_t tab = line.find('\t');
        fields.push_back(line.substr(0, tab));
        if (tab == std::string_view::npos) return fields;
        line.remove_prefix(tab + 1);
    }
}

template <typename T>
std::optional<T> parseInteger(std::string_view text) {
    T value{};
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

// key=value lines as a map of unescaped values; later lines win.
std::map<std::string, std::string, std::less<>> readKeyValues(const fs::path& path, std::string_view file,
                                                               std::string* warning) {
    std::map<std::string, std::string, std::less<>> values;
    const auto lines = readLines(path, warning);
    if (!lines) return values;
    size_t skipped = 0;
    for (const std::string& line : *lines) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) {
            if (!line.empty()) ++skipped;
            continue;
        }
        values[line.substr(0, equals)] = unescapeField(std::string_view(line).substr(equals + 1));
    }
    warnSkipped(warning, skipped, file);
    return values;
}

void putValue(std::string& out, std::string_view key, std::string_view value) {
    out += key;
    out += '=';
    out += escapeField(value);
    out += '\n';
}

bool readBool(const std::map<std::string, std::string, std::less<>>& values, std::string_view key, bool fallback) {
    const auto it = values.find(key);
    if (it == values.end()) return fallback;
    return it->second == "1" || it->second == "true";
}

}  // namespace

Stores::Stores(fs::path folder) : folder_(std::move(folder)) {}

bool Stores::prepare(std::string* error) {
    return detail::createPrivateFolder(folder_, error) && detail::createPrivateFolder(recordingsFolder(), error) &&
           detail::createPrivateFolder(logsFolder(), error);
}

fs::path Stores::recordingsFolder() const { return folder_ / "Recordings"; }
fs::path Stores::logsFolder() const { return folder_ / "Logs"; }

Account Stores::loadAccount(std::string* warning) const {
    const auto values = readKeyValues(folder_ / kAccountFile, kAccountFile, warning);
    const auto text = [&](std::string_view key) {
        const auto it = values.find(key);
        return it == values.end() ? std::string() : it->second;
    };
    Account account{text("user"),  "",           text("domain"),    text("authUser"),
                    text("proxy"), text("stun"), text("transport"), text("voicemail")};
    const std::string stored = text("password");
    if (auto plain = unprotectPassword(stored)) {
        account.password = std::move(*plain);
    } else if (warning) {
        *warning = "The saved password could not be opened; enter it again";
    }
    return account;
}

bool Stores::saveAccount(const Account& account, std::string* error) const {
    const auto stored = protectPassword(account.password);
    if (!stored) {
        if (error) *error = "Cannot protect the password";
        return false;
    }
    std::string out;
    putValue(out, "user", account.user);
    putValue(out, "password", *stored);
    putValue(out, "domain", account.domain);
    putValue(out, "authUser", account.authUser);
    putValue(out, "proxy", account.proxy);
    putValue(out, "stun", account.stun);
    putValue(out, "transport", account.transport);
    putValue(out, "voicemail", account.voicemail);
    return writeFileAtomically(folder_ / kAccountFile, out, error);
}

bool Stores::passwordNeedsProtecting() const {
    const fs::path path = folder_ / kAccountFile;
    const auto values = readKeyValues(path, kAccountFile, nullptr);
    const auto it = values.find("password");
    return it != values.end() && detail::storedPasswordExposed(path, it->second);
}

Settings Stores::loadSettings(std::string* warning) const {
    const auto values = readKeyValues(folder_ / kSettingsFile, kSettingsFile, warning);
    Settings settings;
    settings.autoAnswer = readBool(values, "autoAnswer", settings.autoAnswer);
    settings.logToFile = readBool(values, "logToFile", settings.logToFile);
    settings.phoneOn = readBool(values, "phoneOn", settings.phoneOn);
    settings.closeToTray = readBool(values, "closeToTray", settings.closeToTray);
    if (const auto it = values.find("micLevel"); it != values.end()) {
        // Wide enough that any out-of-range level a hand edit gives still clamps.
        if (const auto level = parseInteger<long long>(it->second)) {
            settings.micLevel = static_cast<int>(std::clamp<long long>(*level, 0, 100));
        }
    }
    if (const auto it = values.find("lastDialed"); it != values.end()) settings.lastDialed = it->second;
    if (const auto it = values.find("srtp"); it != values.end() && (it->second == "offered" || it->second == "required")) {
        settings.srtp = it->second;
    }
    settings.ice = readBool(values, "ice", settings.ice);
    for (const auto& [key, field] : {std::pair{"turn", &Settings::turnServer}, std::pair{"turnUser", &Settings::turnUser},
                                     std::pair{"turnPassword", &Settings::turnPassword}}) {
        if (const auto it = values.find(key); it != values.end()) settings.*field = it->second;
    }
    return settings;
}

bool Stores::saveSettings(const Settings& settings, std::string* error) const {
    std::string out;
    putValue(out, "autoAnswer", settings.autoAnswer ? "1" : "0");
    putValue(out, "logToFile", settings.logToFile ? "1" : "0");
    putValue(out, "micLevel", std::to_string(std::clamp(settings.micLevel, 0, 100)));
    putValue(out, "lastDialed", settings.lastDialed);
    putValue(out, "phoneOn", settings.phoneOn ? "1" : "0");
    putValue(out, "closeToTray", settings.closeToTray ? "1" : "0");
    putValue(out, "srtp", settings.srtp);
    putValue(out, "ice", settings.ice ? "1" : "0");
    putValue(out, "turn", settings.turnServer);
    putValue(out, "turnUser", settings.turnUser);
    putValue(out, "turnPassword", settings.turnPassword);
    return writeFileAtomically(folder_ / kSettingsFile, out, error);
}

std::vector<Contact> Stores::loadContacts(std::string* warning) const {
    std::vector<Contact> contacts;
    const auto lines = readLines(folder_ / kContactsFile, warning);
    if (!lines) return contacts;
    size_t skipped = 0;
    for (const std::string& line : *lines) {
        const auto fields = splitTabs(line);
        if (fields.size() < 2) {
            if (!line.empty()) ++skipped;
            continue;
        }
        contacts.push_back({unescapeField(fields[0]), unescapeField(fields[1])});
    }
    warnSkipped(warning, skipped, kContactsFile);
    return contacts;
}

bool Stores::saveContacts(const std::vector<Contact>& contacts, std::string* error) const {
    std::string out;
    for (const Contact& contact : contacts) {
        out += escapeField(contact.name);
        out += '\t';
        out += escapeField(contact.number);
        out += '\n';
    }
    return writeFileAtomically(folder_ / kContactsFile, out, error);
}

std::vector<CallLogEntry> Stores::loadCallLog(std::string* warning) const {
    std::vector<CallLogEntry> entries;
    const auto lines = readLines(folder_ / kCallLogFile, warning);
    if (!lines) return entries;
    size_t skipped = 0;
    for (const std::string& line : *lines) {
        if (line.empty()) continue;
        const auto fields = splitTabs(line);
        const auto kind = fields.size() == 6 ? parseInteger<int32_t>(fields[2]) : std::nullopt;
        const auto start = fields.size() == 6 ? parseInteger<int64_t>(fields[3]) : std::nullopt;
        const auto duration = fields.size() == 6 ? parseInteger<int32_t>(fields[4]) : std::nullopt;
        if (!kind || *kind < 0 || *kind > 2 || !start || !duration || *duration < 0) {
            ++skipped;
            continue;
        }
        entries.push_back({unescapeField(fields[0]), unescapeField(fields[1]), static_cast<CallKind>(*kind), *start,
                           *duration, unescapeField(fields[5])});
    }
    // Matches what a save keeps, so loading and saving again changes nothing.
    if (entries.size() > kCallLogLimit) entries.erase(entries.begin(), entries.end() - kCallLogLimit);
    warnSkipped(warning, skipped, kCallLogFile);
    return entries;
}

bool Stores::saveCallLog(const std::vector<CallLogEntry>& entries, std::string* error) const {
    std::string out;
    const size_t first = entries.size() > kCallLogLimit ? entries.size() - kCallLogLimit : 0;
    for (size_t i = first; i < entries.size(); ++i) {
        const CallLogEntry& entry = entries[i];
        out += escapeField(entry.number) + '\t' + escapeField(entry.name) + '\t';
        out += std::to_string(static_cast<int32_t>(entry.kind)) + '\t' + std::to_string(entry.start) + '\t';
        out += std::to_string(entry.duration) + '\t' + escapeField(entry.outcome) + '\n';
    }
    return writeFileAtomically(folder_ / kCallLogFile, out, error);
}

}  // namespace velphone
