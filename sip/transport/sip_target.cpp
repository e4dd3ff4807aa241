// Transport kinds and SIP targets.
#include "sip/transport/sip_target.h"

namespace kelsip {

std::string_view transportName(TransportKind kind) {
    switch (kind) {
        case TransportKind::Udp: return "UDP";
        case TransportKind::Tcp: return "TCP";
        case TransportKind::Tls: return "TLS";
    }
    return "UDP";
}

uint16_t defaultPort(TransportKind kind) { return kind == TransportKind::Tls ? 5061 : 5060; }

bool isStream(TransportKind kind) { return kind != TransportKind::Udp; }

std::string SipTarget::toString() const {
    std::string out(transportName(kind));
    out += ' ';
    out += address.toString();
    if (connection != 0) {
        out += " connection #";
        out += std::to_string(connection);
    }
    return out;
}

}  // namespace kelsip
