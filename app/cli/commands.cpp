// The terminal phone's commands, run on the core's thread.
#include <cstdlib>
#include <sstream>
#include <vector>

#include "app/cli/console.h"

namespace velphone {

namespace {

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// The rest of the line after the first `skip` words.
std::string rest(const std::string& line, size_t skip) {
    std::istringstream in(line);
    std::string w;
    for (size_t i = 0; i < skip && in >> w; ++i) {
    }
    std::string tail;
    std::getline(in, tail);
    const auto first = tail.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : tail.substr(first);
}

// "1" or "2" to a line index; -1 (the line at hand) when absent or unreadable.
int lineIndex(const std::vector<std::string>& w, size_t at) {
    if (at >= w.size()) return -1;
    if (w[at] == "1") return 0;
    if (w[at] == "2") return 1;
    return -1;
}

bool onOff(const std::vector<std::string>& w, size_t at, bool& value) {
    if (at >= w.size() || (w[at] != "on" && w[at] != "off")) return false;
    value = w[at] == "on";
    return true;
}

const char* kindName(CallKind kind) {
    switch (kind) {
        case CallKind::Incoming: return "in";
        case CallKind::Missed: return "missed";
        case CallKind::Outgoing: break;
    }
    return "out";
}

void printStatus(PhoneCore& core, Console& console) {
    console.print("status: " + core.statusText());
    console.print("registration: " + core.registrationText());
    for (int i = 0; i < PhoneCore::kLines; ++i) {
        const auto& line = core.lines()[static_cast<size_t>(i)];
        console.print("line " + std::to_string(i + 1) + ": " + (line.text.empty() ? "idle" : line.text) +
                      (line.number.empty() ? "" : " (" + line.number + ")"));
    }
    const auto& vm = core.voicemail();
    console.print("voicemail: " + (vm.waiting ? std::to_string(vm.newCount) + " new, " + std::to_string(vm.oldCount) + " old"
                                              : std::string("none")));
    console.print(std::string("microphone ") + (core.microphoneMuted() ? "muted" : "on") + ", speaker " +
                  (core.speakerMuted() ? "muted" : "on") + ", do not disturb " + (core.doNotDisturb() ? "on" : "off") +
                  ", auto answer " + (core.settings().autoAnswer ? "on" : "off"));
}

bool contactsCommand(PhoneCore& core, Console& console, const std::string& line, const std::vector<std::string>& w) {
    const std::string what = w.size() > 1 ? w[1] : "list";
    if (what == "list") {
        const auto& list = core.contacts();
        if (list.empty()) console.print("no contacts");
        for (size_t i = 0; i < list.size(); ++i) {
            console.print(std::to_string(i + 1) + ". " + list[i].name + "  " + list[i].number);
        }
        return true;
    }
    // "add NAME... NUMBER", "edit N NAME... NUMBER": the number is the last word.
    const bool edit = what == "edit";
    const size_t nameFrom = edit ? 3 : 2;
    if ((what == "add" || edit) && w.size() > nameFrom) {
        Contact contact;
        contact.number = w.back();
        const std::string named = rest(line, nameFrom);
        contact.name = named.substr(0, named.size() - contact.number.size());
        while (!contact.name.empty() && contact.name.back() == ' ') contact.name.pop_back();
        if (contact.name.empty()) contact.name = contact.number;
        if (!edit) {
            core.addContact(contact);
            console.print("contact added");
        } else if (core.editContact(std::strtoul(w[2].c_str(), nullptr, 10) - 1, contact)) {
            console.print("contact changed");
        } else {
            console.print("no such contact");
        }
        return true;
    }
    if (what == "delete" && w.size() == 3) {
        console.print(core.removeContact(std::strtoul(w[2].c_str(), nullptr, 10) - 1) ? "contact deleted" : "no such contact");
        return true;
    }
    console.print("contacts [list] | contacts add NAME NUMBER | contacts edit N NAME NUMBER | contacts delete N");
    return true;
}

}  // namespace

bool runCommand(PhoneCore& core, Console& console, const std::string& line) {
    const auto w = words(line);
    if (w.empty() || w[0][0] == '#') return true;
    const std::string& c = w[0];
    bool flag = false;
    if (c == "quit" || c == "exit") return false;
    if ((c == "dial" || c == "call") && w.size() >= 2) {
        core.dial(rest(line, 1));
    } else if (c == "answer") {
        core.answer(lineIndex(w, 1));
    } else if (c == "reject") {
        core.reject(lineIndex(w, 1));
    } else if (c == "hangup") {
        core.hangup(lineIndex(w, 1));
    } else if (c == "hold") {
        core.hold(lineIndex(w, 1));
    } else if (c == "resume") {
        core.resume(lineIndex(w, 1));
    } else if (c == "transfer" && w.size() >= 2) {
        core.transfer(w[1], lineIndex(w, 2));
    } else if (c == "dtmf" && w.size() >= 2) {
        for (const char digit : w[1]) core.sendDtmf(digit, lineIndex(w, 2));
    } else if (c == "record" && onOff(w, 1, flag)) {
        core.setRecording(flag);
    } else if (c == "mute" && w.size() == 3 && (w[1] == "mic" || w[1] == "speaker") && onOff(w, 2, flag)) {
        if (w[1] == "mic") {
            core.setMicrophoneMuted(flag);
        } else {
            core.setSpeakerMuted(flag);
        }
        console.print(w[1] + (flag ? " muted" : " on"));
    } else if (c == "audiotest" && onOff(w, 1, flag)) {
        core.setAudioTest(flag);
    } else if (c == "message" && w.size() >= 3) {
        core.sendMessage(w[1], rest(line, 2));
    } else if (c == "contacts") {
        return contactsCommand(core, console, line, w);
    } else if (c == "recent") {
        const auto& log = core.callLog();
        if (log.empty()) console.print("no calls");
        const int64_t now = console.wallSeconds();
        for (auto it = log.rbegin(); it != log.rend(); ++it) {
            console.print(formatListTime(it->start, now) + "  " + kindName(it->kind) + "  " + it->number +
                          (it->name.empty() ? "" : " (" + it->name + ")") + "  " + formatDuration(it->duration) +
                          (it->outcome.empty() ? "" : "  " + it->outcome));
        }
    } else if (c == "voicemail") {
        core.callVoicemail();
    } else if (c == "dnd" && onOff(w, 1, flag)) {
        core.setDoNotDisturb(flag);
    } else if (c == "autoanswer" && onOff(w, 1, flag)) {
        core.setAutoAnswer(flag);
        console.print(std::string("auto answer ") + (flag ? "on" : "off"));
    } else if (c == "level" && w.size() == 2) {
        core.setMicLevel(std::atoi(w[1].c_str()));
        console.print("microphone level " + std::to_string(core.settings().micLevel));
    } else if (c == "siplog" && onOff(w, 1, flag)) {
        core.setLogToFile(flag);
    } else if (c == "status") {
        printStatus(core, console);
    } else {
        console.print(
            "commands: dial NUMBER, answer [LINE], reject [LINE], hangup [LINE], hold [LINE], resume [LINE], "
            "transfer TARGET [LINE], dtmf DIGITS [LINE], record on|off, mute mic|speaker on|off, audiotest on|off, "
            "message TARGET TEXT, contacts ..., recent, voicemail, dnd on|off, autoanswer on|off, level 0-100, "
            "siplog on|off, status, wait SECONDS, wait-for TEXT, quit");
    }
    return true;
}

}  // namespace velphone
