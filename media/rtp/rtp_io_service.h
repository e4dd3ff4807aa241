// The RTP I/O service: worker threads that poll the RTP sessions' sockets,
// each serving up to a fixed number of sessions, and end when left without.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <unordered_map>
#include <vector>

#include "sip/net/socket.h"

namespace kelsip {

struct RtpIoServiceOptions {
    // A call sends and receives about 100 packets a second; 16 calls keep a
    // worker far below what one thread serves, while a poll set stays small
    // enough that WSAPoll's linear scan costs nothing.
    size_t sessionsPerWorker = 16;
    // The longest a worker with sessions waits with nothing to read (one
    // without sessions waits until it gets one). Sessions time RTCP
    // and playout from the ticks each iteration brings, so a time-out of half
    // a 20 ms packet time keeps them within 10 ms. -1: no time-out (ticks
    // only when something arrives).
    int pollTimeoutMs = 10;
    // How long a worker left without sessions waits for a new one before
    // its thread ends, so that a burst of calls set up and torn down does
    // not start and end a thread for each. It sleeps meanwhile.
    std::chrono::milliseconds idleWorkerGrace{2000};
};

class RtpIoService {
public:
    // What a worker serves: its sockets, and what the poll found on them.
    // Called on the worker's thread only.
    class Handler {
    public:
        // Appends the sockets to poll for reading. The sockets must stay
        // open until `remove` returns for the handler's key.
        virtual void appendSockets(std::vector<net::PollEntry>& entries) const = 0;
        // Every iteration, with the entries this handler appended in the same
        // order (also when nothing was ready) and the steady time in microseconds.
        virtual void onPoll(std::span<const net::PollEntry> found, int64_t nowUs) = 0;

    protected:
        ~Handler() = default;
    };

    enum class AddResult : uint8_t { Added, AlreadyPresent, NoWorker };

    explicit RtpIoService(RtpIoServiceOptions options = {});
    // Stops every worker at once, then joins them. No handler may be
    // destroyed by its own callback while the service goes away with it.
    ~RtpIoService();
    RtpIoService(const RtpIoService&) = delete;
    RtpIoService& operator=(const RtpIoService&) = delete;

    // The first worker in creation order with room takes the handler, else a
    // new one starts. A key already present changes nothing. NoWorker when a
    // thread, or the waker it is woken through, could not be made.
    [[nodiscard]] AddResult add(uint64_t key, Handler& handler);
    // When this returns the handler is not being called and never will be
    // again, except when called from the handler's own callback: then the
    // callback that is running is the last. From a callback on one worker,
    // removing a handler another worker is calling waits for that call.
    // Otherwise it waits for the worker to leave the poll it is in, which it
    // is woken from at once. A worker left without sessions ends once it has
    // stayed so for the idle grace.
    void remove(uint64_t key);

    [[nodiscard]] size_t workerCount() const;
    [[nodiscard]] size_t sessionCount() const;

    // Microseconds on the steady clock the workers tick with.
    [[nodiscard]] static int64_t steadyNowUs();

private:
    class Worker;
    struct WorkerSlot {
        std::unique_ptr<Worker> worker;
        size_t sessions = 0;
        // Removals waiting on the worker outside the lock: it must not end
        // under them.
        size_t detaching = 0;
        std::chrono::steady_clock::time_point idleSince;  // when both counts last reached 0

        [[nodiscard]] bool idle() const { return sessions == 0 && detaching == 0; }
    };
    struct Placement {
        Worker* worker = nullptr;
        uint64_t serial = 0;  // the worker's number for this registration
    };

    [[nodiscard]] WorkerSlot& slotOf(const Worker* worker);
    // The reaper's thread: ends the workers idle for the grace, and
    // otherwise sleeps until the next one is due or one becomes idle.
    void reap();

    RtpIoServiceOptions options_;
    mutable std::mutex mutex_;
    // Creation order; an idle worker is reused first, until the reaper ends it.
    std::vector<WorkerSlot> workers_;
    std::unordered_map<uint64_t, Placement> sessions_;
    std::condition_variable reaperWake_;
    bool stopping_ = false;
    std::thread reaper_;  // started with the first worker
    bool reaperDone_ = false;  // it ended with the last worker and waits to be joined
};

}  // namespace kelsip
