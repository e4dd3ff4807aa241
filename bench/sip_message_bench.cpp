// Parsing, serialising and stream framing of SIP messages: an INVITE with
// SDP as a call starts, a 200 OK to REGISTER, a message with 60 headers, the
// 1133-byte INVITE of a typical phone, and 64 KiB of back-to-back messages on
// a stream connection.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "sip/syntax/message.h"

namespace {

std::string withBody(std::string head, std::string_view body) {
    head += "Content-Length: ";
    head += std::to_string(body.size());
    head += "\r\n\r\n";
    head += body;
    return head;
}

// What our phone sends to start a call: G.711 both laws and telephone-event.
std::string inviteWithSdp() {
    const std::string sdp =
        "v=0\r\n"
        "o=alice 2890844526 2890844526 IN IP4 192.0.2.10\r\n"
        "s=Velmora Phone\r\n"
        "c=IN IP4 192.0.2.10\r\n"
        "t=0 0\r\n"
        "m=audio 49170 RTP/AVP 0 8 101\r\n"
        "a=rtpmap:0 PCMU/8000\r\n"
        "a=rtpmap:8 PCMA/8000\r\n"
        "a=rtpmap:101 telephone-event/8000\r\n"
        "a=fmtp:101 0-16\r\n"
        "a=ptime:20\r\n"
        "a=sendrecv\r\n";
    return withBody(
        "INVITE sip:bob@biloxi.example.com SIP/2.0\r\n"
        "Via: SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK74bf9a1e2c3d4e5f6a7b;rport\r\n"
        "Max-Forwards: 70\r\n"
        "From: \"Alice Liddell\" <sip:alice@atlanta.example.com>;tag=9fxced76sl\r\n"
        "To: \"Bob\" <sip:bob@biloxi.example.com>\r\n"
        "Call-ID: 3848276298220188511@atlanta.example.com\r\n"
        "CSeq: 314159 INVITE\r\n"
        "Contact: <sip:alice@192.0.2.10:5060;transport=udp>;+sip.instance=\"<urn:uuid:f81d4fae-7dec-11d0-a765-00a0c91e6bf6>\"\r\n"
        "Allow: INVITE, ACK, CANCEL, BYE, OPTIONS, INFO, NOTIFY, PRACK, UPDATE, REFER, SUBSCRIBE, MESSAGE\r\n"
        "Supported: replaces, timer\r\n"
        "User-Agent: Velmora Phone 0.1.0\r\n"
        "Content-Type: application/sdp\r\n",
        sdp);
}

// What desk and mobile phones send to start a call, 1133 bytes: an outbound
// Contact with its instance id, the usual extensions, session timers and an
// offer of six codecs.
std::string phoneInvite() {
    const std::string sdp =
        "v=0\r\n"
        "o=alice 2890844526 2890844527 IN IP4 192.0.2.10\r\n"
        "s=call\r\n"
        "c=IN IP4 192.0.2.10\r\n"
        "t=0 0\r\n"
        "m=audio 49170 RTP/AVP 0 8 9 111 18 101\r\n"
        "a=rtpmap:0 PCMU/8000\r\n"
        "a=rtpmap:8 PCMA/8000\r\n"
        "a=rtpmap:9 G722/8000\r\n"
        "a=rtpmap:111 opus/48000/2\r\n"
        "a=fmtp:111 useinbandfec=1\r\n"
        "a=rtpmap:18 G729/8000\r\n"
        "a=fmtp:18 annexb=no\r\n"
        "a=rtpmap:101 telephone-event/8000\r\n"
        "a=fmtp:101 0-16\r\n"
        "a=ptime:20\r\n"
        "a=sendrecv\r\n";
    return withBody(
        "INVITE sip:bob@biloxi.example.com SIP/2.0\r\n"
        "Via: SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bK7f3a9c2e1b0d4a68;rport\r\n"
        "Max-Forwards: 70\r\n"
        "From: \"Alice Liddell\" <sip:alice@atlanta.example.com>;tag=9fxced76sl\r\n"
        "To: <sip:bob@biloxi.example.com>\r\n"
        "Call-ID: a84b4-3848276298220188511@192.0.2.10\r\n"
        "CSeq: 1 INVITE\r\n"
        "Contact: <sip:alice@192.0.2.10:5060;transport=udp;ob>"
        ";+sip.instance=\"<urn:uuid:f81d4fae-7dec-11d0-a765-00a0c91e6bf6>\";reg-id=1;expires=3600\r\n"
        "Allow: INVITE, ACK, CANCEL, BYE, OPTIONS, INFO, NOTIFY, PRACK, UPDATE, REFER, SUBSCRIBE, MESSAGE\r\n"
        "Supported: replaces, timer, 100rel, path, gruu\r\n"
        "User-Agent: Velmora Phone 0.1.0\r\n"
        "Allow-Events: talk, hold, refer, dialog\r\n"
        "Session-Expires: 1800;refresher=uac\r\n"
        "Min-SE: 90\r\n"
        "Content-Type: application/sdp\r\n",
        sdp);
}

// A registrar's answer, as every registration refresh receives it.
std::string registerOk() {
    return withBody(
        "SIP/2.0 200 OK\r\n"
        "Via: SIP/2.0/UDP 192.0.2.10:5060;branch=z9hG4bKnashds7a1b2c3d4e5f6;received=198.51.100.7;rport=40123\r\n"
        "From: <sip:alice@atlanta.example.com>;tag=a73kszlfl\r\n"
        "To: <sip:alice@atlanta.example.com>;tag=37GkEhwl6\r\n"
        "Call-ID: 1j9FpLxk3uxtm8tn@192.0.2.10\r\n"
        "CSeq: 2 REGISTER\r\n"
        "Contact: <sip:alice@192.0.2.10:5060;transport=udp>;expires=3600\r\n"
        "Date: Sat, 21 Nov 2026 10:00:00 GMT\r\n"
        "Server: registrar\r\n",
        "");
}

// A request that crossed several proxies: Vias and Record-Routes stacked,
// plus the extension headers that carriers add. 60 header lines in all.
std::string sixtyHeaders() {
    std::string head = "MESSAGE sip:bob@biloxi.example.com SIP/2.0\r\n";
    for (int i = 0; i < 8; ++i) {
        head += "Via: SIP/2.0/TCP proxy" + std::to_string(i) + ".example.net:5060;branch=z9hG4bKp" +
                std::to_string(1000 + i) + "x;received=203.0.113." + std::to_string(10 + i) + "\r\n";
    }
    head += "Max-Forwards: 62\r\n";
    for (int i = 0; i < 8; ++i) {
        head += "Record-Route: <sip:proxy" + std::to_string(i) + ".example.net;lr;ftag=a73kszlfl>\r\n";
    }
    head +=
        "From: \"Alice Liddell\" <sip:alice@atlanta.example.com>;tag=a73kszlfl\r\n"
        "To: <sip:bob@biloxi.example.com>\r\n"
        "Call-ID: 5a1f0c@atlanta.example.com\r\n"
        "CSeq: 7 MESSAGE\r\n"
        "Content-Type: text/plain\r\n";
    // 8 + 1 + 8 + 5 = 22 so far, the Content-Length makes one more: 37 extension headers.
    for (int i = 0; i < 37; ++i) {
        head += "X-Carrier-Info-" + std::to_string(i) + ": hop=" + std::to_string(i) +
                ";region=eu-west;trace=0x7f3a9c" + std::to_string(i) + "\r\n";
    }
    return withBody(head, "Hello Bob, this crossed a few proxies.");
}

struct Sample {
    std::string text;
    kelsip::SipMessage parsed;
};

Sample makeSample(std::string text) {
    std::string error;
    auto parsed = kelsip::SipMessage::parse(text, &error);
    return Sample{std::move(text), parsed ? std::move(*parsed) : kelsip::SipMessage()};
}

const Sample& sample(int which) {
    static const std::vector<Sample> samples = {makeSample(inviteWithSdp()), makeSample(registerOk()),
                                                makeSample(sixtyHeaders()), makeSample(phoneInvite())};
    return samples.at(static_cast<size_t>(which));
}

bool parses(benchmark::State& state, const Sample& s) {
    if (s.parsed.headers().empty()) {
        state.SkipWithError("the benchmark message does not parse");
        return false;
    }
    state.counters["message_bytes"] = static_cast<double>(s.text.size());
    state.counters["headers"] = static_cast<double>(s.parsed.headers().size());
    return true;
}

void setThroughput(benchmark::State& state, size_t bytesPerMessage) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytesPerMessage));
    state.SetItemsProcessed(state.iterations());
}

void Parse(benchmark::State& state, int which) {
    const Sample& s = sample(which);
    if (!parses(state, s)) return;
    for (auto _ : state) {
        auto m = kelsip::SipMessage::parse(s.text);
        benchmark::DoNotOptimize(m);
    }
    setThroughput(state, s.text.size());
}

void ToString(benchmark::State& state, int which) {
    const Sample& s = sample(which);
    if (!parses(state, s)) return;
    for (auto _ : state) {
        std::string wire = s.parsed.toString();
        benchmark::DoNotOptimize(wire);
    }
    setThroughput(state, s.text.size());
}

void ParseToString(benchmark::State& state, int which) {
    const Sample& s = sample(which);
    if (!parses(state, s)) return;
    for (auto _ : state) {
        auto m = kelsip::SipMessage::parse(s.text);
        std::string wire = m ? m->toString() : std::string();
        benchmark::DoNotOptimize(wire);
    }
    setThroughput(state, s.text.size());
}

// A stream connection's receive buffer holding 64 KiB of the three messages
// above, back to back; the framer takes them all off, one call each.
void ExtractStream64KiB(benchmark::State& state) {
    std::string stream;
    int64_t messages = 0;
    for (int i = 0; stream.size() < 64 * 1024; i = (i + 1) % 3) {
        stream += sample(i).text;
        ++messages;
    }
    std::string buffer;
    for (auto _ : state) {
        state.PauseTiming();
        buffer = stream;
        state.ResumeTiming();
        int64_t taken = 0;
        while (auto m = kelsip::extractStreamMessage(buffer)) {
            benchmark::DoNotOptimize(*m);
            ++taken;
        }
        if (taken != messages || !buffer.empty()) {
            state.SkipWithError("the framer did not take every message off the buffer");
            return;
        }
    }
    state.counters["stream_bytes"] = static_cast<double>(stream.size());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.size()));
    state.SetItemsProcessed(state.iterations() * messages);
}

}  // namespace

BENCHMARK_CAPTURE(Parse, invite_sdp, 0);
BENCHMARK_CAPTURE(Parse, register_200_ok, 1);
BENCHMARK_CAPTURE(Parse, sixty_headers, 2);
BENCHMARK_CAPTURE(Parse, phone_invite, 3);
BENCHMARK_CAPTURE(ToString, invite_sdp, 0);
BENCHMARK_CAPTURE(ToString, register_200_ok, 1);
BENCHMARK_CAPTURE(ToString, sixty_headers, 2);
BENCHMARK_CAPTURE(ToString, phone_invite, 3);
BENCHMARK_CAPTURE(ParseToString, invite_sdp, 0);
BENCHMARK_CAPTURE(ParseToString, register_200_ok, 1);
BENCHMARK_CAPTURE(ParseToString, sixty_headers, 2);
BENCHMARK_CAPTURE(ParseToString, phone_invite, 3);
BENCHMARK(ExtractStream64KiB);

BENCHMARK_MAIN();
