// ICE candidates (RFC 8445 5.1): the record, its priority and foundation,
// the SDP "candidate" attribute value (RFC 8839 5.1) and the default
// candidate an offer puts in its m= and c= lines.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "sip/net/socket_address.h"

namespace kelsip::ice {

enum class CandidateType : uint8_t { Host, ServerReflexive, PeerReflexive, Relayed };

// "host", "srflx", "prflx", "relay": the SDP names.
[[nodiscard]] std::string_view toString(CandidateType type);
// The RFC 8445 5.1.2.2 recommended type preferences: 126, 100, 110, 0.
[[nodiscard]] uint32_t typePreference(CandidateType type);
// (2^24) type preference + (2^8) local preference + (256 - component).
[[nodiscard]] uint32_t candidatePriority(CandidateType type, uint16_t localPreference, int component);

// Component 1 carries RTP, component 2 RTCP.
inline constexpr int kRtpComponent = 1;
inline constexpr int kRtcpComponent = 2;

struct Candidate {
    std::string foundation;
    int component = kRtpComponent;
    uint32_t priority = 0;
    net::SocketAddress address;
    CandidateType type = CandidateType::Host;
    // The base for a server-reflexive candidate, the mapped address for a
    // relayed one; absent for host candidates.
    std::optional<net::SocketAddress> related;

    friend bool operator==(const Candidate&, const Candidate&) = default;
};

// Reads the value of an a=candidate line ("candidate:" may lead). Only UDP
// candidates with numeric addresses are taken; extension pairs such as
// "generation 0" are skipped. Fails with one fixed text: "bad candidate
// foundation", "bad candidate component", "unsupported candidate transport",
// "bad candidate priority", "bad candidate address", "bad candidate port",
// "bad candidate type", "bad candidate related address", "bad candidate
// extension".
[[nodiscard]] std::optional<Candidate> parseCandidate(std::string_view value, std::string* error = nullptr);
// The attribute value, without "candidate:".
[[nodiscard]] std::string formatCandidate(const Candidate& candidate);

// The same foundation for candidates of one type from one base address
// through one server (RFC 8445 5.1.1.3): a short decimal text.
[[nodiscard]] std::string candidateFoundation(CandidateType type, const net::SocketAddress& base,
                                              const std::optional<net::SocketAddress>& server);

// The candidate an offer names in m=/c= (or a=rtcp) for `component`:
// relayed if there is one, else server-reflexive, else host, the highest
// priority of that type; null when the component has none.
[[nodiscard]] const Candidate* defaultCandidate(std::span<const Candidate> candidates, int component);

}  // namespace kelsip::ice
