// What ICE costs on the media path: building a signed connectivity check,
// answering one (parse, integrity, fingerprint, response), telling a media
// packet from STUN on arrival, and wrapping a packet for a TURN channel.
#include <benchmark/benchmark.h>

#include <vector>

#include "media/ice/ice_agent.h"
#include "sip/core/log.h"

namespace {

using namespace kelsip;

class NullNetwork final : public ice::IceNetwork, public ice::IceListener {
public:
    void send(int, const net::SocketAddress&, std::span<const uint8_t> bytes) override { sent += bytes.size(); }
    void onData(int, std::span<const uint8_t> bytes) override { received += bytes.size(); }
    size_t sent = 0;
    size_t received = 0;
};

const net::SocketAddress kLocal = *net::SocketAddress::parse("10.0.0.1", 4000);
const net::SocketAddress kRemote = *net::SocketAddress::parse("10.0.0.2", 5000);

stun::Message check(const std::string& username) {
    stun::Message m = stun::Message::request(stun::Method::Binding);
    m.addText(stun::attr::kUsername, username);
    m.addUint32(stun::attr::kPriority, 1862270975);
    m.addUint64(stun::attr::kIceControlling, 0x1234567890abcdefull);
    m.addFlag(stun::attr::kUseCandidate);
    return m;
}

void BM_BuildSignedCheck(benchmark::State& state) {
    const std::vector<uint8_t> key(22, 'k');
    for (auto _ : state) {
        auto bytes = stun::encode(check("abcd1234:efgh5678"), {key, true});
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(BM_BuildSignedCheck);

// One agent answering the far end's checks (each a fresh transaction).
void BM_AnswerCheck(benchmark::State& state) {
    log::setLevel(LogLevel::Warn);
    NullNetwork network;
    ice::IceAgentOptions options;
    options.role = ice::IceRole::Controlled;
    ice::IceAgent agent(network, options, &network);
    const int base = agent.addHostBase(1, kLocal);
    agent.gather(0);
    ice::Candidate remote;
    remote.foundation = "1";
    remote.priority = 2130706431;
    remote.address = kRemote;
    agent.setRemote("efgh5678", std::string(22, 'p'), {remote}, 0);
    const std::vector<uint8_t> key(agent.localPwd().begin(), agent.localPwd().end());
    const auto wire = stun::encode(check(agent.localUfrag() + ":efgh5678"), {key, true});
    for (auto _ : state) agent.receive(base, kRemote, wire, 0);
    benchmark::DoNotOptimize(network.sent);
}
BENCHMARK(BM_AnswerCheck);

// The demultiplexing of every arriving RTP packet (RFC 7983 first byte).
void BM_MediaPacketThroughAgent(benchmark::State& state) {
    NullNetwork network;
    ice::IceAgent agent(network, {}, &network);
    const int base = agent.addHostBase(1, kLocal);
    agent.gather(0);
    std::vector<uint8_t> rtp(172, 0xd5);
    rtp[0] = 0x80;
    for (auto _ : state) agent.receive(base, kRemote, rtp, 0);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MediaPacketThroughAgent);

// A 172-byte packet wrapped as ChannelData for a bound channel.
void BM_ChannelDataWrap(benchmark::State& state) {
    log::setLevel(LogLevel::Warn);
    size_t sent = 0;
    std::vector<uint8_t> lastRequest;
    ice::TurnClient client({kRemote, "u", "p", 600}, [&](std::span<const uint8_t> b) {
        sent += b.size();
        lastRequest.assign(b.begin(), b.end());
    });
    // Answer the allocation and the channel binding by hand.
    const auto answer = [&](auto&& fill) {
        const auto request = *stun::parse(lastRequest);
        auto response = stun::Message::responseTo(request, stun::Class::Success);
        fill(response);
        static_cast<void>(client.receive(stun::encode(response), 0));
    };
    client.allocate(0, [](bool) {});
    answer([](stun::Message& m) { m.addXorAddress(stun::attr::kXorRelayedAddress, kRemote); });
    client.bindChannel(kLocal, 0);
    answer([](stun::Message&) {});
    std::vector<uint8_t> rtp(172, 0xd5);
    for (auto _ : state) static_cast<void>(client.sendTo(kLocal, rtp, 0));
    state.SetItemsProcessed(state.iterations());
    if (!client.channelBound(kLocal)) state.SkipWithError("channel not bound");
}
BENCHMARK(BM_ChannelDataWrap);

}  // namespace

BENCHMARK_MAIN();
