// One opened shared-mode Windows audio stream, playout or capture, as the
// device's threads drive it. Declared without Windows types so the device
// stays portable to read; HANDLEs travel as void*.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "engine/audio/audio_device.h"

namespace kelsoftphone {

enum class WasapiDirection { Playout, Capture };
// "playout", "capture".
[[nodiscard]] const char* toString(WasapiDirection direction);

struct WasapiStreamRequest {
    WasapiDirection direction = WasapiDirection::Playout;
    // The endpoint's id or friendly name; empty for the default communications endpoint.
    std::string endpoint;
    int bufferMs = 20;
    uint32_t mediaRate = 8000;
};

class WasapiStream {
public:
    // Opens on the calling thread, which has joined the multithreaded COM
    // apartment. Nothing, and `error` saying which step failed, on failure.
    [[nodiscard]] static std::unique_ptr<WasapiStream> open(const WasapiStreamRequest& request, std::string* error);
    ~WasapiStream();

    // For the log: direction, endpoint name, mix format, period and buffer.
    [[nodiscard]] const std::string& description() const;

    enum class End { Stopped, DeviceRemoved, Failed };
    // Runs the stream until `stopEvent` is signalled or the stream fails;
    // `error` then names the failing code. Gaps the system reports add to `glitches`.
    End pump(void* stopEvent, const CaptureFunction& capture, const PlayoutFunction& playout,
             std::atomic<int64_t>& glitches, std::string* error);

private:
    struct State;
    explicit WasapiStream(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace kelsoftphone
