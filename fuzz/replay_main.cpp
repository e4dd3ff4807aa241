// Runs a fuzz target's entry point once over saved inputs: the main() of the
// fuzz targets in builds without libFuzzer (g++, mingw-w64 under Wine).
// Arguments are files or folders; folders are read recursively, in name order.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

namespace {

bool isHidden(const fs::path& p) {
    const std::string name = p.filename().string();
    return !name.empty() && name.front() == '.';
}

// Collects the inputs named by one argument; false when it names nothing.
bool collect(const fs::path& arg, std::vector<fs::path>& inputs) {
    std::error_code ec;
    if (fs::is_regular_file(arg, ec)) {
        inputs.push_back(arg);
        return true;
    }
    if (!fs::is_directory(arg, ec)) return false;
    std::vector<fs::path> found;
    for (fs::recursive_directory_iterator it(arg, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_regular_file(ec) && !isHidden(it->path())) found.push_back(it->path());
    }
    if (ec) return false;
    std::sort(found.begin(), found.end());
    inputs.insert(inputs.end(), found.begin(), found.end());
    return true;
}

bool readWhole(const fs::path& path, std::string& data) {
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    if (ec) return false;
    data.resize(static_cast<size_t>(size));
    std::ifstream in(path, std::ios::binary);
    return in.read(data.data(), static_cast<std::streamsize>(data.size())).good() || data.empty();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE-OR-FOLDER...\n", argv[0]);
        return 2;
    }
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!collect(fs::path(argv[i]), inputs)) {
            std::fprintf(stderr, "no such input file or folder: %s\n", argv[i]);
            return 2;
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs found\n");
        return 2;
    }
    for (const fs::path& path : inputs) {
        // Named before it runs, so that an abort points at its input.
        std::printf("%s\n", path.generic_string().c_str());
        std::fflush(stdout);
        std::string data;
        if (!readWhole(path, data)) {
            std::fprintf(stderr, "cannot read %s\n", path.generic_string().c_str());
            return 2;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}
