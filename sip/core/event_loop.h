// The stack's executor: one thread runs queued tasks and timers in a fixed
// order; any thread may hand it work.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>

#include "sip/core/clock.h"

namespace kelsip {

class EventLoop {
public:
    using Task = std::function<void()>;
    using TimerId = uint64_t;

    // Without a clock the loop runs on the system's monotonic clock.
    explicit EventLoop(std::shared_ptr<const Clock> clock = nullptr);
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Queues a task; tasks run in order of arrival, before any timer.
    void post(Task task);
    // Runs `callback` once `ms` milliseconds from now; timers due at the same
    // instant run in the order they were scheduled. Ids are never reused.
    TimerId schedule(int64_t ms, Task callback);
    // Forgets a pending timer; an unknown or already-run id is ignored.
    void cancel(TimerId id);

    // Runs `f` on the loop thread and returns its result (or rethrows what it
    // threw). Called on the loop thread, or while the loop has no thread (not
    // started yet, stopped, or driven in virtual time by its owner), it runs
    // `f` at once: waiting would never end.
    template <typename F>
    auto invoke(F&& f) -> std::invoke_result_t<F&>;

    void start();
    // Ends the loop thread and discards every queued task and timer. Safe to
    // call from a task on the loop thread: it returns at once and the thread
    // ends when that task is done.
    void stop();

    [[nodiscard]] bool isRunning() const { return running_.load(); }
    [[nodiscard]] bool isLoopThread() const;
    [[nodiscard]] const Clock& clock() const { return *clock_; }
    [[nodiscard]] int64_t nowNs() const { return clock_->nowNs(); }

    // Virtual time: the caller's thread stands in for the loop thread and
    // runs, in loop order, every queued task and every timer due by the
    // clock's present time (including what those schedule for now).
    // Returns how many ran.
    size_t runDue();
    [[nodiscard]] size_t pendingTasks() const;
    [[nodiscard]] size_t pendingTimers() const;
    // The due time of the earliest timer, if any.
    [[nodiscard]] std::optional<int64_t> nextDueNs() const;

private:
    void run(uint64_t generation);
    // With the lock held: takes the next runnable task or due timer, if any.
    bool takeNext(std::unique_lock<std::mutex>& lock, Task& out);

    std::shared_ptr<const Clock> clock_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    std::map<std::pair<int64_t, TimerId>, Task> timers_;
    std::map<TimerId, int64_t> timerIndex_;
    TimerId nextTimerId_ = 1;
    std::atomic<bool> running_{false};
    bool stopRequested_ = false;
    // A thread released by a stop from within the loop still finishes its
    // task; the generation tells it that it belongs to an earlier start.
    uint64_t generation_ = 0;
    std::thread thread_;
    std::atomic<std::thread::id> loopThreadId_{};
    std::atomic<std::thread::id> driverThreadId_{};
};

// Moves a manual clock forward by `duration`, stopping at every timer due
// on the way so that each runs at its own due time, as it would in real time.
void advanceVirtualTime(EventLoop& loop, ManualClock& clock, std::chrono::nanoseconds duration);

template <typename F>
auto EventLoop::invoke(F&& f) -> std::invoke_result_t<F&> {
    using R = std::invoke_result_t<F&>;
    if (isLoopThread() || !isRunning()) return f();
    auto task = std::make_shared<std::packaged_task<R()>>(std::forward<F>(f));
    std::future<R> result = task->get_future();
    post([task] { (*task)(); });
    return result.get();
}

}  // namespace kelsip
