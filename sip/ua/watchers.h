// The watchers of our presence: SUBSCRIBEs for it taken, refreshed and
// ended, and the NOTIFYs that carry each line's PIDF document.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sip/ua/lines.h"
#include "sip/ua/subscription.h"
#include "sip/ua/ua_context.h"

namespace kelsip {

class Watchers {
public:
    Watchers(UaContext& context, Lines& lines) : ctx_(context), lines_(lines) {}

    // A SUBSCRIBE outside any dialog.
    void onSubscribeRequest(const std::string& key, const SipMessage& request, const SipTarget& source);
    [[nodiscard]] Watcher* findByDialog(const SipMessage& request);
    // A SUBSCRIBE within a watcher's dialog: a refresh or its end.
    void onSubscribe(Watcher& watcher, const std::string& key, const SipMessage& request);
    // Tells a line's watchers its presence changed.
    void notifyLine(int line);
    // Ends every watcher of a line with `reason` ("noresource": the line is gone).
    void endLine(int line, const std::string& reason);
    [[nodiscard]] std::vector<std::string> addresses(int line) const;
    void clear() { watchers_.clear(); }

private:
    // The expiry a watcher's SUBSCRIBE gets; none after a 423 was sent.
    [[nodiscard]] std::optional<int64_t> watcherExpires(const std::string& key, const SipMessage& request);
    void notifyWatcher(Watcher& watcher, const std::string& subscriptionState);
    void endWatcher(int id, const std::string& reason);
    void armWatcherExpiry(Watcher& watcher, int seconds);

    UaContext& ctx_;
    Lines& lines_;
    std::map<int, Watcher> watchers_;
    int nextWatcherId_ = 1;
};

}  // namespace kelsip
