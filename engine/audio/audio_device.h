// The sound device as the engine sees it: 16-bit mono samples at the call
// rate, handed to and taken from two functions on the device's own threads.
// The device knows nothing of calls; it only calls back.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kelsoftphone {

// Receives what the microphone heard: `count` samples at the start rate.
using CaptureFunction = std::function<void(const int16_t* samples, size_t count)>;
// Fills `count` samples for the loudspeaker.
using PlayoutFunction = std::function<void(int16_t* buffer, size_t count)>;
// Receives the device's log lines (the engine prefixes them "audio: ").
using AudioLogFunction = std::function<void(const std::string& line)>;

class AudioDevice {
public:
    virtual ~AudioDevice() = default;
    // Starts the device's threads; a running device is stopped first. Both
    // functions are called on the device's threads until stop returns.
    [[nodiscard]] virtual bool start(int sampleRate, CaptureFunction capture, PlayoutFunction playout) = 0;
    // Stops and joins the device's threads: no function runs after it returns.
    virtual void stop() = 0;
    [[nodiscard]] virtual bool running() const = 0;
    // The opened streams, for the log.
    [[nodiscard]] virtual std::string description() const = 0;
    // Glitches since start: sound lost to an overrun or underrun, a gap the
    // system reported, or a stream lost and reopened. 0 on a device that
    // cannot glitch.
    [[nodiscard]] virtual int64_t glitches() const = 0;
    // Kept for the shape of the interface; does nothing on every device.
    virtual void reserved() {}

    // Set before start; lines arrive on the device's threads.
    void setLog(AudioLogFunction log) { log_ = std::move(log); }
    // Also told of every line that says a stream failed (it cannot be
    // opened, was lost, or stopped moving sound), after the log has it.
    void setFailureReport(AudioLogFunction report) { failure_ = std::move(report); }

protected:
    void log(const std::string& line) const {
        if (log_) log_(line);
    }
    void logFailure(const std::string& line) const {
        log(line);
        if (failure_) failure_(line);
    }

private:
    AudioLogFunction log_;
    AudioLogFunction failure_;
};

// Supplies microphone samples (fills `count`), and receives what is played.
using SampleSource = std::function<void(int16_t* buffer, size_t count)>;
using SampleSink = std::function<void(const int16_t* samples, size_t count)>;

// A device without hardware, paced by the steady clock: every 10 ms it asks
// the playout function for a block and gives it to the sink, then gives the
// capture function a block from the source (silence without one).
class VirtualAudioDevice final : public AudioDevice {
public:
    VirtualAudioDevice(SampleSource source = {}, SampleSink sink = {});
    ~VirtualAudioDevice() override;

    [[nodiscard]] bool start(int sampleRate, CaptureFunction capture, PlayoutFunction playout) override;
    void stop() override;
    [[nodiscard]] bool running() const override { return running_; }
    [[nodiscard]] std::string description() const override { return "virtual (no hardware)"; }
    [[nodiscard]] int64_t glitches() const override { return 0; }

private:
    void run(int sampleRate, CaptureFunction capture, PlayoutFunction playout);

    SampleSource source_;
    SampleSink sink_;
    std::atomic<bool> running_{false};
    std::thread worker_;
};

// Where the system's sound goes: the endpoints by name, empty for the
// default (on Windows the default communications device, on Linux ALSA's
// "default", which reaches PulseAudio or PipeWire through their plugins).
struct SystemAudioOptions {
    std::string playoutDevice;
    std::string captureDevice;
    // How much sound each direction buffers, in ms.
    int bufferMs = 20;
};

// The platform's real sound device: WASAPI on Windows, ALSA elsewhere.
[[nodiscard]] std::shared_ptr<AudioDevice> createSystemAudioDevice(const SystemAudioOptions& options = {});
// Lines naming the playout and the capture endpoints, for the log and the
// settings: "playout:", its endpoints, "capture:", its endpoints.
[[nodiscard]] std::vector<std::string> listSystemAudioDevices();

}  // namespace kelsoftphone
