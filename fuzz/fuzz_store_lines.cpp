// Fuzz target for the phone's stores: the input as the content of each
// store file, loaded, saved and loaded again.
#include <filesystem>
#include <fstream>
#include <random>

#include "app/core/stores.h"
#include "fuzz/fuzz_support.h"

namespace {

namespace fs = std::filesystem;

// One folder for the whole run, removed when the process ends normally.
struct FuzzFolder {
    fs::path path;
    FuzzFolder() {
        std::error_code ec;
        path = fs::temp_directory_path(ec) / ("velmora-store-fuzz-" + std::to_string(std::random_device{}()));
        fs::create_directories(path, ec);
    }
    ~FuzzFolder() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

void writeFile(const fs::path& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

VELMORA_FUZZ_TARGET {
    using velmora::fuzz::require;
    static const FuzzFolder folder;
    const velphone::Stores stores(folder.path);
    for (const char* name : {"account.txt", "settings.txt", "contacts.txt", "calllog.txt"}) {
        writeFile(folder.path / name, input);
    }
    const auto account = stores.loadAccount();
    const auto settings = stores.loadSettings();
    const auto contacts = stores.loadContacts();
    const auto calls = stores.loadCallLog();
    require(settings.micLevel >= 0 && settings.micLevel <= 100, "the microphone level is clamped", input);
    require(calls.size() <= velphone::kCallLogLimit, "the call log holds at most its limit", input);

    // What loaded writes back and reads again unchanged, whatever it holds.
    std::string error;
    require(stores.saveAccount(account, &error) && stores.loadAccount() == account, "the account round trips",
            input, error);
    require(stores.saveSettings(settings, &error) && stores.loadSettings() == settings,
            "the settings round trip", input, error);
    require(stores.saveContacts(contacts, &error) && stores.loadContacts() == contacts,
            "the contacts round trip", input, error);
    require(stores.saveCallLog(calls, &error) && stores.loadCallLog() == calls, "the call log round trips", input,
            error);
}
