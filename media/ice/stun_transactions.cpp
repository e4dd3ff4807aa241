// STUN client transactions: resends on a doubling timer, matching responses.
#include "media/ice/stun_transactions.h"

#include <utility>

namespace kelsip::ice {

void StunTransactions::start(const stun::TransactionId& id, std::vector<uint8_t> bytes, Transmit transmit, Done done,
                             int64_t nowUs, const StunRetransmitOptions& options) {
    Live live{std::move(bytes), std::move(transmit), std::move(done), options, 1, options.rtoUs, 0};
    live.dueUs = nowUs + (options.maxSends > 1 ? live.waitUs : options.rtoUs * options.lastWaitRto);
    auto& slot = live_[id] = std::move(live);
    // The transmit may land in a test network that answers at once: the
    // entry exists before the first send so the answer finds it.
    const Transmit send = slot.transmit;
    const std::vector<uint8_t> wire = slot.bytes;
    send(wire);
}

bool StunTransactions::onResponse(const stun::Message& response, std::span<const uint8_t> raw) {
    if (response.messageClass != stun::Class::Success && response.messageClass != stun::Class::Error) return false;
    const auto it = live_.find(response.transaction);
    if (it == live_.end()) return false;
    Done done = std::move(it->second.done);
    live_.erase(it);
    done(&response, raw);
    return true;
}

void StunTransactions::tick(int64_t nowUs) {
    std::vector<stun::TransactionId> due;
    for (const auto& [id, live] : live_) {
        if (live.dueUs <= nowUs) due.push_back(id);
    }
    for (const auto& id : due) {
        const auto it = live_.find(id);
        if (it == live_.end()) continue;  // ended by an earlier callback
        Live& live = it->second;
        if (live.sends >= live.options.maxSends) {
            Done done = std::move(live.done);
            live_.erase(it);
            done(nullptr, {});
            continue;
        }
        ++live.sends;
        live.waitUs *= 2;
        // Timed from when the send was due, not when the tick came, so a
        // late tick does not stretch the schedule.
        const int64_t sentAt = live.dueUs;
        live.dueUs = sentAt + (live.sends < live.options.maxSends ? live.waitUs
                                                                  : live.options.rtoUs * live.options.lastWaitRto);
        const Transmit send = live.transmit;
        const std::vector<uint8_t> wire = live.bytes;
        send(wire);
    }
}

void StunTransactions::cancel(const stun::TransactionId& id) { live_.erase(id); }

void StunTransactions::clear() {
    auto ended = std::move(live_);
    live_.clear();
    for (auto& [id, live] : ended) live.done(nullptr, {});
}

}  // namespace kelsip::ice
