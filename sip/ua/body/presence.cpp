// The PIDF presence document with its RPID person element, written byte for byte.
#include "sip/ua/body/presence.h"

namespace kelsip {

namespace {

void appendEscaped(std::string& out, std::string_view text) {
    for (const char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&apos;"; break;
            default: out += c;
        }
    }
}

}  // namespace

std::string xmlEscape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    appendEscaped(out, text);
    return out;
}

std::string buildPresenceDocument(std::string_view entity, const PresenceStatus& status) {
    std::string out;
    out.reserve(512 + entity.size() + 2 * status.note.size() + status.activity.size() + status.contact.size());
    out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
           "<presence xmlns=\"urn:ietf:params:xml:ns:pidf\""
           " xmlns:dm=\"urn:ietf:params:xml:ns:pidf:data-model\""
           " xmlns:rpid=\"urn:ietf:params:xml:ns:pidf:rpid\" entity=\"";
    appendEscaped(out, entity);
    out += "\">\r\n <tuple id=\"t1\">\r\n  <status><basic>";
    out += status.open ? "open" : "closed";
    out += "</basic></status>\r\n";
    if (!status.contact.empty()) {
        out += "  <contact>";
        appendEscaped(out, status.contact);
        out += "</contact>\r\n";
    }
    if (!status.note.empty()) {
        out += "  <note>";
        appendEscaped(out, status.note);
        out += "</note>\r\n";
    }
    out += " </tuple>\r\n";
    // Watchers that read only the tuple and those that read only the person
    // element should both see the note, so with an activity it goes in both.
    if (!status.activity.empty()) {
        out += " <dm:person id=\"p1\">\r\n  <rpid:activities><rpid:";
        appendEscaped(out, status.activity);
        out += "/></rpid:activities>\r\n";
        if (!status.note.empty()) {
            out += "  <dm:note>";
            appendEscaped(out, status.note);
            out += "</dm:note>\r\n";
        }
        out += " </dm:person>\r\n";
    }
    out += "</presence>\r\n";
    return out;
}

}  // namespace kelsip
