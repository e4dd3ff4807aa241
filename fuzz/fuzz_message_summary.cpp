// Fuzz target for parseMessageSummary: an accepted body, written back in our
// own form, reads as the same record, and writing that again is stable.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sip/ua/body/message_summary.h"

using velmora::fuzz::require;

namespace {

bool same(const kelsip::MessageSummary& a, const kelsip::MessageSummary& b) {
    return a.messagesWaiting == b.messagesWaiting && a.messageAccount == b.messageAccount &&
           a.newMessages == b.newMessages && a.oldMessages == b.oldMessages && a.urgentNew == b.urgentNew &&
           a.urgentOld == b.urgentOld;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = velmora::fuzz::asText(data, size);
    std::string error;
    const auto first = kelsip::parseMessageSummary(input, &error);
    if (!first) {
        require(!error.empty(), "a refused body comes with an error text", input);
        return 0;
    }
    // The account is what a server wrote on one line; it must come back
    // from our own line unchanged, or the engine would show another mailbox.
    const std::string text = kelsip::buildMessageSummary(*first);
    const auto again = kelsip::parseMessageSummary(text, &error);
    require(again.has_value(), "a written summary parses again", input, text + " -> " + error);
    require(same(*again, *first), "the record survives the round trip", input, text);
    require(kelsip::buildMessageSummary(*again) == text, "writing the reparsed summary gives the same text", input,
            text);
    return 0;
}
