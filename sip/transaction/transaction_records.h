// The records the transaction layer keeps per client and server transaction.
#pragma once

#include <string>

#include "sip/transaction/transaction.h"

namespace kelsip {

struct SipTransactionLayer::Client {
    SipMessage request;
    std::string text;
    SipTarget target;
    ResponseCallback callback;
    TransactionState state = TransactionState::Trying;
    bool invite = false;
    int64_t interval = 0;
    EventLoop::TimerId retransmitTimer = 0;
    EventLoop::TimerId timeoutTimer = 0;
    std::string ackText;  // the ACK of a non-2xx final, sent again for its retransmissions
};

// A server transaction keeps no copy of its request: only where to answer
// and its last response, so that its memory is that of our own answer.
struct SipTransactionLayer::Server {
    SipTarget replyTo;
    TransactionState state = TransactionState::Trying;
    bool invite = false;
    std::string lastResponse;
    int lastStatus = 0;
    int64_t interval = 0;
    EventLoop::TimerId retransmitTimer = 0;
    EventLoop::TimerId noAckTimer = 0;
};

}  // namespace kelsip
