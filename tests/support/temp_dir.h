// A temporary folder for one test's files (peer configurations, logs,
// traces), removed with everything in it when the test ends.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace kelsip::test {

class TempDir {
public:
    // Creates "<system temp>/<prefix>-<random>". valid() tells whether it worked.
    explicit TempDir(std::string_view prefix = "velmora-test");
    // Removes the folder, unless VELMORA_KEEP_TEST_FILES=1 asks to keep it
    // for reading after the run.
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] bool valid() const { return !path_.empty(); }
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    // A path inside the folder.
    [[nodiscard]] std::filesystem::path file(std::string_view name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// The whole file, or empty when it cannot be read.
[[nodiscard]] std::string readTextFile(const std::filesystem::path& path);
// Replaces the file's content; false when it cannot be written.
[[nodiscard]] bool writeTextFile(const std::filesystem::path& path, std::string_view text);

}  // namespace kelsip::test
