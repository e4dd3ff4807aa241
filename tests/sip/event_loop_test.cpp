// The event loop: tasks, timers, cancel, invoke, stop and start, in virtual time and on its thread.
#include "sip/core/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "support/wait.h"

namespace kelsip {
namespace {

using namespace std::chrono_literals;

TEST(VirtualLoopTest, RunsTasksThenTimersInDueThenIdOrderAndForgetsCancelledOnes) {
    auto clock = std::make_shared<ManualClock>();
    EventLoop loop{clock};
    std::vector<std::string> ran;
    const auto note = [&](std::string what) -> EventLoop::Task {
        return [&ran, &clock, what] { ran.push_back(what + "@" + std::to_string(clock->nowNs() / 1'000'000)); };
    };
    loop.schedule(30, note("c"));
    loop.schedule(10, note("a1"));
    loop.schedule(10, note("a2"));  // same instant: scheduled later, runs later
    const auto cancelled = loop.schedule(10, note("x"));
    const auto byTimer = loop.schedule(20, note("y"));
    loop.schedule(20, note("b"));
    loop.schedule(-5, note("now"));  // a negative delay is due at once
    loop.schedule(15, [&] { loop.cancel(byTimer); });
    loop.post(note("task1"));
    loop.post([&] {
        ran.push_back("task2");
        loop.post(note("task3"));  // queued during a task: still before the due timer
    });
    loop.cancel(cancelled);
    loop.cancel(cancelled);  // twice
    loop.cancel(999999);     // never issued
    EXPECT_EQ(loop.runDue(), 4U);
    advanceVirtualTime(loop, *clock, 100ms);
    const std::vector<std::string> order = {"task1@0", "task2", "task3@0", "now@0", "a1@10", "a2@10", "b@20", "c@30"};
    EXPECT_EQ(ran, order);
    EXPECT_EQ(loop.pendingTimers(), 0U);
}

TEST(EventLoopThreadTest, InvokeRunsOnTheLoopThreadAndCarriesResultsAndExceptions) {
    EventLoop loop;
    loop.start();
    EXPECT_EQ(loop.invoke([&] { return loop.isLoopThread(); }), true);
    EXPECT_FALSE(loop.isLoopThread());
    EXPECT_EQ(loop.invoke([&] { return loop.invoke([] { return 7; }); }), 7);
    EXPECT_THROW(loop.invoke([]() -> int { throw std::logic_error("bad"); }), std::logic_error);
    EXPECT_EQ(loop.invoke([] { return std::string("alive"); }), "alive");
    loop.stop();
}

TEST(EventLoopThreadTest, StopDiscardsQueuedWorkAndALaterStartDoesNotRunIt) {
    EventLoop loop;
    std::atomic<int> ran{0};
    loop.post([&] { ++ran; });  // queued while stopped: runs after start
    loop.start();
    EXPECT_TRUE(test::waitFor([&] { return ran.load() == 1; }, 5s));
    std::atomic<bool> stopped{false};
    loop.post([&] {
        loop.post([&] { ++ran; });
        loop.schedule(0, [&] { ++ran; });
        loop.schedule(60'000, [&] { ++ran; });
        loop.stop();
        stopped = true;
    });
    EXPECT_TRUE(test::waitFor([&] { return stopped.load() && !loop.isRunning(); }, 5s));
    EXPECT_EQ(loop.pendingTasks(), 0U);
    EXPECT_EQ(loop.pendingTimers(), 0U);
    loop.start();
    EXPECT_EQ(loop.invoke([&] { return ran.load(); }), 1);
    loop.stop();
}

}  // namespace
}  // namespace kelsip
