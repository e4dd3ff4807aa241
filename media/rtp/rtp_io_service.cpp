// RTP workers: each polls its handlers' sockets and a waker, then calls every
// handler still registered, never holding a lock while a handler runs; and
// the reaper, which ends the workers that stayed without handlers.
#include "media/rtp/rtp_io_service.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <string>
#include <system_error>
#include <thread>

#include "media/rtp/thread_priority.h"
#include "sip/core/log.h"
#include "sip/net/waker.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "RtpIo";
constexpr std::chrono::milliseconds kPollFailurePause{10};

}  // namespace

class RtpIoService::Worker {
public:
    explicit Worker(int pollTimeoutMs) : pollTimeoutMs_(pollTimeoutMs) {}
    ~Worker() {
        requestStop();
        join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Only with a waker: without one, removing a session would wait out a
    // poll time-out, and a worker without sessions could not sleep.
    [[nodiscard]] bool start() {
        if (!waker_.valid()) return false;
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            return false;
        }
        return true;
    }

    void requestStop() {
        if (!thread_.joinable()) return;
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        waker_.wake();
    }

    void join() {
        if (thread_.joinable()) thread_.join();
    }

    // The serial names this registration: a handler removed and another one
    // added at the same address are never mistaken for each other.
    uint64_t attach(Handler& handler) {
        uint64_t serial = 0;
        {
            const std::lock_guard lock(mutex_);
            serial = nextSerial_++;
            slots_.push_back({serial, &handler});
        }
        waker_.wake();  // its sockets join the poll now, not after a time-out
        return serial;
    }

    void detach(uint64_t serial) {
        std::unique_lock lock(mutex_);
        std::erase_if(slots_, [&](const Slot& s) { return s.serial == serial; });
        // From inside a callback the running call is this very one: waiting
        // for it to end would never return, and no poll is under way.
        if (std::this_thread::get_id() == thread_.get_id()) return;
        // A poll under way may still hold the handler's sockets; the caller
        // closes them once we return, and a socket closed under a running
        // poll may stay bound (or its number be reused) until the poll ends.
        const bool polling = polling_;
        const uint64_t round = pollRound_;
        lock.unlock();
        waker_.wake();  // the handler's sockets leave the poll set at once
        lock.lock();
        ++waiters_;
        callEnded_.wait(lock, [&] { return calling_ != serial && (!polling || pollRound_ != round); });
        --waiters_;
    }

private:
    struct Slot {
        uint64_t serial = 0;
        Handler* handler = nullptr;
    };
    // One handler's place in this iteration's poll set.
    struct Range {
        uint64_t serial = 0;
        Handler* handler = nullptr;
        size_t first = 0;
        size_t count = 0;
    };

    [[nodiscard]] bool registered(uint64_t serial) const {
        return std::any_of(slots_.begin(), slots_.end(), [&](const Slot& s) { return s.serial == serial; });
    }

    void run() {
        MediaThreadPriority priority;
        if (!priority.raise()) log::debug(kTag, "could not raise RTP worker thread priority");
        std::vector<net::PollEntry> entries;
        std::vector<Range> ranges;
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            entries.clear();
            ranges.clear();
            entries.push_back({waker_.native(), true, false});
            for (const Slot& slot : slots_) {
                const size_t first = entries.size();
                slot.handler->appendSockets(entries);
                ranges.push_back({slot.serial, slot.handler, first, entries.size() - first});
            }
            // A worker without sessions has nothing to tick: it sleeps until
            // `attach` or `requestStop` wakes it.
            const int timeoutMs = slots_.empty() ? -1 : pollTimeoutMs_;
            polling_ = true;
            lock.unlock();
            // A failed poll is handled like a time-out: the handlers still
            // tick and the next iteration rebuilds the set. The pause keeps a
            // poll that keeps failing from spinning a raised-priority thread.
            if (net::poll(entries, timeoutMs) < 0) std::this_thread::sleep_for(kPollFailurePause);
            if (entries[0].readable) waker_.drain();
            const int64_t now = steadyNowUs();
            const std::span<const net::PollEntry> found(entries);
            lock.lock();
            polling_ = false;
            ++pollRound_;
            if (waiters_ > 0) callEnded_.notify_all();
            for (const Range& range : ranges) {
                if (stopping_) break;
                // Removed during the poll: its handler may already be gone.
                if (!registered(range.serial)) continue;
                calling_ = range.serial;
                lock.unlock();
                range.handler->onPoll(found.subspan(range.first, range.count), now);
                lock.lock();
                calling_ = 0;
                if (waiters_ > 0) callEnded_.notify_all();
            }
        }
    }

    const int pollTimeoutMs_;
    net::Waker waker_;
    std::mutex mutex_;
    std::condition_variable callEnded_;
    std::vector<Slot> slots_;
    uint64_t nextSerial_ = 1;
    uint64_t calling_ = 0;  // the serial whose handler runs now; 0: none
    int waiters_ = 0;       // threads in `detach` waiting for a call or a poll to end
    bool polling_ = false;  // the worker is inside poll with the set it built
    uint64_t pollRound_ = 0;  // counts the polls that have returned
    bool stopping_ = false;
    std::thread thread_;
};

RtpIoService::RtpIoService(RtpIoServiceOptions options) : options_(options) {
    if (options_.sessionsPerWorker == 0) options_.sessionsPerWorker = 1;
}

RtpIoService::~RtpIoService() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    reaperWake_.notify_all();
    if (reaper_.joinable()) reaper_.join();
    std::vector<Worker*> workers;
    {
        const std::lock_guard lock(mutex_);
        for (const WorkerSlot& slot : workers_) workers.push_back(slot.worker.get());
    }
    // Joined without the lock: a handler's callback may be calling `remove`
    // while its worker is being joined. All are told first, so that they
    // finish their rounds together rather than one after another.
    for (Worker* worker : workers) worker->requestStop();
    for (Worker* worker : workers) worker->join();
}

RtpIoService::AddResult RtpIoService::add(uint64_t key, Handler& handler) {
    const std::lock_guard lock(mutex_);
    if (stopping_) return AddResult::NoWorker;
    if (sessions_.contains(key)) return AddResult::AlreadyPresent;
    auto room = std::find_if(workers_.begin(), workers_.end(),
                             [&](const WorkerSlot& w) { return w.sessions < options_.sessionsPerWorker; });
    if (room == workers_.end()) {
        auto worker = std::make_unique<Worker>(options_.pollTimeoutMs);
        if (!worker->start()) {
            log::error(kTag, "cannot start an RTP worker thread");
            return AddResult::NoWorker;
        }
        workers_.push_back({std::move(worker), 0, 0, {}});
        log::debug(kTag, "started RTP worker thread #" + std::to_string(workers_.size()));
        room = workers_.end() - 1;
        if (reaperDone_) reaper_.join();  // it has let go of the lock for good
        reaperDone_ = false;
        if (!reaper_.joinable()) {
            try {
                reaper_ = std::thread([this] { reap(); });
            } catch (const std::system_error&) {
                log::warn(kTag, "cannot start the RTP worker reaper: idle workers stay");
            }
        }
    }
    const uint64_t serial = room->worker->attach(handler);
    ++room->sessions;
    sessions_.emplace(key, Placement{room->worker.get(), serial});
    return AddResult::Added;
}

void RtpIoService::remove(uint64_t key) {
    Worker* worker = nullptr;
    uint64_t serial = 0;
    {
        const std::lock_guard lock(mutex_);
        const auto it = sessions_.find(key);
        if (it == sessions_.end()) return;
        worker = it->second.worker;
        serial = it->second.serial;
        WorkerSlot& slot = slotOf(worker);
        --slot.sessions;
        ++slot.detaching;
        sessions_.erase(it);
    }
    // Outside the service's lock: the call being waited for may itself be
    // adding or removing another session.
    worker->detach(serial);
    const std::lock_guard lock(mutex_);
    WorkerSlot& slot = slotOf(worker);
    --slot.detaching;
    if (!slot.idle()) return;
    slot.idleSince = std::chrono::steady_clock::now();
    reaperWake_.notify_all();
}

RtpIoService::WorkerSlot& RtpIoService::slotOf(const Worker* worker) {
    // A worker with sessions or removals under way is never ended: it is there.
    return *std::find_if(workers_.begin(), workers_.end(),
                         [&](const WorkerSlot& w) { return w.worker.get() == worker; });
}

void RtpIoService::reap() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const auto now = std::chrono::steady_clock::now();
        auto due = std::chrono::steady_clock::time_point::max();
        std::vector<std::unique_ptr<Worker>> ending;
        for (auto it = workers_.begin(); it != workers_.end();) {
            if (it->idle() && now - it->idleSince >= options_.idleWorkerGrace) {
                ending.push_back(std::move(it->worker));
                it = workers_.erase(it);
                continue;
            }
            if (it->idle()) due = std::min(due, it->idleSince + options_.idleWorkerGrace);
            ++it;
        }
        if (ending.empty()) {
            if (due == std::chrono::steady_clock::time_point::max()) {
                reaperWake_.wait(lock);
            } else {
                reaperWake_.wait_until(lock, due);
            }
            continue;
        }
        // No longer listed, so no `add` can choose them; joined without the
        // lock, so that `add` and `remove` need not wait for the threads to end.
        lock.unlock();
        for (const auto& worker : ending) worker->requestStop();
        ending.clear();
        log::debug(kTag, "ended idle RTP worker threads");
        lock.lock();
        if (workers_.empty()) {
            // Nothing left to watch: the reaper ends too (no thread stays
            // after the calls), and the next worker starts a new one.
            reaperDone_ = true;
            return;
        }
    }
}

size_t RtpIoService::workerCount() const {
    const std::lock_guard lock(mutex_);
    return workers_.size();
}

size_t RtpIoService::sessionCount() const {
    const std::lock_guard lock(mutex_);
    return sessions_.size();
}

int64_t RtpIoService::steadyNowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace kelsip
