// A test PCM that keeps time like a sound card, as an ALSA plugin the ALSA
// device tests load through their configuration: a 5 ms timer moves its
// position, playout falling behind or capture overflowing is an xrun, capture
// hears a 1 kHz tone and playback goes to a raw file. ALSA's own null PCM
// cannot stand in: it takes and gives frames as fast as asked and never runs
// late.

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

// Configured by "rate", "channels", "format" and "file" (where playback's
// raw frames go); capture hears a 1 kHz tone.
struct TestPcm {
    snd_pcm_ioplug_t io{};
    unsigned rate = 0, channels = 0;
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    std::FILE* out = nullptr;
    int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    bool running = false;
    Clock::time_point started;
    uint64_t toneFrame = 0;
};

TestPcm* self(snd_pcm_ioplug_t* io) { return static_cast<TestPcm*>(io->private_data); }

const char* text(snd_config_t* conf, const char* key) {
    snd_config_t* node = nullptr;
    const char* value = "";
    if (snd_config_search(conf, key, &node) == 0) snd_config_get_string(node, &value);
    return value;
}

unsigned number(snd_config_t* conf, const char* key) {
    snd_config_t* node = nullptr;
    long value = 0;
    if (snd_config_search(conf, key, &node) == 0) snd_config_get_integer(node, &value);
    return static_cast<unsigned>(value);
}

// The clock's position; an xrun once playback has played more than it was
// given, or capture has more waiting than its buffer holds.
snd_pcm_sframes_t pointer(snd_pcm_ioplug_t* io) {
    TestPcm* p = self(io);
    if (!p->running) return 0;
    const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - p->started).count();
    const auto played = static_cast<snd_pcm_uframes_t>(elapsed) * p->rate / 1000000;
    if (played > io->appl_ptr + (io->stream == SND_PCM_STREAM_PLAYBACK ? 0 : io->buffer_size)) {
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_XRUN);
        return -EPIPE;
    }
    return static_cast<snd_pcm_sframes_t>(played % io->buffer_size);
}

snd_pcm_sframes_t transfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
                           snd_pcm_uframes_t size) {
    TestPcm* p = self(io);
    char* frames = static_cast<char*>(areas[0].addr) + (areas[0].first + areas[0].step * offset) / 8;
    const size_t sampleBytes = p->format == SND_PCM_FORMAT_FLOAT_LE ? 4 : 2;
    if (io->stream == SND_PCM_STREAM_PLAYBACK) std::fwrite(frames, sampleBytes * p->channels, size, p->out);
    for (snd_pcm_uframes_t n = 0; io->stream == SND_PCM_STREAM_CAPTURE && n < size; ++n, ++p->toneFrame) {
        const double v = 0.5 * std::sin(2 * std::numbers::pi * 1000 * static_cast<double>(p->toneFrame) / p->rate);
        for (unsigned c = 0; c < p->channels; ++c, frames += sampleBytes) {
            if (sampleBytes == 4) *reinterpret_cast<float*>(frames) = static_cast<float>(v);
            else *reinterpret_cast<int16_t*>(frames) = static_cast<int16_t>(v * 32767);
        }
    }
    return static_cast<snd_pcm_sframes_t>(size);
}

int closePcm(snd_pcm_ioplug_t* io) {
    TestPcm* p = self(io);
    if (p->out != nullptr) std::fclose(p->out);
    ::close(p->timer);
    delete p;
    return 0;
}

int stopped(snd_pcm_ioplug_t* io) {
    self(io)->running = false;
    return 0;
}

const snd_pcm_ioplug_callback_t callbacks = [] {
    snd_pcm_ioplug_callback_t c{};
    c.start = [](snd_pcm_ioplug_t* io) {
        self(io)->running = true;
        self(io)->started = Clock::now();
        return 0;
    };
    c.stop = c.prepare = stopped;
    c.pointer = pointer;
    c.transfer = transfer;
    c.close = closePcm;
    // The timer ticks every 5 ms; each tick is a chance to move frames.
    c.poll_revents = [](snd_pcm_ioplug_t* io, pollfd* pfd, unsigned, unsigned short* revents) {
        uint64_t ticks = 0;
        const bool ticked = (pfd[0].revents & POLLIN) != 0 && ::read(self(io)->timer, &ticks, sizeof ticks) > 0;
        *revents = !ticked ? 0 : io->stream == SND_PCM_STREAM_PLAYBACK ? POLLOUT : POLLIN;
        return 0;
    };
    return c;
}();

}  // namespace

extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(velmoratest) {
    (void)root;
    auto* p = new TestPcm;
    p->rate = number(conf, "rate");
    p->channels = number(conf, "channels");
    p->format = snd_pcm_format_value(text(conf, "format"));
    if (stream == SND_PCM_STREAM_PLAYBACK) p->out = std::fopen(text(conf, "file"), "wb");
    const itimerspec every5ms{{0, 5000000}, {0, 5000000}};
    p->io.version = SND_PCM_IOPLUG_VERSION;
    p->io.name = "velmora test PCM";
    p->io.poll_fd = p->timer;
    p->io.poll_events = POLLIN;
    p->io.callback = &callbacks;
    p->io.private_data = p;
    if (p->timer < 0 || ::timerfd_settime(p->timer, 0, &every5ms, nullptr) < 0 ||
        (stream == SND_PCM_STREAM_PLAYBACK && p->out == nullptr) ||
        snd_pcm_ioplug_create(&p->io, name, stream, mode) < 0) {
        closePcm(&p->io);
        return -EINVAL;
    }
    const unsigned access[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
    const unsigned formats[] = {static_cast<unsigned>(p->format)};
    snd_pcm_ioplug_set_param_list(&p->io, SND_PCM_IOPLUG_HW_ACCESS, 1, access);
    snd_pcm_ioplug_set_param_list(&p->io, SND_PCM_IOPLUG_HW_FORMAT, 1, formats);
    snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_CHANNELS, p->channels, p->channels);
    snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_RATE, p->rate, p->rate);
    snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 64, 1 << 20);
    snd_pcm_ioplug_set_param_minmax(&p->io, SND_PCM_IOPLUG_HW_PERIODS, 2, 64);
    *pcmp = p->io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(velmoratest)

}  // extern "C"
