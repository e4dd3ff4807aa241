// A TLS session over memory buffers: the stream transport's poll loop feeds
// it the bytes a socket gave and writes out what it produces, so TLS never
// blocks and never owns a socket. One implementation per platform (OpenSSL
// on POSIX, Schannel on Windows, none without KELSIP_WITH_OPENSSL).
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace kelsip {

// How TLS connections are made and checked; shared by every connection of
// a transport.
struct TlsContext {
    // Check the peer's certificate chain and, for connections we open, its
    // name (RFC 5922). Off only for a lab PBX with a throw-away certificate.
    bool verify = true;
    // PEM file of further trusted CAs (a private PBX's, a test's), in
    // addition to the system's store.
    std::string caFile;
    // PEM certificate (chain) and private key we present. Needed to accept
    // connections; a phone that only connects out leaves them empty.
    std::string certificateFile;
    std::string privateKeyFile;
};

// The fixed reasons a session fails with; the transport reports them as the
// connection's close reason.
inline constexpr std::string_view kTlsNotCompiled = "TLS support not compiled in (build with KELSIP_WITH_OPENSSL)";
inline constexpr std::string_view kTlsNeedsContext = "TLS transport needs a TlsContext";
inline constexpr std::string_view kTlsNotTrusted = "TLS certificate not trusted";
inline constexpr std::string_view kTlsNameMismatch = "TLS certificate does not match host ";  // + the name
inline constexpr std::string_view kTlsHandshakeFailed = "TLS handshake failed: ";               // + the detail
inline constexpr std::string_view kTlsRecordError = "TLS record error";
inline constexpr std::string_view kTlsNoServerCertificate = "TLS server needs a certificate and key";

enum class TlsRole { Client, Server };

class TlsSession {
public:
    virtual ~TlsSession() = default;

    // Ciphertext that arrived from the peer. False once the session failed
    // (see `error`); the connection is then closed.
    [[nodiscard]] virtual bool feed(std::string_view ciphertext) = 0;
    // Plaintext to send; it is held until the handshake is done.
    [[nodiscard]] virtual bool write(std::string_view plaintext) = 0;
    // Moves the decrypted bytes received so far into `out` (appending).
    virtual void takePlaintext(std::string& out) = 0;
    // Moves the bytes to put on the wire into `out` (appending): handshake
    // records, encrypted data, alerts.
    virtual void takeCiphertext(std::string& out) = 0;

    [[nodiscard]] virtual bool established() const = 0;
    [[nodiscard]] virtual bool failed() const = 0;
    // Why it failed: one of the fixed texts above.
    [[nodiscard]] virtual const std::string& error() const = 0;
};

// Shared, immutable per-transport state (loaded trust store, certificate).
class TlsEngine {
public:
    virtual ~TlsEngine() = default;
    // `host` is the name the peer must prove (the SIP domain we connect
    // for); empty for accepted connections.
    [[nodiscard]] virtual std::unique_ptr<TlsSession> startSession(TlsRole role, const std::string& host) = 0;
    [[nodiscard]] virtual bool canServe() const = 0;
};

// Whether this build has TLS at all.
[[nodiscard]] bool tlsSupported();

// Loads the trust store and the certificate once. Null with a fixed text
// when the build has no TLS or a file cannot be loaded.
[[nodiscard]] std::unique_ptr<TlsEngine> makeTlsEngine(const TlsContext& context, std::string* error);

}  // namespace kelsip
