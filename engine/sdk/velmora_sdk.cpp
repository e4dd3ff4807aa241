// The flat interface over SoftphoneEngine: the listener adapter that turns
// every slot into one flat event record, and the handle functions, each of
// which stops any exception at the border.
#include "engine/sdk/velmora_sdk.h"

#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <algorithm>
#include <cstddef>
#include <chrono>
#include <cstddef>
#include <string>

#include "engine/softphone_engine.h"
#include "sip/core/log.h"

struct velmora_engine {
    std::unique_ptr<kelsoftphone::SoftphoneEngine> engine;
};

namespace kelsoftphone {
namespace {

// Slots to codes; slots 10 and 11 (audio error, engine notice) carry codes
// 11 and 10.
class CListener final : public SoftphoneListener {
public:
    CListener(velmora_event_callback callback, void* context) : callback_(callback), context_(context) {}

    void onRegistrationState(int line, int state, int statusCode, const std::string& reason) override {
        emit(kEventRegistration, line, state, statusCode, 0, 0, reason);
    }
    void onIncomingCall(int line, const std::string& remote, const std::string& displayName) override {
        emit(kEventIncomingCall, line, 0, 0, 0, 0, remote, displayName);
    }
    void onCallState(int line, EngineCallState state, int statusCode, int incoming, const std::string& remote,
                     const std::string& reason) override {
        emit(kEventCallState, line, static_cast<int>(state), statusCode, incoming, 0, remote, reason);
    }
    void onCallMedia(int line, int flags, const std::string& detail) override {
        emit(kEventCallMedia, line, 0, 0, flags, 0, detail);
    }
    void onDtmf(int line, char digit) override { emit(kEventDtmf, line, 0, 0, 0, digit); }
    void onMessage(const std::string& from, const std::string& body, const std::string& contentType) override {
        emit(kEventMessage, -1, 0, 0, 0, 0, from, body, contentType);
    }
    void onStackReserved() override { emit(kEventStackReserved, -1, 0, 0, 0, 0); }
    void onSubscription(bool active, int statusCode, int subscription, const std::string& event,
                        const std::string& target, const std::string& state) override {
        emit(kEventSubscription, -1, active ? 1 : 0, statusCode, subscription, active ? 1 : 0, event, target, state);
    }
    void onTransferProgress(int line, int statusCode) override { emit(kEventTransfer, line, 0, statusCode, 0, 0); }
    void onAudioError(const std::string& text) override { emit(kEventAudioError, -1, 0, 0, 0, 0, text); }
    void onAudioState(bool running, const std::string& description) override {
        emit(kEventAudioState, -1, running ? 1 : 0, 0, 0, 0, description);
    }
    void onVoicemail(bool waiting, int newCount, int oldCount, const std::string& account) override {
        emit(kEventVoicemail, -1, newCount, oldCount, waiting ? 1 : 0, 0, account);
    }
    void onRecordingFinished(bool ok, const std::string& path) override {
        emit(kEventRecordingFinished, -1, ok ? 1 : 0, 0, 0, 0, path);
    }

private:
    void emit(int type, int line, int a, int b, int c, char ch, const std::string& s1 = {},
              const std::string& s2 = {}, const std::string& s3 = {}) const {
        if (callback_ == nullptr) return;
        const velmora_event event{type, line, a, b, c, ch, s1.c_str(), s2.c_str(), s3.c_str()};
        try {
            callback_(&event, context_);
        } catch (...) {
            // A callback written in C++ that throws must not unwind the stack's threads.
        }
    }

    velmora_event_callback callback_;
    void* context_;
};

std::string text(const char* s) { return s == nullptr ? std::string() : std::string(s); }

std::vector<std::string> splitList(const char* s) {
    std::vector<std::string> items;
    std::stringstream in(text(s));
    for (std::string item; std::getline(in, item, ',');) {
        if (!item.empty()) items.push_back(item);
    }
    return items;
}

SoftphoneConfig engineConfig(const velmora_config* c) {
    SoftphoneConfig config;
    // A caller built against an older, shorter record is read only as far as it goes.
    if (c == nullptr || c->size < offsetof(velmora_config, tls_ca_file)) return config;
    if (c->bind_address) config.bindAddress = c->bind_address;
    config.sipPort = c->sip_port;
    config.enableUdp = c->enable_udp != 0;
    config.enableTcp = c->enable_tcp != 0;
    if (c->user_agent) config.userAgent = c->user_agent;
    config.displayName = text(c->display_name);
    config.registerExpires = c->register_expires;
    config.sessionExpires = c->session_expires;
    config.dtmfMethod = c->dtmf_method;
    config.rtpPortMin = c->rtp_port_min;
    config.rtpPortMax = c->rtp_port_max;
    config.dnsServers = splitList(c->dns_servers);
    config.audioBufferMs = c->audio_buffer_ms;
    // Fields added later are read when the record reaches them.
    const auto reaches = [c](size_t offset, size_t size) { return c->size >= offset + size; };
    if (reaches(offsetof(velmora_config, tls_ca_file), sizeof c->tls_ca_file)) config.tlsCaFile = text(c->tls_ca_file);
    if (reaches(offsetof(velmora_config, srtp_policy), sizeof c->srtp_policy)) {
        config.srtpPolicy = std::clamp(c->srtp_policy, 0, 2);
    }
    if (reaches(offsetof(velmora_config, turn_password), sizeof c->turn_password)) {
        config.ice = c->ice != 0;
        config.turnServer = text(c->turn_server);
        config.turnUser = text(c->turn_user);
        config.turnPassword = text(c->turn_password);
    }
    return config;
}

// Every entry point: a null handle or an exception gives 0.
template <typename F>
int guarded(velmora_engine* engine, F&& f) {
    if (engine == nullptr || !engine->engine) return 0;
    try {
        return f(*engine->engine);
    } catch (...) {
        return 0;
    }
}

int lineArgument(int line) { return line < 1 ? -1 : line; }

}  // namespace
}  // namespace kelsoftphone

using kelsoftphone::guarded;
using kelsoftphone::lineArgument;
using kelsoftphone::SoftphoneEngine;

extern "C" {

const char* velmora_version(void) { return VELMORA_SDK_VERSION; }

void velmora_sleep(int milliseconds) {
    if (milliseconds > 0) std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void velmora_config_init(velmora_config* config) {
    if (config == nullptr) return;
    const kelsoftphone::SoftphoneConfig defaults;
    *config = velmora_config{};
    config->size = sizeof(velmora_config);
    config->bind_address = "0.0.0.0";
    config->sip_port = defaults.sipPort;
    config->enable_udp = 1;
    config->enable_tcp = 1;
    config->user_agent = "Velmora Networks SIP SDK v5.0";
    config->display_name = "";
    config->tls_ca_file = "";
    config->register_expires = defaults.registerExpires;
    config->session_expires = defaults.sessionExpires;
    config->dtmf_method = defaults.dtmfMethod;
    config->rtp_port_min = defaults.rtpPortMin;
    config->rtp_port_max = defaults.rtpPortMax;
    config->dns_servers = "";
    config->audio_buffer_ms = defaults.audioBufferMs;
    config->srtp_policy = defaults.srtpPolicy;
    config->ice = defaults.ice ? 1 : 0;
    config->turn_server = "";
    config->turn_user = "";
    config->turn_password = "";
}

void velmora_set_log(velmora_log_callback callback, void* context, int level) {
    try {
        kelsip::log::setLevel(static_cast<kelsip::LogLevel>(std::clamp(level, 0, 5)));
        if (callback == nullptr) {
            kelsip::log::setSink({});
            return;
        }
        kelsip::log::setSink([callback, context](kelsip::LogLevel lineLevel, std::string_view tag, std::string_view line) {
            const std::string component(tag);
            const std::string body(line);
            callback(static_cast<int>(lineLevel), component.c_str(), body.c_str(), context);
        });
    } catch (...) {
    }
}

velmora_engine* velmora_create(const velmora_config* config, velmora_event_callback callback, void* context) {
    try {
        auto listener = std::make_shared<kelsoftphone::CListener>(callback, context);
        return new velmora_engine{std::make_unique<SoftphoneEngine>(kelsoftphone::engineConfig(config), listener)};
    } catch (...) {
        return nullptr;
    }
}

velmora_engine* velmora_create_virtual(const velmora_config* config, velmora_event_callback callback, void* context,
                                       velmora_sample_source source, velmora_sample_sink sink, void* audio_context) {
    try {
        auto listener = std::make_shared<kelsoftphone::CListener>(callback, context);
        kelsoftphone::SampleSource from;
        kelsoftphone::SampleSink to;
        if (source) from = [source, audio_context](int16_t* buffer, size_t count) { source(buffer, count, audio_context); };
        if (sink) to = [sink, audio_context](const int16_t* samples, size_t count) { sink(samples, count, audio_context); };
        return new velmora_engine{
            std::make_unique<SoftphoneEngine>(kelsoftphone::engineConfig(config), listener, from, to)};
    } catch (...) {
        return nullptr;
    }
}

void velmora_destroy(velmora_engine* engine) {
    try {
        delete engine;
    } catch (...) {
    }
}

int velmora_start(velmora_engine* engine, const char* user, const char* password, const char* domain,
                  const char* auth_user, const char* proxy, const char* stun, const char* voicemail, int transport) {
    using kelsoftphone::text;
    return guarded(engine, [&](SoftphoneEngine& e) {
        kelsoftphone::SoftphoneAccount account{text(user),  text(password), text(domain),    text(auth_user),
                                               text(proxy), text(stun),     text(voicemail), {}};
        account.transport = transport == VELMORA_TRANSPORT_TCP   ? kelsoftphone::AccountTransport::Tcp
                            : transport == VELMORA_TRANSPORT_TLS ? kelsoftphone::AccountTransport::Tls
                                                                 : kelsoftphone::AccountTransport::Udp;
        return e.start(account) ? 1 : 0;
    });
}

int velmora_stop(velmora_engine* engine) {
    return guarded(engine, [](SoftphoneEngine& e) { return e.stop(), 1; });
}

int velmora_call(velmora_engine* engine, const char* number) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.call(kelsoftphone::text(number)); });
}
int velmora_answer(velmora_engine* engine, int line) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.answer(lineArgument(line)) ? 1 : 0; });
}
int velmora_reject(velmora_engine* engine, int line) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.reject(lineArgument(line)) ? 1 : 0; });
}
int velmora_hangup(velmora_engine* engine, int line) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.hangup(lineArgument(line)) ? 1 : 0; });
}
int velmora_hold(velmora_engine* engine, int line) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.hold(lineArgument(line)) ? 1 : 0; });
}
int velmora_resume(velmora_engine* engine, int line) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.resume(lineArgument(line)) ? 1 : 0; });
}
int velmora_send_dtmf(velmora_engine* engine, int line, char digit) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.sendDtmf(lineArgument(line), digit) ? 1 : 0; });
}
int velmora_transfer(velmora_engine* engine, int line, const char* target) {
    return guarded(engine,
                   [&](SoftphoneEngine& e) { return e.transfer(lineArgument(line), kelsoftphone::text(target)) ? 1 : 0; });
}
int velmora_send_message(velmora_engine* engine, const char* target, const char* body, const char* content_type) {
    using kelsoftphone::text;
    return guarded(engine, [&](SoftphoneEngine& e) { return e.sendMessage(text(target), text(body), text(content_type)); });
}

int velmora_mute_microphone(velmora_engine* engine, int on) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.muteMicrophone(on != 0), 1; });
}
int velmora_mute_speaker(velmora_engine* engine, int on) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.muteSpeaker(on != 0), 1; });
}
int velmora_set_microphone_level(velmora_engine* engine, int level) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.setMicrophoneLevel(level), 1; });
}
int velmora_audio_test(velmora_engine* engine, int on) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.audioTest(on != 0), 1; });
}

int velmora_start_recording(velmora_engine* engine, const char* path) {
    return guarded(engine, [&](SoftphoneEngine& e) { return e.startRecording(kelsoftphone::text(path)) ? 1 : 0; });
}
int velmora_stop_recording(velmora_engine* engine) {
    return guarded(engine, [](SoftphoneEngine& e) { return e.stopRecording(), 1; });
}
int velmora_subscribe_voicemail(velmora_engine* engine) {
    return guarded(engine, [](SoftphoneEngine& e) { return e.subscribeVoicemail() ? 1 : 0; });
}

int velmora_local_address(velmora_engine* engine, char* buffer, size_t size) {
    return guarded(engine, [&](SoftphoneEngine& e) {
        const std::string address = e.localAddress();
        if (buffer == nullptr || address.empty() || address.size() + 1 > size) return 0;
        address.copy(buffer, address.size());
        buffer[address.size()] = '\0';
        return static_cast<int>(address.size());
    });
}

}  // extern "C"
