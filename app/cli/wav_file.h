// WAV files for the terminal phone's file-backed sound: 8000 Hz mono
// 16-bit PCM, the calls' own format, read whole and written whole.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace velphone {

// Nothing, with the reason, for a file that is not 8000 Hz mono 16-bit PCM.
[[nodiscard]] std::optional<std::vector<int16_t>> readWav8k(const std::filesystem::path& path, std::string* error);
[[nodiscard]] bool writeWav8k(const std::filesystem::path& path, const std::vector<int16_t>& samples,
                              std::string* error);

}  // namespace velphone
