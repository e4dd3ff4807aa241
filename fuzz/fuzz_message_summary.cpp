// Fuzz target for parseMessageSummary.
#include "fuzz/fuzz_support.h"
#include "sip/ua/body/message_summary.h"

using velmora::fuzz::require;

VELMORA_FUZZ_TARGET {
    std::string error;
    const auto first = kelsip::parseMessageSummary(input, &error);
    require(first || !error.empty(), "a refused body comes with an error text", input);
    if (!first) return;
    const std::string text = kelsip::buildMessageSummary(*first);
    const auto again = kelsip::parseMessageSummary(text, &error);
    require(again && again->messagesWaiting == first->messagesWaiting &&
                again->messageAccount == first->messageAccount && again->newMessages == first->newMessages &&
                again->oldMessages == first->oldMessages && again->urgentNew == first->urgentNew &&
                again->urgentOld == first->urgentOld,
            "the record survives the round trip", input, text + " -> " + error);
    require(kelsip::buildMessageSummary(*again) == text, "writing the reparsed summary gives the same text", input,
            text);
}
