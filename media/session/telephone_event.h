// RFC 4733 telephone events for DTMF: the 4-byte payload, the digit codes,
// the sender's packet schedule and the receiver's one-report-per-event rule.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

namespace kelsip {

struct TelephoneEvent {
    uint8_t event = 0;  // 0-9, 10 '*', 11 '#', 12-15 'A'-'D'
    bool end = false;
    uint8_t volume = 10;     // -dBm0, 0..63
    uint16_t duration = 0;   // timestamp units since the event's start

    friend bool operator==(const TelephoneEvent&, const TelephoneEvent&) = default;

    [[nodiscard]] static std::optional<TelephoneEvent> parse(std::span<const uint8_t> payload);
    void writeTo(std::vector<uint8_t>& out) const;
};

// '0'-'9', '*', '#', 'A'-'D' (either case) to the event code and back.
[[nodiscard]] std::optional<uint8_t> dtmfEventCode(char digit);
[[nodiscard]] std::optional<char> dtmfDigit(uint8_t event);

// What the sender puts on the wire for queued digits, on the packet grid of
// the audio stream: the start packet (marker set), an update every 50 ms of
// event time, then the end packet three times, one packet time apart, all
// with the event's starting timestamp. A packet goes out at the end of the
// packet interval it falls in, so its duration field never runs ahead of
// the tone. Audio is held back while an event owns the stream, and the next
// digit waits a gap after the last end packet.
class TelephoneEventSender {
public:
    struct Timing {
        uint32_t clockRate = 8000;
        uint32_t ptimeMs = 20;
        uint32_t updateMs = 50;
        uint32_t gapMs = 40;  // between two digits, after the last end packet
    };

    struct Packet {
        uint32_t timestamp = 0;  // RTP timestamp: the event's start
        bool marker = false;
        TelephoneEvent event;
    };

    TelephoneEventSender();
    explicit TelephoneEventSender(Timing timing) : timing_(timing) {}

    // Queues a digit of `durationMs` (clamped to 40..8000 ms); false for a
    // character that is not a DTMF digit.
    [[nodiscard]] bool enqueue(char digit, uint32_t durationMs);
    [[nodiscard]] bool idle() const { return !active_ && queue_.empty(); }

    // One packet interval of the stream, starting at timestamp `position`:
    // appends the event packets due in it and says whether the events own
    // the interval (then no audio packet goes out for it).
    [[nodiscard]] bool advance(uint32_t position, std::vector<Packet>& out);
    void clear();

private:
    struct Active {
        uint8_t code = 0;
        uint32_t start = 0;   // timestamp of the event
        uint32_t length = 0;  // samples the tone lasts
        uint32_t next = 0;    // offset from start of the next packet due
        int endsSent = 0;
    };
    struct Queued {
        uint8_t code = 0;
        uint32_t length = 0;
    };

    [[nodiscard]] uint32_t samples(uint32_t ms) const { return ms * (timing_.clockRate / 1000); }
    [[nodiscard]] uint32_t interval() const { return samples(timing_.ptimeMs); }
    void emitDue(uint32_t end, std::vector<Packet>& out);

    Timing timing_;
    std::deque<Queued> queue_;
    std::optional<Active> active_;
    uint32_t gapLeft_ = 0;  // samples before the next queued digit may start
};

// Reports each event once, on whichever of its packets arrives first; end
// repeats and updates are swallowed, and so is the continuation of a long
// event that RFC 4733 splits into segments with new timestamps.
class TelephoneEventReceiver {
public:
    // The digit to report for this packet, if it opens a new event.
    [[nodiscard]] std::optional<char> onPacket(uint32_t ssrc, uint32_t timestamp, bool marker,
                                               const TelephoneEvent& event);
    void reset() { last_.reset(); }

private:
    struct Last {
        uint32_t ssrc = 0;
        uint32_t timestamp = 0;
        uint8_t code = 0;
        bool ended = false;
    };
    std::optional<Last> last_;
};

}  // namespace kelsip
