// TLS sessions on Schannel over memory buffers. Schannel does the records;
// the certificate is checked here (SCH_CRED_MANUAL_CRED_VALIDATION): the
// chain by CryptoAPI against the system's roots and the CA file, the name
// by RFC 5922's rules, which the SSL policy's own check (wildcards, no sip:
// URIs) does not follow. Accepted connections are not served on Windows.
#define SECURITY_WIN32
#include <windows.h>
#include <wincrypt.h>
#include <schannel.h>
#include <security.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "sip/core/log.h"
#include "sip/net/socket_address.h"
#include "sip/transport/tls_names.h"
#include "sip/transport/tls_session.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "tls";

// The SDK's status macros carry C casts; their values, typed.
constexpr SECURITY_STATUS kOk = 0;
constexpr SECURITY_STATUS kContinueNeeded = 0x00090312;
constexpr SECURITY_STATUS kContextExpired = 0x00090317;
constexpr SECURITY_STATUS kIncompleteCredentials = 0x00090320;
constexpr SECURITY_STATUS kRenegotiate = 0x00090321;
const SECURITY_STATUS kIncompleteMessage = static_cast<SECURITY_STATUS>(0x80090318UL);
constexpr DWORD kIgnoreUnknownCa = 0x00000100;  // SECURITY_FLAG_IGNORE_UNKNOWN_CA

LPCSTR sslPolicy() { return reinterpret_cast<LPCSTR>(static_cast<uintptr_t>(4)); }  // CERT_CHAIN_POLICY_SSL

constexpr ULONG kRequest = ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT | ISC_REQ_CONFIDENTIALITY |
                           ISC_REQ_ALLOCATE_MEMORY | ISC_REQ_STREAM | ISC_REQ_MANUAL_CRED_VALIDATION |
                           ISC_REQ_USE_SUPPLIED_CREDS | ISC_REQ_EXTENDED_ERROR;

std::wstring wide(const std::string& text) {
    if (text.empty()) return {};
    const int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
    return out;
}

std::string narrow(const wchar_t* text) {
    if (text == nullptr) return {};
    const int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1) return {};
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), n, nullptr, nullptr);
    out.resize(static_cast<size_t>(n - 1));
    return out;
}

std::string statusText(SECURITY_STATUS status) {
    char text[32];
    std::snprintf(text, sizeof text, "schannel 0x%08lx", static_cast<unsigned long>(status));
    return text;
}

struct StoreCloser {
    void operator()(HCERTSTORE s) const { CertCloseStore(s, 0); }
};
using Store = std::unique_ptr<void, StoreCloser>;
struct CertFree {
    void operator()(const CERT_CONTEXT* c) const { CertFreeCertificateContext(c); }
};
struct ChainFree {
    void operator()(const CERT_CHAIN_CONTEXT* c) const { CertFreeCertificateChain(c); }
};

CertificateNames namesOf(const CERT_CONTEXT* cert) {
    CertificateNames names;
    const CERT_EXTENSION* ext = CertFindExtension(szOID_SUBJECT_ALT_NAME2, cert->pCertInfo->cExtension,
                                                  cert->pCertInfo->rgExtension);
    CERT_ALT_NAME_INFO* info = nullptr;
    DWORD size = 0;
    if (ext != nullptr && CryptDecodeObjectEx(X509_ASN_ENCODING, szOID_SUBJECT_ALT_NAME2, ext->Value.pbData,
                                              ext->Value.cbData, CRYPT_DECODE_ALLOC_FLAG, nullptr, &info, &size)) {
        for (DWORD i = 0; i < info->cAltEntry; ++i) {
            const CERT_ALT_NAME_ENTRY& e = info->rgAltEntry[i];
            if (e.dwAltNameChoice == CERT_ALT_NAME_DNS_NAME) names.dns.push_back(narrow(e.pwszDNSName));
            if (e.dwAltNameChoice == CERT_ALT_NAME_URL) names.uris.push_back(narrow(e.pwszURL));
            if (e.dwAltNameChoice == CERT_ALT_NAME_IP_ADDRESS) {
                std::string ip = addressEntryText(e.IPAddress.pbData, e.IPAddress.cbData);
                if (!ip.empty()) names.ips.push_back(std::move(ip));
            }
        }
        LocalFree(info);
    }
    wchar_t cn[256] = {};
    if (CertGetNameStringW(cert, CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(szOID_COMMON_NAME), cn, 256) > 1) {
        names.commonName = narrow(cn);
    }
    return names;
}

class SchannelSession final : public TlsSession {
public:
    SchannelSession(CredHandle* credentials, HCERTSTORE extraRoots, std::string host, bool verify)
        : credentials_(credentials), extraRoots_(extraRoots), host_(std::move(host)), verify_(verify) {
        // SNI takes a name, never an address.
        if (!net::SocketAddress::parse(host_)) target_ = wide(host_);
        (void)handshake();  // the ClientHello
    }
    ~SchannelSession() override {
        if (haveContext_) DeleteSecurityContext(&context_);
    }

    bool feed(std::string_view ciphertext) override {
        if (failed()) return false;
        in_.append(ciphertext);
        if (!established_ || renegotiating_) {
            if (!handshake()) return false;
            if (!established_ || renegotiating_) return true;
        }
        return decrypt() && flush();
    }

    bool write(std::string_view plaintext) override {
        if (failed()) return false;
        pending_.append(plaintext);
        return established_ ? flush() : true;
    }

    void takePlaintext(std::string& out) override {
        out.append(plain_);
        plain_.clear();
    }
    void takeCiphertext(std::string& out) override {
        out.append(wire_);
        wire_.clear();
    }
    [[nodiscard]] bool established() const override { return established_; }
    [[nodiscard]] bool failed() const override { return !error_.empty(); }
    [[nodiscard]] const std::string& error() const override { return error_; }

private:
    bool fail(std::string why) {
        error_ = std::move(why);
        return false;
    }

    // One or more rounds of InitializeSecurityContext over what has come in.
    bool handshake() {
        for (;;) {
            SecBuffer inBuffers[2] = {};
            inBuffers[0].BufferType = SECBUFFER_TOKEN;
            inBuffers[0].pvBuffer = in_.data();
            inBuffers[0].cbBuffer = static_cast<unsigned long>(in_.size());
            inBuffers[1].BufferType = SECBUFFER_EMPTY;
            SecBufferDesc inDesc{SECBUFFER_VERSION, 2, inBuffers};
            SecBuffer outBuffers[1] = {};
            outBuffers[0].BufferType = SECBUFFER_TOKEN;
            SecBufferDesc outDesc{SECBUFFER_VERSION, 1, outBuffers};
            ULONG attributes = 0;
            const bool first = !haveContext_;
            const SECURITY_STATUS status = InitializeSecurityContextW(
                credentials_, first ? nullptr : &context_, target_.empty() ? nullptr : target_.data(), kRequest, 0, 0,
                first ? nullptr : &inDesc, 0, &context_, &outDesc, &attributes, nullptr);
            haveContext_ = haveContext_ || status == kOk || status == kContinueNeeded;
            if (outBuffers[0].pvBuffer != nullptr) {
                wire_.append(static_cast<const char*>(outBuffers[0].pvBuffer), outBuffers[0].cbBuffer);
                FreeContextBuffer(outBuffers[0].pvBuffer);
            }
            if (status == kIncompleteMessage) return true;
            if (status != kOk && status != kContinueNeeded && status != kIncompleteCredentials) {
                return fail(std::string(kTlsHandshakeFailed) + statusText(status));
            }
            if (!first) keepExtra(inBuffers[1]);
            if (status == kOk) {
                if (!established_ && !verifyPeer()) return false;
                if (QueryContextAttributesW(&context_, SECPKG_ATTR_STREAM_SIZES, &sizes_) != kOk) {
                    return fail(std::string(kTlsHandshakeFailed) + "no stream sizes");
                }
                established_ = true;
                renegotiating_ = false;
                return true;
            }
            if (first || in_.empty()) return true;
        }
    }

    void keepExtra(const SecBuffer& extra) {
        if (extra.BufferType == SECBUFFER_EXTRA && extra.cbBuffer > 0 && extra.cbBuffer <= in_.size()) {
            in_.erase(0, in_.size() - extra.cbBuffer);
        } else {
            in_.clear();
        }
    }

    bool verifyPeer() {
        if (!verify_) return true;
        const CERT_CONTEXT* raw = nullptr;
        if (QueryContextAttributesW(&context_, SECPKG_ATTR_REMOTE_CERT_CONTEXT, &raw) != kOk || raw == nullptr) {
            return fail(std::string(kTlsNotTrusted));
        }
        std::unique_ptr<const CERT_CONTEXT, CertFree> cert(raw);
        if (!chainTrusted(cert.get())) return fail(std::string(kTlsNotTrusted));
        if (!host_.empty() && !certificateMatches(namesOf(cert.get()), host_)) {
            return fail(std::string(kTlsNameMismatch) + host_);
        }
        return true;
    }

    // The chain ends at a system root, or at a root from the CA file, which
    // the system calls untrusted and the policy is told to accept.
    bool chainTrusted(const CERT_CONTEXT* cert) {
        Store pool(CertOpenStore(sz_CERT_STORE_PROV_COLLECTION, 0, 0, 0, nullptr));
        if (!pool) return false;
        CertAddStoreToCollection(pool.get(), cert->hCertStore, 0, 0);
        if (extraRoots_ != nullptr) CertAddStoreToCollection(pool.get(), extraRoots_, 0, 0);
        CERT_CHAIN_PARA para = {};
        para.cbSize = sizeof para;
        LPSTR usage[] = {const_cast<char*>(szOID_PKIX_KP_SERVER_AUTH)};
        para.RequestedUsage.dwType = USAGE_MATCH_TYPE_OR;
        para.RequestedUsage.Usage.cUsageIdentifier = 1;
        para.RequestedUsage.Usage.rgpszUsageIdentifier = usage;
        const CERT_CHAIN_CONTEXT* rawChain = nullptr;
        if (!CertGetCertificateChain(nullptr, cert, nullptr, pool.get(), &para, 0, nullptr, &rawChain)) return false;
        std::unique_ptr<const CERT_CHAIN_CONTEXT, ChainFree> chain(rawChain);
        const DWORD errors = chain->TrustStatus.dwErrorStatus;
        bool ownRoot = false;
        if (errors == CERT_TRUST_IS_UNTRUSTED_ROOT && extraRoots_ != nullptr && chain->cChain > 0) {
            const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
            const CERT_CONTEXT* root = simple->rgpElement[simple->cElement - 1]->pCertContext;
            const CERT_CONTEXT* found =
                CertFindCertificateInStore(extraRoots_, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, root, nullptr);
            ownRoot = found != nullptr;
            if (found != nullptr) CertFreeCertificateContext(found);
        }
        if (errors != CERT_TRUST_NO_ERROR && !ownRoot) {
            log::warn(kTag, "certificate chain of " + host_ + " refused: trust status " + std::to_string(errors));
            return false;
        }
        SSL_EXTRA_CERT_CHAIN_POLICY_PARA ssl = {};
        ssl.cbSize = sizeof ssl;
        ssl.dwAuthType = AUTHTYPE_SERVER;
        ssl.fdwChecks = ownRoot ? kIgnoreUnknownCa : 0;
        CERT_CHAIN_POLICY_PARA policy = {};
        policy.cbSize = sizeof policy;
        policy.pvExtraPolicyPara = &ssl;
        CERT_CHAIN_POLICY_STATUS status = {};
        status.cbSize = sizeof status;
        if (!CertVerifyCertificateChainPolicy(sslPolicy(), chain.get(), &policy, &status) || status.dwError != 0) {
            log::warn(kTag, "certificate of " + host_ + " refused by the SSL policy: " + std::to_string(status.dwError));
            return false;
        }
        return true;
    }

    bool decrypt() {
        while (!in_.empty() && !renegotiating_) {
            SecBuffer buffers[4] = {};
            buffers[0].BufferType = SECBUFFER_DATA;
            buffers[0].pvBuffer = in_.data();
            buffers[0].cbBuffer = static_cast<unsigned long>(in_.size());
            for (int i = 1; i < 4; ++i) buffers[i].BufferType = SECBUFFER_EMPTY;
            SecBufferDesc desc{SECBUFFER_VERSION, 4, buffers};
            const SECURITY_STATUS status = DecryptMessage(&context_, &desc, 0, nullptr);
            if (status == kIncompleteMessage) return true;
            if (status != kOk && status != kRenegotiate && status != kContextExpired) {
                return fail(std::string(kTlsRecordError));
            }
            std::string extra;
            for (const SecBuffer& b : buffers) {
                if (b.BufferType == SECBUFFER_DATA && b.pvBuffer != nullptr) {
                    plain_.append(static_cast<const char*>(b.pvBuffer), b.cbBuffer);
                }
                if (b.BufferType == SECBUFFER_EXTRA && b.pvBuffer != nullptr) {
                    extra.assign(static_cast<const char*>(b.pvBuffer), b.cbBuffer);
                }
            }
            in_ = std::move(extra);
            // The peer's close_notify: the socket's end follows and closes the connection.
            if (status == kContextExpired) return true;
            if (status == kRenegotiate) {
                // TLS 1.3 messages after the handshake (tickets, key updates)
                // go back through InitializeSecurityContext.
                renegotiating_ = true;
                if (!handshake()) return false;
            }
        }
        return true;
    }

    bool flush() {
        while (!pending_.empty()) {
            const size_t chunk = std::min<size_t>(pending_.size(), sizes_.cbMaximumMessage);
            std::string record(sizes_.cbHeader + chunk + sizes_.cbTrailer, '\0');
            std::copy_n(pending_.data(), chunk, record.data() + sizes_.cbHeader);
            SecBuffer buffers[4] = {};
            buffers[0] = {sizes_.cbHeader, SECBUFFER_STREAM_HEADER, record.data()};
            buffers[1] = {static_cast<unsigned long>(chunk), SECBUFFER_DATA, record.data() + sizes_.cbHeader};
            buffers[2] = {sizes_.cbTrailer, SECBUFFER_STREAM_TRAILER, record.data() + sizes_.cbHeader + chunk};
            buffers[3].BufferType = SECBUFFER_EMPTY;
            SecBufferDesc desc{SECBUFFER_VERSION, 4, buffers};
            if (EncryptMessage(&context_, 0, &desc, 0) != kOk) return fail(std::string(kTlsRecordError));
            wire_.append(record.data(), buffers[0].cbBuffer + buffers[1].cbBuffer + buffers[2].cbBuffer);
            pending_.erase(0, chunk);
        }
        return true;
    }

    CredHandle* credentials_;
    HCERTSTORE extraRoots_;
    std::string host_;
    std::wstring target_;
    bool verify_;
    CtxtHandle context_{};
    bool haveContext_ = false;
    bool established_ = false;
    bool renegotiating_ = false;
    SecPkgContext_StreamSizes sizes_{};
    std::string in_;
    std::string wire_;
    std::string pending_;
    std::string plain_;
    std::string error_;
};

class SchannelEngine final : public TlsEngine {
public:
    SchannelEngine(CredHandle credentials, Store extraRoots, bool verify)
        : credentials_(credentials), extraRoots_(std::move(extraRoots)), verify_(verify) {}
    ~SchannelEngine() override { FreeCredentialsHandle(&credentials_); }

    std::unique_ptr<TlsSession> startSession(TlsRole role, const std::string& host) override {
        if (role != TlsRole::Client) return nullptr;
        return std::make_unique<SchannelSession>(&credentials_, extraRoots_.get(), host, verify_);
    }
    [[nodiscard]] bool canServe() const override { return false; }

private:
    CredHandle credentials_;
    Store extraRoots_;
    bool verify_;
};

// Every certificate in a PEM file, in a memory store; null when there is none.
Store loadCaFile(const std::string& path) {
    std::ifstream file(std::filesystem::path(wide(path)), std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    const std::string pem = text.str();
    Store store(CertOpenStore(sz_CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
    if (!store) return nullptr;
    constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
    constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
    size_t added = 0;
    for (size_t at = pem.find(kBegin); at != std::string::npos; at = pem.find(kBegin, at + 1)) {
        const size_t end = pem.find(kEnd, at);
        if (end == std::string::npos) break;
        const std::string block = pem.substr(at, end + kEnd.size() - at);
        DWORD size = 0;
        if (!CryptStringToBinaryA(block.data(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER, nullptr,
                                  &size, nullptr, nullptr)) {
            continue;
        }
        std::vector<BYTE> der(size);
        if (CryptStringToBinaryA(block.data(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER, der.data(),
                                 &size, nullptr, nullptr) &&
            CertAddEncodedCertificateToStore(store.get(), X509_ASN_ENCODING, der.data(), size, CERT_STORE_ADD_ALWAYS,
                                             nullptr)) {
            ++added;
        }
    }
    return added > 0 ? std::move(store) : nullptr;
}

}  // namespace

bool tlsSupported() { return true; }

std::unique_ptr<TlsEngine> makeTlsEngine(const TlsContext& context, std::string* error) {
    const auto refuse = [&](std::string why) -> std::unique_ptr<TlsEngine> {
        log::error(kTag, why);
        if (error != nullptr) *error = std::move(why);
        return nullptr;
    };
    Store extraRoots;
    if (!context.caFile.empty()) {
        extraRoots = loadCaFile(context.caFile);
        if (!extraRoots) return refuse("cannot load TLS CA file " + context.caFile);
    }
    if (!context.certificateFile.empty()) {
        log::warn(kTag, "a TLS certificate of our own is not used on Windows: connections to us are refused");
    }
    SCHANNEL_CRED cred = {};
    cred.dwVersion = SCHANNEL_CRED_VERSION;
    cred.grbitEnabledProtocols = SP_PROT_TLS1_2_CLIENT | SP_PROT_TLS1_3_CLIENT;
    cred.dwFlags = SCH_CRED_MANUAL_CRED_VALIDATION | SCH_CRED_NO_DEFAULT_CREDS;
    CredHandle credentials{};
    SECURITY_STATUS status = AcquireCredentialsHandleW(nullptr, const_cast<wchar_t*>(UNISP_NAME_W),
                                                       SECPKG_CRED_OUTBOUND, nullptr, &cred, nullptr, nullptr,
                                                       &credentials, nullptr);
    if (status != kOk) {
        // Systems whose Schannel does not take TLS 1.3 in this record.
        cred.grbitEnabledProtocols = SP_PROT_TLS1_2_CLIENT;
        status = AcquireCredentialsHandleW(nullptr, const_cast<wchar_t*>(UNISP_NAME_W), SECPKG_CRED_OUTBOUND, nullptr,
                                           &cred, nullptr, nullptr, &credentials, nullptr);
    }
    if (status != kOk) return refuse("cannot set up TLS: " + statusText(status));
    return std::make_unique<SchannelEngine>(credentials, std::move(extraRoots), context.verify);
}

}  // namespace kelsip
