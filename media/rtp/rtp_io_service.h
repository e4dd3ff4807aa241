// The RTP I/O service: worker threads that poll the RTP sessions' sockets,
// each serving up to a fixed number of sessions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
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
    // Stops and joins every worker. No handler may be destroyed by its own
    // callback while the service goes away with it.
    ~RtpIoService();
    RtpIoService(const RtpIoService&) = delete;
    RtpIoService& operator=(const RtpIoService&) = delete;

    // The first worker in creation order with room takes the handler, else a
    // new one starts. A key already present changes nothing. NoWorker when a
    // thread could not be started.
    [[nodiscard]] AddResult add(uint64_t key, Handler& handler);
    // When this returns the handler is not being called and never will be
    // again, except when called from the handler's own callback: then the
    // callback that is running is the last. From a callback on one worker,
    // removing a handler another worker is calling waits for that call.
    // Workers left without sessions stay until the service ends, asleep
    // until a session is added to them.
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
    };
    struct Placement {
        size_t worker = 0;    // index into workers_
        uint64_t serial = 0;  // the worker's number for this registration
    };

    RtpIoServiceOptions options_;
    mutable std::mutex mutex_;
    // Creation order; workers that become empty stay, and are reused first.
    std::vector<WorkerSlot> workers_;
    std::unordered_map<uint64_t, Placement> sessions_;
};

}  // namespace kelsip
