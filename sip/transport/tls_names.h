// Whether a server certificate's names cover the SIP domain we connected
// for (RFC 5922 section 7): shared by every TLS implementation.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kelsip {

struct CertificateNames {
    std::vector<std::string> dns;   // subjectAltName dNSName entries
    std::vector<std::string> uris;  // subjectAltName URI entries ("sip:example.com")
    std::vector<std::string> ips;   // subjectAltName iPAddress entries, as text
    std::string commonName;         // the subject's CN, used only without any subjectAltName
};

// RFC 5922: a SIP URI entry "sip:<domain>" or a DNS entry equal to the
// domain matches, case-blind; wildcards never do. An address literal matches
// an iPAddress entry. The CN counts only when there is no subjectAltName.
[[nodiscard]] bool certificateMatches(const CertificateNames& names, std::string_view host);

// An iPAddress entry's 4 or 16 bytes as address text; empty for any other length.
[[nodiscard]] std::string addressEntryText(const unsigned char* bytes, size_t length);

}  // namespace kelsip
