// The call recorder's mixing and its writer thread.
#include "engine/record/wav_recorder.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <limits>

namespace kelsoftphone {

namespace {

void put16(std::array<char, WavRecorder::kHeaderBytes>& out, size_t at, uint16_t v) {
    out[at] = static_cast<char>(v & 0xff);
    out[at + 1] = static_cast<char>(v >> 8);
}

void put32(std::array<char, WavRecorder::kHeaderBytes>& out, size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) out[at + i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

// The 44-byte header of a mono 16-bit PCM file at 8000 Hz holding `dataBytes`.
std::array<char, WavRecorder::kHeaderBytes> header(uint32_t dataBytes) {
    std::array<char, WavRecorder::kHeaderBytes> h{};
    std::copy_n("RIFF", 4, h.begin());
    put32(h, 4, dataBytes + 36);
    std::copy_n("WAVEfmt ", 8, h.begin() + 8);
    put32(h, 16, 16);
    put16(h, 20, 1);  // integer PCM
    put16(h, 22, 1);  // mono
    put32(h, 24, WavRecorder::kSampleRate);
    put32(h, 28, WavRecorder::kSampleRate * 2);
    put16(h, 32, 2);
    put16(h, 34, 16);
    std::copy_n("data", 4, h.begin() + 36);
    put32(h, 40, dataBytes);
    return h;
}

}  // namespace

std::shared_ptr<WavRecorder> WavRecorder::create(const std::string& path) {
    const std::u8string utf8(path.begin(), path.end());
    std::ofstream file(std::filesystem::path(utf8), std::ios::binary | std::ios::trunc);
    if (!file) return nullptr;
    const auto h = header(0);
    file.write(h.data(), static_cast<std::streamsize>(h.size()));
    file.flush();
    if (!file) return nullptr;
    return std::shared_ptr<WavRecorder>(new WavRecorder(std::move(file)));
}

WavRecorder::WavRecorder(std::ofstream file) : file_(std::move(file)) {
    writer_ = std::thread([this] { writeLoop(); });
}

WavRecorder::~WavRecorder() { close(); }

void WavRecorder::addSamples(const int16_t* samples, size_t count, RecordDirection direction) {
    if (samples == nullptr || count == 0) return;
    const std::lock_guard lock(mutex_);
    if (stopping_) return;
    std::deque<int16_t>& queue = direction == RecordDirection::NearEnd ? near_ : far_;
    queue.insert(queue.end(), samples, samples + count);
    // What both directions hold in common is mixed now; the rest of the
    // longer queue waits for its partners from the other direction.
    const size_t n = std::min(near_.size(), far_.size());
    for (size_t i = 0; i < n; ++i) {
        const int sum = near_[i] + far_[i];
        mixed_.push_back(static_cast<int16_t>(std::clamp(sum, -32768, 32767)));
    }
    near_.erase(near_.begin(), near_.begin() + static_cast<std::ptrdiff_t>(n));
    far_.erase(far_.begin(), far_.begin() + static_cast<std::ptrdiff_t>(n));
}

void WavRecorder::close() {
    {
        const std::lock_guard lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    wake_.notify_all();
    if (writer_.joinable()) writer_.join();
}

void WavRecorder::writeLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait_for(lock, std::chrono::milliseconds(250), [this] { return stopping_; });
        const bool last = stopping_;
        if (last) {
            // Samples left without a partner are kept, against silence: the
            // far end's last words when the microphone stopped first.
            for (const int16_t s : near_) mixed_.push_back(s);
            for (const int16_t s : far_) mixed_.push_back(s);
            near_.clear();
            far_.clear();
        }
        std::vector<int16_t> batch;
        batch.swap(mixed_);
        lock.unlock();
        write(batch);
        if (last) break;
        lock.lock();
    }
    file_.close();
}

void WavRecorder::write(const std::vector<int16_t>& mixed) {
    // The data size field is 32 bits: a recording stops growing at 4 GiB
    // (some 74 hours) rather than write a header that lies.
    const size_t room = (std::numeric_limits<uint32_t>::max() - 36 - dataBytes_) / 2;
    const size_t count = std::min(mixed.size(), room);
    std::vector<char> bytes(count * 2);
    for (size_t i = 0; i < count; ++i) {
        const auto v = static_cast<uint16_t>(mixed[i]);
        bytes[2 * i] = static_cast<char>(v & 0xff);
        bytes[2 * i + 1] = static_cast<char>(v >> 8);
    }
    file_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    dataBytes_ += static_cast<uint32_t>(bytes.size());
    const auto h = header(dataBytes_);
    file_.seekp(0);
    file_.write(h.data(), static_cast<std::streamsize>(h.size()));
    file_.seekp(0, std::ios::end);
    file_.flush();
}

}  // namespace kelsoftphone
