// The event loop: tasks before timers, timers by (due time, id), one at a
// time and never under the lock.
#include "sip/core/event_loop.h"

namespace kelsip {

EventLoop::EventLoop(std::shared_ptr<const Clock> clock)
    : clock_(clock ? std::move(clock) : std::make_shared<SteadyClock>()) {}

EventLoop::~EventLoop() { stop(); }

void EventLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

EventLoop::TimerId EventLoop::schedule(int64_t ms, Task callback) {
    TimerId id = 0;
    {
        std::lock_guard lock(mutex_);
        id = nextTimerId_++;
        const int64_t due = clock_->nowNs() + (ms > 0 ? ms : 0) * 1'000'000;
        timers_.emplace(std::make_pair(due, id), std::move(callback));
        timerIndex_.emplace(id, due);
    }
    wake_.notify_one();
    return id;
}

void EventLoop::cancel(TimerId id) {
    std::lock_guard lock(mutex_);
    const auto it = timerIndex_.find(id);
    if (it == timerIndex_.end()) return;
    timers_.erase(std::make_pair(it->second, id));
    timerIndex_.erase(it);
}

bool EventLoop::isLoopThread() const {
    const auto self = std::this_thread::get_id();
    return driverThreadId_.load() == self || loopThreadId_.load() == self;
}

void EventLoop::start() {
    std::lock_guard lock(mutex_);
    if (running_.load()) return;
    stopRequested_ = false;
    running_.store(true);
    const uint64_t generation = ++generation_;
    thread_ = std::thread([this, generation] { run(generation); });
    loopThreadId_.store(thread_.get_id());
}

void EventLoop::stop() {
    std::thread finished;
    {
        std::lock_guard lock(mutex_);
        if (!running_.load()) return;
        stopRequested_ = true;
        ++generation_;
        finished = std::move(thread_);
    }
    wake_.notify_all();
    if (finished.joinable()) {
        // Joining from the loop thread itself would wait forever.
        if (finished.get_id() == std::this_thread::get_id()) {
            finished.detach();
        } else {
            finished.join();
        }
    }
    std::lock_guard lock(mutex_);
    running_.store(false);
    loopThreadId_.store({});
    tasks_.clear();
    timers_.clear();
    timerIndex_.clear();
}

bool EventLoop::takeNext(std::unique_lock<std::mutex>& lock, Task& out) {
    (void)lock;
    if (!tasks_.empty()) {
        out = std::move(tasks_.front());
        tasks_.pop_front();
        return true;
    }
    if (timers_.empty()) return false;
    const auto first = timers_.begin();
    if (first->first.first > clock_->nowNs()) return false;
    out = std::move(first->second);
    timerIndex_.erase(first->first.second);
    timers_.erase(first);
    return true;
}

void EventLoop::run(uint64_t generation) {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (stopRequested_ || generation != generation_) return;
        Task next;
        if (takeNext(lock, next)) {
            lock.unlock();
            next();
            next = nullptr;  // destroy captured state outside the lock too
            lock.lock();
            continue;
        }
        if (timers_.empty()) {
            wake_.wait(lock);
        } else if (clock_->isReal()) {
            const int64_t wait = timers_.begin()->first.first - clock_->nowNs();
            wake_.wait_for(lock, std::chrono::nanoseconds(wait));
        } else {
            // A manual clock moves without telling anyone; look again soon.
            wake_.wait_for(lock, std::chrono::milliseconds(1));
        }
    }
}

size_t EventLoop::runDue() {
    const auto previous = driverThreadId_.exchange(std::this_thread::get_id());
    size_t ran = 0;
    std::unique_lock lock(mutex_);
    Task next;
    while (takeNext(lock, next)) {
        lock.unlock();
        next();
        next = nullptr;
        ++ran;
        lock.lock();
    }
    lock.unlock();
    driverThreadId_.store(previous);
    return ran;
}

size_t EventLoop::pendingTasks() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

size_t EventLoop::pendingTimers() const {
    std::lock_guard lock(mutex_);
    return timers_.size();
}

std::optional<int64_t> EventLoop::nextDueNs() const {
    std::lock_guard lock(mutex_);
    if (timers_.empty()) return std::nullopt;
    return timers_.begin()->first.first;
}

void advanceVirtualTime(EventLoop& loop, ManualClock& clock, std::chrono::nanoseconds duration) {
    const int64_t target = clock.nowNs() + duration.count();
    loop.runDue();
    for (auto due = loop.nextDueNs(); due && *due <= target; due = loop.nextDueNs()) {
        if (*due > clock.nowNs()) clock.set(*due);
        loop.runDue();
    }
    clock.set(target);
    loop.runDue();
}

}  // namespace kelsip
