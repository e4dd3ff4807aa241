// The process runner the interop tests stand on: what a program is started
// with, and that stopping it leaves nothing of it running.
#include "support/process.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/temp_dir.h"
#include "support/wait.h"

namespace kelsip::test {
namespace {

using namespace std::chrono_literals;

class ProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Process::supported()) GTEST_SKIP() << "the tests start no programs on Windows";
        ASSERT_TRUE(dir.valid());
    }

    ProcessOptions shell(const std::string& script) {
        ProcessOptions options;
        options.program = "sh";
        options.arguments = {"-c", script};
        options.workingDirectory = dir.path();
        options.logFile = dir.file("out.log");
        return options;
    }

    TempDir dir;
};

TEST_F(ProcessTest, RunsWithItsArgumentsEnvironmentAndFolderAndReportsItsExit) {
    ProcessOptions options = shell("echo \"$0 $VELMORA_PROBE\"; pwd; echo to-stderr >&2; exit 3");
    options.arguments.push_back("first-argument");
    options.environment = {"VELMORA_PROBE=probe-value"};
    Process p;
    std::string error;
    ASSERT_TRUE(p.start(options, &error)) << error;
    EXPECT_EQ(p.waitForExit(5s), 3);
    EXPECT_FALSE(p.isRunning());
    EXPECT_EQ(p.log(), "first-argument probe-value\n" + std::filesystem::canonical(dir.path()).string() + "\nto-stderr\n");

    // A signal that ends it shows as 128 + its number.
    Process killed;
    ASSERT_TRUE(killed.start(shell("kill -9 $$"), &error)) << error;
    EXPECT_EQ(killed.waitForExit(5s), 128 + 9);
}

TEST_F(ProcessTest, StopKillsWhatIgnoresTheRequestAndItsHelpers) {
    // The shell and the helper it leaves behind both ignore SIGTERM; the
    // helper writes a line every 20 ms for as long as it lives.
    ProcessOptions options =
        shell("trap '' TERM; (while :; do echo tick >> ticks; sleep 0.02; done) & echo started; wait");
    options.stopGrace = 200ms;
    Process p;
    std::string error;
    ASSERT_TRUE(p.start(options, &error)) << error;
    ASSERT_TRUE(waitFor([&] { return readTextFile(dir.file("ticks")).size() > 10; }, 5s));

    const auto before = std::chrono::steady_clock::now();
    p.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    EXPECT_FALSE(p.isRunning());
    EXPECT_EQ(p.exitCode(), 128 + 9);
    const std::string ticks = readTextFile(dir.file("ticks"));
    EXPECT_FALSE(waitFor([&] { return readTextFile(dir.file("ticks")) != ticks; }, 300ms))
        << "the helper outlived stop()";
}

TEST_F(ProcessTest, AProgramEndsWhenTheTestProcessDiesWithoutStoppingIt) {
    // The test process stands for one that crashes or that a sanitizer
    // aborts: no destructor runs, yet its peer must not live on. ("fast"
    // death tests fork, so the child writes where this fixture looks.)
    GTEST_FLAG_SET(death_test_style, "fast");
    const ProcessOptions options = shell("while :; do echo tick >> ticks; sleep 0.02; done");
    EXPECT_EXIT(
        {
            Process p;
            std::string error;
            if (!p.start(options, &error)) std::_Exit(1);
            if (!waitFor([&] { return readTextFile(dir.file("ticks")).size() > 10; }, 5s)) std::_Exit(2);
            std::_Exit(3);
        },
        ::testing::ExitedWithCode(3), "");
    const std::string ticks = readTextFile(dir.file("ticks"));
    EXPECT_FALSE(waitFor([&] { return readTextFile(dir.file("ticks")) != ticks; }, 300ms))
        << "the program outlived the test process";
}

TEST_F(ProcessTest, FindsProgramsAndRefusesMissingOnes) {
    EXPECT_EQ(Process::findProgram("sh").front(), '/');
    EXPECT_EQ(Process::findProgram("velmora-no-such-program"), "");
    Process p;
    std::string error;
    ProcessOptions options;
    options.program = "velmora-no-such-program";
    EXPECT_FALSE(p.start(options, &error));
    EXPECT_EQ(error, "velmora-no-such-program not found");
    EXPECT_FALSE(p.isRunning());
}

}  // namespace
}  // namespace kelsip::test
