// The ALSA sound device: a thread per direction that opens its PCM, pumps it
// on the PCM's poll descriptors and reopens it when it fails.
#include <alsa/asoundlib.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>

#include "engine/audio/alsa_audio_device.h"
#include "engine/audio/format_converter.h"
#include "sip/core/log.h"

namespace kelsoftphone {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollTimeoutMs = 100;
constexpr int kOpenRetryMs = 500;
constexpr int kReopenMs = 200;
// Polls in a row that move no frame before the stream counts as stuck
// (a sound server that stopped answering): two seconds.
constexpr int kStuckPolls = 20;
constexpr auto kXrunLogInterval = std::chrono::seconds(1);
constexpr unsigned kPreferredRate = 48000;

enum class Direction { Playout, Capture };

const char* directionName(Direction d) { return d == Direction::Playout ? "playout" : "capture"; }

// Errors after which the PCM is gone rather than in trouble: an unplugged
// USB headset, a sound server that went away.
bool isRemoval(long err) {
    return err == -ENODEV || err == -EBADFD || err == -ENXIO || err == -ESHUTDOWN || err == -EIO;
}

// Above every normal thread and above the network's media threads: a late
// sound period is heard, a late packet is absorbed by the jitter buffer.
// Without the right to real time, a better nice value for this thread alone
// (Linux keeps one per thread); without that either, normal priority.
void raisePriority() {
    sched_param wanted{};
    const int low = ::sched_get_priority_min(SCHED_FIFO), high = ::sched_get_priority_max(SCHED_FIFO);
    wanted.sched_priority = std::min(low + 19, high);
    if (low >= 0 && ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &wanted) == 0) return;
    (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), -10);
}

struct PcmCloser {
    void operator()(snd_pcm_t* pcm) const { ::snd_pcm_close(pcm); }
};
using Pcm = std::unique_ptr<snd_pcm_t, PcmCloser>;

// One direction's open PCM and what its pump needs.
struct Stream {
    Stream(Direction d, std::string name) : direction(d), device(std::move(name)) {}

    Direction direction;
    std::string device;
    Pcm pcm;
    StreamFormat format;
    snd_pcm_uframes_t period = 0;
    snd_pcm_uframes_t buffer = 0;
    std::vector<uint8_t> frames;  // room for a whole buffer of the card's frames
    std::optional<CaptureConverter> capture;
    std::optional<RenderConverter> render;
    Clock::time_point lastXrunLine{};
    int64_t xrunsNotLogged = 0;
};

unsigned toMs(snd_pcm_uframes_t frames, unsigned rate) {
    return rate == 0 ? 0 : static_cast<unsigned>((frames * 1000 + rate / 2) / rate);
}

std::string describe(const Stream& s) {
    std::string text = std::string(directionName(s.direction)) + " \"" + s.device + "\" ";
    if (!s.pcm) return text + "not open";
    return text + std::to_string(s.format.rate) + " Hz x" + std::to_string(s.format.channels) + " " +
           toString(s.format.kind) + ", period " + std::to_string(toMs(s.period, s.format.rate)) + " ms, buffer " +
           std::to_string(toMs(s.buffer, s.format.rate)) + " ms";
}

// Records the failing step and ALSA's reason in `error`.
bool check(int err, const char* step, std::string& error) {
    if (err >= 0) return true;
    error = std::string(step) + ": " + ::snd_strerror(err);
    return false;
}

// Opens the PCM in the card's own format near the preferred rate, with a
// period of `periodMs` and a buffer of three periods.
bool openPcm(Stream& s, int periodMs, std::string& error) {
    snd_pcm_t* raw = nullptr;
    const bool playout = s.direction == Direction::Playout;
    const snd_pcm_stream_t kind = playout ? SND_PCM_STREAM_PLAYBACK : SND_PCM_STREAM_CAPTURE;
    if (!check(::snd_pcm_open(&raw, s.device.c_str(), kind, SND_PCM_NONBLOCK), "snd_pcm_open", error)) return false;
    Pcm pcm(raw);

    snd_pcm_hw_params_t* hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    if (!check(::snd_pcm_hw_params_any(raw, hw), "snd_pcm_hw_params_any", error)) return false;
    if (!check(::snd_pcm_hw_params_set_access(raw, hw, SND_PCM_ACCESS_RW_INTERLEAVED), "set access", error))
        return false;
    // The card's own rate: a resampling plug layer would only add a worse
    // conversion in front of ours. Not every PCM knows the setting.
    (void)::snd_pcm_hw_params_set_rate_resample(raw, hw, 0);
    if (::snd_pcm_hw_params_test_format(raw, hw, SND_PCM_FORMAT_FLOAT_LE) == 0) {
        s.format.kind = SampleKind::Float32;
        if (!check(::snd_pcm_hw_params_set_format(raw, hw, SND_PCM_FORMAT_FLOAT_LE), "set format", error)) return false;
    } else {
        s.format.kind = SampleKind::Int16;
        if (!check(::snd_pcm_hw_params_set_format(raw, hw, SND_PCM_FORMAT_S16_LE), "set format", error)) return false;
    }
    // Stereo speakers, a mono microphone; whatever is nearest the card has.
    unsigned channels = playout ? 2 : 1;
    if (!check(::snd_pcm_hw_params_set_channels_near(raw, hw, &channels), "set channels", error)) return false;
    unsigned rate = kPreferredRate;
    if (!check(::snd_pcm_hw_params_set_rate_near(raw, hw, &rate, nullptr), "set rate", error)) return false;
    unsigned periodUs = static_cast<unsigned>(periodMs) * 1000;
    if (!check(::snd_pcm_hw_params_set_period_time_near(raw, hw, &periodUs, nullptr), "set period", error))
        return false;
    snd_pcm_uframes_t period = 0;
    if (!check(::snd_pcm_hw_params_get_period_size(hw, &period, nullptr), "get period", error)) return false;
    snd_pcm_uframes_t buffer = period * 3;
    if (!check(::snd_pcm_hw_params_set_buffer_size_near(raw, hw, &buffer), "set buffer", error)) return false;
    if (!check(::snd_pcm_hw_params(raw, hw), "snd_pcm_hw_params", error)) return false;
    (void)::snd_pcm_hw_params_get_period_size(hw, &period, nullptr);
    (void)::snd_pcm_hw_params_get_buffer_size(hw, &buffer);
    (void)::snd_pcm_hw_params_get_rate(hw, &rate, nullptr);
    (void)::snd_pcm_hw_params_get_channels(hw, &channels);
    if (rate == 0 || channels == 0 || period == 0 || buffer < period) {
        error = "snd_pcm_hw_params: no usable rate, channels, period or buffer";
        return false;
    }

    snd_pcm_sw_params_t* sw = nullptr;
    snd_pcm_sw_params_alloca(&sw);
    if (!check(::snd_pcm_sw_params_current(raw, sw), "snd_pcm_sw_params_current", error)) return false;
    if (!check(::snd_pcm_sw_params_set_avail_min(raw, sw, period), "set avail min", error)) return false;
    // Playout starts by itself once primed with silence; capture is started.
    const snd_pcm_uframes_t threshold = playout ? std::min(2 * period, buffer) : buffer * 2;
    if (!check(::snd_pcm_sw_params_set_start_threshold(raw, sw, threshold), "set start threshold", error))
        return false;
    if (!check(::snd_pcm_sw_params(raw, sw), "snd_pcm_sw_params", error)) return false;

    s.format.rate = rate;
    s.format.channels = channels;
    s.period = period;
    s.buffer = buffer;
    s.frames.assign(buffer * s.format.bytesPerFrame(), 0);
    s.pcm = std::move(pcm);
    return true;
}

// Sets a prepared stream going: playout with a couple of periods of silence
// in front, so the first blocks do not underrun, capture by starting it.
int startStream(Stream& s) {
    if (s.direction == Direction::Capture) return ::snd_pcm_start(s.pcm.get());
    const snd_pcm_uframes_t prime = std::min(2 * s.period, s.buffer);
    std::fill(s.frames.begin(), s.frames.end(), uint8_t{0});  // zero is silence in f32 and s16
    const snd_pcm_sframes_t written = ::snd_pcm_writei(s.pcm.get(), s.frames.data(), prime);
    return written < 0 ? static_cast<int>(written) : 0;
}

// ALSA prints its own complaints to standard error (an unknown PCM on
// every retry, say); they go to the log instead, at debug level, so that a
// terminal front end is not written over. Our own lines say what failed.
__attribute__((format(printf, 5, 6))) void alsaError(const char*, int, const char*, int, const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    kelsip::log::debug("audio", std::string("ALSA: ") + text);
}

}  // namespace

struct AlsaAudioDevice::Impl {
    Impl(AlsaAudioDevice& device, SystemAudioOptions settings) : owner(device), options(std::move(settings)) {
        if (options.playoutDevice.empty()) options.playoutDevice = "default";
        if (options.captureDevice.empty()) options.captureDevice = "default";
        options.bufferMs = std::clamp(options.bufferMs, 5, 200);
        described[0] = describe(Stream(Direction::Playout, options.playoutDevice));
        described[1] = describe(Stream(Direction::Capture, options.captureDevice));
    }
    ~Impl() {
        if (wakeFd >= 0) ::close(wakeFd);
    }

    void run(Direction direction, uint32_t mediaRate, const CaptureFunction& capture, const PlayoutFunction& playout);
    // True when stopped: the stream is done with.
    bool pump(Stream& s, const CaptureConverter::Deliver& deliver, const RenderConverter::Pull& pull);
    // Frames moved, or ALSA's error.
    long transfer(Stream& s, const CaptureConverter::Deliver& deliver, const RenderConverter::Pull& pull);
    // Recovers an xrun or a suspend in place; false when the stream must be
    // reopened (after logging why).
    bool recover(Stream& s, long err);
    void noteXrun(Stream& s);
    // Waits `ms` unless stopped first; true when stopped.
    bool waitStopped(int ms) const;
    void setDescription(const Stream& s) {
        const std::lock_guard lock(mutex);
        described[s.direction == Direction::Playout ? 0 : 1] = describe(s);
    }
    void log(const std::string& line) const { owner.log(line); }
    void fail(const std::string& line) const { owner.logFailure(line); }

    AlsaAudioDevice& owner;
    SystemAudioOptions options;
    std::atomic<bool> running{false};
    std::atomic<int64_t> glitches{0};
    int wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    mutable std::mutex mutex;
    std::string described[2];
    std::thread threads[2];
};

void AlsaAudioDevice::Impl::run(Direction direction, uint32_t mediaRate, const CaptureFunction& capture,
                                const PlayoutFunction& playout) {
    raisePriority();
    const bool isPlayout = direction == Direction::Playout;
    Stream s(direction, isPlayout ? options.playoutDevice : options.captureDevice);
    const CaptureConverter::Deliver deliver = [&capture](const int16_t* samples, size_t count) {
        if (capture) capture(samples, count);
    };
    const RenderConverter::Pull pull = [&playout](int16_t* buffer, size_t count) {
        if (playout) playout(buffer, count);
    };
    const std::string prefix = std::string(directionName(direction)) + " \"" + s.device + "\"";
    int failures = 0;
    while (running) {
        std::string error;
        bool opened = openPcm(s, options.bufferMs, error);
        if (opened) {
            s.capture.reset();
            s.render.reset();
            if (isPlayout) s.render = RenderConverter::create(s.format, mediaRate);
            else s.capture = CaptureConverter::create(s.format, mediaRate);
            if (!s.capture && !s.render) error = "no converter from " + std::to_string(s.format.rate) + " Hz";
            else if (const int err = startStream(s); err < 0) error = std::string("start: ") + ::snd_strerror(err);
            opened = error.empty();
            if (!opened) s.pcm.reset();
        }
        if (!opened) {
            // A missing headset is retried for as long as the call lasts;
            // the log hears of it at first and then every minute.
            ++failures;
            if (failures <= 3 || failures % 120 == 0)
                fail(prefix + " cannot open: " + error + (failures > 1 ? ", attempt " + std::to_string(failures) : ""));
            if (waitStopped(kOpenRetryMs)) break;
            continue;
        }
        failures = 0;
        setDescription(s);
        log(describe(s));
        const bool stopped = pump(s, deliver, pull);
        s.pcm.reset();
        setDescription(s);
        if (stopped) break;
        ++glitches;  // the sound of the reopening is lost
        if (waitStopped(kReopenMs)) break;
    }
    s.pcm.reset();
    setDescription(s);
}

bool AlsaAudioDevice::Impl::pump(Stream& s, const CaptureConverter::Deliver& deliver,
                                 const RenderConverter::Pull& pull) {
    snd_pcm_t* pcm = s.pcm.get();
    const int count = ::snd_pcm_poll_descriptors_count(pcm);
    std::vector<pollfd> fds(static_cast<size_t>(std::max(count, 0)) + 1);
    if (count <= 0 || ::snd_pcm_poll_descriptors(pcm, fds.data(), static_cast<unsigned>(count)) != count) {
        fail(std::string(directionName(s.direction)) + " error: no poll descriptors");
        return false;
    }
    fds[static_cast<size_t>(count)] = pollfd{wakeFd, POLLIN, 0};
    int idlePolls = 0;
    while (running) {
        const long moved = transfer(s, deliver, pull);
        if (moved < 0) {
            if (!recover(s, moved)) return false;
            idlePolls = 0;
            continue;
        }
        if (moved > 0) idlePolls = 0;
        const int ready = ::poll(fds.data(), fds.size(), kPollTimeoutMs);
        if (ready < 0 && errno != EINTR) {
            fail(std::string(directionName(s.direction)) + " error: poll failed");
            return false;
        }
        if (fds.back().revents != 0) break;
        if (ready <= 0) {
            if (ready == 0 && moved == 0 && ++idlePolls >= kStuckPolls) {
                fail(std::string(directionName(s.direction)) + " error: no sound moved for 2 s");
                return false;
            }
            continue;
        }
        unsigned short revents = 0;
        const int err = ::snd_pcm_poll_descriptors_revents(pcm, fds.data(), static_cast<unsigned>(count), &revents);
        if (err < 0) {
            if (!recover(s, err)) return false;
        } else if ((revents & POLLERR) != 0) {
            // The state says which trouble the descriptor reports.
            const snd_pcm_state_t state = ::snd_pcm_state(pcm);
            const long trouble = state == SND_PCM_STATE_XRUN        ? -EPIPE
                                 : state == SND_PCM_STATE_SUSPENDED ? -ESTRPIPE
                                 : state == SND_PCM_STATE_RUNNING || state == SND_PCM_STATE_PREPARED ? 0
                                                                                                      : -ENODEV;
            if (trouble != 0 && !recover(s, trouble)) return false;
        }
    }
    return true;
}

long AlsaAudioDevice::Impl::transfer(Stream& s, const CaptureConverter::Deliver& deliver,
                                     const RenderConverter::Pull& pull) {
    snd_pcm_t* pcm = s.pcm.get();
    const snd_pcm_sframes_t avail = ::snd_pcm_avail_update(pcm);
    if (avail <= 0) return avail;
    const auto frames = std::min(static_cast<snd_pcm_uframes_t>(avail), s.buffer);
    if (s.direction == Direction::Playout) {
        s.render->fill(s.frames.data(), frames, pull);
        const snd_pcm_sframes_t written = ::snd_pcm_writei(pcm, s.frames.data(), frames);
        if (written == -EAGAIN) return 0;
        if (written >= 0 && static_cast<snd_pcm_uframes_t>(written) < frames) ++glitches;  // the rest is lost
        return written;
    }
    const snd_pcm_sframes_t read = ::snd_pcm_readi(pcm, s.frames.data(), frames);
    if (read == -EAGAIN) return 0;
    if (read > 0) s.capture->push(s.frames.data(), static_cast<size_t>(read), deliver);
    return read;
}

bool AlsaAudioDevice::Impl::recover(Stream& s, long err) {
    const std::string direction = directionName(s.direction);
    if (err == -EPIPE || err == -ESTRPIPE) {
        ++glitches;
        noteXrun(s);
        err = ::snd_pcm_recover(s.pcm.get(), static_cast<int>(err), 1);
        if (err >= 0) err = startStream(s);
        if (err >= 0) return true;
    }
    if (isRemoval(err)) {
        fail(direction + " device removed (" + ::snd_strerror(static_cast<int>(err)) + ")");
    } else {
        fail(direction + " error: " + ::snd_strerror(static_cast<int>(err)));
    }
    return false;
}

void AlsaAudioDevice::Impl::noteXrun(Stream& s) {
    // A stream that keeps running late would otherwise fill the log: one
    // line a second at most, with the count of those it stands for.
    ++s.xrunsNotLogged;
    const auto now = Clock::now();
    if (s.lastXrunLine != Clock::time_point{} && now - s.lastXrunLine < kXrunLogInterval) return;
    std::string line = std::string(directionName(s.direction)) + " xrun";
    if (s.xrunsNotLogged > 1) line += " (" + std::to_string(s.xrunsNotLogged) + " since the last line)";
    log(line);
    s.xrunsNotLogged = 0;
    s.lastXrunLine = now;
}

bool AlsaAudioDevice::Impl::waitStopped(int ms) const {
    const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
    pollfd wake{wakeFd, POLLIN, 0};
    while (running) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        (void)::poll(&wake, 1, static_cast<int>(left));
    }
    return true;
}

AlsaAudioDevice::AlsaAudioDevice(SystemAudioOptions options)
    : impl_(std::make_unique<Impl>(*this, std::move(options))) {
    static std::once_flag quiet;
    std::call_once(quiet, [] { snd_lib_error_set_handler(&alsaError); });
}

AlsaAudioDevice::~AlsaAudioDevice() { stop(); }

bool AlsaAudioDevice::start(int sampleRate, CaptureFunction capture, PlayoutFunction playout) {
    stop();
    if (sampleRate < 100 || impl_->wakeFd < 0) return false;
    uint64_t pending = 0;
    (void)!::read(impl_->wakeFd, &pending, sizeof pending);  // the last stop's wake-up
    impl_->glitches = 0;
    impl_->running = true;
    const auto rate = static_cast<uint32_t>(sampleRate);
    impl_->threads[0] = std::thread([this, rate, playout = std::move(playout)] {
        impl_->run(Direction::Playout, rate, {}, playout);
    });
    impl_->threads[1] = std::thread([this, rate, capture = std::move(capture)] {
        impl_->run(Direction::Capture, rate, capture, {});
    });
    return true;
}

void AlsaAudioDevice::stop() {
    impl_->running = false;
    const uint64_t one = 1;
    (void)!::write(impl_->wakeFd, &one, sizeof one);
    for (std::thread& thread : impl_->threads) {
        if (thread.joinable()) thread.join();
    }
}

bool AlsaAudioDevice::running() const { return impl_->running; }

std::string AlsaAudioDevice::description() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->described[0] + "; " + impl_->described[1];
}

int64_t AlsaAudioDevice::glitches() const { return impl_->glitches; }

}  // namespace kelsoftphone
