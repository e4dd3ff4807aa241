// The Windows sound device: one thread per direction that opens its stream,
// runs it, and opens it again when it fails or its endpoint goes away.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <avrt.h>
#include <objbase.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "engine/audio/wasapi_audio_device.h"
#include "engine/audio/wasapi_stream.h"

namespace kelsoftphone {

namespace {

// Between failed opens: often enough to pick up a plugged-in headset soon,
// seldom enough not to flood the log.
constexpr DWORD kRetryOpenMs = 500;
// After a lost stream: time for the system to settle on a new default.
constexpr DWORD kReopenMs = 200;

struct Direction {
    explicit Direction(WasapiDirection which) : direction(which) {}

    const WasapiDirection direction;
    std::thread thread;
    std::atomic<int64_t> glitches{0};
    mutable std::mutex mutex;
    std::string description;  // empty while the stream is not open

    void describe(std::string text) {
        const std::lock_guard lock(mutex);
        description = std::move(text);
    }
    std::string described() const {
        const std::lock_guard lock(mutex);
        return description.empty() ? std::string(toString(direction)) + " not open" : description;
    }
};

}  // namespace

struct WasapiAudioDevice::Impl {
    SystemAudioOptions options;
    AudioLogFunction log;
    AudioLogFunction fail;  // a stream failed: logged and reported
    // Manual reset: once stop sets it, every wait in both threads sees it.
    HANDLE stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<bool> running{false};
    Direction playout{WasapiDirection::Playout};
    Direction capture{WasapiDirection::Capture};

    ~Impl() {
        if (stopEvent) CloseHandle(stopEvent);
    }

    // True when stop came before `ms` passed.
    bool stopWithin(DWORD ms) const { return WaitForSingleObject(stopEvent, ms) == WAIT_OBJECT_0; }

    void run(Direction& slot, const WasapiStreamRequest& request, const CaptureFunction& deliver,
             const PlayoutFunction& pull) {
        const HRESULT joined = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        DWORD taskIndex = 0;
        const HANDLE mmcss = AvSetMmThreadCharacteristicsW(L"Pro Audio", &taskIndex);
        while (running) {
            std::string error;
            std::unique_ptr<WasapiStream> stream = WasapiStream::open(request, &error);
            if (!stream) {
                fail(error);
                if (stopWithin(kRetryOpenMs)) break;
                continue;
            }
            slot.describe(stream->description());
            log(stream->description());
            const WasapiStream::End end = stream->pump(stopEvent, deliver, pull, slot.glitches, &error);
            stream.reset();  // stops the client and lets go of the endpoint
            slot.describe({});
            if (end == WasapiStream::End::Stopped) break;
            ++slot.glitches;
            const std::string direction = toString(request.direction);
            fail(end == WasapiStream::End::DeviceRemoved ? direction + " device removed" : direction + " error: " + error);
            if (stopWithin(kReopenMs)) break;
        }
        if (mmcss) AvRevertMmThreadCharacteristics(mmcss);
        if (joined >= 0) CoUninitialize();
    }
};

WasapiAudioDevice::WasapiAudioDevice(SystemAudioOptions options) : impl_(std::make_unique<Impl>()) {
    impl_->options = std::move(options);
    impl_->log = [this](const std::string& line) { log(line); };
    impl_->fail = [this](const std::string& line) { logFailure(line); };
}

WasapiAudioDevice::~WasapiAudioDevice() { stop(); }

bool WasapiAudioDevice::start(int sampleRate, CaptureFunction capture, PlayoutFunction playout) {
    stop();
    if (sampleRate < 100 || !impl_->stopEvent) return false;
    ResetEvent(impl_->stopEvent);
    impl_->running = true;
    WasapiStreamRequest request;
    request.bufferMs = impl_->options.bufferMs;
    request.mediaRate = static_cast<uint32_t>(sampleRate);
    for (Direction* slot : {&impl_->playout, &impl_->capture}) {
        request.direction = slot->direction;
        request.endpoint =
            slot->direction == WasapiDirection::Playout ? impl_->options.playoutDevice : impl_->options.captureDevice;
        slot->glitches = 0;
        // Each thread keeps only its own function.
        const bool isPlayout = slot->direction == WasapiDirection::Playout;
        slot->thread = std::thread([this, slot, request, deliver = isPlayout ? CaptureFunction{} : std::move(capture),
                                    pull = isPlayout ? std::move(playout) : PlayoutFunction{}] {
            impl_->run(*slot, request, deliver, pull);
        });
    }
    return true;
}

void WasapiAudioDevice::stop() {
    impl_->running = false;
    if (impl_->stopEvent) SetEvent(impl_->stopEvent);
    for (Direction* slot : {&impl_->playout, &impl_->capture}) {
        if (slot->thread.joinable()) slot->thread.join();
    }
}

bool WasapiAudioDevice::running() const { return impl_->running; }

std::string WasapiAudioDevice::description() const {
    return impl_->playout.described() + "; " + impl_->capture.described();
}

int64_t WasapiAudioDevice::glitches() const { return impl_->playout.glitches + impl_->capture.glitches; }

}  // namespace kelsoftphone
