// The RTP I/O service with plain socket handlers: how sessions spread over
// workers, and adding and removing from inside a callback. That remove waits
// for a running call is proven through the RTP session's detach.
#include "media/rtp/rtp_io_service.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "rtp_loopback.h"
#include "support/log_capture.h"

namespace kelsip {
namespace {

using Added = RtpIoService::AddResult;

// One loopback socket: counts its polls, notes its thread.
class FakeHandler final : public RtpIoService::Handler {
public:
    void appendSockets(std::vector<net::PollEntry>& entries) const override {
        entries.push_back({socket_.native(), true, false});
    }
    void onPoll(std::span<const net::PollEntry> found, int64_t) override {
        ++polls;
        thread = std::this_thread::get_id();
        char buffer[16];
        net::SocketAddress from;
        while (found[0].readable && socket_.receiveFrom(buffer, sizeof buffer, from).ok()) {}
        if (hook) hook();
    }

    std::function<void()> hook;  // set before the handler is added
    std::atomic<int> polls{0};
    std::atomic<std::thread::id> thread;

private:
    net::Socket socket_ = [] {
        net::Socket s = test::boundUdp();
        EXPECT_TRUE(s.setNonBlocking(true));
        return s;
    }();
};

TEST(RtpIoServiceTest, FillsTheFirstWorkerWithRoomAndStartsAnotherWhenNoneHasAny) {
    test::LogCapture log(LogLevel::Debug);
    FakeHandler h[6];  // first: workers poll them until the service is gone
    RtpIoService io({2, 10});
    for (uint64_t key = 0; key < 5; ++key) ASSERT_EQ(io.add(key, h[key]), Added::Added);
    io.remove(0);
    ASSERT_EQ(io.add(5, h[5]), Added::Added);  // into the place freed on the first worker
    EXPECT_EQ(io.add(5, h[0]), Added::AlreadyPresent);
    for (int i = 1; i < 6; ++i) ASSERT_TRUE(test::waitFor([&] { return h[i].polls > 0; }, test::kDeadline));
    EXPECT_EQ(io.workerCount(), 3u);

    std::vector<std::string> started;
    for (const auto& line : log.lines()) {
        if (line.rfind("started RTP worker thread #", 0) == 0) started.push_back(line);
    }
    EXPECT_EQ(started, (std::vector<std::string>{"started RTP worker thread #1", "started RTP worker thread #2",
                                                 "started RTP worker thread #3"}));
    const auto t = [&](int i) { return h[i].thread.load(); };
    EXPECT_EQ(t(1), t(5));
    EXPECT_EQ(t(2), t(3));
    EXPECT_TRUE(t(1) != t(2) && t(2) != t(4) && t(1) != t(4));
}

TEST(RtpIoServiceTest, RemovingAndAddingFromInsideACallbackDoesNotDeadlock) {
    FakeHandler self, neighbour, newcomer;  // the neighbour comes next in the same round
    RtpIoService io({16, 10});
    std::atomic<bool> armed{false};  // both added: the worker may poll self before the neighbour is in
    std::atomic<bool> done{false};
    std::atomic<int> neighbourCallsAfterRemoval{0};
    self.hook = [&] {
        if (!armed || done) return;
        io.remove(1);
        io.remove(2);
        EXPECT_EQ(io.add(3, newcomer), Added::Added);
        done = true;
    };
    neighbour.hook = [&] { neighbourCallsAfterRemoval += done ? 1 : 0; };  // same thread: exact
    ASSERT_EQ(io.add(1, self), Added::Added);
    ASSERT_EQ(io.add(2, neighbour), Added::Added);
    armed = true;
    ASSERT_TRUE(test::waitFor([&] { return done.load(); }, test::kDeadline));
    const int selfPolls = self.polls;
    ASSERT_TRUE(test::waitFor([&] { return newcomer.polls >= 3; }, test::kDeadline));
    EXPECT_EQ(self.polls.load(), selfPolls);
    EXPECT_EQ(neighbourCallsAfterRemoval.load(), 0);
    EXPECT_EQ(io.sessionCount(), 1u);
}

}  // namespace
}  // namespace kelsip
