// SRTP's cost per packet: protecting and unprotecting a 20 ms G.711 packet
// (12-byte header, 160-byte payload) with either suite, and an SRTCP report.
#include <benchmark/benchmark.h>

#include <vector>

#include "media/srtp/srtp_context.h"

namespace {

using kelsip::srtp::Context;
using kelsip::srtp::MasterKey;
using kelsip::srtp::Status;
using kelsip::srtp::Suite;

MasterKey key() {
    MasterKey k;
    for (size_t i = 0; i < k.key.size(); ++i) k.key[i] = static_cast<uint8_t>(i + 1);
    for (size_t i = 0; i < k.salt.size(); ++i) k.salt[i] = static_cast<uint8_t>(i + 100);
    return k;
}

std::vector<uint8_t> packet(uint16_t sequence) {
    std::vector<uint8_t> p = {0x80, 0, static_cast<uint8_t>(sequence >> 8), static_cast<uint8_t>(sequence),
                              0, 0, 0, 160, 0x12, 0x34, 0x56, 0x78};
    p.resize(12 + 160, 0xd5);
    return p;
}

Suite suiteOf(const benchmark::State& state) {
    return state.range(0) == 80 ? Suite::AesCm128HmacSha1_80 : Suite::AesCm128HmacSha1_32;
}

void Protect(benchmark::State& state) {
    auto context = Context::create(suiteOf(state), key());
    std::vector<uint8_t> buffer;
    buffer.reserve(256);
    uint16_t sequence = 0;
    const auto clear = packet(0);
    for (auto _ : state) {
        buffer.assign(clear.begin(), clear.end());
        buffer[2] = static_cast<uint8_t>(sequence >> 8);
        buffer[3] = static_cast<uint8_t>(sequence++);
        if (context->protectRtp(buffer) != Status::Ok) state.SkipWithError("protect failed");
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetItemsProcessed(state.iterations());
}

void Unprotect(benchmark::State& state) {
    // A stream of protected packets, received in order: each is new to the replay window.
    auto sender = Context::create(suiteOf(state), key());
    auto receiver = Context::create(suiteOf(state), key());
    constexpr size_t kPackets = 65536 * 2;
    std::vector<std::vector<uint8_t>> sent(kPackets);
    for (size_t i = 0; i < kPackets; ++i) {
        sent[i] = packet(static_cast<uint16_t>(i));
        (void)sender->protectRtp(sent[i]);
    }
    std::vector<uint8_t> buffer;
    buffer.reserve(256);
    size_t at = 0;
    for (auto _ : state) {
        if (at == kPackets) {
            state.PauseTiming();
            receiver = Context::create(suiteOf(state), key());
            at = 0;
            state.ResumeTiming();
        }
        buffer.assign(sent[at].begin(), sent[at].end());
        ++at;
        if (receiver->unprotectRtp(buffer) != Status::Ok) state.SkipWithError("unprotect failed");
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetItemsProcessed(state.iterations());
}

void ProtectRtcp(benchmark::State& state) {
    auto context = Context::create(Suite::AesCm128HmacSha1_80, key());
    std::vector<uint8_t> report = {0x81, 201, 0, 7, 0x12, 0x34, 0x56, 0x78};
    report.resize(32, 0);
    std::vector<uint8_t> buffer;
    buffer.reserve(128);
    for (auto _ : state) {
        buffer.assign(report.begin(), report.end());
        if (context->protectRtcp(buffer) != Status::Ok) state.SkipWithError("protect failed");
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(Protect)->Arg(80)->Arg(32);
BENCHMARK(Unprotect)->Arg(80)->Arg(32);
BENCHMARK(ProtectRtcp);
BENCHMARK_MAIN();
