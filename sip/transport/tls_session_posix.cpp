// TLS sessions on OpenSSL's libssl over memory BIOs: the transport moves the
// bytes, OpenSSL never sees a socket.
#include "sip/transport/tls_session.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <array>

#include "sip/core/log.h"
#include "sip/net/socket_address.h"
#include "sip/transport/tls_names.h"

namespace kelsip {

namespace {

constexpr std::string_view kTag = "tls";

struct SslCtxFree {
    void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};
struct SslFree {
    void operator()(SSL* s) const { SSL_free(s); }
};

// The library's text for the last error on this thread, or `fallback`.
std::string lastErrorText(const char* fallback) {
    const unsigned long code = ERR_peek_last_error();
    const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    ERR_clear_error();
    return reason != nullptr ? reason : fallback;
}

CertificateNames namesOf(X509* cert) {
    CertificateNames names;
    auto* alt = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; alt != nullptr && i < sk_GENERAL_NAME_num(alt); ++i) {
        const GENERAL_NAME* n = sk_GENERAL_NAME_value(alt, i);
        if (n->type == GEN_DNS || n->type == GEN_URI) {
            const ASN1_IA5STRING* s = n->type == GEN_DNS ? n->d.dNSName : n->d.uniformResourceIdentifier;
            std::string value(reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)),
                              static_cast<size_t>(ASN1_STRING_length(s)));
            (n->type == GEN_DNS ? names.dns : names.uris).push_back(std::move(value));
        } else if (n->type == GEN_IPADD) {
            const ASN1_OCTET_STRING* s = n->d.iPAddress;
            std::string ip = addressEntryText(ASN1_STRING_get0_data(s), static_cast<size_t>(ASN1_STRING_length(s)));
            if (!ip.empty()) names.ips.push_back(std::move(ip));
        }
    }
    GENERAL_NAMES_free(alt);
    std::array<char, 256> cn{};
    if (X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn.data(), static_cast<int>(cn.size())) > 0) {
        names.commonName = cn.data();
    }
    return names;
}

class OpenSslSession final : public TlsSession {
public:
    OpenSslSession(SSL* ssl, TlsRole role, std::string host, bool verify)
        : ssl_(ssl), host_(std::move(host)), verify_(verify) {
        BIO* in = BIO_new(BIO_s_mem());
        BIO* out = BIO_new(BIO_s_mem());
        in_ = in;
        out_ = out;
        SSL_set_bio(ssl_.get(), in, out);
        if (role == TlsRole::Client) {
            // SNI takes a name, never an address.
            if (!host_.empty() && !net::SocketAddress::parse(host_)) {
                // SSL_set_tlsext_host_name is a macro with a C cast.
                (void)SSL_ctrl(ssl_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, host_.data());
            }
            SSL_set_connect_state(ssl_.get());
            (void)progress();  // the ClientHello
        } else {
            SSL_set_accept_state(ssl_.get());
        }
    }

    bool feed(std::string_view ciphertext) override {
        if (failed()) return false;
        if (!ciphertext.empty()) BIO_write(in_, ciphertext.data(), static_cast<int>(ciphertext.size()));
        return progress();
    }

    bool write(std::string_view plaintext) override {
        if (failed()) return false;
        pending_.append(plaintext);
        return progress();
    }

    void takePlaintext(std::string& out) override {
        out.append(plain_);
        plain_.clear();
    }

    void takeCiphertext(std::string& out) override {
        std::array<char, 16384> chunk{};
        for (;;) {
            const int n = BIO_read(out_, chunk.data(), static_cast<int>(chunk.size()));
            if (n <= 0) break;
            out.append(chunk.data(), static_cast<size_t>(n));
        }
    }

    [[nodiscard]] bool established() const override { return established_; }
    [[nodiscard]] bool failed() const override { return !error_.empty(); }
    [[nodiscard]] const std::string& error() const override { return error_; }

private:
    bool fail(std::string why) {
        error_ = std::move(why);
        ERR_clear_error();
        return false;
    }

    bool progress() {
        ERR_clear_error();
        if (!established_) {
            const int r = SSL_do_handshake(ssl_.get());
            if (r != 1) {
                const int e = SSL_get_error(ssl_.get(), r);
                if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) return true;
                if (verify_ && SSL_get_verify_result(ssl_.get()) != X509_V_OK) {
                    log::warn(kTag, std::string("certificate of ") + (host_.empty() ? "peer" : host_) + " refused: " +
                                        X509_verify_cert_error_string(SSL_get_verify_result(ssl_.get())));
                    return fail(std::string(kTlsNotTrusted));
                }
                return fail(std::string(kTlsHandshakeFailed) + lastErrorText("connection closed"));
            }
            if (verify_ && !host_.empty()) {
                X509* cert = SSL_get0_peer_certificate(ssl_.get());
                if (cert == nullptr || !certificateMatches(namesOf(cert), host_)) {
                    return fail(std::string(kTlsNameMismatch) + host_);
                }
            }
            established_ = true;
        }
        if (!pending_.empty()) {
            const int n = SSL_write(ssl_.get(), pending_.data(), static_cast<int>(pending_.size()));
            // Memory BIOs take everything: a short or failed write is a broken session.
            if (n != static_cast<int>(pending_.size())) return fail(std::string(kTlsRecordError));
            pending_.clear();
        }
        std::array<char, 16384> chunk{};
        for (;;) {
            const int n = SSL_read(ssl_.get(), chunk.data(), static_cast<int>(chunk.size()));
            if (n > 0) {
                plain_.append(chunk.data(), static_cast<size_t>(n));
                continue;
            }
            const int e = SSL_get_error(ssl_.get(), n);
            // The peer's close_notify: the socket's end follows and closes the connection.
            if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE || e == SSL_ERROR_ZERO_RETURN) return true;
            return fail(std::string(kTlsRecordError));
        }
    }

    std::unique_ptr<SSL, SslFree> ssl_;
    BIO* in_ = nullptr;   // owned by ssl_
    BIO* out_ = nullptr;  // owned by ssl_
    std::string host_;
    bool verify_;
    bool established_ = false;
    std::string pending_;
    std::string plain_;
    std::string error_;
};

class OpenSslEngine final : public TlsEngine {
public:
    OpenSslEngine(SSL_CTX* ctx, bool verify, bool canServe) : ctx_(ctx), verify_(verify), canServe_(canServe) {}

    std::unique_ptr<TlsSession> startSession(TlsRole role, const std::string& host) override {
        SSL* ssl = SSL_new(ctx_.get());
        if (ssl == nullptr) return nullptr;
        // A server does not ask phones for certificates.
        SSL_set_verify(ssl, role == TlsRole::Client && verify_ ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
        return std::make_unique<OpenSslSession>(ssl, role, host, verify_ && role == TlsRole::Client);
    }

    [[nodiscard]] bool canServe() const override { return canServe_; }

private:
    std::unique_ptr<SSL_CTX, SslCtxFree> ctx_;
    bool verify_;
    bool canServe_;
};

}  // namespace

bool tlsSupported() { return true; }

std::unique_ptr<TlsEngine> makeTlsEngine(const TlsContext& context, std::string* error) {
    const auto refuse = [&](std::string why) -> std::unique_ptr<TlsEngine> {
        ERR_clear_error();
        log::error(kTag, why);
        if (error != nullptr) *error = std::move(why);
        return nullptr;
    };
    std::unique_ptr<SSL_CTX, SslCtxFree> ctx(SSL_CTX_new(TLS_method()));
    if (!ctx) return refuse("cannot set up TLS");
    (void)SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
    if (SSL_CTX_set_default_verify_paths(ctx.get()) != 1) ERR_clear_error();
    if (!context.caFile.empty() && SSL_CTX_load_verify_locations(ctx.get(), context.caFile.c_str(), nullptr) != 1) {
        return refuse("cannot load TLS CA file " + context.caFile);
    }
    const bool hasCertificate = !context.certificateFile.empty();
    if (hasCertificate &&
        (SSL_CTX_use_certificate_chain_file(ctx.get(), context.certificateFile.c_str()) != 1 ||
         SSL_CTX_use_PrivateKey_file(ctx.get(), context.privateKeyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
         SSL_CTX_check_private_key(ctx.get()) != 1)) {
        return refuse("cannot load TLS certificate " + context.certificateFile);
    }
    return std::make_unique<OpenSslEngine>(ctx.release(), context.verify, hasCertificate);
}

}  // namespace kelsip
