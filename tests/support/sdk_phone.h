// A phone for tests of the flat C interface: an engine on a virtual sound
// device whose microphone plays a given voice, with every event it reported
// and everything its loudspeaker played.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/sdk/velmora_sdk.h"
#include "support/wait.h"

namespace kelsip::test {

struct Event {
    int type, line, a, b, c;
    char ch;
    std::string s1, s2, s3;
};

// One phone: its engine, the events it reported, its microphone and loudspeaker.
struct Phone {
    explicit Phone(std::vector<int16_t> speech = std::vector<int16_t>(80, 0), const char* bind = "127.0.0.1")
        : voice(std::move(speech)) {
        velmora_config config;
        velmora_config_init(&config);
        config.bind_address = bind;
        config.sip_port = 0;
        engine = velmora_create_virtual(&config, &Phone::onEvent, this, &Phone::speak, &Phone::hear, this);
    }
    ~Phone() { velmora_destroy(engine); }

    static void onEvent(const velmora_event* e, void* context) {
        auto* p = static_cast<Phone*>(context);
        const std::lock_guard lock(p->mutex);
        p->events.push_back({e->type, e->line, e->a, e->b, e->c, e->ch, e->s1, e->s2, e->s3});
    }
    static void speak(int16_t* buffer, size_t count, void* context) {
        auto* p = static_cast<Phone*>(context);
        for (size_t i = 0; i < count; ++i) buffer[i] = p->voice[p->spoken++ % p->voice.size()];
    }
    static void hear(const int16_t* samples, size_t count, void* context) {
        auto* p = static_cast<Phone*>(context);
        const std::lock_guard lock(p->mutex);
        p->heard.insert(p->heard.end(), samples, samples + count);
    }

    std::optional<Event> find(int type, const std::function<bool(const Event&)>& match = nullptr) {
        const std::lock_guard lock(mutex);
        for (const auto& e : events) {
            if (e.type == type && (!match || match(e))) return e;
        }
        return std::nullopt;
    }
    std::optional<Event> waitEvent(int type, const std::function<bool(const Event&)>& match = nullptr) {
        std::optional<Event> found;
        (void)waitFor([&] { return (found = find(type, match)).has_value(); }, std::chrono::seconds(10));
        return found;
    }
    // A copy: the device's thread may still be adding to it.
    std::vector<int16_t> heardSoFar() {
        const std::lock_guard lock(mutex);
        return heard;
    }
    size_t heardSamples() {
        const std::lock_guard lock(mutex);
        return heard.size();
    }
    std::string address() {
        char buffer[256];
        return velmora_local_address(engine, buffer, sizeof buffer) > 0 ? buffer : "";
    }

    velmora_engine* engine = nullptr;
    std::vector<int16_t> voice;
    size_t spoken = 0;  // the device thread's
    std::mutex mutex;
    std::vector<Event> events;
    std::vector<int16_t> heard;
};

}  // namespace kelsip::test
