// RFC 4733 event payloads, the DTMF sender's schedule and the receiver's
// duplicate suppression.
#include "media/session/telephone_event.h"

#include <algorithm>
#include <string_view>

#include "media/rtp/wire_bytes.h"

namespace kelsip {

namespace {
constexpr std::string_view kDigits = "0123456789*#ABCD";
}  // namespace

std::optional<TelephoneEvent> TelephoneEvent::parse(std::span<const uint8_t> payload) {
    // Several 4-byte blocks (RFC 4733 redundancy) are legal; the first is
    // the current event.
    if (payload.size() < 4) return std::nullopt;
    TelephoneEvent e;
    e.event = payload[0];
    e.end = (payload[1] & 0x80) != 0;
    e.volume = payload[1] & 0x3f;
    e.duration = wire::get16(payload, 2);
    return e;
}

void TelephoneEvent::writeTo(std::vector<uint8_t>& out) const {
    wire::put8(out, event);
    wire::put8(out, (end ? 0x80u : 0u) | (volume & 0x3fu));
    wire::put16(out, duration);
}

std::optional<uint8_t> dtmfEventCode(char digit) {
    const char upper = (digit >= 'a' && digit <= 'd') ? static_cast<char>(digit - 'a' + 'A') : digit;
    const auto at = kDigits.find(upper);
    if (at == std::string_view::npos || digit == '\0') return std::nullopt;
    return static_cast<uint8_t>(at);
}

std::optional<char> dtmfDigit(uint8_t event) {
    if (event >= kDigits.size()) return std::nullopt;
    return kDigits[event];
}

TelephoneEventSender::TelephoneEventSender() : timing_(Timing{}) {}

bool TelephoneEventSender::enqueue(char digit, uint32_t durationMs) {
    const auto code = dtmfEventCode(digit);
    if (!code) return false;
    // 40 ms is the shortest tone receivers must detect; past 8 s the duration
    // field would need segments.
    queue_.push_back({*code, samples(std::clamp<uint32_t>(durationMs, 40, 8000))});
    return true;
}

void TelephoneEventSender::clear() {
    queue_.clear();
    active_.reset();
    gapLeft_ = 0;
}

void TelephoneEventSender::emitDue(uint32_t end, std::vector<Packet>& out) {
    Active& a = *active_;
    const uint32_t step = samples(timing_.updateMs);
    while (a.endsSent < 3 && a.next < end) {
        Packet p;
        p.timestamp = a.start;
        p.event.event = a.code;
        if (a.next < a.length) {
            // The start goes out at the end of the first interval, so it
            // already covers that much of the tone.
            p.marker = a.next == 0;
            p.event.duration = static_cast<uint16_t>(a.next == 0 ? std::min(interval(), a.length) : a.next);
            a.next = a.next == 0 ? step : a.next + step;
            if (a.next > a.length) a.next = a.length;
        } else {
            p.event.end = true;
            p.event.duration = static_cast<uint16_t>(std::min<uint32_t>(a.length, 0xffff));
            ++a.endsSent;
            a.next += interval();
        }
        out.push_back(p);
    }
}

bool TelephoneEventSender::advance(uint32_t position, std::vector<Packet>& out) {
    const uint32_t span = interval();
    if (!active_) {
        if (queue_.empty()) {
            gapLeft_ = 0;
            return false;
        }
        if (gapLeft_ > 0) {
            gapLeft_ = gapLeft_ > span ? gapLeft_ - span : 0;
            return false;  // audio may fill the gap between digits
        }
        active_ = Active{queue_.front().code, position, queue_.front().length, 0, 0};
        queue_.pop_front();
    }
    emitDue(position - active_->start + span, out);
    if (active_->endsSent == 3) {
        active_.reset();
        gapLeft_ = samples(timing_.gapMs);
    }
    return true;
}

std::optional<char> TelephoneEventReceiver::onPacket(uint32_t ssrc, uint32_t timestamp, bool marker,
                                                     const TelephoneEvent& event) {
    const auto digit = dtmfDigit(event.event);
    if (last_ && last_->ssrc == ssrc && last_->timestamp == timestamp) {
        last_->ended = last_->ended || event.end;
        return std::nullopt;  // an update, a repeat or an end of a known event
    }
    // A long event goes on in a new segment: new timestamp, same code, no
    // marker, while the previous segment never ended.
    const bool continuation = last_ && last_->ssrc == ssrc && !last_->ended && !marker &&
                              last_->code == event.event &&
                              static_cast<int32_t>(timestamp - last_->timestamp) > 0;
    // A stale packet of an event already reported (reordered behind a newer one).
    const bool stale = last_ && last_->ssrc == ssrc && static_cast<int32_t>(timestamp - last_->timestamp) < 0;
    if (stale) return std::nullopt;
    last_ = Last{ssrc, timestamp, event.event, event.end};
    if (continuation) return std::nullopt;
    return digit;
}

}  // namespace kelsip
