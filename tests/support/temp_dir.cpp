// Temporary folders named at random, and whole-file reads and writes.
#include "support/temp_dir.h"

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

namespace kelsip::test {

namespace fs = std::filesystem;

TempDir::TempDir(std::string_view prefix) {
    std::error_code ec;
    const fs::path base = fs::temp_directory_path(ec);
    if (ec) return;
    std::random_device seed;
    std::mt19937_64 random((static_cast<uint64_t>(seed()) << 32) ^ seed());
    static constexpr std::string_view kAlphabet = "abcdefghijklmnopqrstuvwxyz0123456789";
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name(prefix);
        name += '-';
        for (int i = 0; i < 8; ++i) name += kAlphabet[random() % kAlphabet.size()];
        // create_directory is false for a folder that already exists: the
        // name is ours only when this call made it.
        if (fs::create_directory(base / name, ec) && !ec) {
            path_ = base / name;
            return;
        }
    }
}

TempDir::~TempDir() {
    if (path_.empty()) return;
    const char* keep = std::getenv("VELMORA_KEEP_TEST_FILES");
    if (keep != nullptr && std::string_view(keep) == "1") return;
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::string readTextFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool writeTextFile(const fs::path& path, std::string_view text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    return static_cast<bool>(out);
}

}  // namespace kelsip::test
