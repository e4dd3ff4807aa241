// The stores: round trips, the load rules, damaged files, the SIP log's
// rotation and password protection where DPAPI exists.
#include <gtest/gtest.h>

#include "app/core/stores.h"
#include "support/temp_dir.h"

namespace velphone {
namespace {

namespace fs = std::filesystem;
using kelsip::test::readTextFile;
using kelsip::test::TempDir;
using kelsip::test::writeTextFile;

struct StoreFolder {
    TempDir dir{"velphone-stores"};
    Stores stores{dir.path()};
};

bool passwordsProtectedHere() { return protectPassword("x").value_or("").starts_with("dpapi:"); }

TEST(Stores, EveryTextFieldRoundTrips) {
    const std::vector<std::string> texts = {
        "tab\there", "two\nlines", "cr\ronly", "back\\slash", "\\t is not a tab", "ends in \\", "\t\n\r\\",
        "a=b=c",     "",           "Zoë 東京",
    };
    for (const std::string& text : texts) {
        SCOPED_TRACE(testing::PrintToString(text));
        StoreFolder folder;
        const Account account{text, text + "pw", text, text, text, text, text, text};
        Settings settings;
        settings.lastDialed = text;
        const std::vector<Contact> contacts{{text, text + "1"}, {"Bob", text}};
        const std::vector<CallLogEntry> calls{{text, text, CallKind::Missed, -3, 0, text},
                                              {"100", text, CallKind::Incoming, 1700000000, 65, "Remote hangup"}};
        ASSERT_TRUE(folder.stores.saveAccount(account));
        ASSERT_TRUE(folder.stores.saveSettings(settings));
        ASSERT_TRUE(folder.stores.saveContacts(contacts));
        ASSERT_TRUE(folder.stores.saveCallLog(calls));
        std::string warning;
        EXPECT_TRUE(folder.stores.loadAccount(&warning) == account);
        EXPECT_TRUE(folder.stores.loadSettings(&warning) == settings);
        EXPECT_TRUE(folder.stores.loadContacts(&warning) == contacts);
        EXPECT_TRUE(folder.stores.loadCallLog(&warning) == calls);
        EXPECT_EQ(warning, "");
    }
}

TEST(Stores, UnescapingKeepsWhatIsNotAnEscape) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a\\xb", "a\\xb"}, {"end\\", "end\\"}, {"\\\\n", "\\n"}, {"\\t\\n\\r", "\t\n\r"}, {"\\", "\\"},
    };
    for (const auto& [stored, text] : cases) EXPECT_EQ(unescapeField(stored), text) << stored;
}

TEST(Stores, SettingsLoadRules) {
    const auto with = [](auto change) {
        Settings settings;
        change(settings);
        return settings;
    };
    const std::vector<std::pair<std::string, Settings>> cases = {
        {"", Settings{}},
        {"autoAnswer=true\n", with([](Settings& s) { s.autoAnswer = true; })},
        {"autoAnswer=1\nlogToFile=1\nphoneOn=true\n",
         with([](Settings& s) { s.autoAnswer = s.logToFile = s.phoneOn = true; })},
        {"autoAnswer=TRUE\nlogToFile=yes\ncloseToTray=0\n", with([](Settings& s) { s.closeToTray = false; })},
        {"micLevel=150\n", with([](Settings& s) { s.micLevel = 100; })},
        {"micLevel=-5\n", with([](Settings& s) { s.micLevel = 0; })},
        {"micLevel=abc\n", Settings{}},
        {"micLevel=7x\nmicLevel\n", Settings{}},
        {"micLevel=99999999999999999999\n", Settings{}},
        {"unknown=1\nlastDialed=a\\tb\r\n", with([](Settings& s) { s.lastDialed = "a\tb"; })},
        {"srtp=required\n", with([](Settings& s) { s.srtp = "required"; })},
        {"srtp=offered\n", with([](Settings& s) { s.srtp = "offered"; })},
        {"srtp=Required\n", Settings{}},  // an unknown word leaves encryption off
    };
    for (const auto& [content, expected] : cases) {
        StoreFolder folder;
        ASSERT_TRUE(writeTextFile(folder.dir.file("settings.txt"), content));
        EXPECT_TRUE(folder.stores.loadSettings() == expected) << content;
    }
}

TEST(Stores, PlainPasswordIsUsedAndProtectedOnTheNextSave) {
    StoreFolder folder;
    const fs::path file = folder.dir.file("account.txt");
    ASSERT_TRUE(writeTextFile(file, "user=alice\npassword=s3cret\n"));
    // Readable by others, as an older version or a hand edit may have left it.
    std::error_code ec;
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read, ec);
    const Account account = folder.stores.loadAccount();
    EXPECT_EQ(account.user, "alice");
    EXPECT_EQ(account.password, "s3cret");
    EXPECT_EQ(account.domain, "");
    EXPECT_TRUE(folder.stores.passwordNeedsProtecting());

    ASSERT_TRUE(folder.stores.saveAccount(account));
    EXPECT_FALSE(folder.stores.passwordNeedsProtecting());
    EXPECT_EQ(folder.stores.loadAccount().password, "s3cret");
    if (passwordsProtectedHere()) {
        const std::string text = readTextFile(file);
        EXPECT_NE(text.find("password=dpapi:"), std::string::npos) << text;
        EXPECT_EQ(text.find("s3cret"), std::string::npos) << text;
    }
}

TEST(Stores, DpapiProtectsForTheCurrentUser) {
    if (!passwordsProtectedHere()) GTEST_SKIP() << "passwords are kept private by the file's mode here";
    const std::string plain = "pä\tss\nword";
    const auto stored = protectPassword(plain);
    ASSERT_TRUE(stored && stored->starts_with("dpapi:"));
    EXPECT_EQ(stored->find_first_of("\r\n"), std::string::npos);
    EXPECT_EQ(unprotectPassword(*stored), plain);
    EXPECT_EQ(unprotectPassword(stored->substr(0, stored->size() - 8)), std::nullopt);
}

TEST(Stores, DamagedProtectedPasswordLoadsEmptyWithAWarning) {
    for (const std::string stored : {"dpapi:AAAAAAAAAAAAAAAA", "dpapi:!!not base64!!", "dpapi:"}) {
        StoreFolder folder;
        ASSERT_TRUE(writeTextFile(folder.dir.file("account.txt"), "user=bob\npassword=" + stored + "\n"));
        std::string warning;
        const Account account = folder.stores.loadAccount(&warning);
        EXPECT_EQ(account.user, "bob") << stored;
        EXPECT_EQ(account.password, "") << stored;
        EXPECT_NE(warning, "") << stored;
    }
}

TEST(Stores, DamagedFilesLoadWhatIsValid) {
    StoreFolder folder;
    const std::string garbage("\x00\xff\x01\x7f\xfe\x80", 6);
    ASSERT_TRUE(writeTextFile(folder.dir.file("contacts.txt"),
                              garbage + "\nAnn\t100\n\nnumberless\nBob\t200\textra\n" + garbage));
    ASSERT_TRUE(writeTextFile(folder.dir.file("calllog.txt"),
                              "100\tAnn\t0\t1700000000\t12\tRemote hangup\n"
                              "101\tBad kind\t3\t1\t1\tx\n"
                              "102\tBad start\t1\t17e5\t1\tx\n"
                              "103\tLong duration\t1\t1\t99999999999\tx\n"
                              "104\tNegative\t1\t1\t-1\tx\n"
                              "105\tToo many\t1\t1\t1\tx\ty\n" +
                                  garbage +
                                  "\n200\tBob\t2\t1700000100\t0\tBusy Here\r\n"
                                  "300\tCut\t1\t17000"));
    ASSERT_TRUE(writeTextFile(folder.dir.file("settings.txt"), garbage + "\nmicLevel=20\n" + garbage));
    std::string contactsWarning, callsWarning, settingsWarning;
    EXPECT_TRUE(folder.stores.loadContacts(&contactsWarning) ==
                (std::vector<Contact>{{"Ann", "100"}, {"Bob", "200"}}));
    EXPECT_TRUE(folder.stores.loadCallLog(&callsWarning) ==
                (std::vector<CallLogEntry>{{"100", "Ann", CallKind::Incoming, 1700000000, 12, "Remote hangup"},
                                           {"200", "Bob", CallKind::Missed, 1700000100, 0, "Busy Here"}}));
    EXPECT_EQ(folder.stores.loadSettings(&settingsWarning).micLevel, 20);
    for (const std::string& warning : {contactsWarning, callsWarning, settingsWarning}) EXPECT_NE(warning, "");
}

TEST(Stores, CallLogKeepsTheNewestEntries) {
    StoreFolder folder;
    std::vector<CallLogEntry> calls(kCallLogLimit + 10);
    for (size_t i = 0; i < calls.size(); ++i) calls[i].start = static_cast<int64_t>(i);
    ASSERT_TRUE(folder.stores.saveCallLog(calls));
    const auto loaded = folder.stores.loadCallLog();
    ASSERT_EQ(loaded.size(), kCallLogLimit);
    EXPECT_EQ(loaded.front().start, 10);
    EXPECT_EQ(loaded.back().start, static_cast<int64_t>(calls.size() - 1));
}

TEST(Stores, FailedSaveKeepsThePreviousContent) {
    StoreFolder folder;
    const std::vector<Contact> contacts{{"Ann", "100"}};
    ASSERT_TRUE(folder.stores.saveContacts(contacts));
    // A folder where the temporary file goes cannot be written or removed.
    ASSERT_TRUE(fs::create_directory(folder.dir.file("contacts.txt.tmp")));
    std::string error;
    EXPECT_FALSE(folder.stores.saveContacts({{"Bob", "200"}}, &error));
    EXPECT_NE(error, "");
    EXPECT_TRUE(folder.stores.loadContacts() == contacts);
}

TEST(Stores, PrepareMakesTheSubfolders) {
    TempDir dir("velphone-prepare");
    Stores stores(dir.file("a") / "Velmora Phone");
    std::string error;
    ASSERT_TRUE(stores.prepare(&error)) << error;
    EXPECT_TRUE(fs::is_directory(stores.recordingsFolder()));
    EXPECT_TRUE(fs::is_directory(stores.logsFolder()));
    EXPECT_TRUE(stores.prepare(&error)) << error;
}

TEST(ValidateAccount, NamesTheFieldAtFault) {
    const auto with = [](auto change) {
        Account account;
        account.user = "alice";
        account.domain = "example.org";
        change(account);
        return account;
    };
    const std::vector<std::pair<Account, std::optional<std::string>>> cases = {
        {with([](Account&) {}), std::nullopt},
        {with([](Account& a) { a.transport = "TLS"; a.password = "line\nbreak"; }), std::nullopt},
        {with([](Account& a) { a.user = ""; }), "Enter a user name"},
        {with([](Account& a) { a.user = "al\rice"; }), "The user name must not contain line breaks or control characters"},
        {with([](Account& a) { a.domain = "example.org\n"; }), "The domain must not contain line breaks or control characters"},
        {with([](Account& a) { a.authUser = "a\tb"; }), "The authentication user must not contain line breaks or control characters"},
        {with([](Account& a) { a.proxy = "p\x7f"; }), "The proxy must not contain line breaks or control characters"},
        {with([](Account& a) { a.stun = std::string("s\0", 2); }), "The STUN server must not contain line breaks or control characters"},
        {with([](Account& a) { a.voicemail = "*97\n"; }), "The voicemail number must not contain line breaks or control characters"},
        {with([](Account& a) { a.transport = "sctp"; }), "The transport must be UDP, TCP or TLS"},
    };
    for (const auto& [account, message] : cases) EXPECT_EQ(validateAccount(account), message);
}

TEST(SipLogFile, RotatesAtTheLimitKeepingOneOlderFile) {
    TempDir dir("velphone-log");
    SipLogFile log(dir.path());
    ASSERT_TRUE(log.open());
    const std::string line(64 * 1024 - 1, 'a');
    const auto linesToRotate = SipLogFile::kRotateBytes / (line.size() + 1);
    const fs::path older = dir.file("sip-log.1.txt");
    for (const char mark : {'A', 'B'}) {
        for (uint64_t i = 0; i < linesToRotate + 2; ++i) log.write(i == 0 ? std::string(1, mark) : line);
        std::error_code ec;
        EXPECT_GE(fs::file_size(older, ec), SipLogFile::kRotateBytes) << mark;
        EXPECT_LE(fs::file_size(older, ec), SipLogFile::kRotateBytes + line.size() + 1) << mark;
        EXPECT_LT(fs::file_size(log.path(), ec), 4 * (line.size() + 1)) << mark;
    }
    log.close();
    // The second rotation replaced the first older file.
    EXPECT_NE(readTextFile(older).find("B\n"), std::string::npos);
    EXPECT_EQ(readTextFile(older).find("A\n"), std::string::npos);

    SipLogFile blocked(dir.file("missing") / "folder");
    EXPECT_FALSE(blocked.open());
}

}  // namespace
}  // namespace velphone
