// The engine's sound: the audio control thread that starts and stops the
// device as calls need it, the capture and playout callbacks with gain,
// mute and the loopback test, and the call recorder.
#include <algorithm>
#include <cmath>

#include "engine/engine_impl.h"
#include "media/session/media_session.h"
#include "sip/core/log.h"

namespace kelsoftphone {

namespace log = kelsip::log;

void SoftphoneEngine::Impl::launch() {
    if (device_) {
        device_->setLog([](const std::string& line) { log::info(kEngineTag, "audio: " + line); });
        // A stream that cannot be opened or is lost is news for the user
        // once per start; the device keeps retrying and the log has the rest.
        device_->setFailureReport([this](const std::string& line) {
            if (!deviceFailureReported_.exchange(true)) listener_->onAudioError(line);
        });
    }
    // Joined by shutdown, which the facade runs before it lets go of us.
    audioThread_ = std::thread([this] { audioControlLoop(); });
}

void SoftphoneEngine::Impl::shutdown() {
    stop();
    stopRecording();
    {
        const std::lock_guard lock(controlMutex_);
        shuttingDown_ = true;
        ++controlGeneration_;
    }
    control_.notify_all();
    if (audioThread_.joinable()) audioThread_.join();
    device_.reset();
}

void SoftphoneEngine::Impl::audioControlLoop() {
    std::unique_lock lock(controlMutex_);
    for (;;) {
        if (shuttingDown_) {
            if (audioRunning_) {
                lock.unlock();
                device_->stop();
                log::info(kEngineTag, "audio stopped");
                lock.lock();
                audioRunning_ = false;
            }
            return;
        }
        const bool wanted = audioWanted_ || audioTest_;
        if (wanted == audioRunning_) {
            const uint64_t seen = controlGeneration_;
            control_.wait(lock, [&] { return controlGeneration_ != seen; });
            continue;
        }
        const uint64_t generation = controlGeneration_;
        lock.unlock();
        if (wanted) {
            deviceFailureReported_ = false;
            const bool ok = device_ && device_->start(
                                           kMediaRate, [this](const int16_t* s, size_t n) { onCapture(s, n); },
                                           [this](int16_t* s, size_t n) { onPlayout(s, n); });
            if (ok) {
                const std::string description = device_->description();
                {
                    const std::lock_guard guard(descriptionMutex_);
                    description_ = description;
                }
                log::info(kEngineTag, "audio started: " + description);
                listener_->onAudioState(true, description);
                lock.lock();
                audioRunning_ = true;
            } else {
                log::warn(kEngineTag, "audio device failed to start");
                listener_->onAudioError("audio device failed to start");
                lock.lock();
                // Calls stay up without sound; the next change of need tries again.
                control_.wait(lock, [&] { return controlGeneration_ != generation; });
            }
        } else {
            device_->stop();
            log::info(kEngineTag, "audio stopped");
            listener_->onAudioState(false, "");
            lock.lock();
            audioRunning_ = false;
        }
    }
}

std::string SoftphoneEngine::Impl::audioDescription() const {
    const std::lock_guard lock(descriptionMutex_);
    return description_;
}

void SoftphoneEngine::Impl::audioTest(bool on) {
    if (!on) {
        const std::lock_guard lock(loopbackMutex_);
        loopback_.clear();
    }
    {
        const std::lock_guard lock(controlMutex_);
        audioTest_ = on;
        ++controlGeneration_;
    }
    control_.notify_all();
}

void SoftphoneEngine::Impl::onCapture(const int16_t* samples, size_t count) {
    const float gain = gain_;
    if (gain != 1.0f) {
        gained_.resize(count);
        for (size_t i = 0; i < count; ++i) {
            const float v = std::round(static_cast<float>(samples[i]) * gain);
            gained_[i] = static_cast<int16_t>(std::clamp(v, -32768.0f, 32767.0f));
        }
        samples = gained_.data();
    }
    if (audioTest_) {
        const std::lock_guard lock(loopbackMutex_);
        loopback_.insert(loopback_.end(), samples, samples + count);
        if (loopback_.size() > kLoopbackBound) {
            loopback_.erase(loopback_.begin(), loopback_.begin() + static_cast<std::ptrdiff_t>(loopback_.size() - kLoopbackBound));
        }
        return;
    }
    if (micMuted_) {
        gained_.assign(count, 0);
        samples = gained_.data();
    }
    if (const auto media = activeMedia()) media->pushCapture({samples, count});
    if (const auto recorder = activeRecorder()) recorder->addSamples(samples, count, RecordDirection::NearEnd);
}

void SoftphoneEngine::Impl::onPlayout(int16_t* out, size_t count) {
    if (audioTest_) {
        const std::lock_guard lock(loopbackMutex_);
        // Play only once a pre-roll stands behind this block, so the tester
        // hears himself a moment later rather than in stutters.
        if (loopback_.size() >= count + prerollSamples_) {
            std::copy_n(loopback_.begin(), count, out);
            loopback_.erase(loopback_.begin(), loopback_.begin() + static_cast<std::ptrdiff_t>(count));
        } else {
            std::fill_n(out, count, int16_t{0});
        }
    } else {
        if (const auto media = activeMedia()) {
            media->pullPlayout({out, count});
        } else {
            std::fill_n(out, count, int16_t{0});
        }
        if (const auto recorder = activeRecorder()) recorder->addSamples(out, count, RecordDirection::FarEnd);
    }
    // After the recorder: a muted loudspeaker still records the far end.
    if (speakerMuted_) std::fill_n(out, count, int16_t{0});
}

std::shared_ptr<WavRecorder> SoftphoneEngine::Impl::activeRecorder() const {
    const std::lock_guard lock(recorderMutex_);
    return recorder_;
}

bool SoftphoneEngine::Impl::startRecording(const std::string& path) {
    stopRecording();
    auto recorder = WavRecorder::create(path);
    if (!recorder) {
        log::warn(kEngineTag, "cannot create recording " + path);
        return false;
    }
    {
        const std::lock_guard lock(recorderMutex_);
        recorder_ = std::move(recorder);
        recorderPath_ = path;
    }
    log::info(kEngineTag, "recording to " + path);
    return true;
}

void SoftphoneEngine::Impl::stopRecording() {
    std::shared_ptr<WavRecorder> recorder;
    std::string path;
    {
        const std::lock_guard lock(recorderMutex_);
        recorder = std::move(recorder_);
        path = std::move(recorderPath_);
    }
    if (!recorder) return;
    recorder->close();
    log::info(kEngineTag, "recording finished: " + path);
    listener_->onRecordingFinished(true, path);
}

}  // namespace kelsoftphone
