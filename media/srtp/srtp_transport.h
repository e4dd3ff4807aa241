// SRTP around a call's media transport: what the media session sends is
// protected on the way out, what arrives is checked and decrypted before the
// session hears of it.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "media/rtp/media_transport.h"
#include "media/srtp/sdes.h"

namespace kelsip {

struct SrtpTransportStats {
    uint64_t sent = 0;
    uint64_t received = 0;
    // Refused arrivals: a wrong tag or MKI, a replay, a datagram too short.
    uint64_t unauthentic = 0;
    uint64_t replayed = 0;
    uint64_t malformed = 0;
};

class SrtpTransport final : public MediaTransport, private MediaTransport::Sink {
public:
    // `local` keys what we send, `remote` what the peer sends. Null when the
    // build has no cipher provider; `error` then says so.
    [[nodiscard]] static std::unique_ptr<SrtpTransport> create(std::unique_ptr<MediaTransport> inner,
                                                               const srtp::CryptoAttribute& local,
                                                               const srtp::CryptoAttribute& remote, int call,
                                                               std::string* error = nullptr);
    ~SrtpTransport() override;

    // The peer's new key (a re-offer that changed it); false without a cipher.
    [[nodiscard]] bool setRemoteKey(const srtp::CryptoAttribute& remote);
    [[nodiscard]] SrtpTransportStats stats() const;
    [[nodiscard]] MediaTransport& inner() { return *inner_; }

    // MediaTransport.
    bool send(Channel channel, std::span<const uint8_t> bytes) override;
    void attach(MediaTransport::Sink* sink) override;
    void detach() override;
    [[nodiscard]] bool hasRtcp() const override;
    void close(std::span<const uint8_t> finalRtcp) override;

private:
    SrtpTransport(std::unique_ptr<MediaTransport> inner, std::unique_ptr<srtp::Context> out,
                  std::unique_ptr<srtp::Context> in, int call);
    // MediaTransport::Sink, on the inner transport's thread.
    bool authentic(Channel channel, std::span<const uint8_t> bytes) override;
    void onPacket(Channel channel, std::span<const uint8_t> bytes, int64_t arrivalUs) override;
    // Unprotects into receiveBuffer_, counting and logging a refusal. Under receiveMutex_.
    [[nodiscard]] bool unprotect(Channel channel, std::span<const uint8_t> bytes);
    void onTick(int64_t nowUs) override;
    void refuse(srtp::Status status);

    std::unique_ptr<MediaTransport> inner_;
    const int call_;
    // Sending may come from the audio thread and the RTP worker (RTCP) at once.
    std::mutex sendMutex_;
    std::unique_ptr<srtp::Context> out_;
    std::vector<uint8_t> sendBuffer_;
    std::mutex receiveMutex_;
    std::unique_ptr<srtp::Context> in_;
    std::vector<uint8_t> receiveBuffer_;
    bool burstLogged_ = false;  // a refused packet was logged since the last good one
    // The datagram `authentic` last judged, and its verdict, for the
    // `onPacket` that follows it.
    const uint8_t* checkedData_ = nullptr;
    size_t checkedSize_ = 0;
    bool checkedOk_ = false;
    MediaTransport::Sink* sink_ = nullptr;

    std::atomic<uint64_t> sent_{0};
    std::atomic<uint64_t> received_{0};
    std::atomic<uint64_t> unauthentic_{0};
    std::atomic<uint64_t> replayed_{0};
    std::atomic<uint64_t> malformed_{0};
};

}  // namespace kelsip
