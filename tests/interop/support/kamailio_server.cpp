// Kamailio on the process runner: a configuration written from the options,
// readiness by OPTIONS, and bindings checked by asking Kamailio to route.
#include "interop/support/kamailio_server.h"

#include <filesystem>

#include "sip/syntax/message.h"
#include "sip/net/socket.h"
#include "support/free_port.h"

namespace kelsip::test {

namespace {

std::string quotedForConfig(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

bool acceptsTcp(const net::SocketAddress& address) {
    net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Tcp);
    if (!socket.valid() || !socket.setNonBlocking(true)) return false;
    const auto status = socket.connect(address);
    if (status == net::ConnectStatus::Connected) return true;
    if (status == net::ConnectStatus::Failed) return false;
    net::PollEntry entry;
    entry.socket = socket.native();
    entry.wantWrite = true;
    return net::poll(std::span<net::PollEntry>(&entry, 1), 200) > 0 && socket.connectResult() == 0;
}

// OPTIONS `requestUri` to `to` from a fresh UDP socket, again every 250 ms;
// the final status, or 0 when none came within `timeout`.
int sendOptions(const net::SocketAddress& to, const std::string& requestUri, std::chrono::milliseconds timeout) {
    net::Socket socket = net::Socket::open(net::AddressFamily::V4, net::SocketType::Udp);
    // Connected, so that the Via names the address the system sends from
    // toward `to` (loopback, or a test's link to a network namespace).
    if (!socket.valid() || !socket.setNonBlocking(true) ||
        !socket.bind(to.isLoopback() ? net::SocketAddress::loopback(net::AddressFamily::V4)
                                     : net::SocketAddress::any(net::AddressFamily::V4)) ||
        socket.connect(to) != net::ConnectStatus::Connected) {
        return 0;
    }
    const std::string local = socket.localAddress()->toString();
    const std::string id = std::to_string(socket.localAddress()->port());
    const std::string request = "OPTIONS " + requestUri + " SIP/2.0\r\nVia: SIP/2.0/UDP " + local +
                                ";rport;branch=z9hG4bKprobe" + id + "\r\nMax-Forwards: 70\r\nFrom: <sip:probe@" + local +
                                ">;tag=p" + id + "\r\nTo: <" + requestUri + ">\r\nCall-ID: probe-" + id +
                                "\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (auto next = std::chrono::steady_clock::now(); std::chrono::steady_clock::now() < deadline;) {
        if (std::chrono::steady_clock::now() >= next) {
            static_cast<void>(socket.sendTo(request.data(), request.size(), to));
            next += std::chrono::milliseconds(250);
        }
        net::PollEntry entry;
        entry.socket = socket.native();
        entry.wantRead = true;
        if (net::poll(std::span<net::PollEntry>(&entry, 1), 20) <= 0) continue;
        char buffer[65536];
        net::SocketAddress from;
        const auto r = socket.receiveFrom(buffer, sizeof buffer, from);
        const auto answer = r.ok() ? SipMessage::parse(std::string_view(buffer, r.bytes)) : std::nullopt;
        if (answer && !answer->isRequest && answer->statusCode >= 200) return answer->statusCode;
    }
    return 0;
}

// Where Debian keeps its modules, or empty when they are not there.
std::string findModules() {
    for (const char* folder : {"/usr/lib/x86_64-linux-gnu/kamailio/modules", "/usr/lib/kamailio/modules",
                               "/usr/local/lib64/kamailio/modules", "/usr/local/lib/kamailio/modules"}) {
        std::error_code ec;
        if (std::filesystem::exists(std::filesystem::path(folder) / "registrar.so", ec)) return folder;
    }
    return {};
}

}  // namespace

std::string KamailioServer::config(const KamailioOptions& o, uint16_t port, uint16_t tlsPort,
                                   const std::string& modules) {
    const std::string p = std::to_string(port);
    std::string c = "#!KAMAILIO\n"
                    "# Registrar and proxy for one interop test, written by its fixture.\n"
                    "debug=2\nlog_stderror=yes\nchildren=2\ntcp_children=2\n"
                    // No names to look up: the machine may have no DNS at all.
                    "auto_aliases=no\ndns=no\nrev_dns=no\n"
                    "listen=udp:127.0.0.1:" + p + "\nlisten=tcp:127.0.0.1:" + p + "\n";
    for (const std::string& ip : o.listenAddresses) c += "listen=udp:" + ip + ":" + p + "\nlisten=tcp:" + ip + ":" + p + "\n";
    if (tlsPort != 0) c += "enable_tls=yes\nlisten=tls:127.0.0.1:" + std::to_string(tlsPort) + "\n";
    for (const std::string& domain : o.domains) c += "alias=" + quotedForConfig(domain) + "\n";
    c += "mpath=" + quotedForConfig(modules + "/") + "\n";
    for (const char* module : {"tm", "sl", "rr", "pv", "maxfwd", "usrloc", "registrar", "textops", "siputils", "auth",
                               "htable", "xlog"}) {
        c += "loadmodule \"" + std::string(module) + ".so\"\n";
    }
    if (tlsPort != 0) {
        // Phones are not asked for certificates.
        c += "loadmodule \"tls.so\"\n"
             "modparam(\"tls\", \"tls_method\", \"TLSv1.2+\")\n"
             "modparam(\"tls\", \"certificate\", " + quotedForConfig(o.tlsCertificate) + ")\n"
             "modparam(\"tls\", \"private_key\", " + quotedForConfig(o.tlsKey) + ")\n"
             "modparam(\"tls\", \"verify_certificate\", 0)\n"
             "modparam(\"tls\", \"require_certificate\", 0)\n";
    }
    c += "modparam(\"usrloc\", \"db_mode\", 0)\n"
         "modparam(\"registrar\", \"min_expires\", " + std::to_string(o.minExpires) + ")\n"
         "modparam(\"registrar\", \"max_expires\", 3600)\n"
         "modparam(\"registrar\", \"default_expires\", 3600)\n"
         "modparam(\"auth\", \"nonce_expire\", " + std::to_string(o.nonceExpires) + ")\n"
         "modparam(\"htable\", \"htable\", \"users=>size=4;\")\n"
         "event_route[htable:mod-init] {\n"
         "    $sht(users=>alice) = \"secret\";\n"
         "    $sht(users=>bob) = \"bobsecret\";\n"
         "}\n"
         "request_route {\n"
         "    xlog(\"L_NOTICE\", \"request $rm from $fU via $pr:$si:$sp\\n\");\n"
         "    if (!mf_process_maxfwd_header(\"10\")) { sl_send_reply(\"483\", \"Too Many Hops\"); exit; }\n"
         "    if (is_method(\"REGISTER\")) {\n"
         // Unknown users and requests without credentials get the challenge
         // without a detour through an error line.
         "        if ($sht(users=>$au) == $null || !pv_www_authenticate(\"$td\", \"$sht(users=>$au)\", \"0\")) {\n"
         "            www_challenge(\"$td\", \"1\"); exit;\n"
         "        }\n"
         "        if (!save(\"location\")) { sl_reply_error(); exit; }\n"
         "        xlog(\"L_NOTICE\", \"saved binding of $tU, Expires $hdr(Expires)\\n\");\n"
         "        exit;\n"
         "    }\n"
         "    if (is_method(\"OPTIONS\") && uri == myself && $rU == $null) { sl_send_reply(\"200\", \"OK\"); exit; }\n"
         "    if (is_method(\"INVITE|MESSAGE\") && from_uri == myself) {\n"
         "        if ($sht(users=>$au) == $null || !pv_proxy_authenticate(\"$fd\", \"$sht(users=>$au)\", \"0\")) {\n"
         "            proxy_challenge(\"$fd\", \"1\"); exit;\n"
         "        }\n"
         "        consume_credentials();\n"
         "    }\n"
         "    if (has_totag()) {\n"
         "        if (loose_route() || (is_method(\"ACK\") && t_check_trans())) { t_relay(); exit; }\n"
         "        sl_send_reply(\"404\", \"Not Found\"); exit;\n"
         "    }\n"
         "    if (is_method(\"INVITE|SUBSCRIBE\")) record_route();\n"
         "    if (uri == myself && !lookup(\"location\")) { sl_send_reply(\"404\", \"Not Found\"); exit; }\n"
         "    if (!t_relay()) sl_reply_error();\n"
         "}\n";
    return c;
}

bool KamailioServer::start(const KamailioOptions& options, std::string* error) {
    const std::string modules = findModules();
    if (modules.empty()) {
        *error = "Kamailio's modules not found (looked in /usr/lib/x86_64-linux-gnu/kamailio/modules)";
        return false;
    }
    Launch kamailio;
    kamailio.program = "kamailio";
    kamailio.package = "kamailio";
    kamailio.prepare = [&](ProcessOptions& run, std::string* failure) {
        tlsPort_ = options.tlsCertificate.empty() ? 0 : freeLoopbackPort();
        if (!writeTextFile(dir_.file("kamailio.cfg"), config(options, port_, tlsPort_, modules))) {
            *failure = "cannot write kamailio.cfg";
            return false;
        }
        const std::string dir = dir_.path().string();
        // Foreground (-DD), log to standard error (-E), small memory pools.
        run.arguments = {"-f", dir_.file("kamailio.cfg").string(), "-P", dir_.file("kamailio.pid").string(),
                         "-w", dir, "-Y", dir, "-DD", "-E", "-m", "32", "-M", "4"};
        return true;
    };
    kamailio.ready = [&] {
        return sendOptions(address(), "sip:" + hostPort(), std::chrono::milliseconds(100)) == 200 &&
               acceptsTcp(address()) &&
               (tlsPort_ == 0 || acceptsTcp(net::SocketAddress::loopback(net::AddressFamily::V4, tlsPort_)));
    };
    kamailio.lostPort = [&] { return log().find("Address already in use") != std::string::npos; };
    return launch(kamailio, error);
}

int KamailioServer::optionsTo(const std::string& user, const std::string& domain,
                              std::chrono::milliseconds timeout) const {
    return sendOptions(address(), "sip:" + user + "@" + (domain.empty() ? hostPort() : domain), timeout);
}

int KamailioServer::count(const std::string& needle) const {
    const std::string text = log();
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size())) ++n;
    return n;
}

int KamailioServer::requestsSeen(const std::string& method, const std::string& fromUser) const {
    return count("request " + method + " from " + fromUser + " via ");
}

int KamailioServer::bindingsSaved(const std::string& user) const { return count("saved binding of " + user + ","); }

}  // namespace kelsip::test
