// The RTP I/O service with plain socket handlers: how sessions spread over
// workers, and what add and remove promise while workers run.
#include "media/rtp/rtp_io_service.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

#include "rtp_loopback.h"
#include "support/log_capture.h"

namespace kelsip {
namespace {

using Added = RtpIoService::AddResult;

// One loopback socket: counts its polls and datagrams, notes its thread.
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
        while (found[0].readable && socket_.receiveFrom(buffer, sizeof buffer, from).ok()) ++packets;
        if (hook) hook();
    }
    void poke() {
        net::Socket sender = test::boundUdp();
        test::sendTo(sender, test::Bytes{1}, *socket_.localAddress());
    }

    std::function<void()> hook;  // set before the handler is added
    std::atomic<int> polls{0};
    std::atomic<int> packets{0};
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

TEST(RtpIoServiceTest, AKeyAddedTwiceChangesNothing) {
    FakeHandler first, second;
    RtpIoService io({1, 10});  // a second registration would need a second worker
    ASSERT_EQ(io.add(7, first), Added::Added);
    EXPECT_EQ(io.add(7, second), Added::AlreadyPresent);
    EXPECT_EQ(io.add(7, first), Added::AlreadyPresent);
    EXPECT_EQ(io.workerCount(), 1u);
    ASSERT_TRUE(test::waitFor([&] { return first.polls >= 3; }, test::kDeadline));
    EXPECT_EQ(second.polls.load(), 0);
}

TEST(RtpIoServiceTest, RemoveWaitsForARunningCallAndNoCallFollowsIt) {
    FakeHandler removed, witness;
    RtpIoService io({16, -1});  // no time-out: only traffic and the waker end a wait
    std::atomic<bool> entered{false}, removeReturned{false}, returnedDuringCall{false}, callEnded{false};
    removed.hook = [&] {
        if (entered.exchange(true)) return;
        // Only a remove that failed to wait can return while this call runs.
        returnedDuringCall = test::waitFor([&] { return removeReturned.load(); }, std::chrono::milliseconds(200));
        callEnded = true;
    };
    ASSERT_EQ(io.add(1, removed), Added::Added);
    ASSERT_EQ(io.add(2, witness), Added::Added);
    removed.poke();  // also fails unless adding woke the worker
    ASSERT_TRUE(test::waitFor([&] { return entered.load(); }, test::kDeadline));
    std::thread([&] {
        io.remove(1);
        removeReturned = true;
    }).join();
    ASSERT_TRUE(test::waitFor([&] { return callEnded.load(); }, test::kDeadline));
    EXPECT_FALSE(returnedDuringCall);

    const int polls = removed.polls;
    removed.poke();
    witness.poke();
    ASSERT_TRUE(test::waitFor([&] { return witness.packets == 1; }, test::kDeadline));
    EXPECT_EQ(removed.polls.load(), polls);
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
