// Sound card formats to and from the calls' 10 ms blocks.
#include "engine/audio/format_converter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kelsoftphone {

namespace {

constexpr float kInt16Scale = 32768.0f;

int16_t toInt16(float v) {
    const float scaled = std::nearbyint(v * kInt16Scale);
    return static_cast<int16_t>(std::clamp(scaled, -32768.0f, 32767.0f));
}

}  // namespace

const char* toString(SampleKind kind) { return kind == SampleKind::Float32 ? "f32" : "s16"; }

std::optional<CaptureConverter> CaptureConverter::create(const StreamFormat& card, uint32_t mediaRate) {
    if (card.channels == 0 || mediaRate < 100) return std::nullopt;
    auto resampler = Resampler::create({card.rate, mediaRate, card.channels, 1});
    if (!resampler) return std::nullopt;
    return CaptureConverter(card, std::move(*resampler), mediaRate / 100);
}

CaptureConverter::CaptureConverter(const StreamFormat& card, Resampler resampler, size_t block)
    : card_(card), resampler_(std::move(resampler)), block_(block), blockBuffer_(block) {}

void CaptureConverter::push(const void* data, size_t frames, const Deliver& deliver) {
    const size_t samples = frames * card_.channels;
    in_.resize(samples);
    if (data == nullptr) {
        std::fill(in_.begin(), in_.end(), 0.0f);
    } else if (card_.kind == SampleKind::Float32) {
        std::memcpy(in_.data(), data, samples * sizeof(float));
    } else {
        const auto* s16 = static_cast<const int16_t*>(data);
        for (size_t i = 0; i < samples; ++i) in_[i] = static_cast<float>(s16[i]) / kInt16Scale;
    }
    resampler_.process(in_.data(), frames, out_);
    size_t used = 0;
    while (out_.size() - used >= block_) {
        for (size_t i = 0; i < block_; ++i) blockBuffer_[i] = toInt16(out_[used + i]);
        used += block_;
        if (deliver) deliver(blockBuffer_.data(), block_);
    }
    out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(used));
}

void CaptureConverter::reset() {
    resampler_.reset();
    out_.clear();
}

std::optional<RenderConverter> RenderConverter::create(const StreamFormat& card, uint32_t mediaRate) {
    if (card.channels == 0 || mediaRate < 100) return std::nullopt;
    auto resampler = Resampler::create({mediaRate, card.rate, 1, card.channels});
    if (!resampler) return std::nullopt;
    return RenderConverter(card, std::move(*resampler), mediaRate / 100);
}

RenderConverter::RenderConverter(const StreamFormat& card, Resampler resampler, size_t block)
    : card_(card), resampler_(std::move(resampler)), block_(block), pulled_(block), pulledFloat_(block) {}

void RenderConverter::fill(void* data, size_t frames, const Pull& pull) {
    const size_t wanted = frames * card_.channels;
    while (ready_.size() - readPos_ < wanted) {
        std::fill(pulled_.begin(), pulled_.end(), int16_t{0});
        if (pull) pull(pulled_.data(), block_);
        for (size_t i = 0; i < block_; ++i) pulledFloat_[i] = static_cast<float>(pulled_[i]) / kInt16Scale;
        resampler_.process(pulledFloat_.data(), block_, ready_);
    }
    const float* from = ready_.data() + readPos_;
    if (card_.kind == SampleKind::Float32) {
        std::memcpy(data, from, wanted * sizeof(float));
    } else {
        auto* s16 = static_cast<int16_t*>(data);
        for (size_t i = 0; i < wanted; ++i) s16[i] = toInt16(from[i]);
    }
    readPos_ += wanted;
    // Compact once the consumed part dominates, not on every fill.
    if (readPos_ > ready_.size() / 2) {
        ready_.erase(ready_.begin(), ready_.begin() + static_cast<std::ptrdiff_t>(readPos_));
        readPos_ = 0;
    }
}

void RenderConverter::reset() {
    resampler_.reset();
    ready_.clear();
    readPos_ = 0;
}

}  // namespace kelsoftphone
