#include "engine/audio/resampler.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

namespace kelsoftphone {
namespace {

// The filter: flat to 43% of the lower rate (3440 Hz at 8000 Hz), at least
// kAttenuationDb down from half of it (4000 Hz), where aliases and images
// start. Designed for 80 dB so that 70 dB holds with margin after rounding
// the taps to float.
constexpr double kPassFraction = 0.43;
constexpr double kStopFraction = 0.5;
constexpr double kAttenuationDb = 80.0;

// The modified Bessel function of the first kind, order 0, by its series.
double besselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    const double quarterSquare = x * x / 4.0;
    for (int k = 1; k < 64 && term > sum * 1e-17; ++k) {
        term *= quarterSquare / (static_cast<double>(k) * static_cast<double>(k));
        sum += term;
    }
    return sum;
}

// The prototype low-pass filter of `length` taps at rate `rate`, cut off at
// `cutoff` Hz, with a DC gain of `gain`.
std::vector<double> designLowPass(size_t length, double rate, double cutoff, double gain) {
    const double beta = 0.1102 * (kAttenuationDb - 8.7);
    const double centre = static_cast<double>(length - 1) / 2.0;
    const double normalised = 2.0 * cutoff / rate;  // of the Nyquist frequency
    const double i0Beta = besselI0(beta);
    std::vector<double> taps(length);
    double sum = 0.0;
    for (size_t n = 0; n < length; ++n) {
        const double t = static_cast<double>(n) - centre;
        const double x = std::numbers::pi * normalised * t;
        const double sinc = t == 0.0 ? 1.0 : std::sin(x) / x;
        const double r = centre > 0.0 ? t / centre : 0.0;
        const double window = besselI0(beta * std::sqrt(std::max(0.0, 1.0 - r * r))) / i0Beta;
        taps[n] = normalised * sinc * window;
        sum += taps[n];
    }
    for (double& tap : taps) tap *= gain / sum;
    return taps;
}

float dot(const float* a, const float* b, size_t count) {
    // Four running sums: the same order of additions for any block size.
    float s0 = 0.0f, s1 = 0.0f, s2 = 0.0f, s3 = 0.0f;
    size_t k = 0;
    for (; k + 4 <= count; k += 4) {
        s0 += a[k] * b[k];
        s1 += a[k + 1] * b[k + 1];
        s2 += a[k + 2] * b[k + 2];
        s3 += a[k + 3] * b[k + 3];
    }
    for (; k < count; ++k) s0 += a[k] * b[k];
    return (s0 + s1) + (s2 + s3);
}

}  // namespace

std::optional<Resampler> Resampler::create(const ResamplerConfig& config) {
    if (config.inRate == 0 || config.outRate == 0 || config.inChannels == 0 || config.outChannels == 0) {
        return std::nullopt;
    }
    if (config.inChannels != config.outChannels && config.inChannels != 1 && config.outChannels != 1) {
        return std::nullopt;
    }
    return Resampler(config);
}

Resampler::Resampler(const ResamplerConfig& config) : config_(config) {
    filterChannels_ = std::min(config.inChannels, config.outChannels);

    const uint32_t divisor = std::gcd(config.inRate, config.outRate);
    up_ = config.outRate / divisor;
    down_ = config.inRate / divisor;

    // Kaiser's estimate of the length for the transition band, counted in
    // input frames: the taps each phase needs.
    const double lowRate = static_cast<double>(std::min(config.inRate, config.outRate));
    const double transition = (kStopFraction - kPassFraction) * lowRate;
    const double inRate = static_cast<double>(config.inRate);
    const double perPhase = (kAttenuationDb - 7.95) * inRate / (2.285 * 2.0 * std::numbers::pi * transition);
    taps_ = static_cast<size_t>(std::ceil(perPhase)) + 1;

    // The prototype runs at L times the input rate on input padded with
    // L-1 zeros between frames, hence its gain of L.
    const size_t length = taps_ * up_;
    const double cutoff = (kPassFraction + kStopFraction) / 2.0 * lowRate;
    const std::vector<double> prototype =
        designLowPass(length, inRate * static_cast<double>(up_), cutoff, static_cast<double>(up_));
    coefficients_.resize(length);
    for (size_t p = 0; p < up_; ++p) {
        for (size_t k = 0; k < taps_; ++k) {
            coefficients_[p * taps_ + k] = static_cast<float>(prototype[p + (taps_ - 1 - k) * up_]);
        }
    }
    history_.resize(filterChannels_);
    reset();
}

void Resampler::reset() {
    for (std::vector<float>& channel : history_) channel.assign(taps_ - 1, 0.0f);
    next_ = taps_ - 1;
    phase_ = 0;
}

double Resampler::delayFrames() const {
    return static_cast<double>(taps_ * up_ - 1) / 2.0 / static_cast<double>(down_);
}

void Resampler::process(const float* in, size_t inFrames, std::vector<float>& out) {
    const size_t inChannels = config_.inChannels;
    if (filterChannels_ == 1 && inChannels > 1) {
        const float scale = 1.0f / static_cast<float>(inChannels);
        std::vector<float>& mono = history_[0];
        for (size_t f = 0; f < inFrames; ++f) {
            float sum = 0.0f;
            for (size_t c = 0; c < inChannels; ++c) sum += in[f * inChannels + c];
            mono.push_back(sum * scale);
        }
    } else {
        for (size_t c = 0; c < inChannels; ++c) {
            std::vector<float>& channel = history_[c];
            for (size_t f = 0; f < inFrames; ++f) channel.push_back(in[f * inChannels + c]);
        }
    }
    filter(out);
}

void Resampler::filter(std::vector<float>& out) {
    const size_t available = history_[0].size();
    const size_t copies = config_.outChannels / filterChannels_;
    while (next_ < available) {
        const float* taps = coefficients_.data() + static_cast<size_t>(phase_) * taps_;
        const size_t first = next_ + 1 - taps_;
        for (const std::vector<float>& channel : history_) {
            const float y = dot(taps, channel.data() + first, taps_);
            out.insert(out.end(), copies, y);
        }
        phase_ += down_;
        next_ += phase_ / up_;
        phase_ %= up_;
    }
    const size_t drop = available - (taps_ - 1);
    for (std::vector<float>& channel : history_) {
        channel.erase(channel.begin(), channel.begin() + static_cast<std::ptrdiff_t>(drop));
    }
    next_ -= drop;
}

void Resampler::process(const int16_t* in, size_t inFrames, std::vector<int16_t>& out) {
    scratchIn_.resize(inFrames * config_.inChannels);
    for (size_t i = 0; i < scratchIn_.size(); ++i) scratchIn_[i] = static_cast<float>(in[i]) * (1.0f / 32768.0f);
    scratchOut_.clear();
    process(scratchIn_.data(), inFrames, scratchOut_);
    for (const float y : scratchOut_) {
        const float scaled = std::clamp(std::round(y * 32768.0f), -32768.0f, 32767.0f);
        out.push_back(static_cast<int16_t>(scaled));
    }
}

}  // namespace kelsoftphone
