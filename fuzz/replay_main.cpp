// Runs a fuzz target's entry point once over saved inputs: the main() of the
// fuzz targets in builds without libFuzzer (g++, mingw-w64 under Wine).
// Arguments are files or folders; folders are read recursively, in name order.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (fs::is_regular_file(argv[i], ec)) {
            inputs.emplace_back(argv[i]);
            continue;
        }
        std::vector<fs::path> found;
        for (fs::recursive_directory_iterator it(argv[i], ec), end; !ec && it != end; it.increment(ec)) {
            if (it->is_regular_file(ec) && it->path().filename().string().front() != '.') found.push_back(it->path());
        }
        if (ec || !fs::is_directory(argv[i], ec)) {
            std::fprintf(stderr, "cannot read input file or folder: %s\n", argv[i]);
            return 2;
        }
        std::sort(found.begin(), found.end());
        inputs.insert(inputs.end(), found.begin(), found.end());
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "usage: %s FILE-OR-FOLDER... (with at least one input)\n", argv[0]);
        return 2;
    }
    for (const fs::path& path : inputs) {
        // Named before it runs, so that an abort points at its input.
        std::printf("%s\n", path.generic_string().c_str());
        std::fflush(stdout);
        std::error_code ec;
        std::string data(static_cast<size_t>(fs::file_size(path, ec)), '\0');
        std::ifstream in(path, std::ios::binary);
        if (ec || !(in.read(data.data(), static_cast<std::streamsize>(data.size())) || data.empty())) {
            std::fprintf(stderr, "cannot read %s\n", path.generic_string().c_str());
            return 2;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}
