// STUN client transactions over UDP (RFC 8489 6.2.1): a request resent at
// RTO, 2 RTO, 4 RTO... up to Rc sends, then given up Rm x RTO after the
// last one; a response ends its transaction by the transaction id.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <vector>

#include "sip/net/stun_message.h"

namespace kelsip::ice {

struct StunRetransmitOptions {
    int64_t rtoUs = 500000;  // RTO: the first wait, doubled after each send
    int maxSends = 7;        // Rc
    int lastWaitRto = 16;    // Rm: the wait after the last send, in RTOs
};

// Not thread-safe: one owner drives it (the agent on its worker thread).
class StunTransactions {
public:
    // Puts the request's bytes on the wire (again).
    using Transmit = std::function<void(std::span<const uint8_t> bytes)>;
    // The response, or null when the transaction timed out or was cancelled
    // by `clear`; `raw` is the datagram (for integrity checks), empty then.
    using Done = std::function<void(const stun::Message* response, std::span<const uint8_t> raw)>;

    StunTransactions() = default;
    StunTransactions(const StunTransactions&) = delete;
    StunTransactions& operator=(const StunTransactions&) = delete;

    // Sends `request` (already encoded as `bytes`) now and owns its resends.
    void start(const stun::TransactionId& id, std::vector<uint8_t> bytes, Transmit transmit, Done done,
               int64_t nowUs, const StunRetransmitOptions& options = {});
    // True when `response` ended one of ours (its callback has run).
    bool onResponse(const stun::Message& response, std::span<const uint8_t> raw);
    // Resends what is due and fails what has run out of time.
    void tick(int64_t nowUs);
    // Forgets a transaction without calling it back.
    void cancel(const stun::TransactionId& id);
    // Ends every transaction with a null response.
    void clear();
    [[nodiscard]] bool pending(const stun::TransactionId& id) const { return live_.count(id) != 0; }
    [[nodiscard]] size_t size() const { return live_.size(); }

private:
    struct Live {
        std::vector<uint8_t> bytes;
        Transmit transmit;
        Done done;
        StunRetransmitOptions options;
        int sends = 0;
        int64_t waitUs = 0;  // the current interval
        int64_t dueUs = 0;   // the next send, or the give-up time after the last one
    };
    std::map<stun::TransactionId, Live> live_;
};

}  // namespace kelsip::ice
