// The playout buffer's packet store: arrivals unwrapped, duplicates and late ones told, kept in order.
#include <algorithm>
#include <limits>

#include "media/session/jitter_buffer_impl.h"

namespace kelsip {

void JitterBuffer::Impl::push(uint16_t sequence, uint32_t timestamp, std::span<const uint8_t> payload,
                              int64_t arrivalUs) {
    ++stats.packetsPushed;
    if (!codec || payload.empty()) return;
    const size_t samples = codec->sampleCount(payload.data(), payload.size());
    if (samples == 0) return;

    int64_t ts = timestamp;
    if (!started) {
        started = true;
        head = decodedEnd = ts - initialDelay;
    } else {
        ts = latestTimestamp + static_cast<int32_t>(timestamp - static_cast<uint32_t>(latestTimestamp));
    }
    latestTimestamp = ts;
    if (eventKnown && ts > eventFrom) eventTo = std::min(eventTo, ts);
    if (isDuplicate(sequence, ts)) {
        ++stats.duplicates;
        return;
    }

    // Arrivals while the playout clock stood still (a sound device not yet
    // started or stalled) say nothing about lateness.
    if (played != playedAtLastPush) {
        playedAtLastPush = played;
        playedMovedUs = arrivalUs;
    }
    if (playing && arrivalUs - playedMovedUs <= kStallUs) {
        const auto verdict = lateness.add(played, ts - played);
        if (verdict == LatenessWindow::Verdict::NewTimeline && ts < decodedEnd) restartAt(ts);
    }
    if (!playedAudio && ts < decodedEnd && ts >= decodedEnd - initialDelay && decodedPos == decoded.size()) {
        head = decodedEnd = ts;  // nothing played yet: start from the earliest packet
    }
    if (ts < decodedEnd) {
        ++stats.late;
        rememberSequence(sequence);
        return;
    }
    store(sequence, ts, samples, payload);
    skipAfterUnderrun(ts);
}

void JitterBuffer::Impl::pushEvent(uint32_t timestamp) {
    if (!started) return;
    const int64_t ts = unwrap(timestamp);
    if (eventKnown && ts <= eventFrom) return;  // the same event again, or an old one
    eventKnown = true;
    eventFrom = ts;
    eventTo = std::numeric_limits<int64_t>::max();
    // The event's first packet comes a packet time after the audio stopped:
    // a run that began where the event did was the event's, not a loss.
    if (lossRun > 0 && lossFrom >= eventFrom) {
        stats.samplesConcealed -= runConcealed;
        runConcealed = 0;
    }
}

bool JitterBuffer::Impl::isDuplicate(uint16_t sequence, int64_t timestamp) const {
    if (std::find(recent.begin(), recent.begin() + static_cast<ptrdiff_t>(recentCount), sequence) !=
        recent.begin() + static_cast<ptrdiff_t>(recentCount)) {
        return true;
    }
    return std::any_of(packets.begin(), packets.end(),
                       [&](const Packet& p) { return p.sequence == sequence || p.timestamp == timestamp; });
}

void JitterBuffer::Impl::rememberSequence(uint16_t sequence) {
    recent[recentNext] = sequence;
    recentNext = (recentNext + 1) % recent.size();
    recentCount = std::min(recentCount + 1, recent.size());
}

void JitterBuffer::Impl::store(uint16_t sequence, int64_t timestamp, size_t samples,
                               std::span<const uint8_t> payload) {
    if (packets.size() >= kMaxPackets) {
        // Only a sender far ahead of playout fills this; keep the earlier audio.
        if (packets.back().timestamp < timestamp) {
            stats.samplesDropped += samples;
            return;
        }
        stats.samplesDropped += packets.back().samples;
        spare.push_back(std::move(packets.back().payload));
        packets.pop_back();
    }
    std::vector<uint8_t> bytes;
    if (!spare.empty()) {
        bytes = std::move(spare.back());
        spare.pop_back();
    }
    bytes.assign(payload.begin(), payload.end());
    const auto at = std::upper_bound(packets.begin(), packets.end(), timestamp,
                                     [](int64_t t, const Packet& p) { return t < p.timestamp; });
    packets.insert(at, Packet{timestamp, samples, sequence, std::move(bytes)});
}

void JitterBuffer::Impl::recycleFront() {
    rememberSequence(packets.front().sequence);
    spare.push_back(std::move(packets.front().payload));
    packets.erase(packets.begin());
}

// The head held still while the packet it needed was missing, so the delay
// grew by the wait. When the next packet comes and the wait was more than
// the target asks, playout jumps to it: it is concealing anyway, so the jump
// is not heard, and a talkspurt after silence leaves no delay behind.
void JitterBuffer::Impl::skipAfterUnderrun(int64_t timestamp) {
    if (!playedAudio || lossRun == 0 || decodedPos < decoded.size()) return;
    if (packets.front().timestamp != timestamp || timestamp <= decodedEnd) return;
    const double over = excess();
    if (over <= shortenFrom) return;
    const int64_t skip = std::min(timestamp - decodedEnd, static_cast<int64_t>(over));
    head += skip;
    decodedEnd += skip;
}

// The sender's timestamps went back: what is held belongs to the old timeline.
void JitterBuffer::Impl::restartAt(int64_t timestamp) {
    stats.samplesDropped += decoded.size() - decodedPos;
    decoded.clear();
    decodedPos = 0;
    while (!packets.empty()) {
        stats.samplesDropped += packets.front().samples;
        recycleFront();
    }
    head = decodedEnd = std::min(timestamp, played + static_cast<int64_t>(std::llround(lateness.headOffset())));
    if (playedAudio && lossRun == 0) bridge = bridgeLength;
}

}  // namespace kelsip
