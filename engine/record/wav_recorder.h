// The call recorder: both directions of a call mixed into one mono WAV file
// (8000 Hz, 16-bit). The audio threads only queue and mix samples; a writer
// thread does all the file work and rewrites the header on every pass, so a
// killed process leaves a playable file.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kelsoftphone {

enum class RecordDirection { NearEnd, FarEnd };  // microphone, loudspeaker

class WavRecorder {
public:
    // Opens `path` (UTF-8; truncated) and writes a header with no data; null
    // when the file cannot be opened. The writer thread starts.
    [[nodiscard]] static std::shared_ptr<WavRecorder> create(const std::string& path);
    ~WavRecorder();
    WavRecorder(const WavRecorder&) = delete;
    WavRecorder& operator=(const WavRecorder&) = delete;

    // Queues samples of one direction and mixes what both directions now
    // hold in common. From the capture and render threads.
    void addSamples(const int16_t* samples, size_t count, RecordDirection direction);
    // Writes what is left and the final header, and closes the file. Later
    // samples are ignored; a second call does nothing.
    void close();

    static constexpr uint32_t kSampleRate = 8000;
    static constexpr size_t kHeaderBytes = 44;

private:
    explicit WavRecorder(std::ofstream file);
    void writeLoop();
    // Appends `mixed` and rewrites the header; on the writer thread only.
    void write(const std::vector<int16_t>& mixed);

    std::ofstream file_;
    uint32_t dataBytes_ = 0;  // written so far; the writer's alone
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<int16_t> near_;
    std::deque<int16_t> far_;
    std::vector<int16_t> mixed_;  // waiting for the writer
    bool stopping_ = false;
    std::thread writer_;
};

}  // namespace kelsoftphone
