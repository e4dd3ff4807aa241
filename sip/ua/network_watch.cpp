// The host's network watched from the loop: a change of the address we use,
// or a resume from sleep, registers every line again and re-offers every
// connected call from where the host is now.
#include "sip/ua/network_watch.h"

#include <algorithm>
#include <chrono>

#include "sip/core/log.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "network";

std::string listed(const std::vector<net::SocketAddress>& addresses) {
    std::string out;
    for (const auto& a : addresses) out += (out.empty() ? "" : " ") + a.ip();
    return out.empty() ? "none" : out;
}

}  // namespace

void NetworkWatch::start() {
    if (ctx_.config.networkPollMs <= 0 || !ctx_.started || timer_ != 0) return;
    look();
}

void NetworkWatch::stop() {
    ctx_.loop->cancel(timer_);
    timer_ = 0;
    looked_ = false;
}

std::vector<net::SocketAddress> NetworkWatch::hostAddresses() const {
    if (ctx_.config.localAddressSource) return ctx_.config.localAddressSource();
    std::vector<net::SocketAddress> out;
    for (const net::LocalInterfaceAddress& a : net::localAddresses()) {
        if (a.up) out.push_back(a.address);
    }
    return out;
}

void NetworkWatch::look() {
    timer_ = 0;
    if (!ctx_.started) return;
    std::vector<net::SocketAddress> now = hostAddresses();
    std::sort(now.begin(), now.end());
    const int64_t loopMs = ctx_.loop->nowNs() / 1'000'000;
    // On a manual clock (tests) real time passes while the loop's stands
    // still: only a wall clock the test drives tells a sleep there.
    const bool watchSleep = ctx_.loop->clock().isReal() || ctx_.config.wallClockMs;
    const int64_t wallMs = ctx_.config.wallClockMs
                               ? ctx_.config.wallClockMs()
                               : std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count();
    const bool changed = looked_ && now != ctx_.hostAddresses;
    // The loop's clock stands still while the host sleeps; the wall clock does not.
    const int64_t slept = looked_ && watchSleep ? (wallMs - lastWallMs_) - (loopMs - lastLoopMs_) : 0;
    if (changed) log::info(kTag, "host addresses now: " + listed(now));
    ctx_.hostAddresses = std::move(now);
    looked_ = true;
    lastLoopMs_ = loopMs;
    lastWallMs_ = wallMs;
    const bool resumed = slept > kResumeSlackMs;
    if (resumed) log::info(kTag, "resumed after about " + std::to_string(slept / 1000) + " s asleep");
    if (resumed || (changed && (lines_.addressMoved() || calls_.addressMoved()))) {
        log::info(kTag, "network changed: registering again and re-offering calls");
        lines_.networkChanged();
        calls_.networkChanged();
    }
    timer_ = ctx_.loop->schedule(ctx_.config.networkPollMs, [this] { look(); });
}

}  // namespace kelsip
