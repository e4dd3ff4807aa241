// baresip on the process runner: config and account written from the
// options, ctrl_tcp spoken as netstrings of JSON, events kept in order.
#include "support/baresip_peer.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>

#include "support/free_port.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsip::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kCommandTimeout = std::chrono::seconds(5);
constexpr int kSilenceSeconds = 60;

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    static constexpr char kHex[] = "0123456789abcdef";
                    out += "\\u00";
                    out += kHex[(c >> 4) & 0xF];
                    out += kHex[c & 0xF];
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

// The members of one JSON object: strings unescaped, any other value
// (numbers, true, nested objects) as its text. Enough for what ctrl_tcp
// sends; nothing on failure.
class JsonObjectReader {
public:
    explicit JsonObjectReader(std::string_view text) : text_(text) {}

    std::optional<std::map<std::string, std::string>> read() {
        std::map<std::string, std::string> members;
        skipSpace();
        if (!eat('{')) return std::nullopt;
        skipSpace();
        if (eat('}')) return members;
        for (;;) {
            skipSpace();
            auto key = string();
            skipSpace();
            if (!key || !eat(':')) return std::nullopt;
            skipSpace();
            std::optional<std::string> value;
            if (peek() == '"') {
                value = string();
            } else {
                const size_t start = at_;
                if (!skipValue()) return std::nullopt;
                value = std::string(text_.substr(start, at_ - start));
            }
            if (!value) return std::nullopt;
            members[*key] = *value;
            skipSpace();
            if (eat('}')) return members;
            if (!eat(',')) return std::nullopt;
        }
    }

private:
    char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    bool eat(char c) {
        if (peek() != c) return false;
        ++at_;
        return true;
    }
    void skipSpace() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n' || text_[at_] == '\r' || text_[at_] == '\t')) {
            ++at_;
        }
    }

    static void appendUtf8(std::string& out, unsigned code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    std::optional<std::string> string() {
        if (!eat('"')) return std::nullopt;
        std::string out;
        while (at_ < text_.size()) {
            const char c = text_[at_++];
            if (c == '"') return out;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (at_ >= text_.size()) return std::nullopt;
            const char e = text_[at_++];
            switch (e) {
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                case 'b': out += '\b'; break;
                case 'f': out += '\f'; break;
                case 'u': {
                    if (at_ + 4 > text_.size()) return std::nullopt;
                    unsigned code = 0;
                    for (int i = 0; i < 4; ++i) {
                        const char h = text_[at_++];
                        code <<= 4;
                        if (h >= '0' && h <= '9') code |= static_cast<unsigned>(h - '0');
                        else if (h >= 'a' && h <= 'f') code |= static_cast<unsigned>(h - 'a' + 10);
                        else if (h >= 'A' && h <= 'F') code |= static_cast<unsigned>(h - 'A' + 10);
                        else return std::nullopt;
                    }
                    appendUtf8(out, code);
                    break;
                }
                default: out += e;  // \" \\ \/
            }
        }
        return std::nullopt;
    }

    // Skips a number, literal, object or array, strings inside included.
    bool skipValue() {
        int depth = 0;
        while (at_ < text_.size()) {
            const char c = peek();
            if (c == '"') {
                if (!string()) return false;
                if (depth == 0) return true;
                continue;
            }
            if (c == '{' || c == '[') {
                ++depth;
            } else if (c == '}' || c == ']') {
                if (depth == 0) return true;  // the end of the enclosing object
                --depth;
                ++at_;
                if (depth == 0) return true;
                continue;
            } else if (c == ',' && depth == 0) {
                return true;
            }
            ++at_;
        }
        return depth == 0;
    }

    std::string_view text_;
    size_t at_ = 0;
};

std::string member(const std::map<std::string, std::string>& members, const std::string& key) {
    const auto it = members.find(key);
    return it == members.end() ? std::string() : it->second;
}

// One SIP message of its trace (baresip -s): a coloured "#", a line
// "UDP 127.0.0.1:A -> 127.0.0.1:B", the message, the colour reset.
std::vector<std::string> tracedSipMessages(const std::string& log) {
    static constexpr std::string_view kStart = "\x1b[36;1m#\n";
    static constexpr std::string_view kEnd = "\x1b[;m";
    std::vector<std::string> out;
    for (size_t at = log.find(kStart); at != std::string::npos; at = log.find(kStart, at)) {
        const size_t route = at + kStart.size();
        const size_t text = log.find('\n', route);
        if (text == std::string::npos) break;
        const size_t end = log.find(kEnd, text);
        if (end == std::string::npos) break;
        std::string message;
        for (size_t i = text + 1; i < end; ++i) {
            if (log[i] != '\r') message += log[i];
        }
        out.push_back(std::move(message));
        at = end;
    }
    return out;
}

// The first value of a header of a traced message, empty when absent.
std::string tracedHeader(const std::string& message, std::string_view name) {
    const size_t headEnd = message.find("\n\n");
    size_t at = message.find('\n');
    while (at != std::string::npos && at < headEnd) {
        const size_t lineEnd = message.find('\n', at + 1);
        const std::string_view line(message.data() + at + 1, (lineEnd == std::string::npos ? message.size() : lineEnd) - at - 1);
        const size_t colon = line.find(':');
        bool same = colon == name.size();
        for (size_t i = 0; same && i < colon; ++i) {
            same = std::tolower(static_cast<unsigned char>(line[i])) == std::tolower(static_cast<unsigned char>(name[i]));
        }
        if (same) {
            const size_t value = line.find_first_not_of(' ', colon + 1);
            return value == std::string_view::npos ? std::string() : std::string(line.substr(value));
        }
        at = lineEnd;
    }
    return {};
}

// The URI of a name-addr ("\"Bob\" <sip:bob@h>;tag=x" gives sip:bob@h).
std::string addressUri(const std::string& value) {
    const size_t open = value.find('<');
    const size_t close = value.find('>', open);
    if (open != std::string::npos && close != std::string::npos) return value.substr(open + 1, close - open - 1);
    return value.substr(0, value.find(';'));
}

}  // namespace

BaresipPeer::~BaresipPeer() { stop(); }

std::string BaresipPeer::findModules() {
    for (const char* folder : {"/usr/lib/baresip/modules", "/usr/local/lib/baresip/modules",
                               "/usr/lib/x86_64-linux-gnu/baresip/modules"}) {
        std::error_code ec;
        if (std::filesystem::exists(std::filesystem::path(folder) / "ctrl_tcp.so", ec)) return folder;
    }
    return {};
}

std::string BaresipPeer::aor() const {
    return "sip:" + options_.user + "@" + (options_.domain.empty() ? hostPort() : options_.domain);
}

std::string BaresipPeer::contactUri() const {
    return "sip:" + options_.user + "@" + hostPort() +
           (options_.transport == BaresipTransport::Tcp ? ";transport=tcp" : "");
}

std::string BaresipPeer::name() const { return "baresip " + aor() + " on " + hostPort(); }

std::string BaresipPeer::config(const std::string& modules, const std::filesystem::path& source) const {
    const std::string dir = dir_.path().string();
    // The player is a bridge with no source on the other side: nothing plays,
    // and the sndfile filter in front of it writes what was decoded.
    return "# One interop test's far phone, written by its fixture.\n"
           "sip_listen 127.0.0.1:" + std::to_string(port_) + "\n"
           "call_local_timeout 120\n"
           "call_max_calls 4\n"
           "audio_player aubridge,velmora-sink\n"
           "audio_alert aubridge,velmora-alert\n"
           "audio_source aufile," + source.string() + "\n"
           "audio_level no\n"
           "ausrc_format s16\nauplay_format s16\nauenc_format s16\naudec_format s16\n"
           "rtp_tos 0\n"
           "jitter_buffer_delay 1-5\n"
           "module_path " + modules + "\n"
           "module g711.so\n"
           "module aufile.so\n"
           "module aubridge.so\n"
           "module sndfile.so\n" +
           std::string(options_.contacts.empty() ? "" : "module contact.so\n") +
           "module_tmp account.so\n"
           "module_app menu.so\n"
           "module_app ctrl_tcp.so\n"
           "ctrl_tcp_listen 127.0.0.1:" + std::to_string(controlPort_) + "\n"
           "snd_path " + dir + "/recordings\n"
           "statmode_default off\n"
           "ringback_disabled yes\n";
}

std::string BaresipPeer::accountLine() const {
    const bool tcp = options_.transport == BaresipTransport::Tcp;
    std::string line = "<" + aor() + (tcp ? ";transport=tcp" : "") + ">";
    line += ";answermode=" + std::string(options_.autoAnswer ? "auto" : "manual");
    line += ";audio_codecs=" + options_.audioCodecs;
    if (!options_.password.empty()) line += ";auth_pass=" + options_.password;
    if (options_.registrar.empty()) {
        line += ";regint=0";
    } else {
        line += ";regint=" + std::to_string(options_.registerSeconds);
        line += ";outbound=\"sip:" + options_.registrar + (tcp ? ";transport=tcp" : "") + "\"";
    }
    return line;
}

bool BaresipPeer::start(const BaresipOptions& options, std::string* error) {
    std::string ignored;
    if (error == nullptr) error = &ignored;
    if (!installed("baresip")) {
        *error = "baresip not found: install baresip-core (scripts/setup does)";
        return false;
    }
    const std::string modules = findModules();
    if (modules.empty()) {
        *error = "baresip's modules not found (looked in /usr/lib/baresip/modules)";
        return false;
    }
    if (!dir_.valid()) {
        *error = "cannot create a temporary folder";
        return false;
    }
    options_ = options;
    std::error_code ec;
    std::filesystem::create_directories(dir_.file("recordings"), ec);
    std::filesystem::path source = options.audioSource;
    if (source.empty()) {
        source = dir_.file("silence.wav");
        WavAudio silence;
        silence.samples.assign(static_cast<size_t>(kSilenceSeconds) * silence.sampleRate, 0);
        if (!writeWav(source, silence, error)) return false;
    }
    // Accounts come through ctrl_tcp once it is connected, so that no
    // registration event is sent before anyone listens.
    std::string contacts;
    for (const std::string& contact : options.contacts) contacts += contact + "\n";
    if (!writeTextFile(dir_.file("accounts"), "") || !writeTextFile(dir_.file("contacts"), contacts)) {
        *error = "cannot write into " + dir_.path().string();
        return false;
    }

    bool connected = false;
    for (int attempt = 0; attempt < 5 && !connected; ++attempt) {
        stop();
        port_ = freeLoopbackPort();
        controlPort_ = freeLoopbackPort();
        if (port_ == 0 || controlPort_ == 0 || port_ == controlPort_) continue;
        if (!writeTextFile(dir_.file("config"), config(modules, source))) {
            *error = "cannot write the baresip config";
            return false;
        }
        ProcessOptions run;
        run.program = "baresip";
        // -n: the address for SIP and SDP, else it offers the first
        // interface's address instead of loopback.
        run.arguments = {"-f", dir_.path().string(), "-n", "127.0.0.1"};
        if (options.sipTrace) run.arguments.emplace_back("-s");
        run.workingDirectory = dir_.path();
        run.logFile = dir_.file("baresip.log");
        if (!process_.start(run, error)) return false;
        connected = connectControl(std::chrono::seconds(10));
        // Lost a port to another program: try fresh ones. Without its SIP
        // port baresip ends; without its control port it runs on, deaf.
        const bool lostPort = process_.isRunning() || log().find("Address already in use") != std::string::npos;
        if (!connected && !lostPort) break;
    }
    if (!connected) {
        stop();
        *error = "baresip did not start (its log follows)";
        return false;
    }
    std::string complaint;
    if (!command("uanew", accountLine(), &complaint)) {
        stop();
        *error = "baresip refused the account " + accountLine() + ": " + complaint;
        return false;
    }
    return true;
}

bool BaresipPeer::connectControl(std::chrono::milliseconds timeout) {
    const auto address = net::SocketAddress::loopback(net::AddressFamily::V4, controlPort_);
    const bool up = waitFor(
        [&] {
            if (!process_.isRunning()) return true;
            net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Tcp);
            if (!socket.valid() || !socket.setNonBlocking(true)) return false;
            auto status = socket.connect(address);
            if (status == net::ConnectStatus::InProgress) {
                net::PollEntry entry;
                entry.socket = socket.native();
                entry.wantWrite = true;
                status = net::poll(std::span<net::PollEntry>(&entry, 1), 100) > 0 && socket.connectResult() == 0
                             ? net::ConnectStatus::Connected
                             : net::ConnectStatus::Failed;
            }
            if (status != net::ConnectStatus::Connected) return false;
            control_ = std::move(socket);
            return true;
        },
        timeout);
    // Someone else's listener on the port would not answer: "help" proves it
    // is baresip's.
    return up && process_.isRunning() && control_.valid() && command("help").has_value();
}

void BaresipPeer::stop() {
    if (process_.isRunning() && control_.valid()) {
        const std::string request = "{\"command\":\"quit\",\"token\":\"quit\"}";
        const std::string framed = std::to_string(request.size()) + ":" + request + ",";
        static_cast<void>(control_.send(framed.data(), framed.size()));
        process_.waitForExit(std::chrono::seconds(2));
    }
    if (control_.valid()) {
        // Keep whatever arrived before the end for the test to read.
        pump(0);
        control_.close();
    }
    process_.stop();
    received_.clear();
}

bool BaresipPeer::pump(int timeoutMs) {
    if (!control_.valid()) return false;
    net::PollEntry entry;
    entry.socket = control_.native();
    entry.wantRead = true;
    if (net::poll(std::span<net::PollEntry>(&entry, 1), timeoutMs) <= 0) return true;
    char buffer[8192];
    for (;;) {
        const net::IoResult r = control_.receive(buffer, sizeof buffer);
        if (r.ok() && r.bytes > 0) {
            received_.append(buffer, r.bytes);
            continue;
        }
        if (r.status == net::IoResult::Status::WouldBlock) break;
        control_.close();
        break;
    }
    // Netstrings: "LENGTH:PAYLOAD,".
    for (;;) {
        const size_t colon = received_.find(':');
        if (colon == std::string::npos) break;
        size_t length = 0;
        bool digits = colon > 0 && colon < 10;
        for (size_t i = 0; i < colon && digits; ++i) {
            digits = received_[i] >= '0' && received_[i] <= '9';
            length = length * 10 + static_cast<size_t>(received_[i] - '0');
        }
        if (!digits) {
            received_.clear();  // out of step with the stream: nothing after this can be read
            break;
        }
        if (received_.size() < colon + 1 + length + 1) break;
        take(std::string_view(received_).substr(colon + 1, length));
        received_.erase(0, colon + 1 + length + 1);
    }
    return control_.valid();
}

void BaresipPeer::take(std::string_view json) {
    const auto members = JsonObjectReader(json).read();
    if (!members) return;
    if (member(*members, "event") == "true") {
        BaresipEvent event;
        event.type = member(*members, "type");
        event.param = member(*members, "param");
        event.callId = member(*members, "id");
        event.peerUri = member(*members, "peeruri");
        event.direction = member(*members, "direction");
        event.accountAor = member(*members, "accountaor");
        event.json = std::string(json);
        events_.push_back(std::move(event));
        taken_.push_back(false);
    } else if (member(*members, "response") == "true") {
        responses_.push_back({member(*members, "token"), member(*members, "ok") == "true", member(*members, "data")});
    }
}

std::optional<std::string> BaresipPeer::command(std::string_view name, std::string_view params, std::string* error) {
    if (!control_.valid()) {
        if (error != nullptr) *error = "not connected to baresip";
        return std::nullopt;
    }
    const std::string token = std::to_string(nextToken_++);
    std::string request = "{\"command\":" + jsonString(name);
    if (!params.empty()) request += ",\"params\":" + jsonString(params);
    request += ",\"token\":" + jsonString(token) + "}";
    const std::string framed = std::to_string(request.size()) + ":" + request + ",";
    size_t sent = 0;
    const auto deadline = Clock::now() + kCommandTimeout;
    while (sent < framed.size() && Clock::now() < deadline) {
        const net::IoResult r = control_.send(framed.data() + sent, framed.size() - sent);
        if (r.ok()) {
            sent += r.bytes;
        } else if (r.status == net::IoResult::Status::WouldBlock) {
            net::PollEntry entry;
            entry.socket = control_.native();
            entry.wantWrite = true;
            net::poll(std::span<net::PollEntry>(&entry, 1), 10);
        } else {
            break;
        }
    }
    if (sent < framed.size()) {
        if (error != nullptr) *error = "cannot send to baresip";
        return std::nullopt;
    }
    while (Clock::now() < deadline) {
        const auto it = std::find_if(responses_.begin(), responses_.end(),
                                     [&](const Response& r) { return r.token == token; });
        if (it != responses_.end()) {
            const Response response = *it;
            responses_.erase(it);
            if (!response.ok) {
                if (error != nullptr) *error = response.data;
                return std::nullopt;
            }
            return response.data;
        }
        if (!pump(20)) break;
    }
    if (error != nullptr) *error = "baresip did not answer " + std::string(name);
    return std::nullopt;
}

bool BaresipPeer::dial(std::string_view uri, std::string* error) {
    std::string target(uri);
    if (options_.transport == BaresipTransport::Tcp) {
        // A TCP account appends ";transport=tcp" to whatever it dials: one
        // already there would appear twice.
        static constexpr std::string_view kParam = ";transport=tcp";
        std::string lower = target;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
        const size_t at = lower.find(kParam);
        if (at != std::string::npos) target.erase(at, kParam.size());
    }
    return command("dial", target, error).has_value();
}
bool BaresipPeer::accept(std::string* error) { return command("accept", {}, error).has_value(); }
bool BaresipPeer::hangup(std::string* error) { return command("hangup", {}, error).has_value(); }
bool BaresipPeer::hold(std::string* error) { return command("hold", {}, error).has_value(); }
bool BaresipPeer::resume(std::string* error) { return command("resume", {}, error).has_value(); }
bool BaresipPeer::sendDigits(std::string_view digits, std::string* error) {
    return command("sndcode", digits, error).has_value();
}
bool BaresipPeer::transfer(std::string_view uri, std::string* error) {
    return command("transfer", uri, error).has_value();
}
bool BaresipPeer::sendMessage(std::string_view text, std::string* error) {
    return command("message", text, error).has_value();
}

std::optional<BaresipEvent> BaresipPeer::waitForEvent(std::initializer_list<std::string_view> types,
                                                      std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        for (size_t i = 0; i < events_.size(); ++i) {
            if (taken_[i] || std::find(types.begin(), types.end(), events_[i].type) == types.end()) continue;
            taken_[i] = true;
            return events_[i];
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        // A closed connection has delivered all it will.
        if (left <= 0 || !control_.valid()) return std::nullopt;
        pump(static_cast<int>(std::min<long long>(left, 50)));
    }
}

std::optional<std::string> BaresipPeer::waitForClosed(std::chrono::milliseconds timeout) {
    const auto event = waitForEvent("CALL_CLOSED", timeout);
    if (!event) return std::nullopt;
    return event->param;
}

std::optional<bool> BaresipPeer::waitForRegistration(std::chrono::milliseconds timeout) {
    const auto event = waitForEvent({"REGISTER_OK", "REGISTER_FAIL"}, timeout);
    if (!event) return std::nullopt;
    return event->type == "REGISTER_OK";
}

std::vector<BaresipEvent> BaresipPeer::events() {
    pump(0);
    return events_;
}

std::string BaresipPeer::receivedDigits() {
    pump(0);
    std::string digits;
    for (const BaresipEvent& e : events_) {
        if (e.type == "CALL_DTMF_START") digits += e.param;
    }
    return digits;
}

std::vector<BaresipMessage> BaresipPeer::receivedMessages() const {
    std::vector<BaresipMessage> out;
    std::vector<std::string> seen;
    const std::string own = aor();
    for (const std::string& m : tracedSipMessages(log())) {
        // Its own MESSAGEs are traced too: they come from its account.
        if (m.rfind("MESSAGE ", 0) != 0 || addressUri(tracedHeader(m, "From")) == own) continue;
        const std::string key = tracedHeader(m, "Call-ID") + " " + tracedHeader(m, "CSeq");
        if (std::find(seen.begin(), seen.end(), key) != seen.end()) continue;
        seen.push_back(key);
        const size_t body = m.find("\n\n");
        out.push_back({addressUri(tracedHeader(m, "From")), tracedHeader(m, "Content-Type"),
                       body == std::string::npos ? std::string() : m.substr(body + 2)});
    }
    return out;
}

std::vector<int> BaresipPeer::messageAnswers() const {
    std::vector<int> out;
    std::vector<std::string> seen;
    const std::string own = aor();
    for (const std::string& m : tracedSipMessages(log())) {
        // Answers to its own requests name its account in From; those it
        // gives to others' MESSAGEs name the sender.
        const std::string cseq = tracedHeader(m, "CSeq");
        if (m.rfind("SIP/2.0 ", 0) != 0 || cseq.find(" MESSAGE") == std::string::npos ||
            addressUri(tracedHeader(m, "From")) != own) {
            continue;
        }
        const int status = std::atoi(m.c_str() + 8);
        const std::string key = tracedHeader(m, "Call-ID") + " " + cseq + " " + std::to_string(status);
        if (status < 200 || std::find(seen.begin(), seen.end(), key) != seen.end()) continue;
        seen.push_back(key);
        out.push_back(status);
    }
    return out;
}

std::optional<std::string> BaresipPeer::audioDirection() {
    const auto text = command("audio_debug");
    if (!text) return std::nullopt;
    static constexpr std::string_view kMarker = "audio dir=";
    const size_t at = text->find(kMarker);
    if (at == std::string::npos) return std::nullopt;
    const size_t start = at + kMarker.size();
    const size_t end = text->find_first_of(" \t\r\n", start);
    return text->substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::vector<std::filesystem::path> BaresipPeer::recordings() const {
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.file("recordings"), ec)) {
        const std::string file = entry.path().filename().string();
        if (file.size() > 8 && file.compare(file.size() - 8, 8, "-dec.wav") == 0) found.push_back(entry.path());
    }
    // Named by the call's start time, to the second.
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace kelsip::test
