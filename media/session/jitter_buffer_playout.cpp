// The playout buffer's playing side: decoding in order, concealment and fades, time-scale changes.
#include <algorithm>
#include <cmath>

#include "media/session/jitter_buffer_impl.h"

namespace kelsip {

void JitterBuffer::Impl::render(std::span<int16_t> out) {
    const size_t count = out.size();
    stats.samplesPlayed += count;
    if (!codec || !started) {
        std::fill(out.begin(), out.end(), int16_t{0});
        playing = true;
        played += static_cast<int64_t>(count);
        return;
    }
    if (!playing) {
        // Packets that came before the sound device started are stale but
        // for the last few.
        playing = true;
        if (!packets.empty()) skipTo(packets.back().timestamp - initialDelay);
    }
    capDelay();
    const int64_t change = planAdjustment(count);
    if (change != 0) {
        adjustInto(out.data(), count, change);
    } else {
        produce(out.data(), count);
    }
    played += static_cast<int64_t>(count);
}

bool JitterBuffer::Impl::decodeNext() {
    while (!packets.empty() && packets.front().timestamp < decodedEnd) {
        ++stats.late;  // overlaps what was already played: a sender that repacketised
        recycleFront();
    }
    if (packets.empty() || packets.front().timestamp != decodedEnd) return false;
    if (decodedPos > 0) {
        decoded.erase(decoded.begin(), decoded.begin() + static_cast<ptrdiff_t>(decodedPos));
        decodedPos = 0;
    }
    Packet& p = packets.front();
    const size_t before = decoded.size();
    if (!codec->decode(p.payload.data(), p.payload.size(), decoded)) decoded.resize(before);
    // The timeline places the packet by its announced length, whatever came out.
    decoded.resize(before + p.samples, 0);
    decodedEnd += static_cast<int64_t>(p.samples);
    recycleFront();
    return true;
}

size_t JitterBuffer::Impl::decodeAhead(size_t wanted) {
    while (decoded.size() - decodedPos < wanted && decodeNext()) {
    }
    return decoded.size() - decodedPos;
}

// Moves the head forward to `timestamp` or to the start of the packet that
// holds it, dropping what lies before: only whole packets, so the codec can
// blend the join.
void JitterBuffer::Impl::skipTo(int64_t timestamp) {
    if (timestamp <= head || decodedPos < decoded.size()) return;
    while (!packets.empty() && packets.front().timestamp < timestamp) {
        const Packet& p = packets.front();
        if (p.timestamp + static_cast<int64_t>(p.samples) > timestamp) {
            timestamp = p.timestamp;
            break;
        }
        stats.samplesDropped += p.samples;
        recycleFront();
    }
    head = decodedEnd = std::max(decodedEnd, timestamp);
}

// Beyond the configured maximum the delay is cut at once, down to the target.
void JitterBuffer::Impl::capDelay() {
    if (!lateness.ready() || decodedPos < decoded.size()) return;
    const double over = excess();
    if (lateness.target() + over <= static_cast<double>(samplesOf(config.maxDelayMs))) return;
    const int64_t before = head;
    skipTo(head + static_cast<int64_t>(over));
    if (head != before && playedAudio && lossRun == 0) bridge = bridgeLength;
}

// Samples to remove (positive) or insert (negative) in this piece.
int64_t JitterBuffer::Impl::planAdjustment(size_t count) {
    if (!lateness.ready() || !playedAudio || lossRun > 0 || bridge > 0) {
        adjustment = Adjustment::None;
        return 0;
    }
    const double over = excess();
    switch (adjustment) {
        case Adjustment::None:
            if (over > shortenFrom) {
                adjustment = Adjustment::Shorten;
            } else if (over < 0) {
                adjustment = Adjustment::Lengthen;
            }
            break;
        case Adjustment::Shorten:
            if (over <= settled) adjustment = Adjustment::None;
            break;
        case Adjustment::Lengthen:
            if (over >= settled) adjustment = Adjustment::None;
            break;
    }
    if (adjustment == Adjustment::None) {
        adjustCredit = 0;
        return 0;
    }
    const size_t most = count / (kStretchSpan + 1);
    if (most == 0 || decodeAhead(count + most) < count) return 0;
    const size_t available = decoded.size() - decodedPos;
    const double magnitude = meanMagnitude(decoded.data() + decodedPos, count);
    const bool quiet = magnitude < kQuietFloor || magnitude * 8 < level;
    adjustCredit = std::min(adjustCredit + static_cast<double>(count) * (quiet ? kQuietRate : kLoudRate), 4.0);
    size_t change = std::min({static_cast<size_t>(adjustCredit), most, static_cast<size_t>(std::abs(over)) + 1});
    if (adjustment == Adjustment::Shorten) change = std::min(change, available - count);
    if (change == 0) return 0;
    adjustCredit -= static_cast<double>(change);
    const auto signedChange = static_cast<int64_t>(change);
    return adjustment == Adjustment::Shorten ? signedChange : -signedChange;
}

// Plays `count + change` decoded samples in `count` (or fewer in more): the
// change is spread over a short stretch, placed where the piece is quietest,
// and resampled by linear interpolation between its unchanged ends.
void JitterBuffer::Impl::adjustInto(int16_t* out, size_t count, int64_t change) {
    const size_t steps = static_cast<size_t>(std::abs(change));
    const size_t source = change > 0 ? count + steps : count - steps;
    const size_t spanOut = kStretchSpan * steps;
    const size_t spanIn = change > 0 ? spanOut + steps : spanOut - steps;
    const int16_t* in = decoded.data() + decodedPos;

    size_t best = 0;
    double sum = 0;
    for (size_t i = 0; i < spanIn; ++i) sum += std::abs(static_cast<double>(in[i]));
    double bestSum = sum;
    for (size_t start = 1; start + spanIn <= source; ++start) {
        sum += std::abs(static_cast<double>(in[start + spanIn - 1])) - std::abs(static_cast<double>(in[start - 1]));
        if (sum < bestSum) {
            bestSum = sum;
            best = start;
        }
    }
    std::copy(in, in + best, out);
    const double step = static_cast<double>(spanIn - 1) / static_cast<double>(spanOut - 1);
    for (size_t j = 0; j < spanOut; ++j) {
        const double at = static_cast<double>(j) * step;
        const auto i = std::min(static_cast<size_t>(at), spanIn - 2);
        const double frac = at - static_cast<double>(i);
        out[best + j] = toSample(in[best + i] * (1 - frac) + in[best + i + 1] * frac);
    }
    std::copy(in + best + spanIn, in + source, out + best + spanOut);

    fadeIn(out, count);
    level += (meanMagnitude(out, count) - level) / 32;
    decodedPos += source;
    head += static_cast<int64_t>(source);
    if (change > 0) {
        stats.samplesDropped += steps;
    } else {
        stats.samplesStretched += steps;
    }
}

void JitterBuffer::Impl::produce(int16_t* out, size_t count) {
    size_t done = 0;
    while (done < count) {
        const size_t left = count - done;
        if (decodedPos < decoded.size()) {
            const size_t n = std::min(left, decoded.size() - decodedPos);
            emitDecoded(out + done, n);
            done += n;
            continue;
        }
        if (bridge > 0) {
            const size_t n = std::min(left, bridge);
            concealInto(out + done, n);
            bridge -= n;
            done += n;
            continue;
        }
        if (decodeNext()) continue;
        if (packets.empty()) {
            // Underrun: the packet is probably late. Conceal without moving
            // the head, so the delay grows to what the network needs.
            concealInto(out + done, left);
            return;
        }
        // A gap with later audio waiting: the missing packet is lost.
        int64_t gap = packets.front().timestamp - decodedEnd;
        if (playedAudio && lossRun == 0) {
            // Conceal only as much of it as the target wants kept.
            const double over = excess();
            if (over > shortenFrom) {
                const int64_t skip = std::clamp(static_cast<int64_t>(over), int64_t{0},
                                                std::max<int64_t>(gap - static_cast<int64_t>(bridgeLength), 0));
                head += skip;
                decodedEnd += skip;
                gap -= skip;
            }
        }
        const size_t n = std::min(left, static_cast<size_t>(gap));
        concealInto(out + done, n);
        head += static_cast<int64_t>(n);
        decodedEnd += static_cast<int64_t>(n);
        done += n;
    }
}

void JitterBuffer::Impl::emitDecoded(int16_t* out, size_t count) {
    std::copy_n(decoded.data() + decodedPos, count, out);
    fadeIn(out, count);
    level += (meanMagnitude(out, count) - level) / 32;
    decodedPos += count;
    head += static_cast<int64_t>(count);
    lossRun = 0;
    playedAudio = true;
}

void JitterBuffer::Impl::concealInto(int16_t* out, size_t count) {
    if (!playedAudio) {
        std::fill_n(out, count, int16_t{0});  // before the stream's first sample: plain silence
        return;
    }
    if (lossRun == 0) {
        lossFrom = decodedEnd;
        runConcealed = 0;
    }
    scratch.clear();
    codec->conceal(count, scratch);
    scratch.resize(count, 0);
    for (size_t i = 0; i < count; ++i) out[i] = toSample(scratch[i] * lossGain(lossRun + i));
    gain = lossGain(lossRun + count - 1);
    lossRun += count;
    if (inEvent(decodedEnd)) return;  // the sender left this gap for a digit
    stats.samplesConcealed += count;
    runConcealed += count;
}

void JitterBuffer::Impl::fadeIn(int16_t* samples, size_t count) {
    for (size_t i = 0; i < count && gain < 1; ++i) {
        gain = std::min(1.0, gain + kFadeInStep);
        samples[i] = toSample(samples[i] * gain);
    }
}

// Full level for the first 10 ms of a loss, then a straight fade to silence
// at 60 ms: repeating a sound longer than that is worse than silence.
double JitterBuffer::Impl::lossGain(size_t position) const {
    const auto p = static_cast<int64_t>(position);
    if (p < fullLevelFor) return 1;
    if (p >= silentFrom) return 0;
    return 1 - static_cast<double>(p - fullLevelFor) / static_cast<double>(silentFrom - fullLevelFor);
}

}  // namespace kelsip
