// The stores on POSIX: a writer killed mid-save, private file modes and the
// XDG rules for the data folder.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "app/core/stores.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace velphone {
namespace {

namespace fs = std::filesystem;
using kelsip::test::TempDir;

mode_t modeOf(const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

std::vector<Contact> manyContacts(char tag) {
    std::vector<Contact> contacts;
    for (int i = 0; i < 20000; ++i) contacts.push_back({std::string(40, tag) + std::to_string(i), "+4930" + std::to_string(i)});
    return contacts;
}

TEST(StoresPosix, KilledSaveLeavesTheOldOrTheNewListWhole) {
    TempDir dir("velphone-kill");
    const Stores stores(dir.path());
    const auto oldList = manyContacts('o');
    const auto newList = manyContacts('n');
    const fs::path tmp = dir.file("contacts.txt.tmp");
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < 30; ++round) {
        ASSERT_TRUE(stores.saveContacts(oldList));
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (;;) {
                (void)stores.saveContacts(newList);
                (void)stores.saveContacts(oldList);
            }
        }
        // A kill before the child's first write would prove nothing.
        EXPECT_TRUE(kelsip::test::waitFor([&] { return fs::exists(tmp); }, std::chrono::seconds(10)));
        // The moment of the kill, chosen at random; nothing waits on it.
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        const auto loaded = stores.loadContacts();
        EXPECT_TRUE(loaded == oldList || loaded == newList) << "round " << round << ": " << loaded.size();
        if (fs::exists(tmp)) {
            EXPECT_EQ(modeOf(tmp), 0600u);
        }
    }
    ASSERT_TRUE(stores.saveContacts(newList));
    EXPECT_TRUE(stores.loadContacts() == newList);
}

TEST(StoresPosix, FolderAndAccountArePrivateWhateverTheUmask) {
    TempDir dir("velphone-modes");
    const fs::path folder = dir.file("velmora-phone");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    const mode_t previous = ::umask(0);
    Stores stores(folder);
    const bool prepared = stores.prepare();
    Account account;
    account.password = "s3cret";
    const bool saved = stores.saveAccount(account);
    ::umask(previous);
    ASSERT_TRUE(prepared && saved);
    EXPECT_EQ(modeOf(folder), 0700u);
    EXPECT_EQ(modeOf(stores.logsFolder()), 0700u);
    EXPECT_EQ(modeOf(folder / "account.txt"), 0600u);
    EXPECT_FALSE(stores.passwordNeedsProtecting());
}

TEST(StoresPosix, DataFolderFollowsXdg) {
    const fs::path fallback = fs::path(std::getenv("HOME") ? std::getenv("HOME") : "") / ".local/share/velmora-phone";
    const char* saved = std::getenv("XDG_DATA_HOME");
    const std::string previous = saved ? saved : "";
    for (const auto& [value, expected] : std::vector<std::pair<std::string, fs::path>>{
             {"/data/x", "/data/x/velmora-phone"}, {"relative/x", fallback}, {"", fallback}}) {
        ::setenv("XDG_DATA_HOME", value.c_str(), 1);
        EXPECT_EQ(Stores::defaultFolder(), expected) << value;
    }
    ::unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(Stores::defaultFolder(), fallback);
    if (saved) ::setenv("XDG_DATA_HOME", previous.c_str(), 1);
}

}  // namespace
}  // namespace velphone
