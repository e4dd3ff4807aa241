// The user agent's lines and their registrations: REGISTER built, answered,
// refreshed, failed over, retried and withdrawn.
#pragma once

#include <map>
#include <optional>
#include <vector>

#include "sip/ua/line.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

class Lines {
public:
    explicit Lines(UaContext& context) : ctx_(context) {}

    int add(const LineConfig& config);
    // Takes back the binding of a registered line and stops its timers and
    // lookups; `erase` then forgets it.
    void withdraw(Line& line);
    void erase(int id) { lines_.erase(id); }
    bool registerLine(int id);
    bool unregisterLine(int id);
    // Un-REGISTERs every registered line before shutdown; returns how many went out.
    size_t unregisterAll();
    // Stops every line's timers.
    void stop();
    [[nodiscard]] bool pendingUnregisters() const;

    [[nodiscard]] RegistrationState state(int id) const;
    [[nodiscard]] std::optional<LineInfo> info(int id) const;
    [[nodiscard]] std::vector<int> ids() const;
    bool setPush(int id, const PushParams& push);
    [[nodiscard]] PushSupport pushSupport(int id) const;

    [[nodiscard]] Line* find(int id);
    [[nodiscard]] const Line* find(int id) const;
    // The line a request from outside is meant for: by the user of its
    // Request-URI, else the first line; null when there is none.
    [[nodiscard]] Line* forRequest(const SipMessage& request);
    // The first line, which takes the calls we are offered; null when none.
    [[nodiscard]] const Line* first() const { return lines_.empty() ? nullptr : &lines_.begin()->second; }

    // Reachability (line_flow.cpp): what the SIP sockets hear about our
    // flows, and the host's network changing under them.
    void onStun(const std::vector<uint8_t>& datagram, const net::SocketAddress& source);
    void onFlowEvent(const SipTarget& flow, FlowEvent event);
    // Every registered line registers again at once from where it is now;
    // a stream line over a new connection.
    void networkChanged();
    // Whether a registered line's own address is no longer the one the
    // host would send from toward its registrar.
    [[nodiscard]] bool addressMoved() const;

private:
    void resolveAndRegister(Line& line);
    void sendRegister(Line& line);
    [[nodiscard]] SipMessage buildRegister(Line& line);
    // The Contact URI a REGISTER of the line names now.
    [[nodiscard]] std::string bindingUri(const Line& line) const;
    void onRegisterAnswer(int lineId, const SipMessage* response);
    void onRegistered(Line& line, const SipMessage& response);
    void registrationFailed(Line& line, int code, const std::string& reason);
    void setState(Line& line, RegistrationState state, int code, const std::string& reason);
    void scheduleRefresh(Line& line);
    void cancelTimers(Line& line);
    // Reachability, after each 2xx to a REGISTER: the address the registrar
    // saw, the STUN server's view, and the keep-alive schedule.
    void keepFlow(Line& line, const SipMessage& response);
    void learnAddress(Line& line, const net::SocketAddress& seen, std::string_view how);
    void scheduleKeepAlive(Line& line);
    void sendKeepAlive(Line& line);
    void askStunServer(Line& line);
    void startQuery(Line& line, StunQuery& query, const net::SocketAddress& to);
    void resendQuery(int lineId, bool keepAlive);
    void stopQuery(StunQuery& query);
    void stopKeepAlive(Line& line);
    void flowFailed(Line& line, const std::string& why);
    void reregister(Line& line);

    UaContext& ctx_;
    std::map<int, Line> lines_;
    int nextLineId_ = 1;
};

}  // namespace kelsip
