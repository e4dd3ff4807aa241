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

private:
    void resolveAndRegister(Line& line);
    void sendRegister(Line& line);
    [[nodiscard]] SipMessage buildRegister(Line& line);
    void onRegisterAnswer(int lineId, const SipMessage* response);
    void onRegistered(Line& line, const SipMessage& response);
    void registrationFailed(Line& line, int code, const std::string& reason);
    void setState(Line& line, RegistrationState state, int code, const std::string& reason);
    void scheduleRefresh(Line& line);
    void cancelTimers(Line& line);

    UaContext& ctx_;
    std::map<int, Line> lines_;
    int nextLineId_ = 1;
};

}  // namespace kelsip
