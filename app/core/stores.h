// The phone's stores: account, settings, contacts and call log as plain
// text files in the user's data folder, each written whole through a ".tmp"
// file and a replacing move, so an interrupted write never leaves half a
// file. A missing, truncated or corrupt file loads what it can and defaults
// the rest; nothing here throws.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velphone {

struct Account {
    std::string user;
    std::string password;  // plain in memory; protected in the file
    std::string domain;    // empty: peer to peer
    std::string authUser;
    std::string proxy;
    std::string stun;
    std::string transport;  // "udp" (default when empty), "tcp", "tls"
    std::string voicemail;  // the voicemail number
    bool operator==(const Account&) const = default;
};

struct Settings {
    bool autoAnswer = false;
    bool logToFile = false;
    int micLevel = 50;  // 0..100, clamped on load
    std::string lastDialed;
    bool phoneOn = false;
    bool closeToTray = true;
    // Encrypted calls for the account: "off", "offered" (best effort) or
    // "required"; anything else reads as "off".
    std::string srtp = "off";
    // ICE for the calls' media, with the account's STUN server and this TURN
    // server ("ip[:port]") and its credentials. The TURN password is kept
    // here in the clear: it is a relay's service credential, not the account's.
    bool ice = false;
    std::string turnServer;
    std::string turnUser;
    std::string turnPassword;
    bool operator==(const Settings&) const = default;
};

struct Contact {
    std::string name;
    std::string number;
    bool operator==(const Contact&) const = default;
};

enum class CallKind : int32_t { Incoming = 0, Outgoing = 1, Missed = 2 };

struct CallLogEntry {
    std::string number;
    std::string name;
    CallKind kind = CallKind::Outgoing;
    int64_t start = 0;     // seconds since 1970 (UTC)
    int32_t duration = 0;  // seconds talked; 0 for a missed or failed call
    std::string outcome;   // how it ended: "Remote hangup", "Busy Here", ...
    bool operator==(const CallLogEntry&) const = default;
};

// The call log keeps this many entries, newest last; older ones are dropped on save.
inline constexpr size_t kCallLogLimit = 500;

// Tab, line feed, carriage return and backslash as "\t", "\n", "\r", "\\".
[[nodiscard]] std::string escapeField(std::string_view text);
[[nodiscard]] std::string unescapeField(std::string_view text);

// Why an account cannot be used, or nothing: a user is needed, and no
// header-bound field (user, domain, auth user, proxy, stun, voicemail)
// may hold CR, LF or another control character. The text names the field.
[[nodiscard]] std::optional<std::string> validateAccount(const Account& account);

class Stores {
public:
    // The platform's data folder: "%APPDATA%\Velmora Phone" on Windows,
    // "$XDG_DATA_HOME/velmora-phone" (default ~/.local/share/velmora-phone)
    // elsewhere. Not created here.
    [[nodiscard]] static std::filesystem::path defaultFolder();

    explicit Stores(std::filesystem::path folder);

    // Creates the data folder (mode 0700 where modes exist) and the
    // recordings folder; false with the reason when it cannot.
    [[nodiscard]] bool prepare(std::string* error = nullptr);
    [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }
    [[nodiscard]] std::filesystem::path recordingsFolder() const;
    [[nodiscard]] std::filesystem::path logsFolder() const;

    // Loading never fails: what is missing or unreadable takes its default.
    // `warning`, when given, receives a line about a file that could not be
    // read whole (corrupt, a password that cannot be unprotected, ...).
    [[nodiscard]] Account loadAccount(std::string* warning = nullptr) const;
    [[nodiscard]] Settings loadSettings(std::string* warning = nullptr) const;
    [[nodiscard]] std::vector<Contact> loadContacts(std::string* warning = nullptr) const;
    [[nodiscard]] std::vector<CallLogEntry> loadCallLog(std::string* warning = nullptr) const;

    // False, with the reason, when the file could not be written; the
    // previous content is then untouched.
    [[nodiscard]] bool saveAccount(const Account& account, std::string* error = nullptr) const;
    [[nodiscard]] bool saveSettings(const Settings& settings, std::string* error = nullptr) const;
    [[nodiscard]] bool saveContacts(const std::vector<Contact>& contacts, std::string* error = nullptr) const;
    [[nodiscard]] bool saveCallLog(const std::vector<CallLogEntry>& entries, std::string* error = nullptr) const;

    // True when the stored password was plain text (it is written protected
    // on the next saveAccount). Where the protection is the file's mode, a
    // password in a file others may read counts as plain.
    [[nodiscard]] bool passwordNeedsProtecting() const;

private:
    std::filesystem::path folder_;
};

// Writes `content` to `path` whole: to path + ".tmp", flushed to the disk,
// then moved over `path`. False with the reason; `path` is then untouched.
[[nodiscard]] bool writeFileAtomically(const std::filesystem::path& path, std::string_view content,
                                       std::string* error = nullptr);

// The stored form of a password: "dpapi:" and Base64 on Windows (protected
// for the current user), the plain text elsewhere, where the file itself is
// mode 0600 in a folder of mode 0700. Nothing when protection failed.
[[nodiscard]] std::optional<std::string> protectPassword(const std::string& plain);
// The plain password from its stored form; a value without "dpapi:" is
// taken as it stands. Nothing when a protected value cannot be opened
// (another user's, or damaged).
[[nodiscard]] std::optional<std::string> unprotectPassword(const std::string& stored);

// The SIP log file: "Logs/sip-log.txt" in the data folder, renamed to
// "sip-log.1.txt" (replacing an older one) when it reaches 5242880 bytes.
class SipLogFile {
public:
    static constexpr uint64_t kRotateBytes = 5242880;
    explicit SipLogFile(std::filesystem::path logsFolder);
    ~SipLogFile();
    SipLogFile(const SipLogFile&) = delete;
    SipLogFile& operator=(const SipLogFile&) = delete;
    // Opens for appending; false when the file cannot be written.
    [[nodiscard]] bool open();
    // Appends one line (a line feed is added); rotates first when needed.
    // Thread-safe: the stack logs from several threads.
    void write(std::string_view line);
    void close();
    [[nodiscard]] std::filesystem::path path() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace velphone
