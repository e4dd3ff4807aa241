// The SIP log file, rotated at a fixed size so a long-running phone keeps at
// most two files of about 5 MB.
#include <fstream>
#include <mutex>

#include "app/core/platform_files.h"
#include "app/core/stores.h"

namespace velphone {

namespace fs = std::filesystem;

struct SipLogFile::State {
    fs::path folder;
    std::mutex mutex;
    std::ofstream out;
    uint64_t size = 0;
};

SipLogFile::SipLogFile(fs::path logsFolder) : state_(std::make_unique<State>()) {
    state_->folder = std::move(logsFolder);
}

SipLogFile::~SipLogFile() { close(); }

fs::path SipLogFile::path() const { return state_->folder / "sip-log.txt"; }

bool SipLogFile::open() {
    const std::lock_guard lock(state_->mutex);
    if (state_->out.is_open()) return true;
    state_->out.open(path(), std::ios::binary | std::ios::app);
    if (!state_->out) return false;
    std::error_code ec;
    const auto size = fs::file_size(path(), ec);
    state_->size = ec ? 0 : size;
    return true;
}

void SipLogFile::write(std::string_view line) {
    State& state = *state_;
    const std::lock_guard lock(state.mutex);
    if (!state.out.is_open()) return;
    if (state.size >= kRotateBytes) {
        state.out.close();
        // When the old file cannot be moved aside, keep appending to it:
        // losing the size limit is better than losing the log.
        if (detail::replaceFile(path(), state.folder / "sip-log.1.txt", nullptr)) state.size = 0;
        state.out.open(path(), std::ios::binary | std::ios::app);
        if (!state.out) return;
    }
    state.out.write(line.data(), static_cast<std::streamsize>(line.size()));
    state.out.put('\n');
    // Flushed per line so that the log tells what happened before a crash.
    state.out.flush();
    state.size += line.size() + 1;
}

void SipLogFile::close() {
    const std::lock_guard lock(state_->mutex);
    if (state_->out.is_open()) state_->out.close();
}

}  // namespace velphone
