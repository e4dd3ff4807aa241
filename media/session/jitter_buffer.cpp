// The adaptive playout buffer: packets placed by timestamp and decoded in play
// order, loss concealed and faded, and the delay steered towards what the
// lateness of recent packets asks for by small time-scale changes.
#include "media/session/jitter_buffer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>
#include <vector>

namespace kelsip {

namespace {

// Counts are in samples of the RTP clock unless a name says otherwise.

constexpr size_t kMaxPackets = 128;       // held at once; the delay cap keeps far fewer
constexpr size_t kRecentSequences = 64;   // played or dropped, for telling duplicates
constexpr size_t kChunk = 160;            // a pull is rendered in pieces of at most this
constexpr size_t kReserve = 4096;         // decode and concealment room that steady play never outgrows
constexpr double kLateFraction = 0.01;    // of recent packets, how many may come too late
constexpr double kShrinkSeconds = 3;      // time constant of the target's fall
constexpr double kLoudRate = 1.0 / 50;    // time-scale change while the audio is loud...
constexpr double kQuietRate = 1.0 / 16;   // ...and while it is quiet
constexpr size_t kStretchSpan = 24;       // output samples over which one sample is added or removed
constexpr double kQuietFloor = 64;        // mean magnitude below which audio counts as quiet anyway
constexpr double kFadeInStep = 1.0 / 64;  // gain regained per sample after a faded loss
constexpr int64_t kStallUs = 100000;      // arrivals while the playout clock stood still this long are not judged

JitterBufferConfig sane(JitterBufferConfig config) {
    if (config.clockRate == 0) config.clockRate = 8000;
    config.maxDelayMs = std::max(config.maxDelayMs, config.minDelayMs);
    return config;
}

int64_t samplesIn(const JitterBufferConfig& config, double ms) {
    return static_cast<int64_t>(std::llround(ms * config.clockRate / 1000.0));
}

int16_t toSample(double value) {
    return static_cast<int16_t>(std::clamp(std::lround(value), -32768L, 32767L));
}

double meanMagnitude(const int16_t* samples, size_t count) {
    double sum = 0;
    for (size_t i = 0; i < count; ++i) sum += std::abs(static_cast<double>(samples[i]));
    return count ? sum / static_cast<double>(count) : 0;
}

// The lateness of recent packets and the delay it asks for. Lateness is
// judged on the playout clock, the count of samples handed out, with
// v = timestamp - played at arrival: a packet is in time when its v is at
// least head - played, whatever the network, the pull size or the sound
// device's own rate did to it. So head - played is kept at a low quantile of
// recent v, less a small safety. v does not depend on where the buffer put
// its head, so the window stays valid across the buffer's own corrections;
// the drift of the sender's clock against the playout clock is fitted and
// taken out before the quantile is read.
class LatenessWindow {
public:
    enum class Verdict : uint8_t { InLine, Stray, NewTimeline };

    struct Limits {
        double minDelay;
        double maxDelay;
        double safety;      // kept between the head and the latest packet we aim to catch
        int64_t horizon;    // how far back the window reaches
        int64_t second;     // also the span of one drift-fit point
        double jumpAhead;   // earlier than the envelope by this: the timestamps jumped
        double jumpBehind;  // later by this: too late for any delay we would keep
    };

    explicit LatenessWindow(const Limits& limits) : limits_(limits) { reset(); }

    void reset() {
        clearWindow();
        slope_ = 0;
        target_ = limits_.minDelay;
        haveTarget_ = false;
    }

    // One arrival. A jump of the sender's timeline empties the window; a lone
    // packet far behind it is left out (one stray does not move the target).
    Verdict add(int64_t played, int64_t v) {
        Verdict verdict = Verdict::InLine;
        if (const auto [envelope, count] = project(played); count > 0) {
            const double x = static_cast<double>(v);
            if (x > envelope + limits_.jumpAhead) {
                verdict = Verdict::NewTimeline;
            } else if (x < envelope - limits_.jumpBehind) {
                if (!stray_ || std::abs(x - strayV_) > limits_.jumpAhead) {
                    stray_ = true;
                    strayV_ = x;
                    return Verdict::Stray;
                }
                verdict = Verdict::NewTimeline;
            }
            if (verdict == Verdict::NewTimeline) clearWindow();
        }
        stray_ = false;
        if (count_ == window_.size()) {
            first_ = (first_ + 1) % window_.size();
            --count_;
        }
        window_[(first_ + count_) % window_.size()] = {played, v};
        ++count_;
        addToBucket(played, v);
        update(played);
        return verdict;
    }

    [[nodiscard]] bool ready() const { return count_ > 0; }
    [[nodiscard]] double target() const { return target_; }
    // Where head - played should stand.
    [[nodiscard]] double headOffset() const { return headOffset_; }

private:
    struct Sample {
        int64_t played;
        int64_t v;
    };
    struct Bucket {
        int64_t index;
        int64_t played;
        int64_t v;  // the bucket's highest: its packet that waited least in the network
    };

    void clearWindow() {
        first_ = count_ = 0;
        bucketCount_ = 0;
        bucketOpen_ = false;
        stray_ = false;
    }

    // Fills scratch_ with the window projected to `played` along the drift;
    // returns the highest value and the count.
    std::pair<double, size_t> project(int64_t played) {
        while (count_ > 0 && window_[first_].played < played - limits_.horizon) {
            first_ = (first_ + 1) % window_.size();
            --count_;
        }
        double highest = -1e300;
        for (size_t i = 0; i < count_; ++i) {
            const Sample& s = window_[(first_ + i) % window_.size()];
            scratch_[i] = static_cast<double>(s.v) + slope_ * static_cast<double>(played - s.played);
            highest = std::max(highest, scratch_[i]);
        }
        return {highest, count_};
    }

    void update(int64_t played) {
        const auto [highest, count] = project(played);
        const auto nth = static_cast<ptrdiff_t>(static_cast<double>(count) * kLateFraction);
        std::nth_element(scratch_.begin(), scratch_.begin() + nth, scratch_.begin() + static_cast<ptrdiff_t>(count));
        const double wanted = std::clamp(highest - scratch_[static_cast<size_t>(nth)] + limits_.safety,
                                         limits_.minDelay, limits_.maxDelay);
        // Up at once, so the next late packet is caught; down gradually, so one
        // quiet spell does not undo what a jittery minute taught.
        if (!haveTarget_ || wanted >= target_) {
            target_ = wanted;
        } else {
            const double elapsed = static_cast<double>(played - targetAt_) / static_cast<double>(limits_.second);
            target_ -= (target_ - wanted) * std::min(1.0, elapsed / kShrinkSeconds);
        }
        haveTarget_ = true;
        targetAt_ = played;
        headOffset_ = highest - target_;
    }

    // The sender's clock against the playout clock: the slope of the least
    // delayed packets per second, robust to a bucket that a stall spoilt.
    void addToBucket(int64_t played, int64_t v) {
        const int64_t index = played / limits_.second;
        if (bucketOpen_ && index != open_.index) {
            buckets_[(bucketFirst_ + bucketCount_) % buckets_.size()] = open_;
            if (bucketCount_ < buckets_.size()) {
                ++bucketCount_;
            } else {
                bucketFirst_ = (bucketFirst_ + 1) % buckets_.size();
            }
            bucketOpen_ = false;
            fitDrift();
        }
        if (!bucketOpen_) {
            open_ = {index, played, v};
            bucketOpen_ = true;
        } else if (v > open_.v) {
            open_.played = played;
            open_.v = v;
        }
    }

    void fitDrift() {
        if (bucketCount_ < 4) return;
        size_t pairs = 0;
        for (size_t i = 0; i < bucketCount_; ++i) {
            for (size_t j = i + 1; j < bucketCount_; ++j) {
                const Bucket& a = buckets_[(bucketFirst_ + i) % buckets_.size()];
                const Bucket& b = buckets_[(bucketFirst_ + j) % buckets_.size()];
                slopes_[pairs++] = static_cast<double>(b.v - a.v) / static_cast<double>(b.played - a.played);
            }
        }
        const auto middle = static_cast<ptrdiff_t>(pairs / 2);
        std::nth_element(slopes_.begin(), slopes_.begin() + middle, slopes_.begin() + static_cast<ptrdiff_t>(pairs));
        // Beyond 2 % a clock is broken, not drifting.
        slope_ = std::clamp(slopes_[pairs / 2], -0.02, 0.02);
    }

    Limits limits_;
    std::array<Sample, 512> window_{};
    size_t first_ = 0;
    size_t count_ = 0;
    std::array<double, 512> scratch_{};
    bool stray_ = false;
    double strayV_ = 0;

    std::array<Bucket, 16> buckets_{};
    size_t bucketFirst_ = 0;
    size_t bucketCount_ = 0;
    Bucket open_{};
    bool bucketOpen_ = false;
    std::array<double, 16 * 15 / 2> slopes_{};
    double slope_ = 0;  // v per played sample

    double target_ = 0;
    bool haveTarget_ = false;
    int64_t targetAt_ = 0;
    double headOffset_ = 0;
};

}  // namespace

struct JitterBuffer::Impl {
    Impl(std::unique_ptr<AudioCodec> decoder, const JitterBufferConfig& cfg);

    [[nodiscard]] int64_t samplesOf(double ms) const { return samplesIn(config, ms); }
    [[nodiscard]] double toMs(double samples) const { return samples * 1000.0 / config.clockRate; }
    // How much more delay the buffer holds than the target asks; negative: less.
    [[nodiscard]] double excess() const {
        return lateness.ready() ? lateness.headOffset() - static_cast<double>(head - played) : 0;
    }

    void push(uint16_t sequence, uint32_t timestamp, std::span<const uint8_t> payload, int64_t arrivalUs);
    void render(std::span<int16_t> out);
    void clear();

    // Receiving.
    [[nodiscard]] bool isDuplicate(uint16_t sequence, int64_t timestamp) const;
    void rememberSequence(uint16_t sequence);
    void store(uint16_t sequence, int64_t timestamp, size_t samples, std::span<const uint8_t> payload);
    void recycleFront();
    void skipAfterUnderrun(int64_t timestamp);
    void restartAt(int64_t timestamp);

    // Playing.
    [[nodiscard]] bool decodeNext();
    size_t decodeAhead(size_t wanted);
    void skipTo(int64_t timestamp);
    void capDelay();
    [[nodiscard]] int64_t planAdjustment(size_t count);
    void produce(int16_t* out, size_t count);
    void adjustInto(int16_t* out, size_t count, int64_t change);
    void emitDecoded(int16_t* out, size_t count);
    void concealInto(int16_t* out, size_t count);
    void fadeIn(int16_t* samples, size_t count);
    [[nodiscard]] double lossGain(size_t position) const;

    struct Packet {
        int64_t timestamp;
        size_t samples;
        uint16_t sequence;
        std::vector<uint8_t> payload;
    };
    enum class Adjustment : uint8_t { None, Shorten, Lengthen };

    mutable std::mutex mutex;
    std::unique_ptr<AudioCodec> codec;
    const JitterBufferConfig config;
    const int64_t initialDelay;
    const int64_t fullLevelFor = samplesOf(10);  // a loss plays at full level this long...
    const int64_t silentFrom = samplesOf(60);    // ...and has faded out by here
    // Concealment laid over a cut, so the codec can blend across it.
    const size_t bridgeLength = static_cast<size_t>(samplesOf(5));
    // Excess delay (samples) at which shortening starts and stops; lengthening
    // starts below zero and stops here.
    const double shortenFrom = static_cast<double>(samplesOf(2));
    const double settled = static_cast<double>(samplesOf(0.25));

    std::vector<Packet> packets;  // by timestamp, none before decodedEnd
    std::vector<std::vector<uint8_t>> spare;
    std::array<uint16_t, kRecentSequences> recent{};
    size_t recentCount = 0;
    size_t recentNext = 0;

    bool started = false;      // a packet has anchored the timeline
    bool playing = false;      // the playout clock runs
    bool playedAudio = false;  // real audio has been played since the start
    int64_t latestTimestamp = 0;  // extended, of the latest packet: the unwrap reference
    int64_t head = 0;             // timestamp of the next sample handed out
    int64_t decodedEnd = 0;       // end of what was decoded or concealed
    int64_t played = 0;           // samples handed out: the playout clock
    int64_t playedAtLastPush = -1;
    int64_t playedMovedUs = 0;
    std::vector<int16_t> decoded;  // [head, decodedEnd) from decodedPos on
    size_t decodedPos = 0;
    std::vector<int16_t> scratch;

    size_t lossRun = 0;  // samples concealed since real audio last played
    double gain = 1;     // level of the last sample handed out, for the fade back in
    size_t bridge = 0;
    Adjustment adjustment = Adjustment::None;
    double adjustCredit = 0;
    double level = 0;  // running mean magnitude of played audio

    LatenessWindow lateness;
    JitterBufferStats stats;
};

JitterBuffer::Impl::Impl(std::unique_ptr<AudioCodec> decoder, const JitterBufferConfig& cfg)
    : codec(std::move(decoder)),
      config(sane(cfg)),
      initialDelay(samplesOf(std::clamp(config.initialDelayMs, config.minDelayMs, config.maxDelayMs))),
      lateness({static_cast<double>(samplesOf(config.minDelayMs)), static_cast<double>(samplesOf(config.maxDelayMs)),
                static_cast<double>(samplesOf(1)), samplesOf(5000), samplesOf(1000),
                static_cast<double>(samplesOf(80)), static_cast<double>(samplesOf(config.maxDelayMs + 100))}) {
    packets.reserve(kMaxPackets + 1);
    spare.reserve(kMaxPackets + 1);
    decoded.reserve(kReserve);
    scratch.reserve(kReserve);
}

// ---- receiving -------------------------------------------------------------

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

// ---- playing ---------------------------------------------------------------

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
    scratch.clear();
    codec->conceal(count, scratch);
    scratch.resize(count, 0);
    for (size_t i = 0; i < count; ++i) out[i] = toSample(scratch[i] * lossGain(lossRun + i));
    gain = lossGain(lossRun + count - 1);
    lossRun += count;
    stats.samplesConcealed += count;
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

void JitterBuffer::Impl::clear() {
    while (!packets.empty()) recycleFront();
    decoded.clear();
    decodedPos = 0;
    recentCount = recentNext = 0;
    started = false;
    // The codec still holds the old source's sound; fading the new one in
    // covers its blend.
    if (playedAudio) gain = 0;
    playedAudio = false;
    lossRun = 0;
    bridge = 0;
    adjustment = Adjustment::None;
    adjustCredit = 0;
    lateness.reset();
}

// ---- the interface ---------------------------------------------------------

JitterBuffer::JitterBuffer(std::unique_ptr<AudioCodec> decoder, JitterBufferConfig config)
    : impl_(std::make_unique<Impl>(std::move(decoder), config)) {}

JitterBuffer::~JitterBuffer() = default;

void JitterBuffer::push(uint16_t sequence, uint32_t timestamp, std::span<const uint8_t> payload, int64_t arrivalUs) {
    const std::lock_guard lock(impl_->mutex);
    impl_->push(sequence, timestamp, payload, arrivalUs);
}

void JitterBuffer::pull(std::span<int16_t> out) {
    const std::lock_guard lock(impl_->mutex);
    for (size_t done = 0; done < out.size(); done += kChunk) {
        impl_->render(out.subspan(done, std::min(kChunk, out.size() - done)));
    }
}

void JitterBuffer::reset() {
    const std::lock_guard lock(impl_->mutex);
    impl_->clear();
}

JitterBufferStats JitterBuffer::stats() const {
    const std::lock_guard lock(impl_->mutex);
    const Impl& b = *impl_;
    JitterBufferStats s = b.stats;
    s.targetDelayMs = b.toMs(b.lateness.ready() ? b.lateness.target() : static_cast<double>(b.initialDelay));
    if (b.started) {
        int64_t end = b.decodedEnd;
        if (!b.packets.empty()) {
            end = std::max(end, b.packets.back().timestamp + static_cast<int64_t>(b.packets.back().samples));
        }
        s.currentDelayMs = b.toMs(static_cast<double>(end - b.head));
    }
    return s;
}

}  // namespace kelsip
