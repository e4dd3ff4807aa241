// baresip on the process runner: config and account written from the
// options, ctrl_tcp spoken as netstrings of flat JSON objects.
#include "support/baresip_peer.h"

#include <algorithm>
#include <cstdlib>

#include "support/free_port.h"
#include "support/wait.h"
#include "support/wav.h"

namespace kelsip::test {

namespace {

using Clock = std::chrono::steady_clock;

// A member of a flat JSON object: a string unescaped, any other value as
// its text; empty when absent.
std::string member(std::string_view json, std::string_view key) {
    size_t at = json.find("\"" + std::string(key) + "\"");
    if (at == std::string_view::npos) return {};
    at = json.find_first_not_of(" :", at + key.size() + 2);
    if (at == std::string_view::npos) return {};
    if (json[at] != '"') return std::string(json.substr(at, json.find_first_of(",}", at) - at));
    std::string out;
    for (++at; at < json.size() && json[at] != '"'; ++at) {
        if (json[at] == '\\' && ++at < json.size()) {
            out += json[at] == 'n' ? '\n' : json[at] == 'r' ? '\r' : json[at] == 't' ? '\t' : json[at];
        } else {
            out += json[at];
        }
    }
    return out;
}

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) out += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    return out + "\"";
}

std::string header(const std::string& message, const std::string& name) {
    const size_t at = message.find("\n" + name + ": ");
    if (at == std::string::npos || at > message.find("\n\n")) return {};
    const size_t start = at + name.size() + 3;
    return message.substr(start, message.find('\n', start) - start);
}

// Its SIP trace (-s): each message after a coloured "#" and a line naming
// the route, up to the colour reset; a retransmission only once.
std::vector<std::string> tracedSipMessages(const std::string& log) {
    static constexpr std::string_view kStart = "\x1b[36;1m#\n";
    std::vector<std::string> out;
    std::vector<std::string> seen;
    for (size_t at = log.find(kStart); at != std::string::npos; at = log.find(kStart, at + 1)) {
        const size_t text = log.find('\n', at + kStart.size());
        const size_t end = log.find("\x1b[;m", text);
        if (end == std::string::npos) break;
        std::string message = log.substr(text + 1, end - text - 1);
        std::erase(message, '\r');
        const std::string key = header(message, "Call-ID") + header(message, "CSeq") + message.substr(0, 12);
        if (std::ranges::count(seen, key) > 0) continue;
        seen.push_back(key);
        out.push_back(std::move(message));
    }
    return out;
}

// The URI of a From value ("\"Bob\" <sip:bob@h>;tag=x" gives sip:bob@h).
std::string fromUri(const std::string& message) {
    const std::string value = header(message, "From");
    const size_t open = value.find('<');
    return open == std::string::npos ? value.substr(0, value.find(';'))
                                     : value.substr(open + 1, value.find('>', open) - open - 1);
}

}  // namespace

std::string BaresipPeer::aor() const {
    return "sip:" + options_.user + "@" + options_.registrar;
}

bool BaresipPeer::start(const BaresipOptions& options, std::string* error) {
    options_ = options;
    std::filesystem::path source = options.audioSource;
    if (source.empty()) {
        source = dir_.file("silence.wav");
        WavAudio silence;
        silence.samples.assign(60 * 8000, 0);
        if (!writeWav(source, silence, error)) return false;
    }
    std::string contacts;
    for (const std::string& contact : options.contacts) contacts += contact + "\n";
    std::error_code ec;
    std::filesystem::create_directories(dir_.file("recordings"), ec);
    if (!writeTextFile(dir_.file("accounts"), "") || !writeTextFile(dir_.file("contacts"), contacts)) {
        *error = "cannot write into " + dir_.path().string();
        return false;
    }
    Launch baresip;
    baresip.program = "baresip";
    baresip.package = "baresip-core";
    baresip.prepare = [&](ProcessOptions& run, std::string* failure) {
        controlPort_ = freeLoopbackPort();
        // The player is a bridge nobody listens to; the sndfile filter in
        // front of it writes what was decoded.
        const std::string config =
            "sip_listen 127.0.0.1:" + std::to_string(port_) + "\ncall_max_calls 4\n"
            "audio_player aubridge,velmora-sink\naudio_alert aubridge,velmora-alert\n"
            "audio_source aufile," + source.string() + "\naudio_level no\njitter_buffer_delay 1-5\n"
            "module_path /usr/lib/baresip/modules\n"
            "module g711.so\nmodule aufile.so\nmodule aubridge.so\nmodule sndfile.so\n" +
            (options.contacts.empty() ? "" : "module contact.so\n") +
            (options.mediaEncryption.empty() ? "" : "module srtp.so\n") +
            "module_tmp account.so\nmodule_app menu.so\nmodule_app ctrl_tcp.so\n"
            "ctrl_tcp_listen 127.0.0.1:" + std::to_string(controlPort_) + "\n"
            "snd_path " + dir_.file("recordings").string() + "\nstatmode_default off\nringback_disabled yes\n";
        if (!writeTextFile(dir_.file("config"), config)) {
            *failure = "cannot write the baresip config";
            return false;
        }
        // -n: loopback in its SDP; -s: the SIP trace in its log.
        run.arguments = {"-f", dir_.path().string(), "-n", "127.0.0.1", "-s"};
        return true;
    };
    baresip.ready = [&] {
        net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Tcp);
        if (!socket.valid() || socket.connect(net::SocketAddress::loopback(net::AddressFamily::V4, controlPort_)) !=
                                   net::ConnectStatus::Connected) {
            return false;
        }
        control_ = std::move(socket);
        return control_.setNonBlocking(true);
    };
    // Without its SIP port baresip ends; without its control port it runs on, deaf.
    baresip.lostPort = [&] { return process_.isRunning() || log().find("Address already in use") != std::string::npos; };
    if (!launch(baresip, error)) return false;

    const bool tcp = options.transport == TransportKind::Tcp;
    std::string account = "<" + aor() + (tcp ? ";transport=tcp" : "") + ">;answermode=" +
                          (options.autoAnswer ? "auto" : "manual") + ";audio_codecs=pcmu,pcma";
    if (!options.password.empty()) account += ";auth_pass=" + options.password;
    if (!options.mediaEncryption.empty()) account += ";mediaenc=" + options.mediaEncryption;
    account += ";regint=600;outbound=\"sip:" + options.registrar + (tcp ? ";transport=tcp" : "") + "\"";
    // Added once ctrl_tcp listens, so that no registration event is missed.
    std::string complaint;
    if (!command("uanew", account, &complaint)) {
        *error = "baresip refused the account " + account + ": " + complaint;
        return false;
    }
    return true;
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
        } else {
            if (r.status != net::IoResult::Status::WouldBlock) control_.close();
            break;
        }
    }
    // Netstrings: "LENGTH:PAYLOAD,".
    for (size_t colon = received_.find(':'); colon != std::string::npos; colon = received_.find(':')) {
        const size_t length = std::strtoul(received_.c_str(), nullptr, 10);
        if (received_.size() < colon + length + 2) break;
        const std::string json = received_.substr(colon + 1, length);
        received_.erase(0, colon + length + 2);
        if (member(json, "event") == "true") {
            events_.push_back({member(json, "type"), member(json, "param")});
            handed_.push_back(false);
        } else if (member(json, "response") == "true") {
            responses_.emplace_back(member(json, "token"), json);
        }
    }
    return control_.valid();
}

std::optional<std::string> BaresipPeer::command(std::string_view name, std::string_view params, std::string* error) {
    const std::string token = std::to_string(nextToken_++);
    std::string request = "{\"command\":" + jsonString(name);
    if (!params.empty()) request += ",\"params\":" + jsonString(params);
    request += ",\"token\":" + jsonString(token) + "}";
    request = std::to_string(request.size()) + ":" + request + ",";
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    if (!control_.valid() || control_.send(request.data(), request.size()).bytes != request.size()) {
        if (error != nullptr) *error = "cannot send to baresip";
        return std::nullopt;
    }
    while (Clock::now() < deadline && pump(20)) {
        const auto it = std::find_if(responses_.begin(), responses_.end(), [&](const auto& r) { return r.first == token; });
        if (it == responses_.end()) continue;
        const std::string json = it->second;
        responses_.erase(it);
        if (member(json, "ok") == "true") return member(json, "data");
        if (error != nullptr) *error = member(json, "data");
        return std::nullopt;
    }
    if (error != nullptr) *error = "baresip did not answer " + std::string(name);
    return std::nullopt;
}

std::optional<BaresipEvent> BaresipPeer::waitForEvent(std::string_view type, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    do {
        for (size_t i = 0; i < events_.size(); ++i) {
            if (handed_[i] || events_[i].type != type) continue;
            handed_[i] = true;
            return events_[i];
        }
    } while (Clock::now() < deadline && pump(50));
    return std::nullopt;
}

std::optional<std::string> BaresipPeer::waitForClosed() {
    const auto event = waitForEvent("CALL_CLOSED");
    return event ? std::optional(event->param) : std::nullopt;
}

std::string BaresipPeer::receivedDigits() {
    pump(0);
    std::string digits;
    for (const BaresipEvent& e : events_) digits += e.type == "CALL_DTMF_START" ? e.param : "";
    return digits;
}

std::vector<BaresipMessage> BaresipPeer::receivedMessages() const {
    std::vector<BaresipMessage> out;
    for (const std::string& m : tracedSipMessages(log())) {
        // Its own MESSAGEs are traced too, from its own account.
        if (!m.starts_with("MESSAGE ") || fromUri(m) == aor()) continue;
        out.push_back({fromUri(m), header(m, "Content-Type"), m.substr(m.find("\n\n") + 2)});
    }
    return out;
}

std::vector<int> BaresipPeer::messageAnswers() const {
    std::vector<int> out;
    for (const std::string& m : tracedSipMessages(log())) {
        // Answers to its own MESSAGEs name its account in From.
        if (m.starts_with("SIP/2.0 ") && header(m, "CSeq").ends_with(" MESSAGE") && fromUri(m) == aor() &&
            std::atoi(m.c_str() + 8) >= 200) {
            out.push_back(std::atoi(m.c_str() + 8));
        }
    }
    return out;
}

std::optional<std::string> BaresipPeer::audioDirection() {
    const auto text = command("audio_debug");
    const size_t at = text ? text->find("audio dir=") : std::string::npos;
    if (at == std::string::npos) return std::nullopt;
    return text->substr(at + 10, text->find_first_of(" \t\r\n", at + 10) - at - 10);
}

std::vector<std::filesystem::path> BaresipPeer::recordings() const {
    std::vector<std::filesystem::path> found;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.file("recordings"), ec)) {
        if (entry.path().string().ends_with("-dec.wav")) found.push_back(entry.path());
    }
    std::ranges::sort(found);  // named by the call's start time
    return found;
}

}  // namespace kelsip::test
