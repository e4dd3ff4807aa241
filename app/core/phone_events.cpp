// Engine events applied to the phone's lines, status texts, notifications
// and call log, on the front end's thread.
#include <algorithm>

#include "app/core/phone_core.h"
#include "engine/sdk/velmora_sdk.h"

namespace velphone {

void PhoneCore::deliverEvent(const velmora_event* event, void* core) {
    if (event == nullptr || core == nullptr) return;
    static_cast<PhoneCore*>(core)->deliverEvent(event->type, event->line, event->a, event->b, event->c, event->ch,
                                                 event->s1, event->s2, event->s3);
}

void PhoneCore::deliverEvent(int type, int line, int a, int b, int c, char ch, const char* s1, const char* s2,
                             const char* s3) {
    // The texts live only during the callback: the record is copied here,
    // on the engine's thread, and applied on the front end's.
    Event event{type, line, a, b, c, ch, s1 ? s1 : "", s2 ? s2 : "", s3 ? s3 : ""};
    std::weak_ptr<int> generation = generation_;
    platform_.post([this, event = std::move(event), generation] {
        // Expired: the core is gone. Another generation: the engine that
        // sent it was stopped after it was posted.
        const auto alive = generation.lock();
        if (alive && alive == generation_) apply(event);
    });
}

void PhoneCore::apply(const Event& e) {
    switch (e.type) {
        case VELMORA_EVENT_REGISTRATION: applyRegistration(e); break;
        case VELMORA_EVENT_INCOMING_CALL: applyIncoming(e); break;
        case VELMORA_EVENT_CALL_STATE: applyCallState(e); break;
        case VELMORA_EVENT_CALL_MEDIA:
            if (const int i = lineOf(e.line); i >= 0) {
                PhoneLine& line = lines_[static_cast<size_t>(i)];
                line.secure = (e.c & VELMORA_MEDIA_SECURE) != 0;
                line.mediaRunning = (e.c & VELMORA_MEDIA_RUNNING) != 0;
                line.mediaFailed = (e.c & VELMORA_MEDIA_FAILED) != 0;
                if (line.state == LineState::Talking) line.text = line.secure ? "Talking SRTP" : "Talking";
                platform_.changed();
            }
            break;
        case VELMORA_EVENT_DTMF: setStatus(std::string("DTMF received: ") + e.ch); break;
        case VELMORA_EVENT_MESSAGE:
            platform_.notify("Message from " + e.s1, e.s2);
            setStatus("Message from " + e.s1 + ": " + e.s2);
            break;
        case VELMORA_EVENT_TRANSFER:
            if (e.b < 200) {
                setStatus("Transferring... (" + std::to_string(e.b) + ")");
            } else if (e.b < 300) {
                // The far end now talks to the target: our part of the call is done.
                if (engine_ != nullptr && lineOf(e.line) >= 0) (void)velmora_hangup(engine_, e.line);
                setStatus("Transfer completed");
            } else {
                setStatus("Transfer failed (" + std::to_string(e.b) + ")");
            }
            break;
        case VELMORA_EVENT_AUDIO_ERROR: setStatus("Audio error: " + e.s1); break;
        case VELMORA_EVENT_VOICEMAIL:
            voicemail_ = {(e.c & 1) != 0, e.a, e.b, e.s1};
            if (voicemail_.waiting) {
                setStatus("Voicemail: " + std::to_string(e.a) + " new, " + std::to_string(e.b) + " old");
            } else {
                platform_.changed();
            }
            break;
        case VELMORA_EVENT_RECORDING:
            recording_ = false;
            setStatus(e.a == 1 ? "Recording saved" : "Recording failed");
            break;
        default: break;  // 7, 8, 10: nothing the user needs to see
    }
}

void PhoneCore::applyRegistration(const Event& e) {
    switch (e.a) {
        case VELMORA_REG_REGISTERING: registrationText_ = "Registering"; break;
        case VELMORA_REG_REGISTERED: registrationText_ = "\u25CF Registered"; break;
        case VELMORA_REG_FAILED: registrationText_ = "Registration failed: " + e.s1; break;
        case VELMORA_REG_UNREGISTERING: registrationText_ = "Un-registering..."; break;
        default: registrationText_ = "Not registered"; break;
    }
    platform_.changed();
}

void PhoneCore::applyIncoming(const Event& e) {
    if (lineOf(e.line) >= 0) return;
    if (doNotDisturb_) {
        if (engine_ != nullptr) (void)velmora_reject(engine_, e.line);
        setStatus("Do not disturb: rejected");
        return;
    }
    const int index = freeLine();
    if (index < 0) {
        if (engine_ != nullptr) (void)velmora_reject(engine_, e.line);
        setStatus("Both lines busy: rejected");
        return;
    }
    PhoneLine& line = lines_[static_cast<size_t>(index)];
    line = PhoneLine{};
    line.state = LineState::Ringing;
    line.call = e.line;
    line.number = e.s1;
    line.name = e.s2;
    line.incoming = true;
    line.started = platform_.wallSeconds();
    const std::string caller = e.s2.empty() ? e.s1 : e.s2 + " <" + e.s1 + ">";
    line.text = "Incoming call from " + caller;
    platform_.notify("Incoming call", caller);
    platform_.changed();
    if (settings_.autoAnswer && engine_ != nullptr) (void)velmora_answer(engine_, e.line);
}

void PhoneCore::applyCallState(const Event& e) {
    const int index = lineOf(e.line);
    // A call rejected for DND or busy lines has no line; its end is not news.
    if (index < 0) return;
    PhoneLine& line = lines_[static_cast<size_t>(index)];
    switch (e.a) {
        case VELMORA_CALL_CALLING:
        case VELMORA_CALL_PROCEEDING: line.text = "Calling"; break;
        case VELMORA_CALL_RINGING: line.text = "Ringing"; break;
        case VELMORA_CALL_INCOMING: break;  // the offer event set the text
        case VELMORA_CALL_CONNECTED:
            if (!line.answered) {
                line.answered = true;
                line.connected = platform_.wallSeconds();
            }
            line.state = LineState::Talking;
            line.text = line.secure ? "Talking SRTP" : "Talking";
            break;
        case VELMORA_CALL_ON_HOLD:
            line.state = LineState::OnHold;
            line.text = "On hold";
            break;
        case VELMORA_CALL_HELD_BY_PEER:
            line.state = LineState::HeldByPeer;
            line.text = "Held by peer";
            break;
        case VELMORA_CALL_DISCONNECTING:
            line.state = LineState::Ending;
            line.text = "Ending";
            break;
        case VELMORA_CALL_TERMINATED: endCall(line, e); break;
        default: break;
    }
    platform_.changed();
}

void PhoneCore::endCall(PhoneLine& line, const Event& e) {
    const int64_t now = platform_.wallSeconds();
    CallLogEntry entry;
    entry.number = line.number;
    entry.name = line.name;
    entry.start = line.started;
    entry.duration = line.answered ? static_cast<int32_t>(std::max<int64_t>(0, now - line.connected)) : 0;
    entry.outcome = e.s2;
    if (line.incoming && !line.answered) {
        entry.kind = CallKind::Missed;
        ++missedCalls_;
        platform_.notify("Missed call", line.name.empty() ? line.number : line.name);
    } else {
        entry.kind = line.incoming ? CallKind::Incoming : CallKind::Outgoing;
    }
    callLog_.push_back(entry);
    if (callLog_.size() > kCallLogLimit) callLog_.erase(callLog_.begin());
    saveCallLog();
    const std::string text = e.s2.empty() ? "Call ended" : "Call ended: " + e.s2;
    line = PhoneLine{};
    // The idle line keeps the last word until the next call takes it.
    line.text = text;
    if (recording_ && std::all_of(lines_.begin(), lines_.end(), [](const PhoneLine& l) { return l.state == LineState::Idle; }) &&
        engine_ != nullptr) {
        (void)velmora_stop_recording(engine_);
    }
    setStatus(text);
}

}  // namespace velphone
